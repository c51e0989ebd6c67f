// A folder as it is shown: where it is, what is in it, and how much room there is.
import { h, reconcile, setText } from '../dom.js';
import { bytes } from '../format.js';
import { addressOf, child, kinds, placeOf, places, wayTo } from './service.js';

const timeFormat = new Intl.DateTimeFormat(undefined, { dateStyle: 'medium', timeStyle: 'short' });
const kindTitles = { [kinds.file]: 'File', [kinds.folder]: 'Folder' };

/**
 * What may be done. What is not there is not offered.
 * @typedef {object} Deeds
 * @property {(name: string) => void} download
 * @property {() => void} more
 * @property {() => void} again
 * @property {(name: string, entry: import('./service.js').Entry) => void} [rename]
 * @property {(name: string, entry: import('./service.js').Entry) => void} [remove]
 */
export class Listing {
  #deeds;
  #places = h('nav', { class: 'places', 'aria-label': 'Places' });
  #room = h('p', { class: 'soft room' });
  #way = h('ol');
  #rows = h('tbody', { role: 'rowgroup' });
  #made = new Map();
  #table;
  #message = h('p', { class: 'empty', 'aria-live': 'polite' });
  #count = h('p', { class: 'soft', 'aria-live': 'polite' });
  #more;
  #again;

  /** @param {Deeds} deeds */
  constructor(deeds) {
    this.#deeds = deeds;
    this.#more = h('button', { type: 'button', class: 'plain', hidden: true, onclick: deeds.more }, 'Show more');
    this.#again = h('button', { type: 'button', class: 'plain', hidden: true, onclick: deeds.again }, 'Try again');
    this.#table = table(this.#rows, Boolean(deeds.rename));
    this.element = h(
      'section',
      { class: 'panel listing', 'aria-label': 'Listing' },
      h('div', { class: 'listing-head' }, this.#places, this.#room),
      h('nav', { class: 'way', 'aria-label': 'Path' }, this.#way),
      this.#table,
      this.#message,
      h('div', { class: 'listing-foot' }, this.#count, this.#again, this.#more),
    );
  }

  /** While a listing is under way, the one before stays, and greys if that takes long. */
  wait() {
    this.element.setAttribute('aria-busy', 'true');
  }

  /** @param {{entries: import('./service.js').Entry[], next?: string, total: number, nameless: number}} known */
  show(folder, known) {
    this.#showWay(folder);
    const { entries } = known;
    const keyOf = ({ name, kind }) => `${kind} ${child(folder, name)}`;
    reconcile(this.#rows, entries, keyOf, (entry) => this.#row(child(folder, entry.name), entry), this.#made);
    this.#table.hidden = entries.length === 0;
    setText(this.#message, entries.length === 0 ? 'Nothing is here.' : '');
    setText(this.#count, countText(known));
    this.#more.hidden = known.next === undefined;
    this.#again.hidden = true;
  }

  showError(folder, text) {
    this.#showWay(folder);
    reconcile(this.#rows, [], String, null, this.#made);
    this.#table.hidden = true;
    setText(this.#message, text);
    setText(this.#count, '');
    this.#more.hidden = true;
    this.#again.hidden = false;
  }

  showRoom(room) {
    setText(this.#room, room ? `${bytes(room.free)} free of ${bytes(room.all)}${room.fixed ? ', read-only' : ''}` : '');
  }

  /** Brings the keyboard to where the folder's name stands. */
  focusWay() {
    this.#way.querySelector('[aria-current]').focus();
  }

  focusRow(index) {
    this.#rows.children[index]?.querySelector('a, button')?.focus();
  }

  #showWay(folder) {
    this.element.removeAttribute('aria-busy');
    const place = placeOf(folder);
    this.#places.replaceChildren(
      ...places.map(({ title, top }) => h('a', { href: addressOf(top), 'aria-current': top === place.top ? 'true' : null }, title)),
    );
    const way = wayTo(folder);
    this.#way.replaceChildren(
      ...way.map((step, index) =>
        h(
          'li',
          {},
          index === way.length - 1
            ? h('span', { 'aria-current': 'page', tabindex: '-1' }, step.title)
            : h('a', { href: addressOf(step.folder) }, step.title),
        ),
      ),
    );
  }

  #row(name, entry) {
    const { download, rename, remove } = this.#deeds;
    const size = h('td', { role: 'cell', class: 'number' });
    const time = h('time');
    const element = h(
      'tr',
      { role: 'row' },
      h('th', { scope: 'row', role: 'rowheader' }, title(name, entry, download), entry.secret ? h('span', { class: 'tag' }, 'secret') : null),
      size,
      h('td', { role: 'cell' }, time),
      h('td', { role: 'cell' }, kindTitles[entry.kind] ?? 'Other'),
      rename
        ? h(
            'td',
            { role: 'cell', class: 'deeds' },
            h(
              'div',
              { class: 'buttons' },
              h('button', { type: 'button', class: 'plain', onclick: () => rename(name, entry), 'aria-label': `Rename ${entry.name}` }, 'Rename'),
              h('button', { type: 'button', class: 'plain', onclick: () => remove(name, entry), 'aria-label': `Remove ${entry.name}` }, 'Remove'),
            ),
          )
        : null,
    );
    const update = (now) => {
      setText(size, now.kind === kinds.file ? bytes(now.size) : '');
      showTime(time, now.changed);
    };
    return { element, update };
  }
}

function title(name, { name: own, kind }, download) {
  if (kind === kinds.folder) return h('a', { href: addressOf(name) }, own);
  if (kind === kinds.file) return h('button', { type: 'button', class: 'link', onclick: () => download(name), 'aria-label': `Download ${own}` }, own);
  return h('span', {}, own);
}

// A clock that was far off leaves times behind that no calendar has.
function showTime(element, milliseconds) {
  const date = new Date(milliseconds);
  const known = !Number.isNaN(date.getTime());
  setText(element, known ? timeFormat.format(date) : '–');
  if (known) element.setAttribute('datetime', date.toISOString());
}

function countText({ entries, total, nameless, next }) {
  const all = total === 1 ? '1 entry' : `${total} entries`;
  const shown = next === undefined ? (entries.length ? all : '') : `${entries.length} of ${all}`;
  return [shown, nameless ? `${nameless} with names that cannot be shown` : ''].filter(Boolean).join(', ');
}

// On a phone the rows are laid out as blocks, so what they are is said in so many words.
function table(rows, withDeeds) {
  const heads = [
    h('th', { scope: 'col' }, 'Name'),
    h('th', { scope: 'col', class: 'number' }, 'Size'),
    h('th', { scope: 'col' }, 'Changed'),
    h('th', { scope: 'col' }, 'Kind'),
    withDeeds ? h('th', { scope: 'col' }, h('span', { class: 'hidden' }, 'What can be done')) : null,
  ].filter(Boolean);
  return h('table', { class: 'list', role: 'table', 'aria-label': 'Files' }, h('thead', {}, h('tr', {}, ...heads)), rows);
}
