// Forms and dialogs.
import { h, setText } from './dom.js';

let labels = 0;

/** A labelled input with a word of help below it. */
export function field(label, input, help) {
  const id = `field-${++labels}`;
  input.id = id;
  if (help) input.setAttribute('aria-describedby', `${id}-help`);
  return h('div', { class: 'field' }, h('label', { for: id }, label), input, help ? h('p', { class: 'help', id: `${id}-help` }, help) : null);
}

/** A box that is ticked. What it means is said beside its name, not in it. */
export function checkbox(label, checked, help) {
  const id = `field-${++labels}`;
  const input = h('input', { type: 'checkbox', id, 'aria-describedby': help ? `${id}-help` : null });
  input.checked = checked;
  const words = h('div', {}, h('label', { for: id }, label), help ? h('p', { class: 'help', id: `${id}-help` }, help) : null);
  return { element: h('div', { class: 'check' }, input, words), input };
}

/**
 * Asks in a dialog. The action runs while the dialog is open and says what is wrong, or gives nothing when it is done. Whoever
 * closes the dialog meanwhile does not undo it: the answer comes when it is through.
 * @param {object} question
 * @param {string} question.title
 * @param {(Node|string)[]} question.content
 * @param {string} question.label  Of the button that does it.
 * @param {boolean} [question.danger]
 * @param {(tell: (text: string) => void) => Promise<string|null|undefined>} question.action  May tell what is going on.
 * @returns {Promise<boolean>} whether it was done
 */
export function ask({ title, content, label, danger, action }) {
  return new Promise((resolve) => {
    const message = h('p', { class: 'message', role: 'alert' });
    const go = h('button', { type: 'submit', class: danger ? 'danger' : 'primary' }, label);
    const cancel = h('button', { type: 'button', onclick: () => dialog.close() }, 'Cancel');
    const titleId = `field-${++labels}`;
    const form = h('form', { novalidate: true }, h('h2', { id: titleId }, title), ...content, message, h('div', { class: 'buttons' }, cancel, go));
    const dialog = h('dialog', { 'aria-labelledby': titleId }, form);
    let done = false;
    let running = null;
    // The button is not disabled meanwhile: it would lose the keyboard.
    async function run() {
      go.setAttribute('aria-disabled', 'true');
      message.dataset.tone = 'info';
      setText(message, '');
      const wrong = await action((text) => setText(message, text));
      go.removeAttribute('aria-disabled');
      message.dataset.tone = 'bad';
      setText(message, wrong ?? '');
      running = null;
      if (wrong) return;
      done = true;
      dialog.close();
    }
    form.addEventListener('submit', (event) => {
      event.preventDefault();
      running ??= run();
    });
    dialog.addEventListener('close', async () => {
      dialog.remove();
      await running;
      resolve(done);
    });
    document.body.append(dialog);
    dialog.showModal();
  });
}

/** What a failure means, in words for a person. */
export function failureText(failure) {
  if (failure.serviceAway) return 'The service does not answer. Try again in a moment.';
  switch (failure.kind) {
    case 'service':
      return failure.text ? sentence(failure.text) : `The service refuses (error ${failure.code.toString(16)}).`;
    case 'timeout':
      return 'No answer in time. Look whether it was done before you try again.';
    case 'invalid':
      return `That cannot be sent: ${failure.text}.`;
    case 'malformed':
      return 'The answer made no sense.';
    default:
      return 'The server does not answer.';
  }
}

/** A service's words as a sentence. */
export function sentence(text) {
  return `${text[0].toUpperCase()}${text.slice(1)}${/[.!?]$/.test(text) ? '' : '.'}`;
}
