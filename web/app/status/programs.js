// The programs of the system: which of them run, and since when.
import { h, reconcile, setText } from '../dom.js';
import { count, duration } from '../format.js';

// One without an id on the bus has just begun, or is on its way out. The broker answers, and has none.
function stateOf({ process, bus, answers }) {
  if (!process) return ['lost', 'Not running'];
  if (answers) return ['online', 'Runs'];
  return bus ? ['lost', 'Does not answer'] : ['off', 'Not on the bus'];
}

const restartsText = (restarts) => (restarts === 0 ? '' : restarts === 1 ? 'started again once' : `started again ${restarts} times`);
const bouncedText = (bounced) => (bounced === 0 ? '' : `${count(bounced)} came back`);

class Row {
  #pill = h('span', { class: 'pill' }, h('span', { class: 'dot', 'aria-hidden': 'true' }), h('span', {}));
  #age = h('td', { class: 'number' });
  #restarts = h('span', { class: 'detail' });
  #messages = h('td', { class: 'number wide' });

  constructor({ name }) {
    this.element = h('tr', { 'data-program': name }, h('td', {}, name), h('td', { class: 'program-state' }, this.#pill, this.#restarts), this.#messages, this.#age);
  }

  update(program) {
    const [state, text] = stateOf(program);
    this.#pill.dataset.state = state;
    setText(this.#pill.lastChild, text);
    setText(this.#restarts, [restartsText(program.restarts), bouncedText(program.bounced)].filter(Boolean).join(', '));
    setText(this.#messages, program.bus ? `${count(program.sent)}, ${count(program.received)}` : '');
    this.element.title = program.process ? `Process ${program.process}` : '';
    setText(this.#age, program.process ? duration(program.age) : '');
  }
}

export class ProgramsPanel {
  #rows = h('tbody');
  #made = new Map();
  #state = h('p', { class: 'detail' }, '\u00a0');

  constructor() {
    const heads = [['Name'], ['State'], ['Messages out, in', 'number wide'], ['Runs for', 'number']].map(([title, kind]) => h('th', { scope: 'col', class: kind }, title));
    this.element = h(
      'section',
      { class: 'panel programs', 'aria-labelledby': 'programs-title' },
      h('div', { class: 'panel-head' }, h('h2', { id: 'programs-title' }, 'Programs'), this.#state),
      h('div', { class: 'scroll' }, h('table', { class: 'plain-heads' }, h('thead', {}, h('tr', {}, ...heads)), this.#rows)),
    );
  }

  show(programs) {
    reconcile(this.#rows, programs, ({ name }) => name, (program) => new Row(program), this.#made);
    const running = programs.filter((program) => stateOf(program)[0] === 'online').length;
    setText(this.#state, running === programs.length ? 'all run' : `${running} of ${programs.length} run`);
    this.element.dataset.state = 'live';
  }

  /** They cannot be asked for now. */
  miss(text) {
    this.element.dataset.state = 'stale';
    setText(this.#state, text);
  }
}
