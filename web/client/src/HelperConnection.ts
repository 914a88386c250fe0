import type { WebSocketLike } from './BrowserEnvironment.js';
import {
  checkTransition,
  type ConnectionPhase,
  type GreetingPhase,
  type PhaseKind,
  type ReadyPhase,
} from './connectionPhase.js';
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
 * What the user has done that lets an attempt without a click go ahead where the browser would
 * ask about the local network: nothing yet, clicked Connect (the browser asked then), or
 * connected once (the browser allowed it).
 */
type Consent = 'none' | 'clicked' | 'connected';

/**
 * The page's connection to the helper: finds it (asking the browser's permission only in answer
 * to a click), opens the WebSocket, checks the greeting, keeps the connection alive with pings,
 * and after a failure says why and tries again with back-off.
 *
 * Where it stands is one value, the phase; every change of phase goes through `#enter`. Work that
 * finishes later (a permission answer, a failure's explanation, a timer, a socket's event) checks
 * that the phase it began in is still the current one, so a stale attempt's result is ignored.
 */
export class HelperConnection {
  readonly #settings: ConnectionSettings;
  readonly #hooks: ConnectionHooks;
  readonly #retry: RetrySchedule;

  #phase: ConnectionPhase = { kind: 'idle' };
  #status: ConnectionStatus = idleStatus();
  #consent: Consent = 'none';
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

  /** Where the connection stands inside, finer than the status. */
  get phase(): PhaseKind {
    return this.#phase.kind;
  }

  /** The helper's greeting while connected. */
  get hello(): HelloMessage | null {
    return this.#phase.kind === 'ready' ? this.#phase.hello : null;
  }

  /** The WebSocket of the current attempt or connection. */
  get socket(): WebSocketLike | null {
    return 'socket' in this.#phase ? this.#phase.socket : null;
  }

  /** Looks for the helper (unless connected or already looking); resolves with the outcome. */
  connect(): Promise<ConnectionStatus> {
    const gesture = this.#settings.env.hasUserActivation();
    if (this.#status.state === 'ready') return Promise.resolve({ ...this.#status });
    const outcome = new Promise<ConnectionStatus>((resolve) => this.#outcomeWaiters.push(resolve));
    if (this.#status.state !== 'connecting') void this.#attempt(gesture);
    return outcome;
  }

  /**
   * Stops trying: no retry fires and answers to attempts under way are dropped. A socket, if
   * any, stays until close().
   */
  stopTrying(): void {
    const kind = this.#phase.kind;
    if (kind === 'waiting' || kind === 'checking' || kind === 'explaining' || kind === 'failed') {
      this.#enter({ kind: 'idle' });
    }
    this.#retry.reset();
  }

  /** Hangs up on the helper, if connected. */
  close(): void {
    const socket = this.socket;
    if (!socket) return;
    this.#enter({ kind: 'idle' });
    socket.close(CLOSE_NORMAL, 'Page disconnected');
  }

  becomeIdle(): void {
    this.#publish(idleStatus());
  }

  send(message: ClientMessage): void {
    try {
      this.socket?.send(JSON.stringify(message));
    } catch {
      // A socket that is closing throws here; its close event reports the loss.
    }
  }

  // ---- the one place the phase changes ------------------------------------------------------

  #enter<P extends ConnectionPhase>(next: P): P {
    const current = this.#phase;
    checkTransition(current.kind, next.kind);
    // What belonged to the phase ends with it.
    switch (current.kind) {
      case 'waiting':
        this.#retry.cancel();
        break;
      case 'greeting':
        clearTimeout(current.helloTimer);
        break;
      case 'ready':
        clearInterval(current.pingTimer);
        clearTimeout(current.pongTimer);
        break;
    }
    this.#phase = next;
    return next;
  }

  // ---- connecting -------------------------------------------------------------------------

  async #attempt(gesture: boolean): Promise<void> {
    const checking = this.#enter({ kind: 'checking' });
    this.#publish({ state: 'connecting', message: 'Looking for the audio helper…' });
    if (this.#phase !== checking) return; // a listener stopped it
    const env = this.#settings.env;
    if (env.refusesLoopbackWebSocket()) {
      this.#enter({ kind: 'idle' });
      this.#publish(blocked('webkit-https'));
      return;
    }
    const permission = await queryPermission(env);
    if (this.#phase !== checking) return;
    if (permission === 'denied') {
      this.#enter({ kind: 'idle' });
      this.#publish(blocked('local-network-denied'));
      return;
    }
    // Only let the browser ask the user in answer to something they did. Once they have clicked
    // (or a connection has worked) retries go ahead: the browser has asked by then. A page served
    // from localhost is never asked, so it needs no click either.
    if (permission === 'prompt' && !gesture && this.#consent === 'none' && !env.pageIsLoopback()) {
      this.#enter({ kind: 'idle' });
      this.#publish({
        state: 'needs-gesture',
        message:
          'Your browser will ask whether this page may connect to apps on this device. ' +
          'Click Connect and allow it.',
      });
      return;
    }
    if (gesture && this.#consent === 'none') this.#consent = 'clicked';
    this.#openSocket();
  }

  #openSocket(): void {
    let socket: WebSocketLike;
    try {
      socket = new this.#settings.env.WebSocket(this.#settings.url);
    } catch (error) {
      this.#enter({ kind: 'idle' });
      this.#publish({
        ...blocked('websocket-refused'),
        message: `The browser refused to open a connection to the audio helper: ${errorText(error)}`,
      });
      return;
    }
    socket.binaryType = 'arraybuffer';
    const opening = this.#enter({ kind: 'opening', socket });
    socket.onopen = () => {
      if (this.#phase !== opening) return;
      const greeting: GreetingPhase = { kind: 'greeting', socket, helloTimer: undefined };
      greeting.helloTimer = setTimeout(() => {
        if (this.#phase !== greeting) return;
        this.#giveUpOnSocket(socket, CLOSE_NO_HELLO, 'No hello');
        this.#incompatible(
          `The program on port ${this.#port()} accepted the connection but did not greet like the audio helper.`,
        );
      }, this.#settings.helloTimeoutMs);
      this.#enter(greeting);
    };
    socket.onmessage = (event) => {
      if (this.socket !== socket) return;
      if (typeof event.data === 'string') this.#onText(event.data);
      else if (isBinaryMessage(event.data)) this.#hooks.audio(event.data);
    };
    // A failed or broken connection always ends with "close", which does the work.
    socket.onerror = () => {};
    socket.onclose = () => {
      if (this.socket !== socket) return;
      switch (this.#phase.kind) {
        case 'opening':
          void this.#explainFailure();
          return;
        case 'greeting':
          this.#enter({ kind: 'failed' });
          this.#failed({
            state: 'helper-not-running',
            message: 'The audio helper closed the connection before greeting this page. Is it shutting down?',
          });
          return;
        case 'ready':
          this.#enter({ kind: 'failed' });
          this.#connectionLost('The connection to the audio helper was lost. Reconnecting…');
          return;
      }
    };
  }

  /** Tells the page why the WebSocket failed before opening, and plans a retry where one helps. */
  async #explainFailure(): Promise<void> {
    const explaining = this.#enter({ kind: 'explaining' });
    const stillCurrent = () => this.#phase === explaining;
    const cause = await classifyFailure(this.#settings.env, this.#settings.httpUrl, stillCurrent);
    if (cause === null || !stillCurrent()) return;
    switch (cause) {
      case 'local-network-denied':
        this.#enter({ kind: 'idle' });
        this.#publish(blocked(cause));
        return;
      case 'local-network-unanswered':
        this.#enter({ kind: 'idle' });
        if (this.#consent === 'clicked') this.#consent = 'none'; // the next question waits for the next click
        this.#publish(blocked(cause));
        return;
      case 'refused': {
        this.#enter({ kind: 'failed' });
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
        this.#enter({ kind: 'failed' });
        this.#failed({
          state: 'helper-not-running',
          message: 'The audio helper is not running on this computer. Start it and this page will find it.',
        });
        return;
    }
  }

  /** An attempt failed (the phase says so): tells the page, with the retry's delay where one is armed. */
  #failed(status: ConnectionStatus): void {
    const retryInMs = this.#retryOrRest();
    this.#publish(retryInMs === undefined ? status : { ...status, retryInMs });
  }

  /** A ready connection ended (the phase says it failed): tells the owner, then plans the retry. */
  #connectionLost(message: string): void {
    this.#hooks.lost();
    const retryInMs = this.#retryOrRest();
    this.#publish(
      retryInMs === undefined
        ? { state: 'helper-not-running', message: 'The connection to the audio helper was lost.' }
        : { state: 'connecting', message, retryInMs },
    );
  }

  /** After a failure, arms the next attempt and returns its delay, or undefined where none follows. */
  #retryOrRest(): number | undefined {
    // The owner's listeners may have stopped the connection meanwhile.
    if (this.#phase.kind !== 'failed') return undefined;
    const waiting = { kind: 'waiting' } as const;
    const delay = this.#retry.schedule(() => {
      if (this.#phase === waiting) void this.#attempt(false);
    });
    this.#enter(delay === undefined ? { kind: 'idle' } : waiting);
    return delay;
  }

  #incompatible(message: string): void {
    this.#publish({ state: 'incompatible-helper', message });
  }

  /** Ends the phase that holds the socket (its late events are ignored from now on) and closes it. */
  #giveUpOnSocket(
    socket: WebSocketLike,
    code: number,
    reason: string,
    next: 'idle' | 'failed' = 'idle',
  ): void {
    this.#enter({ kind: next });
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
    const phase = this.#phase;
    const message = parseServerMessage(text);
    if (phase.kind === 'greeting') {
      if (message?.type === 'hello') {
        this.#onHello(phase, message);
      } else {
        this.#giveUpOnSocket(phase.socket, CLOSE_INCOMPATIBLE, 'Expected hello');
        this.#incompatible(`The program on port ${this.#port()} does not speak the audio helper's protocol.`);
      }
      return;
    }
    // Browsers deliver no message before "open".
    if (phase.kind !== 'ready') return;
    if (!message || message.type === 'hello') return;
    if (message.type === 'pong') {
      clearTimeout(phase.pongTimer);
      phase.pongTimer = undefined;
      return;
    }
    this.#hooks.message(message);
  }

  #onHello(greeting: GreetingPhase, hello: HelloMessage): void {
    const problem = helloIncompatibility(hello);
    if (problem) {
      this.#giveUpOnSocket(greeting.socket, CLOSE_INCOMPATIBLE, 'Incompatible format');
      this.#incompatible(problem);
      return;
    }
    this.#consent = 'connected';
    this.#retry.reset();
    const ready = this.#enter<ReadyPhase>({
      kind: 'ready',
      socket: greeting.socket,
      hello,
      pingTimer: undefined,
      pongTimer: undefined,
    });
    this.#startKeepAlive(ready);
    this.#publish({
      state: 'ready',
      message: `Connected to the audio helper ${hello.version}.`,
      hello,
    });
    this.#hooks.ready();
  }

  #startKeepAlive(ready: ReadyPhase): void {
    ready.pingTimer = setInterval(() => {
      if (this.#phase !== ready) return;
      this.send({ type: 'ping' });
      if (ready.pongTimer !== undefined) return;
      ready.pongTimer = setTimeout(() => {
        if (this.#phase !== ready) return;
        this.#giveUpOnSocket(ready.socket, CLOSE_NO_PONG, 'No pong', 'failed');
        this.#connectionLost('The audio helper stopped answering. Reconnecting…');
      }, this.#settings.pongTimeoutMs);
    }, this.#settings.pingIntervalMs);
  }

  // ---- status -----------------------------------------------------------------------------

  /** Tells the page the status, when it changed; settles connect() calls once it is an outcome. */
  #publish(next: ConnectionStatus): void {
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
