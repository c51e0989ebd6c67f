// The servers page: where the system listens, from where, and whether that worked.
import { commands, permissions } from '../../client/index.js';
import { countersHandler, readCounters } from '../counters.js';
import { h, keepFocus, setText } from '../dom.js';
import { ask, checkbox, failureText, field } from '../forms.js';
import { duration } from '../format.js';
import { poll, retry } from '../poll.js';
import { WebServer, troubleText } from '../programs.js';
import { certificatePanel } from './certificate.js';
import { Counters } from './counters.js';
import { change, changeOwn, isOwn } from './own.js';
import { noCertificate, parsePrefix, path, problemText, readRecord, writeRecord } from './record.js';

// The counters are asked for so often, in ms.
const interval = 2000;

/**
 * @param {HTMLElement} place
 * @param {{session: import('../../client/index.js').Session, notices: import('../notices.js').Notices}} context
 */
export function startServers(place, { session, notices }) {
  const mayChange = (session.state.account.policies & permissions.changeSettings) !== 0;
  const list = h('ul', { class: 'records' });
  const add = h('button', { type: 'button', class: 'primary', onclick: () => edit(null) }, 'Add a server');
  const certificate = certificatePanel(session, notices, mayChange);
  const since = h('p', { class: 'soft' }, '\u00a0');
  const server = new WebServer(session);
  /** The counters on the cards, by the names of the servers. */
  const counters = new Map();
  place.append(
    h(
      'div',
      { class: 'narrow' },
      h('div', { class: 'page-head' }, h('h1', {}, 'Servers'), mayChange ? add : null),
      h('p', { class: 'soft lead' }, 'Where the system listens. What a server serves, and whether it speaks TLS, stands in its configuration.'),
      list,
      since,
      certificate.element,
    ),
  );
  let stopped = false;
  const again = retry(load);

  const asking = poll(session, interval, async () => {
    const { reply, error, supervisorAway } = await server.call(countersHandler, commands.get);
    if (error) return setText(since, `The counters stand still. ${troubleText(error, supervisorAway ? 'The supervisor' : 'The server')}`);
    const told = readCounters(reply);
    setText(since, `Counted since the server was started ${duration(told.age)} ago.`);
    for (const entry of told.servers) counters.get(entry.name)?.show(entry);
  });

  async function load() {
    again.cancel();
    const { reply, error } = await session.call(path, commands.getAll);
    if (stopped) return;
    if (error?.serviceAway) again.later();
    if (error) list.replaceChildren(h('li', { class: 'empty' }, failureText(error)));
    else showRecords((reply.M1 ?? []).map(readRecord));
  }

  function showRecords(records) {
    counters.clear();
    keepFocus(list, () => list.replaceChildren(...records.map(row)));
    asking.now();
    if (records.some(({ trial }) => trial)) again.later();
  }

  function row(record) {
    const figures = new Counters();
    counters.set(record.name, figures);
    const own = isOwn(record);
    const state = !record.enabled ? ['off', 'Off'] : record.problem ? ['lost', 'Problem'] : ['online', 'On'];
    const from = record.allowed.length ? `from ${record.allowed.join(', ')}` : 'from everywhere';
    const certificate = record.certificate === noCertificate ? '' : `, certificate ${record.certificate}`;
    return h(
      'li',
      { class: 'panel record', 'data-server': record.name },
      h(
        'div',
        { class: 'record-head' },
        h('h2', {}, record.name),
        own ? h('span', { class: 'tag' }, 'this page') : null,
        h('span', { class: 'pill', 'data-state': state[0] }, h('span', { class: 'dot', 'aria-hidden': 'true' }), state[1]),
      ),
      h('p', {}, `Port ${record.port}${certificate}, ${from}`),
      record.trial ? h('p', { class: 'trial' }, `On trial, taken back in ${record.trial} s.`) : null,
      record.enabled && record.problem ? h('p', { class: 'problem' }, problemText(record.problem)) : null,
      mayChange
        ? h(
            'div',
            { class: 'buttons' },
            own ? null : h('button', { type: 'button', class: 'plain', 'aria-label': `Remove ${record.name}`, onclick: () => remove(record) }, 'Remove'),
            h('button', { type: 'button', class: 'plain', 'aria-label': `Change ${record.name}`, onclick: () => edit(record) }, 'Change'),
          )
        : null,
      figures.element,
    );
  }

  function remove(record) {
    ask({
      title: `Remove ${record.name}?`,
      content: [h('p', {}, `Port ${record.port} is closed. Connections that are open stay.`)],
      label: 'Remove',
      danger: true,
      async action() {
        const { error } = await session.call(path, commands.removeObj, { s1: record.name });
        return error && failureText(error);
      },
    }).then(load);
  }

  function edit(record) {
    const before = record ?? { name: '', enabled: true, port: 8080, certificate: noCertificate, allowed: [] };
    const own = record !== null && isOwn(record);
    const name = h('input', { value: before.name, maxlength: 64, spellcheck: 'false', autocomplete: 'off' });
    const port = h('input', { value: String(before.port), inputmode: 'numeric', maxlength: 5, autocomplete: 'off' });
    const certificate = h('input', { value: before.certificate === noCertificate ? '' : String(before.certificate), inputmode: 'numeric', autocomplete: 'off' });
    const allowed = h('textarea', { rows: 4, spellcheck: 'false' }, before.allowed.join('\n'));
    const enabled = checkbox('Listen', before.enabled);
    let warned = false;

    const read = () => ({
      name: name.value.trim(),
      enabled: enabled.input.checked,
      port: Number(port.value),
      certificate: certificate.value.trim() === '' ? noCertificate : Number(certificate.value),
      allowed: allowed.value.split(/[\s,]+/).filter(Boolean),
    });

    ask({
      title: record ? `Change ${record.name}` : 'Add a server',
      label: record ? 'Save' : 'Add',
      content: [
        record ? null : field('Name', name, 'As in the configuration of the server.'),
        enabled.element,
        field('Port', port),
        field('Reachable from', allowed, 'One prefix a line, such as 192.168.1.0/24 or fd00::/8. Empty: from everywhere.'),
        field('Certificate', certificate, 'The number that the TLS service knows it by; empty: none.'),
      ].filter(Boolean),
      async action(tell) {
        const wanted = read();
        const wrong = complaint(wanted);
        if (wrong) return wrong;
        if (!record) return addRecord(wanted);
        if (!own) return change(session, wanted).then(afterChange);
        if (!wanted.enabled && !warned) {
          warned = true;
          return 'This page comes through this server. Without it you need another way in. Save once more if you have one.';
        }
        if (!wanted.enabled) return change(session, wanted).then(afterChange);
        const { wrong: refused, moved } = await changeOwn(session, server, before, wanted, tell);
        if (moved) follow(moved);
        return refused;
      },
    }).then(load);
  }

  // The change stands also when the server could not take it; that is told in the list.
  function afterChange(wrong) {
    if (wrong) notices.show('servers', wrong, { tone: 'bad' });
  }

  async function addRecord(record) {
    const { reply, error } = await session.call(path, commands.addObj, writeRecord(record));
    if (error) return failureText(error);
    if (reply.s10) notices.show('servers', problemText(reply.s10), { tone: 'bad' });
    return null;
  }

  // The page cannot take its login along to another address.
  function follow(address) {
    notices.show('moved', `The server has moved to ${address}. Log in there.`, {
      tone: 'good',
      stays: true,
      action: { label: 'Go there', run: () => location.assign(address) },
    });
    setTimeout(() => location.assign(address), 1500);
  }

  function loadAll() {
    load();
    certificate.load();
  }

  loadAll();
  return {
    onOnline: loadAll,
    stop() {
      stopped = true;
      again.cancel();
      asking.stop();
      certificate.stop();
    },
  };
}

function complaint({ name, port, certificate, allowed }) {
  if (!/^[\x20-\x7e]{1,64}$/.test(name)) return 'A name has 1 to 64 printable ASCII characters.';
  if (!Number.isInteger(port) || port < 1 || port > 65535) return 'A port is a number from 1 to 65535.';
  if (!Number.isInteger(certificate) || certificate < 0 || certificate > noCertificate) return 'A certificate is a number.';
  const wrong = allowed.find((text) => !parsePrefix(text));
  return wrong === undefined ? null : `${wrong} is no prefix.`;
}
