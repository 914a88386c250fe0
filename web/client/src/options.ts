// The client's options as the application gives them, and the same with every default filled in.
import { browserEnvironment, type BrowserEnvironment } from './BrowserEnvironment.js';
import { DEFAULT_PORT } from './protocol.js';

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

/** Where the helper is and how the connection behaves, once checked and completed. */
export interface ConnectionSettings {
  /** The helper's WebSocket address. */
  url: string;
  /** The same port over plain HTTP, for the probe after a failed connection. */
  httpUrl: string;
  env: BrowserEnvironment;
  pageOrigin: () => string | undefined;
  pingIntervalMs: number;
  pongTimeoutMs: number;
  helloTimeoutMs: number;
  /** Null when the client must not retry by itself. */
  reconnect: Required<ReconnectOptions> | null;
}

/** How starts and stops behave, once completed. */
export interface CaptureSettings {
  getPass: () => Promise<string>;
  startTimeoutMs: number;
  stopTimeoutMs: number;
  resumeAfterReconnect: boolean;
}

/** Checks the application's options (throwing on a mistake) and fills in the defaults. */
export function resolveOptions(options: HelperClientOptions): {
  connection: ConnectionSettings;
  capture: CaptureSettings;
} {
  if (typeof options?.getPass !== 'function') {
    throw new TypeError('HelperClient needs a getPass() function that fetches a start pass from your server');
  }
  const port = options.port ?? DEFAULT_PORT;
  if (!Number.isInteger(port) || port < 1 || port > 65535) {
    throw new RangeError(`Helper port must be a whole number from 1 to 65535, not ${String(port)}`);
  }
  const { pageOrigin, ...environment } = options.environment ?? {};
  const reconnect = options.reconnect ?? true;
  return {
    connection: {
      url: `ws://127.0.0.1:${port}/`,
      httpUrl: `http://127.0.0.1:${port}/`,
      env: browserEnvironment(environment),
      pageOrigin: pageOrigin ?? (() => (globalThis as { location?: { origin?: string } }).location?.origin),
      pingIntervalMs: options.pingIntervalMs ?? 15_000,
      pongTimeoutMs: options.pongTimeoutMs ?? 10_000,
      helloTimeoutMs: options.helloTimeoutMs ?? 5_000,
      reconnect:
        reconnect === false
          ? null
          : {
              initialDelayMs: 500,
              maxDelayMs: 30_000,
              jitter: 0.2,
              ...(reconnect === true ? {} : reconnect),
            },
    },
    capture: {
      getPass: options.getPass,
      startTimeoutMs: options.startTimeoutMs ?? 130_000,
      stopTimeoutMs: options.stopTimeoutMs ?? 5_000,
      resumeAfterReconnect: options.resumeAfterReconnect ?? true,
    },
  };
}
