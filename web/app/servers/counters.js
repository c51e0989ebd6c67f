// What a server has done since it runs, on its card.
import { answerClasses } from '../counters.js';
import { h, setText } from '../dom.js';
import { bytes, count } from '../format.js';

const titles = ['Open', 'Accepted', 'Refused', 'At its limit', 'Timed out: idle, body, writing', ...answerClasses, 'In', 'Out'];
const explanations = {
  Open: 'Connections that are open now',
  Accepted: 'Connections that were accepted',
  Refused: 'Connections from addresses that may not connect',
  'Timed out: idle, body, writing': 'Connections that were ended because nothing moved: before a request or in its head, in its body, and in its answer',
  'At its limit': 'How often no more connections were taken for a while',
};

export class Counters {
  #values = titles.map(() => h('dd', {}, '–'));

  constructor() {
    const parts = titles.map((title, index) => h('div', { title: explanations[title] ?? null }, h('dt', {}, title), this.#values[index]));
    this.element = h('dl', { class: 'facts dense counters' }, ...parts);
  }

  show({ open, accepted, refused, answers, received, sent, timeouts, pauses }) {
    const texts = [...[open, accepted, refused, pauses].map(count), timeouts.map(count).join(', ')];
    texts.push(...answers.map(count), bytes(received), bytes(sent));
    texts.forEach((text, index) => setText(this.#values[index], text));
  }
}
