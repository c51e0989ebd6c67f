// Sending a message and showing what comes back. What is typed is looked at while it is typed.
import { h } from '../dom.js';
import { failureText, field } from '../forms.js';
import { showMessage } from './answer.js';
import { commandsOf, readCommand, readPath, services } from './known.js';
import { readLine } from './line_form.js';

/** Where a position of a text is, in words. */
function placeText(text, position) {
  const before = text.slice(0, position).split('\n');
  const column = [...before.at(-1)].length + 1;
  return before.length > 1 ? `Line ${before.length}, column ${column}` : `Column ${column}`;
}

// What stands around a fault: enough to find it again.
function excerpt(text, position) {
  const line = text.slice(text.lastIndexOf('\n', position - 1) + 1, position);
  const rest = text.slice(position).split('\n')[0];
  return [line.length > 24 ? `…${line.slice(-23)}` : line, rest.slice(0, 1) || ' ', rest.length > 16 ? `${rest.slice(1, 16)}…` : rest.slice(1)];
}

/** @param {import('../../client/index.js').Session} session */
export function makeSender(session) {
  const text = { spellcheck: 'false', autocomplete: 'off', autocapitalize: 'none' };
  const path = h('input', { ...text, list: 'known-paths', value: '24/1', maxlength: 100, oninput: check });
  const command = h('input', { ...text, list: 'known-commands', value: 'getAll', maxlength: 40, oninput: check });
  const fields = h('textarea', { ...text, rows: 3, oninput: check }, '{}');
  const names = h('datalist', { id: 'known-commands' });
  const fault = h('p', { class: 'fault', role: 'status' });
  const go = h('button', { type: 'submit', class: 'primary' }, 'Send');
  const answer = h('div', { class: 'answer', tabindex: 0, role: 'region', 'aria-label': 'Reply', 'aria-live': 'polite' }, h('p', { class: 'soft' }, 'The reply will stand here.'));
  const form = h(
    'form',
    { class: 'sender-form', novalidate: true, 'aria-label': 'Message' },
    h('div', { class: 'sender-row' }, field('Destination', path), field('Command', command)),
    field('Fields', fields, 'As in {u1:5,s2:\'text\',U3:[1,2]}: the letter of the type (b u q a s m r), the number in hexadecimal, the value.'),
    h('div', { class: 'sender-foot' }, fault, go),
    h('datalist', { id: 'known-paths' }, ...services.map((service) => h('option', { value: service.path }, service.title))),
    names,
  );
  form.addEventListener('submit', (event) => {
    event.preventDefault();
    send();
  });

  let busy = false;

  // What is to be sent, or what is wrong with which of the inputs.
  function read() {
    const to = readPath(path.value);
    if (!to) return { input: path, wrong: ['A destination is numbers and slashes, as 24/1.'] };
    const number = readCommand(command.value, path.value.trim());
    if (number === null) return { input: command, wrong: ['A command is one of the names that are offered, or a number, as 0x20011.'] };
    const line = fields.value.trim() ? readLine(fields.value) : { message: {} };
    if (!line.fault) return { to, number, message: line.message };
    const { position, expected } = line.fault;
    const [before, at, after] = excerpt(fields.value, position);
    const shown = h('code', {}, before, h('mark', {}, at), after);
    return { input: fields, wrong: [`${placeText(fields.value, position)}: expected ${expected}. `, shown] };
  }

  function check() {
    const offered = Object.keys(commandsOf(path.value.trim()));
    if (names.dataset.names !== offered.join()) {
      names.dataset.names = offered.join();
      names.replaceChildren(...offered.map((name) => h('option', { value: name })));
    }
    const result = read();
    for (const input of [path, command, fields]) {
      if (input === result.input) input.setAttribute('aria-invalid', 'true');
      else input.removeAttribute('aria-invalid');
    }
    fault.replaceChildren(...(result.wrong ?? []));
    go.disabled = result.wrong !== undefined;
    return result;
  }

  // The button is not disabled meanwhile: it would lose the keyboard.
  function setBusy(now) {
    busy = now;
    if (busy) go.setAttribute('aria-disabled', 'true');
    else go.removeAttribute('aria-disabled');
  }

  async function send() {
    const { to, number, message, wrong } = check();
    if (wrong || busy) return;
    setBusy(true);
    const began = performance.now();
    const { reply, error } = await session.call(to, number, message);
    const took = `${Math.round(performance.now() - began)} ms`;
    setBusy(false);
    const title = `${to.join('/')} ${command.value.trim()}`;
    answer.dataset.state = error ? 'failed' : 'done';
    if (error) answer.replaceChildren(head(title, took), h('p', { class: 'problem' }, errorText(error)));
    else answer.replaceChildren(head(title, took), ...showMessage(reply));
  }

  check();
  return h('section', { class: 'panel sender', 'aria-labelledby': 'sender-title' }, h('h2', { id: 'sender-title' }, 'Send a message'), h('div', { class: 'sender-parts' }, form, answer));
}

const head = (title, took) => h('p', { class: 'answer-head' }, h('code', {}, title), h('span', { class: 'soft' }, took));

function errorText(error) {
  if (error.kind !== 'service') return failureText(error);
  return `Error 0x${error.code.toString(16)}${error.text ? `: ${error.text}` : ''}`;
}
