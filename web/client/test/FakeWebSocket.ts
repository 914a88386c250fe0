import type { WebSocketLike } from '../src/BrowserEnvironment.js';

/**
 * A WebSocket whose far end the test plays: it records what the client sends and lets the test
 * accept, refuse, answer and drop the connection, the way a browser reports each of them.
 */
export class FakeWebSocket implements WebSocketLike {
  static instances: FakeWebSocket[] = [];

  static reset(): void {
    FakeWebSocket.instances = [];
  }

  static get latest(): FakeWebSocket {
    const socket = FakeWebSocket.instances.at(-1);
    if (!socket) throw new Error('No WebSocket was created');
    return socket;
  }

  readonly url: string;
  readyState = 0;
  binaryType = 'blob';
  onopen: ((event: unknown) => void) | null = null;
  onmessage: ((event: { data: unknown }) => void) | null = null;
  onerror: ((event: unknown) => void) | null = null;
  onclose: ((event: { code?: number; reason?: string; wasClean?: boolean }) => void) | null = null;
  readonly sent: string[] = [];
  closedWith: { code: number | undefined; reason: string | undefined } | null = null;

  constructor(url: string) {
    this.url = url;
    FakeWebSocket.instances.push(this);
  }

  send(data: string): void {
    if (this.readyState !== 1) throw new Error('InvalidStateError: not open');
    this.sent.push(data);
  }

  close(code?: number, reason?: string): void {
    if (this.readyState >= 2) return;
    this.closedWith = { code, reason };
    this.readyState = 2;
    // Browsers report the close later, as an event.
    queueMicrotask(() => this.#finishClose(code ?? 1005, true));
  }

  /** The messages the client sent, parsed. */
  get sentMessages(): Array<Record<string, unknown>> {
    return this.sent.map((text) => JSON.parse(text) as Record<string, unknown>);
  }

  get sentTypes(): string[] {
    return this.sentMessages.map((m) => String(m.type));
  }

  // ---- the far end --------------------------------------------------------------------------

  accept(): void {
    this.readyState = 1;
    this.onopen?.({});
  }

  /** Accepts and greets like the helper; fields can be overridden. */
  acceptWithHello(overrides: Record<string, unknown> = {}): void {
    this.accept();
    this.receiveJson({
      type: 'hello',
      app: 'velmora-audio-helper',
      version: '1.0.0',
      platform: 'linux',
      sampleRate: 16000,
      channels: 1,
      format: 'f32le',
      ...overrides,
    });
  }

  receiveJson(message: unknown): void {
    this.receiveText(JSON.stringify(message));
  }

  receiveText(text: string): void {
    this.onmessage?.({ data: text });
  }

  receiveBinary(data: ArrayBuffer): void {
    this.onmessage?.({ data });
  }

  /** The connection fails before opening (nothing listens, handshake refused, blocked). */
  failToConnect(): void {
    this.readyState = 3;
    this.onerror?.({});
    this.onclose?.({ code: 1006, reason: '', wasClean: false });
  }

  /** The far end goes away (helper quits or crashes). */
  drop(): void {
    this.readyState = 3;
    this.onerror?.({});
    this.#finishClose(1006, false);
  }

  #finishClose(code: number, wasClean: boolean): void {
    this.readyState = 3;
    this.onclose?.({ code, reason: '', wasClean });
  }
}

/** One binary audio message holding the given samples, little-endian. */
export function frameOf(samples: ArrayLike<number>): ArrayBuffer {
  const buffer = new ArrayBuffer(samples.length * 4);
  const view = new DataView(buffer);
  for (let i = 0; i < samples.length; i++) view.setFloat32(i * 4, samples[i]!, true);
  return buffer;
}
