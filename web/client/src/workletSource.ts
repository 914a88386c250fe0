/** The name under which the stream processor registers itself in an AudioWorklet. */
export const STREAM_PROCESSOR_NAME = 'velmora-helper-stream';

/**
 * Source of the AudioWorklet module that plays the helper's frames into a Web Audio graph.
 * It is plain JavaScript kept as text, so that it reaches the worklet unchanged whatever bundler
 * or minifier the application uses; it is loaded from a Blob URL.
 *
 * FrameRing holds the received samples (16 kHz) and reads them out at the context's rate with
 * linear interpolation. It waits for `prebuffer` samples before playing so that network jitter
 * does not cause gaps, plays silence and refills after an underrun, and drops the oldest samples
 * when more than `capacity` are waiting, which bounds the delay when the two clocks drift apart.
 */
export const workletSource = `
class FrameRing {
  constructor(capacity, prebuffer) {
    this.capacity = Math.max(2, capacity | 0);
    this.prebuffer = Math.min(this.capacity, Math.max(2, prebuffer | 0));
    this.buffer = new Float32Array(this.capacity);
    this.written = 0;
    this.position = 0;
    this.priming = true;
    this.dropped = 0;
    this.underruns = 0;
  }
  push(samples) {
    for (let i = 0; i < samples.length; i++) {
      this.buffer[(this.written + i) % this.capacity] = samples[i];
    }
    this.written += samples.length;
    const oldest = this.written - this.capacity;
    if (this.position < oldest) {
      this.dropped += oldest - Math.floor(this.position);
      this.position = oldest;
    }
  }
  available() {
    return this.written - this.position;
  }
  pull(out, step) {
    for (let i = 0; i < out.length; i++) {
      if (this.priming) {
        if (this.written - this.position < this.prebuffer) {
          out[i] = 0;
          continue;
        }
        this.priming = false;
      }
      const index = Math.floor(this.position);
      if (index + 1 >= this.written) {
        this.priming = true;
        this.underruns++;
        out[i] = 0;
        continue;
      }
      const fraction = this.position - index;
      const a = this.buffer[index % this.capacity];
      const b = this.buffer[(index + 1) % this.capacity];
      out[i] = a + (b - a) * fraction;
      this.position += step;
    }
  }
}

class VelmoraHelperStreamProcessor extends AudioWorkletProcessor {
  constructor(options) {
    super();
    const settings = (options && options.processorOptions) || {};
    this.ring = new FrameRing(settings.capacity || 16000, settings.prebuffer || 3200);
    this.step = (settings.inputRate || 16000) / sampleRate;
    this.open = true;
    this.port.onmessage = (event) => {
      if (event.data === 'close') this.open = false;
      else if (event.data instanceof Float32Array) this.ring.push(event.data);
    };
  }
  process(inputs, outputs) {
    const output = outputs[0];
    if (output && output.length > 0) {
      this.ring.pull(output[0], this.step);
      for (let channel = 1; channel < output.length; channel++) output[channel].set(output[0]);
    }
    return this.open;
  }
}

registerProcessor('${'velmora-helper-stream'}', VelmoraHelperStreamProcessor);
`;
