// The web server at a glance: answers per second, connections, and what went wrong.
import { h, setText } from '../dom.js';
import { answerClasses, sum } from '../counters.js';
import { bytes, count, perSecond } from '../format.js';
import { CountPlot } from './plot.js';

// A figure and its unit stay in one line.
const unbroken = (text) => text.replace(' ', '\u00a0');

const figure = (title) => {
  const value = h('dd', {}, '–');
  return { value, element: h('div', {}, h('dt', {}, title), value) };
};

export class WebServerPanel {
  #rate = h('span', { class: 'figure', 'data-figure': 'answers' }, '–');
  #state = h('p', { class: 'detail', 'data-figure': 'server-state' }, '\u00a0');
  #plot = new CountPlot('Answers of the web server per second during the last two minutes');
  #connections = figure('Connections');
  #traffic = figure('Bytes in, out');
  #classes = answerClasses.map((title) => figure(title));
  #refused = figure('Refused');
  #timeouts = figure('Timed out');
  #before = null;

  constructor() {
    const figures = [this.#connections, this.#traffic, ...this.#classes, this.#refused, this.#timeouts];
    this.element = h(
      'section',
      { class: 'panel web-server', 'aria-labelledby': 'web-server-title' },
      h('div', { class: 'panel-head' }, h('h2', { id: 'web-server-title' }, 'Web server'), this.#state),
      h('p', { class: 'rate' }, this.#rate, h('span', { class: 'soft' }, 'answers per second')),
      this.#plot.element,
      h('dl', { class: 'facts dense' }, ...figures.map(({ element }) => element)),
    );
  }

  show({ servers, open, limit, age, linesDropped }) {
    const totals = answerClasses.map((_, index) => sum(servers.map(({ answers }) => answers[index])));
    this.#showRate(age, sum(totals));
    totals.forEach((total, index) => setText(this.#classes[index].value, count(total)));
    setText(this.#connections.value, limit ? `${open} of ${count(limit)}` : String(open));
    setText(this.#traffic.value, ['received', 'sent'].map((key) => unbroken(bytes(sum(servers.map((server) => server[key]))))).join(', '));
    setText(this.#refused.value, count(sum(servers.map(({ refused }) => refused))));
    // Those that were ended between two requests are no trouble.
    setText(this.#timeouts.value, count(sum(servers.map(({ timeouts }) => sum(timeouts.slice(1))))));
    const pauses = sum(servers.map((server) => server.pauses));
    const remarks = [pauses && `at its limit ${pauses} times`, linesDropped && `${linesDropped} log lines dropped`].filter(Boolean);
    setText(this.#state, remarks.join(', ') || '\u00a0');
    this.element.dataset.state = 'live';
  }

  /** It cannot be asked now. */
  miss(text) {
    this.element.dataset.state = 'stale';
    this.#before = null;
    setText(this.#rate, '–');
    setText(this.#state, text);
  }

  #showRate(age, answers) {
    const before = this.#before;
    this.#before = { age, answers };
    if (!before || age <= before.age || answers < before.answers) return;
    const rate = ((answers - before.answers) * 1000) / (age - before.age);
    setText(this.#rate, perSecond(rate));
    this.#plot.add(age, [rate]);
  }

  end() {
    this.#plot.end();
  }
}
