// What the client reports about itself: where the connection stands, whether audio flows, and the
// sentences it shows the user for each situation.
import type { HelperError } from './HelperError.js';
import type { CallEnded, HelloMessage } from './protocol.js';

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

/** Hands one event to the client's listeners; given to the parts that raise events. */
export type EmitEvent = <K extends keyof HelperClientEvents>(event: K, ...args: HelperClientEvents[K]) => void;

export function idleStatus(): ConnectionStatus {
  return { state: 'idle', message: 'Not connected to the audio helper.' };
}

export function blocked(reason: BlockedReason): ConnectionStatus {
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
