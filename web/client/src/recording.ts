import { SAMPLE_RATE } from './protocol.js';

/** Keeps the most recent audio, up to a fixed duration, for saving or analysis. */
export class SampleHistory {
  readonly capacity: number;
  readonly sampleRate: number;
  readonly #buffer: Float32Array;
  #written = 0;

  constructor(seconds: number, sampleRate = SAMPLE_RATE) {
    if (!(seconds > 0)) throw new RangeError('SampleHistory needs a positive duration');
    this.sampleRate = sampleRate;
    this.capacity = Math.round(seconds * sampleRate);
    this.#buffer = new Float32Array(this.capacity);
  }

  /** Samples held now (at most capacity). */
  get length(): number {
    return Math.min(this.#written, this.capacity);
  }

  /** Samples ever appended. */
  get totalSamples(): number {
    return this.#written;
  }

  append(samples: Float32Array): void {
    let source = samples;
    if (source.length > this.capacity) source = source.subarray(source.length - this.capacity);
    const start = (this.#written + (samples.length - source.length)) % this.capacity;
    const first = Math.min(source.length, this.capacity - start);
    this.#buffer.set(source.subarray(0, first), start);
    this.#buffer.set(source.subarray(first), 0);
    this.#written += samples.length;
  }

  /** The last `count` samples held (all of them when omitted), oldest first, as a copy. */
  latest(count = this.length): Float32Array<ArrayBuffer> {
    const n = Math.max(0, Math.min(count, this.length));
    const out = new Float32Array(n);
    const start = (((this.#written - n) % this.capacity) + this.capacity) % this.capacity;
    const first = Math.min(n, this.capacity - start);
    out.set(this.#buffer.subarray(start, start + first), 0);
    out.set(this.#buffer.subarray(0, n - first), first);
    return out;
  }

  clear(): void {
    this.#written = 0;
  }
}

export interface WavOptions {
  sampleRate?: number;
  /** 'pcm16' (plays everywhere, the default) or 'float32' (the samples exactly as received). */
  format?: 'pcm16' | 'float32';
}

/** A mono WAV file of the samples. */
export function encodeWav(samples: Float32Array, options: WavOptions = {}): Uint8Array<ArrayBuffer> {
  const sampleRate = options.sampleRate ?? SAMPLE_RATE;
  const float = options.format === 'float32';
  const bytesPerSample = float ? 4 : 2;
  const dataBytes = samples.length * bytesPerSample;
  const bytes = new Uint8Array(44 + dataBytes);
  const view = new DataView(bytes.buffer);
  const text = (offset: number, value: string) => {
    for (let i = 0; i < value.length; i++) view.setUint8(offset + i, value.charCodeAt(i));
  };
  text(0, 'RIFF');
  view.setUint32(4, 36 + dataBytes, true);
  text(8, 'WAVE');
  text(12, 'fmt ');
  view.setUint32(16, 16, true);
  view.setUint16(20, float ? 3 : 1, true);
  view.setUint16(22, 1, true);
  view.setUint32(24, sampleRate, true);
  view.setUint32(28, sampleRate * bytesPerSample, true);
  view.setUint16(32, bytesPerSample, true);
  view.setUint16(34, bytesPerSample * 8, true);
  text(36, 'data');
  view.setUint32(40, dataBytes, true);
  for (let i = 0; i < samples.length; i++) {
    const sample = samples[i]!;
    if (float) {
      view.setFloat32(44 + i * 4, sample, true);
    } else {
      const clipped = Math.max(-1, Math.min(1, Number.isFinite(sample) ? sample : 0));
      view.setInt16(44 + i * 2, Math.round(clipped < 0 ? clipped * 0x8000 : clipped * 0x7fff), true);
    }
  }
  return bytes;
}

export interface Level {
  /** Root mean square of the samples, 0 to 1 for full-scale audio. */
  rms: number;
  /** Largest absolute sample. */
  peak: number;
  /** RMS in decibels relative to full scale; -Infinity for silence. */
  dbfs: number;
}

/** Loudness of a block of samples. */
export function measureLevel(samples: Float32Array): Level {
  let sum = 0;
  let peak = 0;
  for (let i = 0; i < samples.length; i++) {
    const s = samples[i]!;
    sum += s * s;
    const a = Math.abs(s);
    if (a > peak) peak = a;
  }
  const rms = samples.length > 0 ? Math.sqrt(sum / samples.length) : 0;
  return { rms, peak, dbfs: rms > 0 ? 20 * Math.log10(rms) : -Infinity };
}
