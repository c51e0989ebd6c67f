// The files page: bring files to the user's store, and fetch them from there.
import { permissions } from '../../client/index.js';
import { h, setText } from '../dom.js';
import { failureText, field } from '../forms.js';
import { bytes } from '../format.js';

/**
 * @param {HTMLElement} place
 * @param {{session: import('../../client/index.js').Session}} context
 */
export function startFiles(place, { session }) {
  const { policies } = session.state.account;
  const may = (bit) => (policies & bit) !== 0;
  const transfers = new Transfers(session);
  place.append(
    h(
      'div',
      { class: 'narrow' },
      h('div', { class: 'page-head' }, h('h1', {}, 'Files')),
      h('p', { class: 'soft lead' }, 'The user store of this machine. A name that begins with /flash/ lies in the flash. Names are enciphered on their way, contents are not.'),
      may(permissions.writeFiles) ? upload(transfers) : null,
      may(permissions.readFiles) ? download(transfers) : null,
      transfers.element,
    ),
  );
  return { stop: () => transfers.stop() };
}

function upload(transfers) {
  const folder = h('input', { placeholder: 'for example backup/ or /flash/', spellcheck: 'false', autocomplete: 'off', autocapitalize: 'none' });
  const picker = h('input', { type: 'file', multiple: true, class: 'hidden', tabindex: '-1', 'aria-hidden': 'true' });
  const take = (files) => {
    const prefix = folder.value.trim().replace(/([^/])$/, '$1/');
    for (const file of files) transfers.put(prefix + file.name, file);
  };
  const area = h(
    'div',
    { class: 'drop' },
    h('p', {}, 'Drop files here'),
    h('button', { type: 'button', class: 'primary', onclick: () => picker.click() }, 'Choose files'),
    picker,
  );
  picker.addEventListener('change', () => {
    take(picker.files);
    picker.value = '';
  });
  for (const event of ['dragenter', 'dragover', 'dragleave', 'drop']) {
    area.addEventListener(event, (happened) => {
      happened.preventDefault();
      area.classList.toggle('over', event === 'dragenter' || event === 'dragover');
      if (event === 'drop') take(happened.dataTransfer.files);
    });
  }
  return h('section', { class: 'panel form', 'aria-label': 'Upload' }, h('h2', {}, 'Upload'), field('Folder', folder, 'Empty: the top of the store. Folders are made.'), area);
}

function download(transfers) {
  const name = h('input', { placeholder: 'for example backup/today.txt', spellcheck: 'false', autocomplete: 'off', autocapitalize: 'none' });
  const message = h('p', { class: 'message one', role: 'alert' });
  const form = h(
    'form',
    { class: 'panel form', novalidate: true, 'aria-label': 'Download' },
    h('h2', {}, 'Download'),
    field('Name', name),
    message,
    h('button', { type: 'submit' }, 'Download'),
  );
  form.addEventListener('submit', async (event) => {
    event.preventDefault();
    setText(message, '');
    setText(message, (await transfers.get(name.value.trim())) ?? '');
  });
  return form;
}

/** What is on its way and what has come through. */
class Transfers {
  #session;
  #list = h('ul', { class: 'transfers' });
  #running = new Set();
  // One after the other: a disk likes that better, and so does whoever watches.
  #last = Promise.resolve();

  constructor(session) {
    this.#session = session;
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
  }

  /** Has the browser fetch a file, however large. What is wrong, or null. */
  async get(name) {
    if (!name) return 'Give the name of a file.';
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
