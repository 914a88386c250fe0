import { afterEach, beforeEach, describe, expect, it, vi } from 'vitest';
import { Emitter } from '../src/Emitter.js';
import type { HelperClientEvents } from '../src/HelperClient.js';
import { createHelperMediaStream } from '../src/mediaStream.js';
import { STREAM_PROCESSOR_NAME } from '../src/workletSource.js';

class FakeClient extends Emitter<HelperClientEvents> {
  send(frame: Float32Array) {
    this.emit('audio', frame);
  }
}

const created: FakeContext[] = [];
const nodes: Array<{ name: string; options: AudioWorkletNodeOptions; posted: unknown[]; disconnected: boolean }> = [];

class FakeContext {
  state = 'suspended';
  sampleRate: number;
  modules: string[] = [];
  resumed = 0;
  closed = false;
  stopped: string[] = [];
  audioWorklet = { addModule: async (url: string) => void this.modules.push(url) };
  constructor(options?: { sampleRate?: number }) {
    this.sampleRate = options?.sampleRate ?? 48000;
    created.push(this);
  }
  resume() {
    this.resumed++;
    return new Promise<void>(() => {});
  }
  async close() {
    this.closed = true;
  }
  createMediaStreamDestination() {
    const track = { kind: 'audio', stop: () => this.stopped.push('track') };
    return { channelCount: 2, stream: { getTracks: () => [track], getAudioTracks: () => [track] } };
  }
}

class FakeNode {
  port: { postMessage: (message: unknown) => void };
  record: (typeof nodes)[number];
  constructor(_context: FakeContext, name: string, options: AudioWorkletNodeOptions) {
    this.record = { name, options, posted: [], disconnected: false };
    nodes.push(this.record);
    this.port = { postMessage: (message) => this.record.posted.push(message) };
  }
  connect() {}
  disconnect() {
    this.record.disconnected = true;
  }
}

beforeEach(() => {
  created.length = 0;
  nodes.length = 0;
  vi.stubGlobal('AudioContext', FakeContext);
  vi.stubGlobal('AudioWorkletNode', FakeNode);
  vi.spyOn(URL, 'createObjectURL').mockReturnValue('blob:worklet');
  vi.spyOn(URL, 'revokeObjectURL').mockImplementation(() => {});
});
afterEach(() => {
  vi.unstubAllGlobals();
  vi.restoreAllMocks();
});

describe('createHelperMediaStream', () => {
  it('runs a 16 kHz context with the stream worklet and one mono output', async () => {
    const client = new FakeClient();
    const media = await createHelperMediaStream(client);
    expect(created).toHaveLength(1);
    expect(created[0]!.sampleRate).toBe(16000);
    expect(created[0]!.modules).toEqual(['blob:worklet']);
    expect(URL.revokeObjectURL).toHaveBeenCalledWith('blob:worklet');
    expect(nodes[0]).toMatchObject({
      name: STREAM_PROCESSOR_NAME,
      options: { numberOfInputs: 0, numberOfOutputs: 1, outputChannelCount: [1] },
    });
    expect(nodes[0]!.options.processorOptions).toEqual({ inputRate: 16000, prebuffer: 3200, capacity: 16000 });
    expect(media.stream.getTracks()).toHaveLength(1);
    expect(created[0]!.resumed).toBe(1);
  });

  it('posts every frame to the worklet without transferring it away from other listeners', async () => {
    const client = new FakeClient();
    await createHelperMediaStream(client, { prebufferMs: 100, capacityMs: 500 });
    const frame = new Float32Array([0.1, 0.2]);
    client.send(frame);
    expect(nodes[0]!.posted).toEqual([frame]);
    expect(frame).toHaveLength(2); // not detached
    expect(nodes[0]!.options.processorOptions).toMatchObject({ prebuffer: 1600, capacity: 8000 });
  });

  it('loads the module once per context', async () => {
    const context = new FakeContext({ sampleRate: 44100 });
    const client = new FakeClient();
    await createHelperMediaStream(client, { context: context as unknown as AudioContext });
    await createHelperMediaStream(client, { context: context as unknown as AudioContext });
    expect(context.modules).toHaveLength(1);
    expect(nodes).toHaveLength(2);
  });

  it('stops feeding, ends the track and closes its own context on close()', async () => {
    const client = new FakeClient();
    const media = await createHelperMediaStream(client);
    await media.close();
    await media.close();
    client.send(new Float32Array(4));
    expect(nodes[0]!.posted).toEqual(['close']);
    expect(nodes[0]!.disconnected).toBe(true);
    expect(created[0]!.stopped).toEqual(['track']);
    expect(created[0]!.closed).toBe(true);
  });

  it('leaves a context it was given open', async () => {
    const context = new FakeContext();
    const media = await createHelperMediaStream(new FakeClient(), { context: context as unknown as AudioContext });
    await media.close();
    expect(context.closed).toBe(false);
  });

  it('falls back to the default rate where a 16 kHz context is refused', async () => {
    class PickyContext extends FakeContext {
      constructor(options?: { sampleRate?: number }) {
        if (options?.sampleRate) throw new DOMException('not supported', 'NotSupportedError');
        super();
      }
    }
    vi.stubGlobal('AudioContext', PickyContext);
    const media = await createHelperMediaStream(new FakeClient());
    expect(media.context.sampleRate).toBe(48000);
  });
});
