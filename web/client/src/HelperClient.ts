import { CaptureSession } from './CaptureSession.js';
import { Emitter } from './Emitter.js';
import { HelperConnection, type SessionMessage } from './HelperConnection.js';
import { HelperError } from './HelperError.js';
import { resolveOptions, type HelperClientOptions } from './options.js';
import type { HelloMessage } from './protocol.js';
import type { ConnectionStatus, HelperClientEvents, StreamStatus } from './status.js';

export type { HelperClientOptions, ReconnectOptions } from './options.js';
export type {
  BlockedReason,
  ConnectionState,
  ConnectionStatus,
  HelperClientEvents,
  StreamState,
  StreamStatus,
} from './status.js';

/** Finds the helper on this computer, starts and stops the audio, and delivers its frames. */
export class HelperClient extends Emitter<HelperClientEvents> {
  readonly url: string;
  readonly #connection: HelperConnection;
  readonly #capture: CaptureSession;

  constructor(options: HelperClientOptions) {
    super();
    const settings = resolveOptions(options);
    this.url = settings.connection.url;
    this.#connection = new HelperConnection(settings.connection, {
      statusChanged: (status) => this.emit('state', status),
      ready: () => this.#resumeIfWanted(),
      lost: () => this.#capture.connectionLost(),
      message: (message) => this.#onMessage(message),
      audio: (data) => this.#capture.onAudio(data),
    });
    this.#capture = new CaptureSession(settings.capture, this.#connection, (event, ...args) =>
      this.emit(event, ...args),
    );
  }

  /** The current connection status. */
  get status(): ConnectionStatus {
    return { ...this.#connection.status };
  }

  /** The current stream status. */
  get streamStatus(): StreamStatus {
    return { ...this.#capture.status };
  }

  /** The helper's greeting while connected. */
  get hello(): HelloMessage | null {
    return this.#connection.hello;
  }

  /** Audio frames delivered since this client was created. */
  get framesReceived(): number {
    return this.#capture.framesReceived;
  }

  /**
   * Looks for the helper and connects. Call it from a click handler the first time: where the
   * browser would ask the user for permission, a call outside a user gesture stops at
   * `needs-gesture` instead of prompting out of the blue. Resolves with the outcome (never rejects).
   */
  connect(): Promise<ConnectionStatus> {
    return this.#connection.connect();
  }

  /** Closes the connection and stops trying; the helper stops streaming to this page. */
  disconnect(): void {
    this.#connection.stopTrying();
    this.#capture.cancel('Disconnected before the audio started.');
    this.#connection.close();
    this.#capture.markStopped();
    this.#connection.becomeIdle();
  }

  /**
   * Asks the page's server for a pass and the helper for audio. Resolves when audio flows; rejects
   * with a HelperError whose `code` is the helper's ("pass_invalid", "permission_denied",
   * "device_error", …) or this client's ("not_ready", "pass_unavailable", "taken_over", …).
   */
  start(): Promise<void> {
    return this.#capture.start();
  }

  /** Stops the audio for this page. Resolves when the helper confirms (or at once when not connected). */
  stop(): Promise<void> {
    return this.#capture.stop();
  }

  #onMessage(message: SessionMessage): void {
    switch (message.type) {
      case 'started':
        this.#capture.onStarted();
        return;
      case 'stopped':
        this.#capture.onStopped(message.reason);
        return;
      case 'error':
        this.#capture.onError(new HelperError(message.code, message.message));
        return;
      case 'call_ended':
        this.emit('callEnded', { app: message.app, name: message.name, id: message.id });
        return;
    }
  }

  /** After a reconnection, starts again when the page was streaming as the connection was lost. */
  #resumeIfWanted(): void {
    if (!this.#capture.takeResume()) return;
    this.start().catch((error: unknown) => {
      if (error instanceof HelperError && error.code !== 'cancelled') this.emit('error', error);
    });
  }
}
