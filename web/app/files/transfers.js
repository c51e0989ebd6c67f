// Files on their way.
import { h, setText } from '../dom.js';
import { failureText } from '../forms.js';
import { bytes } from '../format.js';

/** What is on its way and what has come through. */
export class Transfers {
  #session;
  #onIdle;
  #list = h('ul', { class: 'transfers' });
  #running = new Set();
  // One after the other: a disk likes that better, and so does whoever watches.
  #last = Promise.resolve();

  /**
   * @param {import('../../client/index.js').Session} session
   * @param {() => void} onIdle  Whenever all that was to be sent is through, or has failed.
   */
  constructor(session, onIdle) {
    this.#session = session;
    this.#onIdle = onIdle;
    this.element = h('section', { 'aria-label': 'Transfers', 'aria-live': 'polite' }, this.#list);
  }

  put(name, file) {
    const bar = h('progress', { max: 1, value: 0, 'aria-label': name });
    const state = h('span', { class: 'soft' }, 'waiting');
    const cancel = h('button', { type: 'button', class: 'plain' }, 'Cancel');
    this.#list.prepend(h('li', { class: 'panel', 'data-transfer': name }, h('div', { class: 'transfer-head' }, h('span', { class: 'place' }, name), state, cancel), bar));
    const abort = new AbortController();
    cancel.addEventListener('click', () => abort.abort());
    this.#running.add(abort);
    this.#last = this.#last.then(() => this.#send(name, file, { bar, state, cancel, abort }));
  }

  async #send(name, file, { bar, state, cancel, abort }) {
    const onProgress = (sent, all) => {
      bar.value = all ? sent / all : 1;
      setText(state, `${bytes(sent)} of ${bytes(all)}`);
    };
    const { error } = await this.#session.put(name, file, { onProgress, signal: abort.signal });
    this.#running.delete(abort);
    cancel.remove();
    bar.value = error ? bar.value : 1;
    bar.closest('li').dataset.state = error ? 'failed' : 'done';
    setText(state, error ? (abort.signal.aborted ? 'Cancelled' : fileFailure(error)) : `${bytes(file.size)}, stored`);
    if (this.#running.size === 0) this.#onIdle();
  }

  /** Has the browser fetch a file, however large. What is wrong, or null. */
  async get(name) {
    const abort = new AbortController();
    const { error } = await this.#session.get(name, { signal: abort.signal });
    abort.abort();
    const { href, error: lost } = error ? { error } : this.#session.link(name);
    if (lost) return fileFailure(lost);
    h('a', { href, download: name.split('/').pop() }).click();
    return null;
  }

  stop() {
    for (const abort of this.#running) abort.abort();
  }
}

function fileFailure(error) {
  if (error.kind !== 'service') return failureText(error);
  const texts = { 403: 'Not allowed, or no name that a file can have.', 404: 'There is no such file.', 507: 'No room left.' };
  return texts[error.code] ?? `The server could not do it (${error.code}).`;
}
