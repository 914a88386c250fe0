import { describe, expect, it } from 'vitest';
import { decodeFrame } from '../src/frames.js';
import { FRAME_BYTES, FRAME_SAMPLES, helloIncompatibility, parseServerMessage, type HelloMessage } from '../src/protocol.js';
import { frameOf } from './FakeWebSocket.js';

describe('parseServerMessage', () => {
  it('reads a hello without a product', () => {
    const text =
      '{"type":"hello","app":"velmora-audio-helper","version":"1.0.0","platform":"linux","sampleRate":16000,"channels":1,"format":"f32le"}';
    expect(parseServerMessage(text)).toEqual({
      type: 'hello',
      app: 'velmora-audio-helper',
      version: '1.0.0',
      platform: 'linux',
      sampleRate: 16000,
      channels: 1,
      format: 'f32le',
    });
  });

  it('reads a hello with a product', () => {
    const message = parseServerMessage(
      '{"format":"f32le","channels":1,"sampleRate":16000,"platform":"linux","version":"1.0.0","app":"velmora-audio-helper","type":"hello","product":"notes"}',
    ) as HelloMessage;
    expect(message.product).toBe('notes');
  });

  it.each([
    ['{"type":"pong"}', { type: 'pong' }],
    ['{"type":"started"}', { type: 'started' }],
    ['{"type":"stopped"}', { type: 'stopped' }],
    ['{"type":"stopped","reason":"taken_over"}', { type: 'stopped', reason: 'taken_over' }],
    [
      '{"type":"error","code":"pass_invalid","message":"Try again."}',
      { type: 'error', code: 'pass_invalid', message: 'Try again.' },
    ],
    [
      '{"type":"call_ended","app":"zoom","name":"Zoom","id":"zoom"}',
      { type: 'call_ended', app: 'zoom', name: 'Zoom', id: 'zoom' },
    ],
  ])('reads %s', (text, expected) => {
    expect(parseServerMessage(text)).toEqual(expected);
  });

  it.each(['', 'not json', '[]', '42', 'null', '{}', '{"type":5}', '{"type":"something_new"}'])(
    'returns null for %j',
    (text) => {
      expect(parseServerMessage(text)).toBeNull();
    },
  );
});

describe('helloIncompatibility', () => {
  const good: HelloMessage = {
    type: 'hello',
    app: 'velmora-audio-helper',
    version: '1.0.0',
    platform: 'linux',
    sampleRate: 16000,
    channels: 1,
    format: 'f32le',
  };

  it('accepts f32le at 16000 Hz mono from the helper on any platform', () => {
    expect(helloIncompatibility(good)).toBeNull();
    expect(helloIncompatibility({ ...good, platform: 'macos', version: '7.0.0' })).toBeNull();
  });

  it.each([
    [{ format: 'f32be' }],
    [{ format: 's16le' }],
    [{ sampleRate: 48000 }],
    [{ sampleRate: NaN }],
    [{ channels: 2 }],
    [{ app: 'other' }],
  ])('refuses %j', (change) => {
    expect(helloIncompatibility({ ...good, ...change })).toMatch(/\S/);
  });
});

describe('decodeFrame', () => {
  it('turns 6 400 little-endian bytes into 1 600 samples', () => {
    const samples = Float32Array.from({ length: FRAME_SAMPLES }, (_, i) => (i - 800) / 800);
    const frame = decodeFrame(frameOf(samples));
    expect(FRAME_BYTES).toBe(6400);
    expect(frame).toHaveLength(1600);
    expect(Array.from(frame)).toEqual(Array.from(samples));
  });

  it('copies the samples so that the source buffer may be reused', () => {
    const buffer = frameOf([0.25, -0.5]);
    const frame = decodeFrame(buffer);
    new DataView(buffer).setFloat32(0, 1, true);
    expect(Array.from(frame)).toEqual([0.25, -0.5]);
  });

  it('reads a view at an offset', () => {
    const bytes = new Uint8Array(3 + 8);
    bytes.set(new Uint8Array(frameOf([0.5, 0.75])), 3);
    expect(Array.from(decodeFrame(bytes.subarray(3)))).toEqual([0.5, 0.75]);
  });

  it('reads the exact bit patterns, including special values', () => {
    const buffer = new ArrayBuffer(12);
    const view = new DataView(buffer);
    view.setUint32(0, 0x3f800000, true); // 1.0
    view.setUint32(4, 0x80000000, true); // -0
    view.setUint32(8, 0x7f800000, true); // +Infinity
    const frame = decodeFrame(buffer);
    expect(frame[0]).toBe(1);
    expect(Object.is(frame[1], -0)).toBe(true);
    expect(frame[2]).toBe(Infinity);
  });

  it('ignores trailing bytes that do not make a whole sample', () => {
    const bytes = new Uint8Array(9);
    bytes.set(new Uint8Array(frameOf([0.5, 0.25])));
    expect(Array.from(decodeFrame(bytes))).toEqual([0.5, 0.25]);
  });
});
