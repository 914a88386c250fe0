import type { HelperErrorCode } from './protocol.js';

/** Codes this client raises itself, next to the helper's own codes. */
export type ClientErrorCode =
  /** start() was called while not connected to a compatible helper. */
  | 'not_ready'
  /** The application's getPass() failed or returned no pass. */
  | 'pass_unavailable'
  /** Another page started streaming before this page's start completed. */
  | 'taken_over'
  /** The connection to the helper ended while waiting for an answer. */
  | 'connection_lost'
  /** stop() or disconnect() was called while a start was under way. */
  | 'cancelled'
  /** The helper stopped the capture itself before it was started for this page. */
  | 'stopped_by_helper'
  /** The helper did not answer "start" in time. */
  | 'start_timeout';

/** An error reported by the helper ("code" and "message" exactly as sent) or by this client. */
export class HelperError extends Error {
  readonly code: HelperErrorCode | ClientErrorCode | (string & {});

  constructor(code: HelperErrorCode | ClientErrorCode | (string & {}), message: string, options?: { cause?: unknown }) {
    super(message, options);
    this.name = 'HelperError';
    this.code = code;
  }

  /** True for the codes that the helper itself sends (as opposed to this client's own). */
  get fromHelper(): boolean {
    return HELPER_CODES.has(this.code);
  }
}

const HELPER_CODES: ReadonlySet<string> = new Set<HelperErrorCode>([
  'bad_request',
  'pass_required',
  'pass_invalid',
  'permission_timeout',
  'permission_denied',
  'device_error',
]);

/** The text of anything thrown, for a message that says what went wrong. */
export function errorText(error: unknown): string {
  return error instanceof Error ? error.message : String(error);
}
