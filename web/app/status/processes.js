// The processes, sorted by what one wants to know.
import { h, reconcile, setText } from '../dom.js';
import { bytes, percent, processorTime } from '../format.js';

const columns = [
  { key: 'name', title: 'Name', text: ({ name }) => name, order: (a, b) => a.name.localeCompare(b.name) },
  { key: 'id', title: 'PID', number: true, text: ({ id }) => String(id), order: (a, b) => a.id - b.id },
  { key: 'share', title: 'CPU', number: true, text: ({ share }) => (share === null ? '–' : percent(share)), order: (a, b) => b.share - a.share },
  { key: 'memory', title: 'Memory', number: true, text: ({ memory }) => bytes(memory), order: (a, b) => b.memory - a.memory },
  { key: 'threads', title: 'Threads', number: true, wide: true, text: ({ threads }) => String(threads), order: (a, b) => b.threads - a.threads },
  { key: 'time', title: 'Time', number: true, wide: true, text: ({ time }) => processorTime(time), order: (a, b) => b.time - a.time },
];
const few = 12;

const cellClass = ({ number, wide }) => [number && 'number', wide && 'wide'].filter(Boolean).join(' ') || null;

class Row {
  #cells = columns.map((column) => h('td', { class: cellClass(column) }));

  constructor() {
    this.element = h('tr', {}, ...this.#cells);
  }

  update(process) {
    columns.forEach((column, i) => setText(this.#cells[i], column.text(process)));
  }
}

export class Processes {
  #rows = h('tbody');
  #made = new Map();
  #heads;
  #more = h('button', { type: 'button', class: 'plain', 'aria-expanded': 'false', onclick: () => this.#toggle() }, 'Show all');
  #count = h('span', { class: 'soft' });
  #sorted = columns[2];
  #all = false;
  #list = [];
  #before = new Map();
  #beforeTime = 0;

  constructor() {
    this.#heads = columns.map((column) => {
      const button = h('button', { type: 'button', class: 'sort', onclick: () => this.#sortBy(column) }, column.title);
      return h('th', { scope: 'col', class: cellClass(column) }, button);
    });
    this.element = h(
      'section',
      { class: 'panel', 'aria-labelledby': 'processes-title' },
      h('div', { class: 'panel-head' }, h('h2', { id: 'processes-title' }, 'Processes'), this.#count, this.#more),
      h('div', { class: 'scroll' }, h('table', {}, h('thead', {}, h('tr', {}, ...this.#heads)), this.#rows)),
    );
    this.#markSorted();
  }

  /** Takes the processes as they are at a time in ms. */
  show({ count, list }, time) {
    const passed = time - this.#beforeTime;
    this.#list = list.map((process) => {
      const before = this.#before.get(`${process.id} ${process.began}`);
      const share = before === undefined || passed <= 0 ? null : Math.max(0, (process.time - before) / passed);
      return { ...process, share };
    });
    this.#before = new Map(list.map((process) => [`${process.id} ${process.began}`, process.time]));
    this.#beforeTime = time;
    setText(this.#count, `${count} in all`);
    this.#draw();
  }

  #draw() {
    const { order } = this.#sorted;
    const sorted = [...this.#list].sort((a, b) => order(a, b) || b.memory - a.memory || a.id - b.id);
    const list = this.#all ? sorted : sorted.slice(0, few);
    reconcile(this.#rows, list, ({ id, began }) => `${id} ${began}`, () => new Row(), this.#made);
    this.#more.hidden = this.#list.length <= few;
  }

  #toggle() {
    this.#all = !this.#all;
    setText(this.#more, this.#all ? 'Show fewer' : 'Show all');
    this.#more.setAttribute('aria-expanded', String(this.#all));
    this.#draw();
  }

  #sortBy(column) {
    this.#sorted = column;
    this.#markSorted();
    this.#draw();
  }

  #markSorted() {
    columns.forEach((column, i) => {
      if (column !== this.#sorted) this.#heads[i].removeAttribute('aria-sort');
      else this.#heads[i].setAttribute('aria-sort', ['name', 'id'].includes(column.key) ? 'ascending' : 'descending');
    });
  }
}
