import { describe, expect, it } from 'vitest';
import { STREAM_PROCESSOR_NAME, workletSource } from '../src/workletSource.js';

interface Processor {
  port: { onmessage: ((event: { data: unknown }) => void) | null };
  process(inputs: Float32Array[][], outputs: Float32Array[][]): boolean;
}
type ProcessorClass = new (options: unknown) => Processor;

/** Runs the worklet module the way an AudioWorkletGlobalScope would, at the given context rate. */
function loadProcessor(contextRate: number): { name: string; Processor: ProcessorClass } {
  const registered: Array<[string, ProcessorClass]> = [];
  class AudioWorkletProcessor {
    port = { onmessage: null };
  }
  const registerProcessor = (name: string, processor: ProcessorClass) => registered.push([name, processor]);
  new Function('AudioWorkletProcessor', 'registerProcessor', 'sampleRate', workletSource)(
    AudioWorkletProcessor,
    registerProcessor,
    contextRate,
  );
  expect(registered).toHaveLength(1);
  const [name, Processor] = registered[0]!;
  return { name, Processor };
}

function make(contextRate: number, settings: Record<string, number>) {
  const { Processor } = loadProcessor(contextRate);
  const processor = new Processor({ processorOptions: { inputRate: 16000, ...settings } });
  const push = (samples: number[]) => processor.port.onmessage!({ data: Float32Array.from(samples) });
  const pull = (count: number, channels = 1) => {
    const outputs = [Array.from({ length: channels }, () => new Float32Array(count))];
    const alive = processor.process([], outputs);
    return { alive, out: outputs[0]![0]!, channels: outputs[0]! };
  };
  return { processor, push, pull };
}

describe('the stream worklet', () => {
  it('registers its processor under the published name', () => {
    expect(loadProcessor(16000).name).toBe(STREAM_PROCESSOR_NAME);
  });

  it('plays silence until the pre-buffer is filled, then the samples unchanged at 16 kHz', () => {
    const { push, pull } = make(16000, { prebuffer: 4, capacity: 100 });
    push([0.1, 0.2, 0.3]);
    expect(Array.from(pull(2).out)).toEqual([0, 0]);
    push([0.4, 0.5, 0.6]);
    expect(Array.from(pull(4).out)).toEqual([0.1, 0.2, 0.3, 0.4].map(Math.fround));
  });

  it('interpolates when the context runs at 48 kHz', () => {
    const { push, pull } = make(48000, { prebuffer: 2, capacity: 100 });
    push([0, 0.3, 0.6, 0.9]);
    const out = Array.from(pull(7).out);
    const expected = [0, 0.1, 0.2, 0.3, 0.4, 0.5, 0.6];
    out.forEach((v, i) => expect(v).toBeCloseTo(expected[i]!, 6));
  });

  it('plays silence on an underrun and waits for the pre-buffer again', () => {
    const { push, pull } = make(16000, { prebuffer: 3, capacity: 100 });
    push([0.1, 0.2, 0.3]);
    expect(Array.from(pull(4).out)).toEqual([0.1, 0.2, 0, 0].map(Math.fround));
    push([0.4]);
    expect(Array.from(pull(1).out)).toEqual([0]);
    push([0.5, 0.6]);
    expect(Array.from(pull(2).out)).toEqual([0.3, 0.4].map(Math.fround));
  });

  it('drops the oldest samples when more than its capacity wait', () => {
    const { push, pull } = make(16000, { prebuffer: 2, capacity: 4 });
    push([1, 2, 3, 4, 5, 6]);
    expect(Array.from(pull(3).out)).toEqual([3, 4, 5]);
  });

  it('fills every output channel alike', () => {
    const { push, pull } = make(16000, { prebuffer: 2, capacity: 10 });
    push([0.5, 0.25, 0.125]);
    const { channels } = pull(2, 2);
    expect(Array.from(channels[1]!)).toEqual(Array.from(channels[0]!));
    expect(Array.from(channels[0]!)).toEqual([0.5, 0.25]);
  });

  it('keeps running until told to close', () => {
    const { processor, pull } = make(16000, {});
    expect(pull(128).alive).toBe(true);
    processor.port.onmessage!({ data: 'close' });
    expect(pull(128).alive).toBe(false);
  });

  it('ignores messages that are not audio', () => {
    const { processor, pull } = make(16000, { prebuffer: 2 });
    processor.port.onmessage!({ data: { hello: 1 } });
    expect(Array.from(pull(2).out)).toEqual([0, 0]);
  });
});
