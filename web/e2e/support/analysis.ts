// Measurements of received audio for the browser tests.

export interface Wav {
  sampleRate: number;
  channels: number;
  bitsPerSample: number;
  /** 1 integer PCM, 3 IEEE float. */
  format: number;
  samples: Float32Array;
}

/** Reads a mono or interleaved WAV (16-bit PCM or 32-bit float) into samples of the first channel. */
export function parseWav(bytes: Uint8Array): Wav {
  const view = new DataView(bytes.buffer, bytes.byteOffset, bytes.byteLength);
  const text = (offset: number) => String.fromCharCode(...bytes.subarray(offset, offset + 4));
  if (text(0) !== 'RIFF' || text(8) !== 'WAVE') throw new Error('Not a WAV file');
  let offset = 12;
  let format = 0;
  let channels = 0;
  let sampleRate = 0;
  let bitsPerSample = 0;
  while (offset + 8 <= bytes.length) {
    const id = text(offset);
    const size = view.getUint32(offset + 4, true);
    const body = offset + 8;
    if (id === 'fmt ') {
      format = view.getUint16(body, true);
      channels = view.getUint16(body + 2, true);
      sampleRate = view.getUint32(body + 4, true);
      bitsPerSample = view.getUint16(body + 14, true);
    } else if (id === 'data') {
      const bytesPerSample = bitsPerSample / 8;
      const count = Math.floor(size / (bytesPerSample * channels));
      const samples = new Float32Array(count);
      for (let i = 0; i < count; i++) {
        const at = body + i * bytesPerSample * channels;
        samples[i] = format === 3 ? view.getFloat32(at, true) : view.getInt16(at, true) / 32768;
      }
      return { sampleRate, channels, bitsPerSample, format, samples };
    }
    offset = body + size + (size % 2);
  }
  throw new Error('WAV file without data');
}

export function rms(samples: ArrayLike<number>): number {
  let sum = 0;
  for (let i = 0; i < samples.length; i++) sum += samples[i]! * samples[i]!;
  return samples.length > 0 ? Math.sqrt(sum / samples.length) : 0;
}

export function dbfs(samples: ArrayLike<number>): number {
  const value = rms(samples);
  return value > 0 ? 20 * Math.log10(value) : -Infinity;
}

/** Power of one frequency in the block (Goertzel), normalised so a full-scale sine gives 0.5. */
export function powerAt(samples: ArrayLike<number>, hz: number, sampleRate: number): number {
  const k = (2 * Math.PI * hz) / sampleRate;
  const coefficient = 2 * Math.cos(k);
  let previous = 0;
  let beforePrevious = 0;
  for (let i = 0; i < samples.length; i++) {
    const current = samples[i]! + coefficient * previous - beforePrevious;
    beforePrevious = previous;
    previous = current;
  }
  const power = previous * previous + beforePrevious * beforePrevious - coefficient * previous * beforePrevious;
  return (2 * power) / (samples.length * samples.length);
}

/**
 * The frequency of the strongest tone, scanning 20 Hz to the Nyquist frequency in 1 Hz steps
 * and refining to 0.1 Hz around the best step.
 */
export function dominantFrequency(samples: ArrayLike<number>, sampleRate: number): number {
  let best = 0;
  let bestPower = -1;
  for (let hz = 20; hz < sampleRate / 2; hz += 1) {
    const power = powerAt(samples, hz, sampleRate);
    if (power > bestPower) {
      bestPower = power;
      best = hz;
    }
  }
  for (let hz = best - 1; hz <= best + 1; hz += 0.1) {
    const power = powerAt(samples, hz, sampleRate);
    if (power > bestPower) {
      bestPower = power;
      best = hz;
    }
  }
  return best;
}

/** Share of the block's power that lies within ±`widthHz` of `hz` (1 for a pure tone). */
export function purity(samples: ArrayLike<number>, hz: number, sampleRate: number, widthHz = 3): number {
  const total = rms(samples) ** 2;
  if (total === 0) return 0;
  let peak = 0;
  for (let f = hz - widthHz; f <= hz + widthHz; f += 0.25) peak = Math.max(peak, powerAt(samples, f, sampleRate));
  return peak / total;
}
