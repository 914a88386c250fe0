export type EventKind = 'call' | 'warn' | 'bad' | 'info';

/** The list of things that happened, newest first. */
export class EventLog {
  readonly #list: HTMLOListElement;
  readonly #limit: number;

  constructor(list: HTMLOListElement, limit = 100) {
    this.#list = list;
    this.#limit = limit;
  }

  add(kind: EventKind, tag: string, text: string): void {
    this.#list.querySelector('li.empty')?.remove();
    const item = document.createElement('li');
    item.dataset.kind = kind;
    const time = document.createElement('time');
    const now = new Date();
    time.dateTime = now.toISOString();
    time.textContent = now.toLocaleTimeString([], { hour12: false });
    const body = document.createElement('div');
    const label = document.createElement('span');
    label.className = `tag ${kind}`;
    label.textContent = tag;
    body.append(label, document.createTextNode(text));
    item.append(time, body);
    this.#list.prepend(item);
    while (this.#list.children.length > this.#limit) this.#list.lastElementChild?.remove();
  }

  clear(): void {
    this.#list.replaceChildren();
    const empty = document.createElement('li');
    empty.className = 'empty';
    empty.textContent = 'Call endings, take-overs and errors appear here.';
    this.#list.append(empty);
  }
}
