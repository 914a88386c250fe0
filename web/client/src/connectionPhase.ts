// Where the connection to the helper stands inside the client: one value, finer than the status the
// page sees, holding what belongs to each phase (the socket, the greeting, the timers) so that
// nothing outlives the phase it belongs to.
import type { WebSocketLike } from './BrowserEnvironment.js';
import type { HelloMessage } from './protocol.js';

/** Nothing under way: no socket, no question pending, no retry armed. */
export interface IdlePhase {
  readonly kind: 'idle';
}

/** A retry is armed after a failure. */
export interface WaitingPhase {
  readonly kind: 'waiting';
}

/** An attempt began and asks the browser about the local-network permission. */
export interface CheckingPhase {
  readonly kind: 'checking';
}

/** The WebSocket is created and not yet open. */
export interface OpeningPhase {
  readonly kind: 'opening';
  readonly socket: WebSocketLike;
}

/** The WebSocket is open; the helper's "hello" is awaited. */
export interface GreetingPhase {
  readonly kind: 'greeting';
  readonly socket: WebSocketLike;
  helloTimer: ReturnType<typeof setTimeout> | undefined;
}

/** The helper greeted: the connection is usable and kept alive with pings. */
export interface ReadyPhase {
  readonly kind: 'ready';
  readonly socket: WebSocketLike;
  readonly hello: HelloMessage;
  pingTimer: ReturnType<typeof setInterval> | undefined;
  /** Armed while a "ping" waits for its "pong". */
  pongTimer: ReturnType<typeof setTimeout> | undefined;
}

/** The WebSocket failed before opening; the client finds out why. */
export interface ExplainingPhase {
  readonly kind: 'explaining';
}

/** An attempt failed or the connection was lost; the owner is told, then a retry may be armed. */
export interface FailedPhase {
  readonly kind: 'failed';
}

export type ConnectionPhase =
  | IdlePhase
  | WaitingPhase
  | CheckingPhase
  | OpeningPhase
  | GreetingPhase
  | ReadyPhase
  | ExplainingPhase
  | FailedPhase;

export type PhaseKind = ConnectionPhase['kind'];

/** Every move the connection may make. */
export const PHASE_TRANSITIONS: Readonly<Record<PhaseKind, readonly PhaseKind[]>> = {
  // connect()
  idle: ['checking'],
  // the retry fires or connect() tries at once; the page stops trying
  waiting: ['checking', 'idle'],
  // the browser lets the attempt go on; it blocks it, a click is needed, or the page stops trying
  checking: ['opening', 'idle'],
  // the socket opens; it fails before opening; the page hangs up
  opening: ['greeting', 'explaining', 'idle'],
  // the helper greets; the socket closes first; no or a wrong greeting, or the page hangs up
  greeting: ['ready', 'failed', 'idle'],
  // the connection is lost; the page hangs up
  ready: ['failed', 'idle'],
  // nothing or something refusing listens; the browser blocks it, or the page stops trying
  explaining: ['failed', 'idle'],
  // a retry is armed; retrying is off, or the page stopped trying while told of the loss
  failed: ['waiting', 'idle'],
};

/**
 * Checks one move against the table. An impossible move is a defect in this client: during
 * development (and in tests) it throws. In production it is reported on the console and let
 * through, since the code that asked for it has already acted on it (closed a socket, armed a
 * timer) and the phase should say so.
 */
export function checkTransition(from: PhaseKind, to: PhaseKind): void {
  if (PHASE_TRANSITIONS[from].includes(to)) return;
  const problem = `Audio helper client: impossible connection transition ${from} → ${to}`;
  if (inDevelopment()) throw new Error(problem);
  console.error(problem);
}

// `process.env.NODE_ENV` is written out in full because bundlers replace exactly that expression
// in an application's build. A page loaded without a bundler has no `process` and counts as
// production.
declare const process: { env: { NODE_ENV?: string } };

function inDevelopment(): boolean {
  try {
    return process.env.NODE_ENV !== 'production';
  } catch {
    return false;
  }
}
