// The network interfaces, each with its traffic.
import { h, reconcile, setText } from '../dom.js';
import { bytes, rate } from '../format.js';
import { TrafficPlot } from './plot.js';

/** One interface: name, state, addresses, rates, plot. */
class Card {
  #name;
  #state = h('span', { class: 'pill' }, h('span', { class: 'dot', 'aria-hidden': 'true' }), h('span', {}));
  #addresses = h('p', { class: 'addresses' });
  #rates = ['in', 'out'].map((direction) => h('dd', { 'data-rate': direction }, '–'));
  #totals = ['in', 'out'].map((direction) => h('dd', { class: 'soft', 'data-total': direction }, '–'));
  #faults = h('span', { class: 'detail faults' });
  #before = null;

  constructor({ name }) {
    this.#name = name;
    this.plot = new TrafficPlot(`Traffic of ${name} during the last two minutes, incoming above and outgoing below the line`);
    const direction = (index, title) =>
      h('div', { class: index ? 'second' : 'first' }, h('dt', {}, title), this.#rates[index], this.#totals[index]);
    this.element = h(
      'li',
      { class: 'panel interface', 'data-interface': name },
      h('div', { class: 'interface-head' }, h('h3', {}, name), this.#faults, this.#state),
      this.#addresses,
      h('dl', { class: 'rates' }, direction(0, 'In'), direction(1, 'Out')),
      this.plot.element,
    );
  }

  update(entry) {
    this.#state.dataset.state = entry.link ? 'online' : 'off';
    setText(this.#state.lastChild, entry.link ? 'Up' : 'No link');
    setText(this.#addresses, entry.addresses.join('  ') || entry.hardware || 'No address');
    this.#addresses.title = entry.hardware ? `Hardware address ${entry.hardware}` : '';
    setText(this.#totals[0], bytes(entry.received));
    setText(this.#totals[1], bytes(entry.sent));
    const faults = [entry.errors && `${entry.errors} errors`, entry.dropped && `${entry.dropped} dropped`].filter(Boolean);
    setText(this.#faults, faults.join(', '));
  }

  /** Takes the counters at a time in ms. */
  sample(time, { received, sent }) {
    const before = this.#before;
    this.#before = { time, received, sent };
    if (!before || time <= before.time || received < before.received || sent < before.sent) return;
    const seconds = (time - before.time) / 1000;
    const rates = [(received - before.received) / seconds, (sent - before.sent) / seconds];
    rates.forEach((value, index) => setText(this.#rates[index], rate(value)));
    this.plot.add(time, rates);
  }

  end() {
    this.plot.end();
  }
}

/** One that is switched off: a line is enough. */
class Line {
  #hardware = h('span', { class: 'addresses' });

  constructor({ name }) {
    const state = h('span', { class: 'pill', 'data-state': 'off' }, h('span', { class: 'dot', 'aria-hidden': 'true' }), 'Down');
    this.element = h('li', { 'data-interface': name }, h('h3', {}, name), this.#hardware, state);
  }

  update({ hardware }) {
    setText(this.#hardware, hardware ?? '');
  }
}

export class Interfaces {
  #list = h('ul', { class: 'interfaces' });
  #downList = h('ul', { class: 'panel down', hidden: true });
  #cards = new Map();
  #lines = new Map();
  #entries = [];

  constructor() {
    const title = h('h2', { id: 'interfaces-title' }, 'Interfaces');
    this.element = h('section', { 'aria-labelledby': 'interfaces-title' }, title, this.#list, this.#downList);
  }

  show(entries) {
    // What carries traffic comes first, the loopback last.
    const order = ({ link, loopback }) => (loopback ? 2 : link ? 0 : 1);
    const key = ({ name }) => name;
    const down = entries.filter(({ up }) => !up);
    this.#entries = entries.filter(({ up }) => up).sort((a, b) => order(a) - order(b));
    reconcile(this.#list, this.#entries, key, (entry) => new Card(entry), this.#cards);
    reconcile(this.#downList, down, key, (entry) => new Line(entry), this.#lines);
    this.#downList.hidden = down.length === 0;
  }

  /** A moment has passed: the counters are what show() said last. */
  sample(time) {
    for (const entry of this.#entries) this.#cards.get(entry.name).sample(time, entry);
  }

  end() {
    for (const card of this.#cards.values()) card.end();
  }
}
