const FLOOR_DB = -60;
const RELEASE_DB_PER_SECOND = 24;
const PEAK_HOLD_MS = 1500;

/** A level meter with fast attack, slow release and a peak-hold marker, in dBFS. */
export class LevelMeter {
  readonly #fill: HTMLElement;
  readonly #peak: HTMLElement;
  readonly #meter: HTMLElement;
  readonly #levelText: HTMLElement;
  readonly #peakText: HTMLElement;
  #shown = FLOOR_DB;
  #latest = -Infinity;
  #peakDb = -Infinity;
  #peakAt = 0;
  #lastDraw = performance.now();

  constructor(elements: { meter: HTMLElement; fill: HTMLElement; peak: HTMLElement; level: HTMLElement; peakText: HTMLElement }) {
    this.#meter = elements.meter;
    this.#fill = elements.fill;
    this.#peak = elements.peak;
    this.#levelText = elements.level;
    this.#peakText = elements.peakText;
  }

  /** The RMS level of the newest frame, in dBFS. */
  update(dbfs: number, peakDbfs: number): void {
    this.#latest = dbfs;
    const now = performance.now();
    if (peakDbfs > this.#peakDb || now - this.#peakAt > PEAK_HOLD_MS) {
      this.#peakDb = peakDbfs;
      this.#peakAt = now;
    }
  }

  reset(): void {
    this.#latest = -Infinity;
    this.#peakDb = -Infinity;
  }

  draw(): void {
    const now = performance.now();
    const elapsed = (now - this.#lastDraw) / 1000;
    this.#lastDraw = now;
    const target = Math.max(FLOOR_DB, this.#latest);
    this.#shown = target >= this.#shown ? target : Math.max(target, this.#shown - RELEASE_DB_PER_SECOND * elapsed);
    const percent = ((this.#shown - FLOOR_DB) / -FLOOR_DB) * 100;
    this.#fill.style.width = `${percent.toFixed(1)}%`;
    this.#fill.style.setProperty('--meter-width', `${this.#meter.clientWidth}px`);
    const peakVisible = Number.isFinite(this.#peakDb) && this.#peakDb > FLOOR_DB;
    this.#peak.style.opacity = peakVisible ? '0.8' : '0';
    if (peakVisible) this.#peak.style.left = `calc(${(((this.#peakDb - FLOOR_DB) / -FLOOR_DB) * 100).toFixed(1)}% - 2px)`;
    this.#meter.setAttribute('aria-valuenow', this.#shown.toFixed(0));
    this.#levelText.textContent = Number.isFinite(this.#latest) ? `${this.#latest.toFixed(1)} dBFS` : '— dBFS';
    this.#peakText.textContent = Number.isFinite(this.#peakDb) ? `peak ${this.#peakDb.toFixed(1)} dBFS` : 'peak —';
  }
}
