// A list of lines that grows at its end: it follows the newest line, but keeps its place when somebody reads further up.
import { h, setText } from './dom.js';

/** How many lines are kept; the oldest go first. */
export const mostLines = 1000;

// So near to the end, in pixels, counts as being there.
const nearEnd = 24;

/**
 * An item that has a `note` is no line but a remark between lines.
 * @template T
 */
export class Feed {
  #render;
  #list;
  #more;
  #state = h('p', { class: 'feed-state', role: 'status' });
  /** @type {T[]} What is shown. */
  #shown = [];
  /** @type {T[]} What came while the reader was elsewhere, or paused. */
  #held = [];
  #paused = false;
  #follows = true;
  /** Is told how many lines are held back. @type {((count: number) => void)|undefined} */
  onHeld;

  /**
   * @param {object} options
   * @param {string} options.label
   * @param {string} options.kind  A class for the lines.
   * @param {(item: T) => Element[]} options.render  What a line consists of.
   */
  constructor({ label, kind, render }) {
    this.#render = render;
    this.#list = h('div', { class: `feed ${kind}`, tabindex: 0, role: 'log', 'aria-live': 'off', 'aria-label': label, onscroll: () => this.#scrolled() });
    this.#more = h('button', { type: 'button', class: 'feed-more plain', hidden: true, onclick: () => this.#toEnd() });
    this.element = h('div', { class: 'feed-frame' }, this.#list, this.#state, this.#more);
  }

  /** All lines, also those that are held back. */
  get items() {
    return [...this.#shown, ...this.#held];
  }

  get paused() {
    return this.#paused;
  }

  /** While it is paused nothing is shown, but nothing is lost either. */
  set paused(paused) {
    this.#paused = paused;
    if (!paused) this.#release();
    this.#showHeld();
  }

  /** @param {T[]} items  Newer than all before. */
  add(items) {
    this.#held.push(...items);
    if (this.#held.length > mostLines) this.#held.splice(0, this.#held.length - mostLines);
    if (this.#follows && !this.#paused) this.#release();
    this.#showHeld();
  }

  clear() {
    this.#shown = [];
    this.#held = [];
    this.#follows = true;
    this.#list.replaceChildren();
    this.#showHeld();
  }

  /** What is said in the place of lines that are not there; what is wrong is said over those that are there as well. */
  tell(text, isWrong = false) {
    this.element.dataset.state = isWrong ? 'stale' : 'live';
    setText(this.#state, text);
    this.#state.hidden = !text || (this.#shown.length > 0 && !isWrong);
  }

  #release() {
    const items = this.#held.splice(0);
    if (!items.length) return;
    this.#shown.push(...items);
    this.#list.append(...items.map((item) => this.#line(item)));
    const surplus = this.#shown.length - mostLines;
    if (surplus > 0) {
      this.#shown.splice(0, surplus);
      for (let i = 0; i < surplus; i++) this.#list.firstChild.remove();
    }
    this.#state.hidden = true;
    if (this.#follows) this.#list.scrollTop = this.#list.scrollHeight;
  }

  #line(item) {
    if (item.note) return h('div', { class: 'line note' }, item.note);
    return h('div', { class: 'line' }, ...this.#render(item));
  }

  #showHeld() {
    const count = this.#held.length;
    this.#more.hidden = !count || this.#paused;
    this.onHeld?.(count);
    setText(this.#more, `${count} new ${count === 1 ? 'line' : 'lines'} below`);
  }

  #scrolled() {
    const { scrollTop, scrollHeight, clientHeight } = this.#list;
    this.#follows = scrollHeight - scrollTop - clientHeight < nearEnd;
    if (!this.#follows || this.#paused || !this.#held.length) return;
    this.#release();
    this.#showHeld();
  }

  #toEnd() {
    this.#follows = true;
    this.#release();
    this.#showHeld();
    this.#list.scrollTop = this.#list.scrollHeight;
    this.#list.focus();
  }
}

/** A button that holds a feed. */
export function pauseButton(feed) {
  const button = h('button', { type: 'button', 'aria-pressed': 'false', onclick: () => (feed.paused = !feed.paused) }, 'Pause');
  feed.onHeld = (count) => {
    button.setAttribute('aria-pressed', String(feed.paused));
    setText(button, !feed.paused ? 'Pause' : count ? `Go on (${count})` : 'Go on');
  };
  return button;
}

/** Asks for what is new, begins anew when the service did, and tells how that went. */
export class Source {
  #session;
  #options;
  #after;
  #turn = 0;

  /**
   * @param {import('../client/index.js').Session} session
   * @param {object} options
   * @param {number[]} options.path
   * @param {number} options.command
   * @param {number} options.most  How many lines are taken at once.
   * @param {() => object} options.fields  What else is asked for.
   * @param {(message: object) => any} options.read
   * @param {Feed} options.feed
   * @param {string} options.empty  What is said when there is nothing.
   * @param {(failure: import('../client/index.js').Failure) => string} options.trouble
   */
  constructor(session, options) {
    this.#session = session;
    this.#options = options;
  }

  /** Forgets what there was: from the next time on other fields are asked for. */
  reset() {
    this.#turn++;
    this.#after = undefined;
    this.#options.feed.clear();
    this.#options.feed.paused = false;
    this.#options.feed.tell('');
  }

  async ask() {
    const { path, command, most, fields, read, feed, empty, trouble } = this.#options;
    const turn = this.#turn;
    const { reply, error } = await this.#session.call(path, command, { q1: this.#after, u2: most, ...fields() }, { form: 'json' });
    if (turn !== this.#turn) return;
    if (error) {
      feed.tell(trouble(error), true);
      return;
    }
    const newest = reply.q2 ?? 0n;
    if (this.#after !== undefined && newest < this.#after) {
      this.reset();
      await this.ask();
      return;
    }
    const items = (reply.M1 ?? []).map(read);
    const lost = Number(reply.q3 ?? 0);
    if (this.#after !== undefined && lost > 0) items.unshift({ note: `${lost} came too fast to be kept.` });
    else if (this.#after !== undefined && items.length === most) items.unshift({ note: 'Some came too fast to be shown.' });
    this.#after = newest;
    feed.add(items);
    feed.tell(empty);
  }
}
