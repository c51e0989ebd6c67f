// The file systems and how full they are.
import { h, reconcile, setText } from '../dom.js';
import { bytes } from '../format.js';
import { Meter } from './overview.js';

class Row {
  #meter;
  #figures = h('span', { class: 'soft' });

  constructor(entry) {
    this.#meter = new Meter(`${entry.place} in use`);
    const place = h('span', { class: 'place', title: `${entry.type} on ${entry.device}` }, entry.place);
    const kind = h('span', { class: 'soft' }, entry.readOnly ? `${entry.type}, read-only` : entry.type);
    this.element = h('li', {}, h('div', { class: 'storage-head' }, place, kind, this.#figures), this.#meter.element);
  }

  update({ total, unused, readOnly }) {
    const text = total ? `${bytes(total - unused)} of ${bytes(total)}` : 'empty';
    setText(this.#figures, text);
    this.#meter.show(total ? (total - unused) / total : 0, text, !readOnly);
  }
}

export class Storage {
  #list = h('ul', { class: 'storage' });
  #rows = new Map();

  constructor() {
    this.element = h('section', { class: 'panel', 'aria-labelledby': 'storage-title' }, h('h2', { id: 'storage-title' }, 'Storage'), this.#list);
  }

  show(entries) {
    const list = entries.filter(({ total }) => total > 0);
    reconcile(this.#list, list, ({ place, device, readOnly }) => `${place} ${device} ${readOnly}`, (entry) => new Row(entry), this.#rows);
  }
}
