// The log: what the programs of the system write, as they write it.
import { commands } from '../../client/index.js';
import { h } from '../dom.js';
import { Feed, Source, pauseButton } from '../feed.js';
import { clockTime } from '../format.js';
import { poll } from '../poll.js';
import { troubleText } from '../programs.js';

const path = [2, 2];
const most = 500;
const interval = 1000;

const readLine = (message) => ({
  time: Number(message.q2 ?? 0),
  program: message.s3 ?? '',
  text: message.s4 ?? '',
  isError: message.b5 === true,
});

const renderLine = ({ time, program, text }) => [
  h('time', { datetime: new Date(time).toISOString(), title: new Date(time).toLocaleString() }, clockTime(time)),
  h('span', { class: 'origin' }, program),
  h('span', { class: 'text' }, text),
];

/**
 * @param {HTMLElement} place
 * @param {{session: import('../../client/index.js').Session}} context
 */
export function startLog(place, { session }) {
  const text = h('input', { type: 'search', placeholder: 'Text', 'aria-label': 'Lines that contain', spellcheck: 'false', autocomplete: 'off', oninput: changeSoon });
  const program = h('select', { 'aria-label': 'Program', onchange: change }, h('option', { value: '' }, 'All programs'));
  const feed = new Feed({ label: 'Lines of the log', kind: 'log', render: renderLine });
  const source = new Source(session, {
    path,
    command: commands.getAll,
    most,
    fields: () => ({ s3: text.value || undefined, s4: program.value || undefined }),
    read: (message) => offer(readLine(message)),
    feed,
    get empty() {
      return text.value || program.value ? 'No line fits.' : 'Nothing was written yet.';
    },
    trouble: (failure) => troubleText(failure, 'The supervisor, which keeps the log,'),
  });
  const save = h('button', { type: 'button', onclick: download }, 'Download');
  const offered = new Set();
  let typing;

  place.append(
    h(
      'div',
      { class: 'wide-page' },
      h('div', { class: 'page-head' }, h('h1', {}, 'Log')),
      h('div', { class: 'tools', role: 'group', 'aria-label': 'Which lines' }, text, program, pauseButton(feed), save),
      feed.element,
    ),
  );

  const asking = poll(session, interval, () => source.ask());

  function change() {
    clearTimeout(typing);
    source.reset();
    asking.now();
  }

  // While somebody types, nobody wants to see what fits half a word.
  function changeSoon() {
    clearTimeout(typing);
    typing = setTimeout(change, 250);
  }

  // Whoever has written something can be chosen.
  function offer(line) {
    if (line.program && !offered.has(line.program)) {
      offered.add(line.program);
      program.append(h('option', { value: line.program }, line.program));
    }
    return line;
  }

  function download() {
    const lines = feed.items.filter(({ note }) => !note).map((line) => `${new Date(line.time).toISOString()} ${line.program} ${line.text}\n`);
    const url = URL.createObjectURL(new Blob(lines, { type: 'text/plain' }));
    h('a', { href: url, download: `log-${new Date().toISOString().slice(0, 19).replaceAll(':', '')}.txt` }).click();
    setTimeout(() => URL.revokeObjectURL(url), 10000);
  }

  return {
    stop() {
      clearTimeout(typing);
      asking.stop();
    },
  };
}
