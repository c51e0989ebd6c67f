// What a person has to know of the connection, over the page so that nothing of it moves.
import { h, setText } from './dom.js';

const shownFor = 8000;

/** One notice at a time for each key; a new one of the same key takes the place of the old one. */
export class Notices {
  #place;
  #shown = new Map();

  /** @param {HTMLElement} place */
  constructor(place) {
    this.#place = place;
  }

  /**
   * @param {string} key
   * @param {string} text
   * @param {{tone?: 'info'|'good'|'bad', stays?: boolean, action?: {label: string, run: () => void}, aside?: string}} [options]
   *     One that stays is there until clear(); others go away by themselves or when they are dismissed. What is said aside is
   *     seen only: it may change often, and nobody wants to have that read out.
   */
  show(key, text, { tone = 'info', stays = false, action, aside = '' } = {}) {
    const before = this.#shown.get(key);
    if (before && before.element.dataset.tone === tone && before.stays === stays && Boolean(before.button) === Boolean(action)) {
      setText(before.text, text);
      setText(before.aside, aside);
      this.#goLater(key, before);
      return;
    }
    this.clear(key);
    const notice = { stays, text: h('span', {}, text), aside: h('span', { 'aria-hidden': 'true' }, aside) };
    if (action) notice.button = h('button', { type: 'button', class: 'plain', onclick: action.run }, action.label);
    const dismiss = stays ? null : h('button', { type: 'button', class: 'plain', onclick: () => this.clear(key) }, 'Dismiss');
    notice.element = h('div', { class: 'notice', 'data-tone': tone }, h('p', {}, notice.text, ' ', notice.aside), notice.button, dismiss);
    this.#shown.set(key, notice);
    this.#place.append(notice.element);
    this.#goLater(key, notice);
  }

  #goLater(key, notice) {
    clearTimeout(notice.timer);
    if (!notice.stays) notice.timer = setTimeout(() => this.clear(key), shownFor);
  }

  clear(key) {
    const notice = this.#shown.get(key);
    if (!notice) return;
    clearTimeout(notice.timer);
    notice.element.remove();
    this.#shown.delete(key);
  }

  clearAll() {
    for (const key of [...this.#shown.keys()]) this.clear(key);
  }
}
