// Listeners are stored untyped; on() and emit() keep the event and its arguments together.
type Listener = (...args: any[]) => void;

/** A small typed event emitter; a listener that throws cannot break the emitter or its owner. */
export class Emitter<Events extends { [K in keyof Events]: unknown[] }> {
  readonly #listeners = new Map<keyof Events, Set<Listener>>();

  /** Adds a listener; returns a function that removes it again. */
  on<K extends keyof Events>(event: K, listener: (...args: Events[K]) => void): () => void {
    let set = this.#listeners.get(event);
    if (!set) {
      set = new Set();
      this.#listeners.set(event, set);
    }
    set.add(listener as Listener);
    return () => this.off(event, listener);
  }

  off<K extends keyof Events>(event: K, listener: (...args: Events[K]) => void): void {
    this.#listeners.get(event)?.delete(listener as Listener);
  }

  protected emit<K extends keyof Events>(event: K, ...args: Events[K]): void {
    const set = this.#listeners.get(event);
    if (!set) return;
    for (const listener of [...set]) {
      try {
        listener(...args);
      } catch (error) {
        // Surface the application's bug without unwinding the client's own state changes.
        queueMicrotask(() => {
          throw error;
        });
      }
    }
  }
}
