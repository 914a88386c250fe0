import { describe, expect, it } from 'vitest';
import { encodeWav, measureLevel, SampleHistory } from '../src/recording.js';

function ramp(from: number, count: number): Float32Array {
  return Float32Array.from({ length: count }, (_, i) => from + i);
}

describe('SampleHistory', () => {
  it('keeps everything until it is full', () => {
    const history = new SampleHistory(1, 10);
    history.append(ramp(0, 4));
    history.append(ramp(4, 3));
    expect(history.length).toBe(7);
    expect(Array.from(history.latest())).toEqual([0, 1, 2, 3, 4, 5, 6]);
  });

  it('keeps only the most recent samples once full, oldest first', () => {
    const history = new SampleHistory(1, 10);
    for (let i = 0; i < 5; i++) history.append(ramp(i * 4, 4));
    expect(history.length).toBe(10);
    expect(history.totalSamples).toBe(20);
    expect(Array.from(history.latest())).toEqual([10, 11, 12, 13, 14, 15, 16, 17, 18, 19]);
    expect(Array.from(history.latest(3))).toEqual([17, 18, 19]);
  });

  it('takes a block longer than its capacity by keeping its end', () => {
    const history = new SampleHistory(1, 10);
    history.append(ramp(0, 3));
    history.append(ramp(100, 25));
    expect(Array.from(history.latest())).toEqual(Array.from(ramp(115, 10)));
  });

  it('holds one minute of 16 kHz audio', () => {
    const history = new SampleHistory(60);
    expect(history.capacity).toBe(960_000);
  });

  it('refuses a duration that is not positive', () => {
    expect(() => new SampleHistory(0)).toThrow(RangeError);
  });
});

describe('encodeWav', () => {
  it('writes a 16-bit mono WAV at 16 kHz', () => {
    const wav = encodeWav(Float32Array.from([0, 1, -1, 0.5, 2, Number.NaN]));
    const view = new DataView(wav.buffer);
    const text = (offset: number, length: number) => String.fromCharCode(...wav.subarray(offset, offset + length));
    expect(text(0, 4)).toBe('RIFF');
    expect(view.getUint32(4, true)).toBe(36 + 12);
    expect(text(8, 8)).toBe('WAVEfmt ');
    expect(view.getUint16(20, true)).toBe(1);
    expect(view.getUint16(22, true)).toBe(1);
    expect(view.getUint32(24, true)).toBe(16000);
    expect(view.getUint32(28, true)).toBe(32000);
    expect(view.getUint16(32, true)).toBe(2);
    expect(view.getUint16(34, true)).toBe(16);
    expect(text(36, 4)).toBe('data');
    expect(view.getUint32(40, true)).toBe(12);
    const samples = [0, 1, 2, 3, 4, 5].map((i) => view.getInt16(44 + i * 2, true));
    expect(samples).toEqual([0, 32767, -32768, 16384, 32767, 0]);
  });

  it('writes the samples exactly as 32-bit floats when asked', () => {
    const wav = encodeWav(Float32Array.from([0.1, -0.7]), { format: 'float32', sampleRate: 8000 });
    const view = new DataView(wav.buffer);
    expect(view.getUint16(20, true)).toBe(3);
    expect(view.getUint32(24, true)).toBe(8000);
    expect(view.getUint16(34, true)).toBe(32);
    expect(view.getFloat32(44, true)).toBe(Math.fround(0.1));
    expect(view.getFloat32(48, true)).toBe(Math.fround(-0.7));
  });
});

describe('measureLevel', () => {
  it('measures a full cycle of a sine of amplitude 0.5 at about -9 dBFS', () => {
    const sine = Float32Array.from({ length: 1600 }, (_, i) => 0.5 * Math.sin((2 * Math.PI * 440 * i) / 16000));
    const level = measureLevel(sine);
    expect(level.rms).toBeCloseTo(0.5 / Math.SQRT2, 3);
    expect(level.peak).toBeCloseTo(0.5, 2);
    expect(level.dbfs).toBeCloseTo(-9.03, 1);
  });

  it('reports silence as -Infinity dBFS', () => {
    expect(measureLevel(new Float32Array(10)).dbfs).toBe(-Infinity);
    expect(measureLevel(new Float32Array(0)).rms).toBe(0);
  });
});
