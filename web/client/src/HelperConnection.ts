import type { WebSocketLike } from './BrowserEnvironment.js';
import { classifyFailure, queryPermission } from './failureClassification.js';
import { isBinaryMessage } from './frames.js';
import { errorText } from './HelperError.js';
import type { ConnectionSettings } from './options.js';
import {
  helloIncompatibility,
  parseServerMessage,
  type ClientMessage,
  type HelloMessage,
  type ServerMessage,
} from './protocol.js';
import { RetrySchedule } from './RetrySchedule.js';
import { blocked, idleStatus, type ConnectionStatus } from './status.js';

const CLOSE_NORMAL = 1000;
// Application close codes (4000-4999) so the helper's log shows why the page hung up.
const CLOSE_INCOMPATIBLE = 4000;
const CLOSE_NO_PONG = 4001;
const CLOSE_NO_HELLO = 4002;

/** A message from the helper after its greeting that the connection itself does not handle. */
export type SessionMessage = Exclude<ServerMessage, { type: 'hello' | 'pong' }>;

/** What the connection tells its owner. */
export interface ConnectionHooks {
  /** The status changed (the owner passes it on to the page). */
  statusChanged(status: ConnectionStatus): void;
  /** The helper greeted and the status is now `ready`. */
  ready(): void;
  /** A ready connection ended; called before the connection plans the next attempt. */
  lost(): void;
  /** A text message after the greeting, other than "hello" and "pong". */
  message(message: SessionMessage): void;
  /** A binary message (an audio frame). */
  audio(data: ArrayBuffer | ArrayBufferView): void;
}

/**
 * The page's connection to the helper: finds it (asking the browser's permission only in answer
 * to a click), opens the WebSocket, checks the greeting, keeps the connection alive with pings,
 * and after a failure says why and tries again with back-off.
 */
export class HelperConnection {
  readonly #settings: ConnectionSettings;
  readonly #hooks: ConnectionHooks;
  readonly #retry: RetrySchedule;

  #status: ConnectionStatus = idleStatus();
  #socket: WebSocketLike | null = null;
  #opened = false;
  #hello: HelloMessage | null = null;
  #wanted = false;
  #everConnected = false;
  #userStarted = false;
  #attemptId = 0;
  #helloTimer: ReturnType<typeof setTimeout> | undefined;
  #pingTimer: ReturnType<typeof setInterval> | undefined;
  #pongTimer: ReturnType<typeof setTimeout> | undefined;
  #outcomeWaiters: Array<(status: ConnectionStatus) => void> = [];

  constructor(settings: ConnectionSettings, hooks: ConnectionHooks) {
    this.#settings = settings;
    this.#hooks = hooks;
    this.#retry = new RetrySchedule(settings.reconnect);
  }

  /** The current status (the caller must not change it). */
  get status(): ConnectionStatus {
    return this.#status;
  }

  /** The helper's greeting while connected. */
  get hello(): HelloMessage | null {
    return this.#hello;
  }

  /** The WebSocket of the current attempt or connection. */
  get socket(): WebSocketLike | null {
    return this.#socket;
  }

  /** Looks for the helper (unless connected or already looking); resolves with the outcome. */
  connect(): Promise<ConnectionStatus> {
    const gesture = this.#settings.env.hasUserActivation();
    this.#wanted = true;
    if (this.#status.state === 'ready') return Promise.resolve({ ...this.#status });
    const outcome = new Promise<ConnectionStatus>((resolve) => this.#outcomeWaiters.push(resolve));
    if (this.#status.state !== 'connecting') {
      this.#retry.cancel();
      void this.#attempt(gesture);
    }
    return outcome;
  }

  /** Stops trying: no retry fires and answers to attempts under way are dropped. */
  stopTrying(): void {
    this.#wanted = false;
    this.#attemptId++;
    this.#retry.cancel();
    this.#retry.reset();
  }

  /** Hangs up on the helper, if connected. */
  close(): void {
    const socket = this.#socket;
    this.#dropSocket();
    socket?.close(CLOSE_NORMAL, 'Page disconnected');
  }

  becomeIdle(): void {
    this.#setState(idleStatus());
  }

  send(message: ClientMessage): void {
    try {
      this.#socket?.send(JSON.stringify(message));
    } catch {
      // A socket that is closing throws here; its close event reports the loss.
    }
  }

  // ---- connecting -------------------------------------------------------------------------

  async #attempt(gesture: boolean): Promise<void> {
    const attempt = ++this.#attemptId;
    this.#setState({ state: 'connecting', message: 'Looking for the audio helper…' });
    const env = this.#settings.env;
    if (env.refusesLoopbackWebSocket()) {
      this.#wanted = false;
      this.#setState(blocked('webkit-https'));
      return;
    }
    const permission = await queryPermission(env);
    if (attempt !== this.#attemptId || !this.#wanted) return;
    if (permission === 'denied') {
      this.#wanted = false;
      this.#setState(blocked('local-network-denied'));
      return;
    }
    // Only let the browser ask the user in answer to something they did. Once they have clicked
    // (or a connection has worked) retries go ahead: the browser has asked by then. A page served
    // from localhost is never asked, so it needs no click either.
    if (permission === 'prompt' && !gesture && !this.#userStarted && !this.#everConnected && !env.pageIsLoopback()) {
      this.#setState({
        state: 'needs-gesture',
        message:
          'Your browser will ask whether this page may connect to apps on this device. ' +
          'Click Connect and allow it.',
      });
      return;
    }
    if (gesture) this.#userStarted = true;
    this.#openSocket();
  }

  #openSocket(): void {
    let socket: WebSocketLike;
    try {
      socket = new this.#settings.env.WebSocket(this.#settings.url);
    } catch (error) {
      this.#wanted = false;
      this.#setState({
        ...blocked('websocket-refused'),
        message: `The browser refused to open a connection to the audio helper: ${errorText(error)}`,
      });
      return;
    }
    socket.binaryType = 'arraybuffer';
    this.#socket = socket;
    this.#opened = false;
    this.#hello = null;
    socket.onopen = () => {
      if (this.#socket !== socket) return;
      this.#opened = true;
      this.#helloTimer = setTimeout(() => {
        if (this.#socket !== socket) return;
        this.#giveUpOnSocket(socket, CLOSE_NO_HELLO, 'No hello');
        this.#incompatible(
          `The program on port ${this.#port()} accepted the connection but did not greet like the audio helper.`,
        );
      }, this.#settings.helloTimeoutMs);
    };
    socket.onmessage = (event) => {
      if (this.#socket !== socket) return;
      if (typeof event.data === 'string') this.#onText(event.data);
      else if (isBinaryMessage(event.data)) this.#hooks.audio(event.data);
    };
    // A failed or broken connection always ends with "close", which does the work.
    socket.onerror = () => {};
    socket.onclose = () => {
      if (this.#socket !== socket) return;
      const wasOpen = this.#opened;
      const wasReady = this.#hello !== null;
      this.#dropSocket();
      if (!this.#wanted) return;
      if (wasReady) {
        this.#connectionLost('The connection to the audio helper was lost. Reconnecting…');
      } else if (wasOpen) {
        this.#failed({
          state: 'helper-not-running',
          message: 'The audio helper closed the connection before greeting this page. Is it shutting down?',
        });
      } else {
        void this.#explainFailure(this.#attemptId);
      }
    };
  }

  /** Tells the page why the WebSocket failed before opening, and plans a retry where one helps. */
  async #explainFailure(attempt: number): Promise<void> {
    const stillCurrent = () => attempt === this.#attemptId && this.#wanted && this.#socket === null;
    const cause = await classifyFailure(this.#settings.env, this.#settings.httpUrl, stillCurrent);
    if (cause === null || !stillCurrent()) return;
    switch (cause) {
      case 'local-network-denied':
        this.#wanted = false;
        this.#setState(blocked(cause));
        return;
      case 'local-network-unanswered':
        this.#wanted = false;
        this.#userStarted = false; // the next question waits for the next click
        this.#setState(blocked(cause));
        return;
      case 'refused': {
        const origin = this.#settings.pageOrigin() ?? 'this site';
        this.#failed({
          state: 'refused',
          message:
            `The audio helper is running but did not accept this page (${origin}). ` +
            `To allow it, run: velmora-audio-helper settings add-origin ${origin}`,
        });
        return;
      }
      case 'helper-not-running':
        this.#failed({
          state: 'helper-not-running',
          message: 'The audio helper is not running on this computer. Start it and this page will find it.',
        });
        return;
    }
  }

  #failed(status: ConnectionStatus): void {
    const retryInMs = this.#scheduleRetry();
    this.#setState(retryInMs === undefined ? status : { ...status, retryInMs });
  }

  #connectionLost(message: string): void {
    this.#hooks.lost();
    const retryInMs = this.#scheduleRetry();
    this.#setState(
      retryInMs === undefined
        ? { state: 'helper-not-running', message: 'The connection to the audio helper was lost.' }
        : { state: 'connecting', message, retryInMs },
    );
  }

  #scheduleRetry(): number | undefined {
    if (!this.#wanted) return undefined;
    return this.#retry.schedule(() => {
      if (this.#wanted && this.#socket === null) void this.#attempt(false);
    });
  }

  #incompatible(message: string): void {
    this.#wanted = false;
    this.#setState({ state: 'incompatible-helper', message });
  }

  /** Forgets the socket (its late events are ignored from now on) and stops its timers. */
  #dropSocket(): void {
    clearTimeout(this.#helloTimer);
    clearInterval(this.#pingTimer);
    clearTimeout(this.#pongTimer);
    this.#helloTimer = this.#pingTimer = this.#pongTimer = undefined;
    this.#socket = null;
    this.#opened = false;
    this.#hello = null;
  }

  #giveUpOnSocket(socket: WebSocketLike, code: number, reason: string): void {
    this.#dropSocket();
    try {
      socket.close(code, reason);
    } catch {
      // Closing an already broken socket may throw in some browsers; it is gone either way.
    }
  }

  #port(): string {
    return new URL(this.#settings.url).port;
  }

  // ---- greeting and keep-alive --------------------------------------------------------------

  #onText(text: string): void {
    const message = parseServerMessage(text);
    if (!this.#hello) {
      if (message?.type === 'hello') {
        this.#onHello(message);
      } else {
        this.#giveUpOnSocket(this.#socket!, CLOSE_INCOMPATIBLE, 'Expected hello');
        this.#incompatible(`The program on port ${this.#port()} does not speak the audio helper's protocol.`);
      }
      return;
    }
    if (!message || message.type === 'hello') return;
    if (message.type === 'pong') {
      clearTimeout(this.#pongTimer);
      this.#pongTimer = undefined;
      return;
    }
    this.#hooks.message(message);
  }

  #onHello(hello: HelloMessage): void {
    clearTimeout(this.#helloTimer);
    this.#helloTimer = undefined;
    const problem = helloIncompatibility(hello);
    if (problem) {
      this.#giveUpOnSocket(this.#socket!, CLOSE_INCOMPATIBLE, 'Incompatible format');
      this.#incompatible(problem);
      return;
    }
    this.#hello = hello;
    this.#everConnected = true;
    this.#retry.reset();
    this.#startKeepAlive(this.#socket!);
    this.#setState({
      state: 'ready',
      message: `Connected to the audio helper ${hello.version}.`,
      hello,
    });
    this.#hooks.ready();
  }

  #startKeepAlive(socket: WebSocketLike): void {
    this.#pingTimer = setInterval(() => {
      if (this.#socket !== socket) return;
      this.send({ type: 'ping' });
      if (this.#pongTimer !== undefined) return;
      this.#pongTimer = setTimeout(() => {
        if (this.#socket !== socket) return;
        this.#giveUpOnSocket(socket, CLOSE_NO_PONG, 'No pong');
        if (this.#wanted) this.#connectionLost('The audio helper stopped answering. Reconnecting…');
      }, this.#settings.pongTimeoutMs);
    }, this.#settings.pingIntervalMs);
  }

  // ---- status -----------------------------------------------------------------------------

  #setState(next: ConnectionStatus): void {
    const current = this.#status;
    const changed =
      current.state !== next.state ||
      current.message !== next.message ||
      current.blockedReason !== next.blockedReason ||
      current.retryInMs !== next.retryInMs ||
      current.hello !== next.hello;
    if (changed) {
      this.#status = next;
      this.#hooks.statusChanged({ ...next });
    }
    if (next.state !== 'connecting') {
      for (const resolve of this.#outcomeWaiters.splice(0)) resolve({ ...next });
    }
  }
}
