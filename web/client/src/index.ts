export {
  HelperClient,
  type BlockedReason,
  type ConnectionState,
  type ConnectionStatus,
  type HelperClientEvents,
  type HelperClientOptions,
  type ReconnectOptions,
  type StreamState,
  type StreamStatus,
} from './HelperClient.js';
export { HelperError, type ClientErrorCode } from './HelperError.js';
export {
  DEFAULT_PORT,
  FRAME_BYTES,
  FRAME_SAMPLES,
  HELPER_APP_ID,
  SAMPLE_RATE,
  type CallEnded,
  type HelloMessage,
  type HelperErrorCode,
} from './protocol.js';
export { decodeFrame } from './frames.js';
export { createHelperMediaStream, type HelperMediaStream, type HelperMediaStreamOptions } from './mediaStream.js';
export { encodeWav, measureLevel, SampleHistory, type Level, type WavOptions } from './recording.js';
export {
  isLoopbackHost,
  isWebKitRefusingLoopback,
  type BrowserEnvironment,
  type LocalNetworkPermission,
  type WebSocketConstructor,
  type WebSocketLike,
} from './BrowserEnvironment.js';
