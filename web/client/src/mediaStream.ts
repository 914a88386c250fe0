import type { HelperClient } from './HelperClient.js';
import { SAMPLE_RATE } from './protocol.js';
import { STREAM_PROCESSOR_NAME, workletSource } from './workletSource.js';

export interface HelperMediaStreamOptions {
  /** Use this context instead of creating one (at 16 kHz where the browser allows it). */
  context?: AudioContext;
  /** Audio held back before playing starts, against network jitter. Default 200 ms. */
  prebufferMs?: number;
  /** Most audio held waiting; older audio is dropped beyond it. Default 1 000 ms. */
  capacityMs?: number;
}

export interface HelperMediaStream {
  /** One mono audio track carrying the helper's audio. */
  readonly stream: MediaStream;
  readonly context: AudioContext;
  readonly node: AudioWorkletNode;
  /** Stops feeding the stream, ends its track and closes the context if this function made it. */
  close(): Promise<void>;
}

const contextsWithModule = new WeakSet<BaseAudioContext>();

/**
 * Builds a MediaStream from the client's audio frames, for pages that want to hand the audio to
 * something that takes a MediaStream (a MediaRecorder, a WebRTC connection, an <audio> element).
 * Create it from a click handler: browsers keep an AudioContext made without a gesture suspended.
 */
export async function createHelperMediaStream(
  client: Pick<HelperClient, 'on'>,
  options: HelperMediaStreamOptions = {},
): Promise<HelperMediaStream> {
  const ownsContext = options.context === undefined;
  const context = options.context ?? createContext();
  if (!contextsWithModule.has(context)) {
    const url = URL.createObjectURL(new Blob([workletSource], { type: 'text/javascript' }));
    try {
      await context.audioWorklet.addModule(url);
    } finally {
      URL.revokeObjectURL(url);
    }
    contextsWithModule.add(context);
  }
  const samplesPerMs = SAMPLE_RATE / 1000;
  const node = new AudioWorkletNode(context, STREAM_PROCESSOR_NAME, {
    numberOfInputs: 0,
    numberOfOutputs: 1,
    outputChannelCount: [1],
    processorOptions: {
      inputRate: SAMPLE_RATE,
      prebuffer: Math.round((options.prebufferMs ?? 200) * samplesPerMs),
      capacity: Math.round((options.capacityMs ?? 1000) * samplesPerMs),
    },
  });
  const destination = context.createMediaStreamDestination();
  destination.channelCount = 1;
  node.connect(destination);
  // Posting copies the frame, so other listeners keep theirs intact.
  const unsubscribe = client.on('audio', (frame) => node.port.postMessage(frame));
  if (context.state === 'suspended') {
    // Without a user gesture this stays pending until the page gets one; don't wait for it.
    void context.resume().catch(() => undefined);
  }
  let closed = false;
  return {
    stream: destination.stream,
    context,
    node,
    async close() {
      if (closed) return;
      closed = true;
      unsubscribe();
      node.port.postMessage('close');
      node.disconnect();
      for (const track of destination.stream.getTracks()) track.stop();
      if (ownsContext) await context.close();
    },
  };
}

function createContext(): AudioContext {
  try {
    return new AudioContext({ sampleRate: SAMPLE_RATE });
  } catch {
    // Some browsers cannot run a context at 16 kHz; the worklet resamples instead.
    return new AudioContext();
  }
}
