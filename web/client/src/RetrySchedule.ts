import type { ReconnectOptions } from './options.js';

/**
 * When to try the helper again: the first delay after a failure, doubling with every further
 * failure up to the largest, each spread at random so that many pages do not retry in step.
 */
export class RetrySchedule {
  readonly #options: Required<ReconnectOptions> | null;
  #delayMs: number;
  #timer: ReturnType<typeof setTimeout> | undefined;

  /** With null options the client never retries by itself. */
  constructor(options: Required<ReconnectOptions> | null) {
    this.#options = options;
    this.#delayMs = options?.initialDelayMs ?? 0;
  }


  /**
   * Arms the next try in place of any armed one and returns its delay in milliseconds, or
   * undefined when retrying is off.
   */
  schedule(retry: () => void): number | undefined {
    if (!this.#options) return undefined;
    this.cancel();
    const { maxDelayMs, jitter } = this.#options;
    const base = this.#delayMs;
    const delay = Math.max(0, Math.round(base * (1 + jitter * (2 * Math.random() - 1))));
    this.#delayMs = Math.min(maxDelayMs, base * 2);
    this.#timer = setTimeout(() => {
      this.#timer = undefined;
      retry();
    }, delay);
    return delay;
  }

  cancel(): void {
    if (this.#timer !== undefined) clearTimeout(this.#timer);
    this.#timer = undefined;
  }

  /** Starts again from the first delay (after a connection worked, or the page gave up). */
  reset(): void {
    this.#delayMs = this.#options?.initialDelayMs ?? 0;
  }
}
