/** A scrolling min/max waveform of the most recent audio, drawn on a canvas. */
export class Waveform {
  readonly #canvas: HTMLCanvasElement;
  readonly #columnsPerFrame: number;
  readonly #mins: Float32Array;
  readonly #maxs: Float32Array;
  #next = 0;
  #dirty = true;

  /** `frames` frames are visible at once; each becomes `columnsPerFrame` columns. */
  constructor(canvas: HTMLCanvasElement, frames = 100, columnsPerFrame = 8) {
    this.#canvas = canvas;
    this.#columnsPerFrame = columnsPerFrame;
    this.#mins = new Float32Array(frames * columnsPerFrame);
    this.#maxs = new Float32Array(frames * columnsPerFrame);
  }

  push(frame: Float32Array): void {
    const size = Math.ceil(frame.length / this.#columnsPerFrame);
    for (let c = 0; c < this.#columnsPerFrame; c++) {
      let min = 0;
      let max = 0;
      const end = Math.min(frame.length, (c + 1) * size);
      for (let i = c * size; i < end; i++) {
        const s = frame[i]!;
        if (s < min) min = s;
        if (s > max) max = s;
      }
      this.#mins[this.#next] = min;
      this.#maxs[this.#next] = max;
      this.#next = (this.#next + 1) % this.#mins.length;
    }
    this.#dirty = true;
  }

  clear(): void {
    this.#mins.fill(0);
    this.#maxs.fill(0);
    this.#dirty = true;
  }

  draw(): void {
    const canvas = this.#canvas;
    const ratio = window.devicePixelRatio || 1;
    const width = Math.max(1, Math.round(canvas.clientWidth * ratio));
    const height = Math.max(1, Math.round(canvas.clientHeight * ratio));
    if (canvas.width !== width || canvas.height !== height) {
      canvas.width = width;
      canvas.height = height;
      this.#dirty = true;
    }
    if (!this.#dirty) return;
    this.#dirty = false;
    const g = canvas.getContext('2d');
    if (!g) return;
    g.clearRect(0, 0, width, height);
    const middle = height / 2;
    // Grid: centre line and ±0.5 full scale.
    g.fillStyle = 'rgba(148, 163, 184, 0.18)';
    g.fillRect(0, Math.round(middle), width, 1);
    g.fillStyle = 'rgba(148, 163, 184, 0.08)';
    g.fillRect(0, Math.round(middle - middle / 2), width, 1);
    g.fillRect(0, Math.round(middle + middle / 2), width, 1);
    const columns = this.#mins.length;
    const step = width / columns;
    g.fillStyle = '#818cf8';
    for (let i = 0; i < columns; i++) {
      const index = (this.#next + i) % columns;
      const top = middle - Math.min(1, this.#maxs[index]!) * middle * 0.95;
      const bottom = middle - Math.max(-1, this.#mins[index]!) * middle * 0.95;
      g.fillRect(i * step, top, step + 0.5, Math.max(1, bottom - top));
    }
  }
}
