// The sessions page: who is logged in, from where, and since when.
import { addressText, commands, permissions } from '../../client/index.js';
import { h, keepFocus, reconcile, setText } from '../dom.js';
import { ask, failureText } from '../forms.js';
import { clockTime, count, day, duration } from '../format.js';
import { poll } from '../poll.js';
import { WebServer, troubleText } from '../programs.js';
import { rightsText } from '../rights.js';

const handler = 3;
const interval = 2000;

const readSession = (message) => ({
  id: message.u1,
  user: message.s2 ?? '',
  address: message.a3 ? addressText(message.a3) : 'unknown',
  age: Number(message.q4 ?? 0),
  idle: Number(message.q5 ?? 0),
  policies: message.u6 ?? 0,
  own: message.b7 === true,
});

/** Since when, as short as it can be told. */
function sinceText(age) {
  const began = Date.now() - age;
  const clock = clockTime(began).slice(0, 5);
  return day(began) === day(Date.now()) ? `${clock}, ${duration(age)} ago` : `${day(began)} ${clock}`;
}

// A number may be given to another session once its own has ended.
const keyOf = ({ id, user, address }) => `${id} ${address} ${user}`;

/** How many there are; the server names no more than an answer has room for. */
export function totalText(named, all) {
  if (named < all) return `${count(named)} of ${count(all)} sessions`;
  return all === 1 ? '1 session' : `${count(all)} sessions`;
}

class Row {
  #since = h('td', { role: 'cell', class: 'since', 'data-title': 'Since' });
  #idle = h('td', { role: 'cell', 'data-title': 'Idle' });

  constructor(entry, end) {
    const tag = entry.own ? h('span', { class: 'tag' }, 'this one') : null;
    const button = h('button', { type: 'button', class: 'plain', 'aria-label': `End the session of ${entry.user} from ${entry.address}`, onclick: () => end(entry) }, 'End');
    this.element = h(
      'tr',
      { role: 'row', 'data-session': entry.id, 'data-own': entry.own },
      h('th', { scope: 'row', role: 'rowheader' }, entry.user, tag),
      h('td', { role: 'cell', class: 'address', 'data-title': 'From' }, entry.address),
      this.#since,
      this.#idle,
      h('td', { role: 'cell', class: 'may', 'data-title': 'May' }, rightsText(entry.policies)),
      h('td', { role: 'cell' }, h('div', { class: 'buttons' }, button)),
    );
  }

  // What is younger than a second or two is the asking for this list.
  update({ age, idle }) {
    setText(this.#since, sinceText(age));
    setText(this.#idle, idle < 3000 ? 'active' : duration(idle));
  }
}

/**
 * @param {HTMLElement} place
 * @param {{session: import('../../client/index.js').Session, notices: import('../notices.js').Notices}} context
 */
export function startSessions(place, { session, notices }) {
  const server = new WebServer(session);
  const mayManage = (session.state.account.policies & permissions.manageUsers) !== 0;
  const rows = h('tbody', { role: 'rowgroup' });
  const made = new Map();
  const state = h('p', { class: 'empty' }, 'Asking …');
  const total = h('span', { class: 'soft' });
  const titles = ['User', 'From', 'Since', 'Idle', 'May', h('span', { class: 'hidden' }, 'What can be done')];
  const heads = titles.map((title) => h('th', { scope: 'col' }, title));
  const table = h('table', { class: 'list sessions', role: 'table', 'aria-label': 'Sessions' }, h('thead', {}, h('tr', {}, ...heads)), rows);
  const panel = h('div', { class: 'panel tall' }, table, state);

  place.append(
    h(
      'div',
      { class: 'narrow' },
      h('div', { class: 'page-head' }, h('h1', {}, 'Sessions'), total),
      h(
        'p',
        { class: 'soft lead' },
        mayManage
          ? 'Who is logged in. A page that is open stays logged in, however idle; one that was closed without logging out is forgotten after a minute.'
          : 'These are your own. To see those of others needs the right “Manage users”.',
      ),
      panel,
    ),
  );

  const asking = poll(session, interval, async () => {
    const { reply, error, supervisorAway } = await server.call(handler, commands.getAll);
    panel.dataset.state = error ? 'stale' : 'live';
    if (error) return tell(troubleText(error, supervisorAway ? 'The supervisor, which knows where the server is,' : 'The server'));
    const list = (reply.M1 ?? []).map(readSession).sort((a, b) => b.own - a.own || a.user.localeCompare(b.user) || b.age - a.age);
    keepFocus(panel, () => reconcile(rows, list, keyOf, (entry) => new Row(entry, end), made));
    setText(total, totalText(list.length, reply.u2 ?? list.length));
    tell('');
  });

  function tell(text) {
    setText(state, text);
    state.hidden = !text;
  }

  function end({ id, user, address, own }) {
    const text = own
      ? 'This is the session that this page uses: you will be logged out.'
      : `${user} at ${address} is logged out at once. What has been sent to the server is still done.`;
    ask({
      title: own ? 'End your own session?' : `End the session of ${user}?`,
      content: [h('p', {}, text)],
      label: 'End it',
      danger: true,
      async action() {
        if (own) return session.end();
        const { error } = await server.call(handler, commands.removeObj, { ufe0001: id });
        if (!error) notices.show('sessions', `The session of ${user} has ended.`, { tone: 'good' });
        return error && failureText(error);
      },
    }).then(asking.now);
  }

  return { stop: asking.stop };
}
