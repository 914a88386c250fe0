import {
  browserEnvironment,
  type BrowserEnvironment,
  type LocalNetworkPermission,
  type WebSocketLike,
} from './BrowserEnvironment.js';
import { Emitter } from './Emitter.js';
import { decodeFrame } from './frames.js';
import { HelperError } from './HelperError.js';
import {
  DEFAULT_PORT,
  helloIncompatibility,
  parseServerMessage,
  type CallEnded,
  type ClientMessage,
  type HelloMessage,
} from './protocol.js';

/**
 * Where the page stands with the helper.
 * - `idle`: not connected (before connect(), after disconnect()).
 * - `needs-gesture`: the browser would ask the user for permission; call connect() from a click.
 * - `connecting`: looking for the helper.
 * - `ready`: connected to a compatible helper; start() may be called.
 * - `helper-not-running`: nothing answers on the helper's port.
 * - `refused`: something answers on the port but the connection was refused (this page's origin
 *   is not among the helper's allowed origins).
 * - `blocked-by-browser`: the browser does not let the page reach the helper.
 * - `incompatible-helper`: the program on the port is not a helper this client can use.
 */
export type ConnectionState =
  | 'idle'
  | 'needs-gesture'
  | 'connecting'
  | 'ready'
  | 'helper-not-running'
  | 'refused'
  | 'blocked-by-browser'
  | 'incompatible-helper';

/** Why the browser blocks the page (state `blocked-by-browser`). */
export type BlockedReason =
  /** The user (or policy) denied the local-network permission for this site. */
  | 'local-network-denied'
  /**
   * The local-network permission is still unanswered after a failed attempt: the user closed the
   * browser's prompt without allowing it (or the browser did not show it). connect() from a click
   * asks again.
   */
  | 'local-network-unanswered'
  /** Safari and other WebKit browsers refuse ws:// to this computer from https pages. */
  | 'webkit-https'
  /** The browser refused to create the WebSocket at all (for example as mixed content). */
  | 'websocket-refused';

export interface ConnectionStatus {
  state: ConnectionState;
  /** A sentence for the user that says what is going on and what they can do. */
  message: string;
  blockedReason?: BlockedReason;
  /** When the client will try again by itself, in milliseconds from the moment of the event. */
  retryInMs?: number;
  /** The helper's greeting, while `ready`. */
  hello?: HelloMessage;
}

/**
 * Whether this page receives audio.
 * - `stopped`: no audio (initially, after stop(), after a failed start, after the connection ended).
 * - `starting`: start() is waiting for the pass or the helper's answer.
 * - `streaming`: audio frames arrive.
 * - `taken-over`: another page started and now receives the audio.
 * - `device-error`: the capture broke or could not start; start() again to retry.
 */
export type StreamState = 'stopped' | 'starting' | 'streaming' | 'taken-over' | 'device-error';

export interface StreamStatus {
  state: StreamState;
  /** What ended or prevented the stream, when something did. */
  error?: HelperError;
}

export interface HelperClientEvents {
  state: [ConnectionStatus];
  stream: [StreamStatus];
  /** One frame of 1 600 mono samples at 16 kHz (100 ms). The array belongs to the listeners. */
  audio: [Float32Array];
  callEnded: [CallEnded];
  takenOver: [];
  deviceError: [HelperError];
  /** Errors not tied to a start() call, such as "bad_request". */
  error: [HelperError];
}

export interface ReconnectOptions {
  /** First delay after a failure; doubles with every further failure. Default 500 ms. */
  initialDelayMs?: number;
  /** Largest delay between attempts. Default 30 s. */
  maxDelayMs?: number;
  /** Random spread of each delay, 0 to 1 (0.2 means ±20 %). Default 0.2. */
  jitter?: number;
}

export interface HelperClientOptions {
  /**
   * Asks the page's own server for a fresh start pass. Called for every start (passes are
   * single-use and expire after five minutes).
   */
  getPass: () => Promise<string>;
  /** The helper's port. Default 52849. */
  port?: number;
  /** Send an application-level "ping" this often while connected. Default 15 s. */
  pingIntervalMs?: number;
  /** Treat the connection as dead when a "pong" takes longer than this. Default 10 s. */
  pongTimeoutMs?: number;
  /** Give up on a helper that accepted the connection but sent no "hello" within this. Default 5 s. */
  helloTimeoutMs?: number;
  /**
   * Give up on a "start" that got no answer within this. The helper itself may wait up to 110 s
   * for the operating system's permission prompt, so keep this above that. Default 130 s.
   */
  startTimeoutMs?: number;
  /** Resolve stop() even when the helper does not answer within this. Default 5 s. */
  stopTimeoutMs?: number;
  /** Try again with back-off while the helper is not running or the connection was lost. */
  reconnect?: boolean | ReconnectOptions;
  /** After reconnecting, start streaming again if the page was streaming when the connection was lost. */
  resumeAfterReconnect?: boolean;
  /** Replaces parts of the browser (for tests and unusual hosts). */
  environment?: Partial<BrowserEnvironment> & { pageOrigin?: () => string | undefined };
}

interface PendingStart {
  promise: Promise<void>;
  resolve: () => void;
  reject: (error: HelperError) => void;
  socket: WebSocketLike;
  sent: boolean;
  timer: ReturnType<typeof setTimeout> | undefined;
}

interface PendingStop {
  resolve: () => void;
  timer: ReturnType<typeof setTimeout>;
}

const CLOSE_NORMAL = 1000;
// Application close codes (4000-4999) so the helper's log shows why the page hung up.
const CLOSE_INCOMPATIBLE = 4000;
const CLOSE_NO_PONG = 4001;
const CLOSE_NO_HELLO = 4002;
const PERMISSION_QUERY_TIMEOUT_MS = 1000;

/** Finds the helper on this computer, starts and stops the audio, and delivers its frames. */
export class HelperClient extends Emitter<HelperClientEvents> {
  readonly url: string;
  readonly #httpUrl: string;
  readonly #getPass: () => Promise<string>;
  readonly #env: BrowserEnvironment;
  readonly #pageOrigin: () => string | undefined;
  readonly #pingIntervalMs: number;
  readonly #pongTimeoutMs: number;
  readonly #helloTimeoutMs: number;
  readonly #startTimeoutMs: number;
  readonly #stopTimeoutMs: number;
  readonly #reconnect: Required<ReconnectOptions> | null;
  readonly #resumeAfterReconnect: boolean;

  #status: ConnectionStatus = { state: 'idle', message: 'Not connected to the audio helper.' };
  #stream: StreamStatus = { state: 'stopped' };
  #socket: WebSocketLike | null = null;
  #opened = false;
  #hello: HelloMessage | null = null;
  #wanted = false;
  #everConnected = false;
  #userStarted = false;
  #resumeWanted = false;
  #attemptId = 0;
  #retryDelayMs = 0;
  #retryTimer: ReturnType<typeof setTimeout> | undefined;
  #helloTimer: ReturnType<typeof setTimeout> | undefined;
  #pingTimer: ReturnType<typeof setInterval> | undefined;
  #pongTimer: ReturnType<typeof setTimeout> | undefined;
  #pendingStart: PendingStart | null = null;
  #pendingStops: PendingStop[] = [];
  #outcomeWaiters: Array<(status: ConnectionStatus) => void> = [];
  #framesReceived = 0;

  constructor(options: HelperClientOptions) {
    super();
    if (typeof options?.getPass !== 'function') {
      throw new TypeError('HelperClient needs a getPass() function that fetches a start pass from your server');
    }
    const port = options.port ?? DEFAULT_PORT;
    if (!Number.isInteger(port) || port < 1 || port > 65535) {
      throw new RangeError(`Helper port must be a whole number from 1 to 65535, not ${String(port)}`);
    }
    this.url = `ws://127.0.0.1:${port}/`;
    this.#httpUrl = `http://127.0.0.1:${port}/`;
    this.#getPass = options.getPass;
    const { pageOrigin, ...environment } = options.environment ?? {};
    this.#env = browserEnvironment(environment);
    this.#pageOrigin =
      pageOrigin ?? (() => (globalThis as { location?: { origin?: string } }).location?.origin);
    this.#pingIntervalMs = options.pingIntervalMs ?? 15_000;
    this.#pongTimeoutMs = options.pongTimeoutMs ?? 10_000;
    this.#helloTimeoutMs = options.helloTimeoutMs ?? 5_000;
    this.#startTimeoutMs = options.startTimeoutMs ?? 130_000;
    this.#stopTimeoutMs = options.stopTimeoutMs ?? 5_000;
    const reconnect = options.reconnect ?? true;
    this.#reconnect =
      reconnect === false
        ? null
        : {
            initialDelayMs: 500,
            maxDelayMs: 30_000,
            jitter: 0.2,
            ...(reconnect === true ? {} : reconnect),
          };
    this.#retryDelayMs = this.#reconnect?.initialDelayMs ?? 0;
    this.#resumeAfterReconnect = options.resumeAfterReconnect ?? true;
  }

  /** The current connection status. */
  get status(): ConnectionStatus {
    return { ...this.#status };
  }

  /** The current stream status. */
  get streamStatus(): StreamStatus {
    return { ...this.#stream };
  }

  /** The helper's greeting while connected. */
  get hello(): HelloMessage | null {
    return this.#hello;
  }

  /** Audio frames delivered since this client was created. */
  get framesReceived(): number {
    return this.#framesReceived;
  }

  /**
   * Looks for the helper and connects. Call it from a click handler the first time: where the
   * browser would ask the user for permission, a call outside a user gesture stops at
   * `needs-gesture` instead of prompting out of the blue. Resolves with the outcome (never rejects).
   */
  connect(): Promise<ConnectionStatus> {
    const gesture = this.#env.hasUserActivation();
    this.#wanted = true;
    if (this.#status.state === 'ready') return Promise.resolve(this.status);
    const outcome = new Promise<ConnectionStatus>((resolve) => this.#outcomeWaiters.push(resolve));
    if (this.#status.state !== 'connecting') {
      this.#cancelRetry();
      void this.#attempt(gesture);
    }
    return outcome;
  }

  /** Closes the connection and stops trying; the helper stops streaming to this page. */
  disconnect(): void {
    this.#wanted = false;
    this.#resumeWanted = false;
    this.#attemptId++;
    this.#cancelRetry();
    this.#retryDelayMs = this.#reconnect?.initialDelayMs ?? 0;
    if (this.#pendingStart) {
      this.#failStart(this.#pendingStart, new HelperError('cancelled', 'Disconnected before the audio started.'), 'stopped');
    }
    this.#settleStops();
    const socket = this.#socket;
    this.#dropSocket();
    socket?.close(CLOSE_NORMAL, 'Page disconnected');
    this.#setStream({ state: 'stopped' });
    this.#setState({ state: 'idle', message: 'Not connected to the audio helper.' });
  }

  /**
   * Asks the page's server for a pass and the helper for audio. Resolves when audio flows; rejects
   * with a HelperError whose `code` is the helper's ("pass_invalid", "permission_denied",
   * "device_error", …) or this client's ("not_ready", "pass_unavailable", "taken_over", …).
   */
  start(): Promise<void> {
    if (this.#pendingStart) return this.#pendingStart.promise;
    const socket = this.#socket;
    if (this.#status.state !== 'ready' || !socket) {
      return Promise.reject(
        new HelperError('not_ready', `Not connected to the audio helper (${this.#status.state}).`),
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

  /** Stops the audio for this page. Resolves when the helper confirms (or at once when not connected). */
  stop(): Promise<void> {
    this.#resumeWanted = false;
    if (this.#pendingStart) {
      this.#failStart(this.#pendingStart, new HelperError('cancelled', 'Stopped before the audio started.'), 'stopped');
    }
    this.#setStream({ state: 'stopped' });
    if (!this.#socket || this.#status.state !== 'ready') return Promise.resolve();
    this.#send({ type: 'stop' });
    return new Promise<void>((resolve) => {
      const entry: PendingStop = {
        resolve,
        timer: setTimeout(() => {
          this.#pendingStops = this.#pendingStops.filter((e) => e !== entry);
          resolve();
        }, this.#stopTimeoutMs),
      };
      this.#pendingStops.push(entry);
    });
  }

  // ---- connecting -------------------------------------------------------------------------

  async #attempt(gesture: boolean): Promise<void> {
    const attempt = ++this.#attemptId;
    this.#setState({ state: 'connecting', message: 'Looking for the audio helper…' });
    if (this.#env.refusesLoopbackWebSocket()) {
      this.#wanted = false;
      this.#setState(blocked('webkit-https'));
      return;
    }
    const permission = await this.#queryPermission();
    if (attempt !== this.#attemptId || !this.#wanted) return;
    if (permission === 'denied') {
      this.#wanted = false;
      this.#setState(blocked('local-network-denied'));
      return;
    }
    // Only let the browser ask the user in answer to something they did. Once they have clicked
    // (or a connection has worked) retries go ahead: the browser has asked by then. A page served
    // from localhost is never asked, so it needs no click either.
    if (
      permission === 'prompt' &&
      !gesture &&
      !this.#userStarted &&
      !this.#everConnected &&
      !this.#env.pageIsLoopback()
    ) {
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
      socket = new this.#env.WebSocket(this.url);
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
        this.#incompatible(`The program on port ${portOf(this.url)} accepted the connection but did not greet like the audio helper.`);
      }, this.#helloTimeoutMs);
    };
    socket.onmessage = (event) => {
      if (this.#socket !== socket) return;
      this.#onMessage(event.data);
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
        void this.#classifyFailure(this.#attemptId);
      }
    };
  }

  /**
   * A WebSocket that fails before opening tells the page nothing about why: "nothing listens",
   * "the helper refused this origin" and "the browser blocked it" all look alike. Follow-up
   * questions narrow it down: the permission state (denied → blocked; still unanswered on a public
   * page → blocked, since the browser stops everything else too), then a plain HTTP probe of the
   * same port — if anything answers HTTP there, something listens and refused the WebSocket,
   * which for the helper means the page's origin is not allowed.
   */
  async #classifyFailure(attempt: number): Promise<void> {
    const stillCurrent = () => attempt === this.#attemptId && this.#wanted && this.#socket === null;
    const permission = await this.#queryPermission();
    if (!stillCurrent()) return;
    if (permission === 'denied') {
      this.#wanted = false;
      this.#setState(blocked('local-network-denied'));
      return;
    }
    // Chromium blocks a public page's WebSocket and fetch to this computer alike until the
    // permission is granted, so while it is unanswered the probe would learn nothing (and in a
    // browser that asks for fetch too, it would put the question to the user again unprompted).
    // The likely cause is a prompt the user closed; ask again only when they click.
    if (permission === 'prompt' && !this.#env.pageIsLoopback()) {
      this.#wanted = false;
      this.#userStarted = false; // the next question waits for the next click
      this.#setState(blocked('local-network-unanswered'));
      return;
    }
    let answered = false;
    try {
      answered = await this.#env.probeHttp(this.#httpUrl);
    } catch {
      answered = false;
    }
    if (!stillCurrent()) return;
    if (answered) {
      const origin = this.#pageOrigin() ?? 'this site';
      this.#failed({
        state: 'refused',
        message:
          `The audio helper is running but did not accept this page (${origin}). ` +
          `To allow it, run: velmora-audio-helper settings add-origin ${origin}`,
      });
    } else {
      this.#failed({
        state: 'helper-not-running',
        message: 'The audio helper is not running on this computer. Start it and this page will find it.',
      });
    }
  }

  async #queryPermission(): Promise<LocalNetworkPermission> {
    // A permission query that never settles must not stall the connection.
    let timer: ReturnType<typeof setTimeout> | undefined;
    const timeout = new Promise<LocalNetworkPermission>((resolve) => {
      timer = setTimeout(() => resolve('unsupported'), PERMISSION_QUERY_TIMEOUT_MS);
    });
    try {
      return await Promise.race([this.#env.queryLocalNetworkPermission(), timeout]);
    } catch {
      return 'unsupported';
    } finally {
      clearTimeout(timer);
    }
  }

  #failed(status: ConnectionStatus): void {
    const retryInMs = this.#scheduleRetry();
    this.#setState(retryInMs === undefined ? status : { ...status, retryInMs });
  }

  #connectionLost(message: string): void {
    const wasStreaming = this.#stream.state === 'streaming' || this.#stream.state === 'starting';
    const lost = new HelperError('connection_lost', 'The connection to the audio helper was lost.');
    if (this.#pendingStart) this.#failStart(this.#pendingStart, lost, 'stopped');
    else if (this.#stream.state === 'streaming') this.#setStream({ state: 'stopped', error: lost });
    this.#settleStops();
    if (wasStreaming && this.#resumeAfterReconnect) this.#resumeWanted = true;
    const retryInMs = this.#scheduleRetry();
    this.#setState(
      retryInMs === undefined
        ? { state: 'helper-not-running', message: 'The connection to the audio helper was lost.' }
        : { state: 'connecting', message, retryInMs },
    );
  }

  #scheduleRetry(): number | undefined {
    if (!this.#reconnect || !this.#wanted) return undefined;
    this.#cancelRetry();
    const { maxDelayMs, jitter } = this.#reconnect;
    const base = this.#retryDelayMs;
    const delay = Math.max(0, Math.round(base * (1 + jitter * (2 * Math.random() - 1))));
    this.#retryDelayMs = Math.min(maxDelayMs, base * 2);
    this.#retryTimer = setTimeout(() => {
      this.#retryTimer = undefined;
      if (this.#wanted && this.#socket === null) void this.#attempt(false);
    }, delay);
    return delay;
  }

  #cancelRetry(): void {
    if (this.#retryTimer !== undefined) clearTimeout(this.#retryTimer);
    this.#retryTimer = undefined;
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

  // ---- messages ---------------------------------------------------------------------------

  #onMessage(data: unknown): void {
    if (typeof data === 'string') {
      this.#onText(data);
    } else if (data instanceof ArrayBuffer || ArrayBuffer.isView(data) || isArrayBufferLike(data)) {
      this.#onAudio(data as ArrayBuffer | ArrayBufferView);
    }
  }

  #onText(text: string): void {
    const message = parseServerMessage(text);
    if (!this.#hello) {
      if (message?.type === 'hello') {
        this.#onHello(message);
      } else {
        this.#giveUpOnSocket(this.#socket!, CLOSE_INCOMPATIBLE, 'Expected hello');
        this.#incompatible(`The program on port ${portOf(this.url)} does not speak the audio helper's protocol.`);
      }
      return;
    }
    if (!message) return;
    switch (message.type) {
      case 'hello':
        return;
      case 'pong':
        clearTimeout(this.#pongTimer);
        this.#pongTimer = undefined;
        return;
      case 'started':
        this.#onStarted();
        return;
      case 'stopped':
        this.#onStopped(message.reason);
        return;
      case 'error':
        this.#onError(new HelperError(message.code, message.message));
        return;
      case 'call_ended':
        this.emit('callEnded', { app: message.app, name: message.name, id: message.id });
        return;
    }
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
    this.#retryDelayMs = this.#reconnect?.initialDelayMs ?? 0;
    this.#startKeepAlive(this.#socket!);
    this.#setState({
      state: 'ready',
      message: `Connected to the audio helper ${hello.version}.`,
      hello,
    });
    if (this.#resumeWanted) {
      this.#resumeWanted = false;
      this.start().catch((error: unknown) => {
        if (error instanceof HelperError && error.code !== 'cancelled') this.emit('error', error);
      });
    }
  }

  #startKeepAlive(socket: WebSocketLike): void {
    this.#pingTimer = setInterval(() => {
      if (this.#socket !== socket) return;
      this.#send({ type: 'ping' });
      if (this.#pongTimer !== undefined) return;
      this.#pongTimer = setTimeout(() => {
        if (this.#socket !== socket) return;
        this.#giveUpOnSocket(socket, CLOSE_NO_PONG, 'No pong');
        if (this.#wanted) this.#connectionLost('The audio helper stopped answering. Reconnecting…');
      }, this.#pongTimeoutMs);
    }, this.#pingIntervalMs);
  }

  #onStarted(): void {
    const pending = this.#pendingStart;
    // A "started" nobody waits for answers a start that stop() has already withdrawn.
    if (!pending) return;
    this.#pendingStart = null;
    clearTimeout(pending.timer);
    this.#setStream({ state: 'streaming' });
    pending.resolve();
  }

  #onStopped(reason: string | undefined): void {
    if (reason === 'taken_over') {
      this.#resumeWanted = false;
      const error = new HelperError('taken_over', 'Another page started receiving the audio.');
      if (this.#pendingStart) this.#failStart(this.#pendingStart, error, 'taken-over');
      else this.#setStream({ state: 'taken-over', error });
      this.emit('takenOver');
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

  #onError(error: HelperError): void {
    const deviceError = error.code === 'device_error';
    if (deviceError) this.#resumeWanted = false;
    if (this.#pendingStart?.sent) {
      this.#failStart(this.#pendingStart, error, deviceError ? 'device-error' : 'stopped');
    } else if (deviceError) {
      this.#setStream({ state: 'device-error', error });
    } else {
      this.emit('error', error);
      return;
    }
    if (deviceError) this.emit('deviceError', error);
  }

  #onAudio(data: ArrayBuffer | ArrayBufferView): void {
    // Frames in flight after stop() or a take-over belong to nobody.
    if (this.#stream.state !== 'streaming') return;
    this.#framesReceived++;
    this.emit('audio', decodeFrame(data));
  }

  // ---- start and stop ---------------------------------------------------------------------

  async #requestPassAndStart(pending: PendingStart): Promise<void> {
    let pass: unknown;
    try {
      pass = await this.#getPass();
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
    if (this.#socket !== pending.socket) {
      this.#failStart(pending, new HelperError('connection_lost', 'The connection to the audio helper was lost.'), 'stopped');
      return;
    }
    this.#send({ type: 'start', pass });
    pending.sent = true;
    pending.timer = setTimeout(() => {
      if (this.#pendingStart !== pending) return;
      this.#failStart(
        pending,
        new HelperError('start_timeout', 'The audio helper did not answer the request to start.'),
        'stopped',
      );
      // Withdraw the request so that a late "started" does not leave the helper streaming.
      this.#send({ type: 'stop' });
    }, this.#startTimeoutMs);
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

  #send(message: ClientMessage): void {
    try {
      this.#socket?.send(JSON.stringify(message));
    } catch {
      // A socket that is closing throws here; its close event reports the loss.
    }
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
      this.emit('state', { ...next });
    }
    if (next.state !== 'connecting') {
      for (const resolve of this.#outcomeWaiters.splice(0)) resolve({ ...next });
    }
  }

  #setStream(next: StreamStatus): void {
    if (this.#stream.state === next.state && this.#stream.error === next.error) return;
    this.#stream = next;
    this.emit('stream', { ...next });
  }
}

function blocked(reason: BlockedReason): ConnectionStatus {
  const messages: Record<BlockedReason, string> = {
    'local-network-denied':
      'Your browser blocks this page from connecting to apps on this device. Open the site settings ' +
      '(the icon to the left of the address), allow "Local network access" (also called "Apps on ' +
      'this device"), then reload the page.',
    'local-network-unanswered':
      'Your browser has not allowed this page to connect to apps on this device, so it cannot ' +
      'reach the audio helper (its question was probably closed without an answer). Click ' +
      'Connect and choose "Allow" when the browser asks, or allow "Local network access" (also ' +
      'called "Apps on this device") in the site settings, the icon to the left of the address.',
    'webkit-https':
      'Safari does not let secure web pages connect to apps on this computer. ' +
      'Open this page in Chrome, Edge or Firefox to use the audio helper.',
    'websocket-refused': 'The browser refused to open a connection to the audio helper.',
  };
  return { state: 'blocked-by-browser', blockedReason: reason, message: messages[reason] };
}

function errorText(error: unknown): string {
  return error instanceof Error ? error.message : String(error);
}

function portOf(url: string): string {
  return new URL(url).port;
}

function isArrayBufferLike(value: unknown): boolean {
  return Object.prototype.toString.call(value) === '[object ArrayBuffer]';
}
