// The log: what the programs of the system write, as they write it.
import { commands } from '../../client/index.js';
import { h } from '../dom.js';
import { Feed, Source, pauseButton } from '../feed.js';
import { clockTime } from '../format.js';
import { poll } from '../poll.js';
import { askPrograms, troubleText } from '../programs.js';

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
  const text = h('input', { type: 'search', placeholder: 'Text', 'aria-label': 'Lines that contain', spellcheck: 'false', autocomplete: 'off', oninput: change });
  const program = h('select', { 'aria-label': 'Program', onchange: change }, h('option', { value: '' }, 'All programs'));
  const feed = new Feed({ label: 'Lines of the log', kind: 'log', render: renderLine });
  const source = new Source(session, {
    path,
    command: commands.getAll,
    most,
    fields: () => ({ s3: text.value || undefined, s4: program.value || undefined }),
    read: readLine,
    feed,
    get empty() {
      return text.value || program.value ? 'No line fits.' : 'Nothing was written yet.';
    },
    trouble: (failure) => troubleText(failure, 'The supervisor, which keeps the log,'),
  });
  const save = h('button', { type: 'button', onclick: download }, 'Download');
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

  // While somebody types, nobody wants to see what fits half a word.
  function change() {
    clearTimeout(typing);
    typing = setTimeout(() => {
      source.reset();
      asking.now();
    }, 250);
  }

  async function fillPrograms() {
    const { programs = [] } = await askPrograms(session);
    program.append(...programs.map(({ name }) => h('option', { value: name }, name)));
  }

  function download() {
    const lines = feed.items.map((line) => `${new Date(line.time).toISOString()} ${line.program} ${line.text}\n`);
    const url = URL.createObjectURL(new Blob(lines, { type: 'text/plain' }));
    h('a', { href: url, download: `log-${new Date().toISOString().slice(0, 19).replaceAll(':', '')}.txt` }).click();
    setTimeout(() => URL.revokeObjectURL(url), 10000);
  }

  fillPrograms();
  return {
    stop() {
      clearTimeout(typing);
      asking.stop();
    },
  };
}
