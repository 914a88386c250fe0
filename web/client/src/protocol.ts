// Messages spoken between a page and the helper over ws://127.0.0.1:<port>/.

/** The helper's port unless the user changed it in the helper's settings. */
export const DEFAULT_PORT = 52849;
/** Samples per second of the audio stream. */
export const SAMPLE_RATE = 16000;
/** Samples in one binary audio message: 100 ms at 16 kHz. */
export const FRAME_SAMPLES = 1600;
/** Bytes in one binary audio message (32-bit float samples). */
export const FRAME_BYTES = FRAME_SAMPLES * 4;
/** The "app" value of the helper's "hello". */
export const HELPER_APP_ID = 'velmora-audio-helper';

/** First message on every connection: the helper's identity and the audio format. */
export interface HelloMessage {
  type: 'hello';
  app: string;
  version: string;
  platform: string;
  sampleRate: number;
  channels: number;
  format: string;
  product?: string;
}

/** A call in a known meeting app has ended while this page was receiving audio. */
export interface CallEnded {
  /** The meeting app's family key, such as "teams" or "browser". */
  app: string;
  /** Its display name. */
  name: string;
  /** The identifier of the matching app. */
  id: string;
}

/** Error codes the helper sends in an "error" message. */
export type HelperErrorCode =
  | 'bad_request'
  | 'pass_required'
  | 'pass_invalid'
  | 'permission_timeout'
  | 'permission_denied'
  | 'device_error';

export type ServerMessage =
  | HelloMessage
  | { type: 'pong' }
  | { type: 'started' }
  | { type: 'stopped'; reason?: string }
  | { type: 'error'; code: string; message: string }
  | ({ type: 'call_ended' } & CallEnded);

export type ClientMessage = { type: 'ping' } | { type: 'start'; pass: string } | { type: 'stop' };

function isObject(value: unknown): value is Record<string, unknown> {
  return typeof value === 'object' && value !== null && !Array.isArray(value);
}

function optionalString(value: unknown): string | undefined {
  return typeof value === 'string' ? value : undefined;
}

/**
 * Reads one text message from the helper. Returns null for anything that is not a message this
 * client understands (unknown types are ignored so that a newer helper can add messages).
 */
export function parseServerMessage(text: string): ServerMessage | null {
  let value: unknown;
  try {
    value = JSON.parse(text);
  } catch {
    return null;
  }
  if (!isObject(value) || typeof value.type !== 'string') return null;
  switch (value.type) {
    case 'hello': {
      const hello: HelloMessage = {
        type: 'hello',
        app: optionalString(value.app) ?? '',
        version: optionalString(value.version) ?? '',
        platform: optionalString(value.platform) ?? '',
        sampleRate: typeof value.sampleRate === 'number' ? value.sampleRate : NaN,
        channels: typeof value.channels === 'number' ? value.channels : NaN,
        format: optionalString(value.format) ?? '',
      };
      const product = optionalString(value.product);
      if (product !== undefined) hello.product = product;
      return hello;
    }
    case 'pong':
      return { type: 'pong' };
    case 'started':
      return { type: 'started' };
    case 'stopped': {
      const reason = optionalString(value.reason);
      return reason === undefined ? { type: 'stopped' } : { type: 'stopped', reason };
    }
    case 'error':
      return {
        type: 'error',
        code: optionalString(value.code) ?? 'unknown',
        message: optionalString(value.message) ?? '',
      };
    case 'call_ended':
      return {
        type: 'call_ended',
        app: optionalString(value.app) ?? '',
        name: optionalString(value.name) ?? '',
        id: optionalString(value.id) ?? '',
      };
    default:
      return null;
  }
}

/** Why a "hello" does not describe a helper this client can use, or null when it does. */
export function helloIncompatibility(hello: HelloMessage): string | null {
  if (hello.app !== HELPER_APP_ID) {
    return `The program on this port is not the audio helper (it calls itself "${hello.app}").`;
  }
  if (hello.format !== 'f32le' || hello.sampleRate !== SAMPLE_RATE || hello.channels !== 1) {
    return (
      `The audio helper ${hello.version} sends ${hello.format} audio at ${hello.sampleRate} Hz ` +
      `with ${hello.channels} channel(s); this page needs f32le at ${SAMPLE_RATE} Hz mono. ` +
      'Update the helper or the page.'
    );
  }
  return null;
}
