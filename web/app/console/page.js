// The console: messages on the bus as they pass, and one of one's own.
import { commands } from '../../client/index.js';
import { h } from '../dom.js';
import { Feed, Source, pauseButton } from '../feed.js';
import { bytes, clockTime } from '../format.js';
import { poll, retry } from '../poll.js';
import { askPrograms, troubleText } from '../programs.js';
import { makeSender } from './sender.js';

const path = [24, 3];
const most = 200;
const interval = 1000;

const kinds = ['', 'returned', 'control'];
// Longer ones are folded.
const longest = 240;

const readFrame = (message) => ({
  time: Number(message.q2 ?? 0),
  from: message.u3 ?? 0,
  to: message.u4 ?? 0,
  kind: message.u5 ?? 0,
  size: message.u6 ?? 0,
  text: message.s7 ?? '',
});

/**
 * @param {HTMLElement} place
 * @param {{session: import('../../client/index.js').Session}} context
 */
export function startConsole(place, { session }) {
  const names = new Map([[0, 'busd'], [2, 'tnrun']]);
  let named = false;
  const nameOf = (id) => names.get(id) ?? String(id);
  const program = h('select', { 'aria-label': 'From or to', onchange: restart }, h('option', { value: '' }, 'All programs'));
  const text = h('input', { type: 'search', placeholder: 'Text', 'aria-label': 'Messages that contain', spellcheck: 'false', autocomplete: 'off', oninput: restartSoon });
  const feed = new Feed({ label: 'Messages on the bus', kind: 'frames', render: renderFrame });
  const source = new Source(session, {
    path,
    command: commands.getAll,
    most,
    fields: () => ({ u3: program.value ? Number(program.value) : undefined, s4: text.value || undefined }),
    read: readFrame,
    feed,
    empty: 'Nothing has passed yet.',
    trouble: (failure) => troubleText(failure, 'The status service, which watches the bus,'),
  });
  const clear = h('button', { type: 'button', onclick: () => feed.clear() }, 'Clear');
  let typing;

  place.append(
    h(
      'div',
      { class: 'wide-page' },
      h('div', { class: 'page-head' }, h('h1', {}, 'Console')),
      makeSender(session),
      h(
        'section',
        { class: 'watch', 'aria-labelledby': 'watch-title' },
        h('div', { class: 'page-head' }, h('h2', { class: 'title', id: 'watch-title' }, 'Messages on the bus')),
        h('div', { class: 'tools', role: 'group', 'aria-label': 'Which messages' }, text, program, pauseButton(feed), clear),
        feed.element,
      ),
    ),
  );

  function renderFrame(frame) {
    const way = h('span', { class: 'origin' }, `${nameOf(frame.from)} → ${nameOf(frame.to)}`);
    const size = h('span', { class: 'size' }, [bytes(frame.size), kinds[frame.kind]].filter(Boolean).join(', '));
    return [h('time', { datetime: new Date(frame.time).toISOString() }, clockTime(frame.time)), way, size, textOf(frame.text)];
  }

  const again = retry(fillPrograms);
  const asking = poll(session, interval, async () => {
    if (!named) await fillPrograms();
    await source.ask();
  });

  function restart() {
    clearTimeout(typing);
    source.reset();
    asking.now();
  }

  function restartSoon() {
    clearTimeout(typing);
    typing = setTimeout(restart, 250);
  }

  async function fillPrograms() {
    named = true;
    const { programs, error } = await askPrograms(session);
    if (error) return again.later();
    for (const { name, bus } of programs) {
      if (!bus || names.has(bus)) continue;
      names.set(bus, name);
      program.append(h('option', { value: bus }, name));
    }
  }

  return {
    // The server has another id when it was started anew.
    onOnline: () => (named = false),
    stop() {
      clearTimeout(typing);
      again.cancel();
      asking.stop();
    },
  };
}

function textOf(text) {
  if (text.length <= longest) return h('span', { class: 'text' }, text);
  return h('details', { class: 'text' }, h('summary', {}, `${text.slice(0, longest)}…`), text.slice(longest));
}
