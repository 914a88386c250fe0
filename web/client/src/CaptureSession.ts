import type { WebSocketLike } from './BrowserEnvironment.js';
import { decodeFrame } from './frames.js';
import { errorText, HelperError } from './HelperError.js';
import type { CaptureSettings } from './options.js';
import type { ClientMessage } from './protocol.js';
import type { ConnectionStatus, EmitEvent, StreamState, StreamStatus } from './status.js';

/** What the capture needs from the connection it runs over. */
export interface CaptureLink {
  readonly status: ConnectionStatus;
  /** The WebSocket of the current attempt or connection. */
  readonly socket: WebSocketLike | null;
  send(message: ClientMessage): void;
}

interface PendingStart {
  promise: Promise<void>;
  resolve: () => void;
  reject: (error: HelperError) => void;
  /** The connection the start was asked on: a start never moves to another connection. */
  socket: WebSocketLike;
  /** Whether "start" has gone to the helper (the pass was fetched). */
  sent: boolean;
  timer: ReturnType<typeof setTimeout> | undefined;
}

interface PendingStop {
  resolve: () => void;
  timer: ReturnType<typeof setTimeout>;
}

/**
 * Whether this page receives audio: fetches a start pass and asks the helper to start, follows
 * the helper's answers (started, stopped, taken over, errors), delivers the frames, and
 * remembers to start again when a stream was cut by a lost connection.
 */
export class CaptureSession {
  readonly #settings: CaptureSettings;
  readonly #link: CaptureLink;
  readonly #emit: EmitEvent;

  #stream: StreamStatus = { state: 'stopped' };
  #pendingStart: PendingStart | null = null;
  #pendingStops: PendingStop[] = [];
  #resumeWanted = false;
  #framesReceived = 0;

  constructor(settings: CaptureSettings, link: CaptureLink, emit: EmitEvent) {
    this.#settings = settings;
    this.#link = link;
    this.#emit = emit;
  }

  /** The current stream status (the caller must not change it). */
  get status(): StreamStatus {
    return this.#stream;
  }

  get framesReceived(): number {
    return this.#framesReceived;
  }

  start(): Promise<void> {
    if (this.#pendingStart) return this.#pendingStart.promise;
    const socket = this.#link.socket;
    if (this.#link.status.state !== 'ready' || !socket) {
      return Promise.reject(
        new HelperError('not_ready', `Not connected to the audio helper (${this.#link.status.state}).`),
      );
    }
    let resolve!: () => void;
    let reject!: (error: HelperError) => void;
    const promise = new Promise<void>((res, rej) => {
      resolve = res;
      reject = rej;
    });
    const pending: PendingStart = { promise, resolve, reject, socket, sent: false, timer: undefined };
    this.#pendingStart = pending;
    this.#setStream({ state: 'starting' });
    void this.#requestPassAndStart(pending);
    return promise;
  }

  stop(): Promise<void> {
    this.#resumeWanted = false;
    if (this.#pendingStart) {
      this.#failStart(this.#pendingStart, new HelperError('cancelled', 'Stopped before the audio started.'), 'stopped');
    }
    this.#setStream({ state: 'stopped' });
    if (!this.#link.socket || this.#link.status.state !== 'ready') return Promise.resolve();
    this.#link.send({ type: 'stop' });
    return new Promise<void>((resolve) => {
      const entry: PendingStop = {
        resolve,
        timer: setTimeout(() => {
          this.#pendingStops = this.#pendingStops.filter((e) => e !== entry);
          resolve();
        }, this.#settings.stopTimeoutMs),
      };
      this.#pendingStops.push(entry);
    });
  }

  /** The page disconnects: a start under way fails as cancelled, stops waiting resolve. */
  cancel(message: string): void {
    this.#resumeWanted = false;
    if (this.#pendingStart) this.#failStart(this.#pendingStart, new HelperError('cancelled', message), 'stopped');
    this.#settleStops();
  }

  /** Marks the stream stopped without asking the helper (the connection is going away). */
  markStopped(): void {
    this.#setStream({ state: 'stopped' });
  }

  /** The connection ended while ready: what was under way fails, and a stream is to resume. */
  connectionLost(): void {
    const wasStreaming = this.#stream.state === 'streaming' || this.#stream.state === 'starting';
    const lost = new HelperError('connection_lost', 'The connection to the audio helper was lost.');
    if (this.#pendingStart) this.#failStart(this.#pendingStart, lost, 'stopped');
    else if (this.#stream.state === 'streaming') this.#setStream({ state: 'stopped', error: lost });
    this.#settleStops();
    if (wasStreaming && this.#settings.resumeAfterReconnect) this.#resumeWanted = true;
  }

  /** Whether to start again now that the connection is back; asks only once per loss. */
  takeResume(): boolean {
    const wanted = this.#resumeWanted;
    this.#resumeWanted = false;
    return wanted;
  }

  // ---- the helper's answers ---------------------------------------------------------------

  onStarted(): void {
    const pending = this.#pendingStart;
    // A "started" nobody waits for answers a start that stop() has already withdrawn.
    if (!pending) return;
    this.#pendingStart = null;
    clearTimeout(pending.timer);
    this.#setStream({ state: 'streaming' });
    pending.resolve();
  }

  onStopped(reason: string | undefined): void {
    if (reason === 'taken_over') {
      this.#resumeWanted = false;
      const error = new HelperError('taken_over', 'Another page started receiving the audio.');
      if (this.#pendingStart) this.#failStart(this.#pendingStart, error, 'taken-over');
      else this.#setStream({ state: 'taken-over', error });
      this.#emit('takenOver');
      return;
    }
    const stop = this.#pendingStops.shift();
    if (stop) {
      clearTimeout(stop.timer);
      stop.resolve();
      return;
    }
    // The helper stopped on its own (for example after its port was changed).
    const error = new HelperError('stopped_by_helper', 'The audio helper stopped the capture.');
    if (this.#pendingStart?.sent) this.#failStart(this.#pendingStart, error, 'stopped');
    else if (this.#stream.state === 'streaming') this.#setStream({ state: 'stopped', error });
  }

  onError(error: HelperError): void {
    const deviceError = error.code === 'device_error';
    if (deviceError) this.#resumeWanted = false;
    if (this.#pendingStart?.sent) {
      this.#failStart(this.#pendingStart, error, deviceError ? 'device-error' : 'stopped');
    } else if (deviceError) {
      this.#setStream({ state: 'device-error', error });
    } else {
      this.#emit('error', error);
      return;
    }
    if (deviceError) this.#emit('deviceError', error);
  }

  onAudio(data: ArrayBuffer | ArrayBufferView): void {
    // Frames in flight after stop() or a take-over belong to nobody.
    if (this.#stream.state !== 'streaming') return;
    this.#framesReceived++;
    this.#emit('audio', decodeFrame(data));
  }

  // ---- start and stop ---------------------------------------------------------------------

  async #requestPassAndStart(pending: PendingStart): Promise<void> {
    let pass: unknown;
    try {
      pass = await this.#settings.getPass();
    } catch (error) {
      this.#failStart(
        pending,
        new HelperError('pass_unavailable', `Could not get a start pass from the server: ${errorText(error)}`, {
          cause: error,
        }),
        'stopped',
      );
      return;
    }
    if (this.#pendingStart !== pending) return;
    if (typeof pass !== 'string' || pass.length === 0) {
      this.#failStart(pending, new HelperError('pass_unavailable', 'The server returned no start pass.'), 'stopped');
      return;
    }
    if (this.#link.socket !== pending.socket) {
      this.#failStart(pending, new HelperError('connection_lost', 'The connection to the audio helper was lost.'), 'stopped');
      return;
    }
    this.#link.send({ type: 'start', pass });
    pending.sent = true;
    pending.timer = setTimeout(() => {
      if (this.#pendingStart !== pending) return;
      this.#failStart(
        pending,
        new HelperError('start_timeout', 'The audio helper did not answer the request to start.'),
        'stopped',
      );
      // Withdraw the request so that a late "started" does not leave the helper streaming.
      this.#link.send({ type: 'stop' });
    }, this.#settings.startTimeoutMs);
  }

  #failStart(pending: PendingStart, error: HelperError, state: StreamState): void {
    if (this.#pendingStart !== pending) return;
    this.#pendingStart = null;
    clearTimeout(pending.timer);
    this.#setStream(error.code === 'cancelled' ? { state } : { state, error });
    pending.reject(error);
  }

  #settleStops(): void {
    for (const stop of this.#pendingStops.splice(0)) {
      clearTimeout(stop.timer);
      stop.resolve();
    }
  }

  #setStream(next: StreamStatus): void {
    if (this.#stream.state === next.state && this.#stream.error === next.error) return;
    this.#stream = next;
    this.#emit('stream', { ...next });
  }
}
