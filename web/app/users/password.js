// The page for one's own password.
import { h, setText } from '../dom.js';
import { failureText, field } from '../forms.js';
import { rightsOf } from '../rights.js';
import { setPassword, users } from './service.js';

export const shortest = 8;

/** What is wrong with a new password and its repetition, or null. */
export function passwordComplaint(password, again) {
  if ([...password].length < shortest) return `A password has at least ${shortest} characters.`;
  if (password !== again) return 'The two passwords are not the same.';
  return null;
}

export const passwordInput = (autocomplete) => h('input', { type: 'password', autocomplete, maxlength: 256 });

/**
 * @param {HTMLElement} place
 * @param {{session: import('../../client/index.js').Session, notices: import('../notices.js').Notices}} context
 */
export function startAccount(place, { session, notices }) {
  const { account } = session.state;
  const old = passwordInput('current-password');
  const fresh = passwordInput('new-password');
  const again = passwordInput('new-password');
  const message = h('p', { class: 'message', role: 'alert' });
  const save = h('button', { type: 'submit', class: 'primary' }, 'Change the password');
  const form = h(
    'form',
    { class: 'panel form', novalidate: true, 'aria-label': 'Password' },
    h('input', { type: 'text', autocomplete: 'username', value: account.user, hidden: true }),
    field('Present password', old),
    field('New password', fresh, `At least ${shortest} characters.`),
    field('New password once more', again),
    message,
    save,
  );

  form.addEventListener('submit', async (event) => {
    event.preventDefault();
    const wrong = old.value ? passwordComplaint(fresh.value, again.value) : 'Give the present password.';
    setText(message, wrong ?? '');
    if (wrong) return;
    save.disabled = true;
    const { error } = await session.call(users, setPassword, { s3: fresh.value, s4: old.value });
    save.disabled = false;
    if (error) return setText(message, failureText(error));
    session.passwordChanged(fresh.value);
    form.reset();
    notices.show('password', 'The password has been changed.', { tone: 'good' });
  });

  const facts = [
    ['User', account.user],
    ['Name', account.fullName || '–'],
    ['Group', account.group],
    ['Skin', account.skin],
  ];
  place.append(
    h(
      'div',
      { class: 'narrow' },
      h('div', { class: 'page-head' }, h('h1', {}, 'Account')),
      h('dl', { class: 'panel facts' }, ...facts.map(([title, text]) => h('div', {}, h('dt', {}, title), h('dd', {}, text)))),
      rightsPanel(account),
      form,
    ),
  );
  return { stop() {} };
}

function rightsPanel({ policies, group }) {
  const list = rightsOf(policies).map(({ title, meaning }) => h('li', {}, h('h3', {}, title), h('p', { class: 'soft' }, meaning)));
  return h(
    'section',
    { class: 'panel', 'aria-labelledby': 'rights-title' },
    h('h2', { id: 'rights-title' }, `What the group ${group} may do`),
    list.length ? h('ul', { class: 'meanings' }, ...list) : h('p', { class: 'soft' }, 'Nothing but this: to log in and to change your own password.'),
  );
}
