// The users page: who may log in, and what each group may do.
import { commands } from '../../client/index.js';
import { h, keepFocus } from '../dom.js';
import { ask, checkbox, failureText, field } from '../forms.js';
import { retry } from '../poll.js';
import { rights, rightsText } from '../rights.js';
import { passwordComplaint, passwordInput } from './password.js';
import { groups, readGroup, readUser, setPassword, users, writeGroup, writeUser } from './service.js';

/**
 * @param {HTMLElement} place
 * @param {{session: import('../../client/index.js').Session, skins: () => Promise<string[]>}} context
 */
export function startUsers(place, { session, skins }) {
  const userRows = h('tbody');
  const groupRows = h('tbody');
  let known = { users: [], groups: [] };
  let stopped = false;
  const again = retry(load);

  place.append(
    h(
      'div',
      { class: 'narrow' },
      h('div', { class: 'page-head' }, h('h1', {}, 'Users'), h('button', { type: 'button', class: 'primary', onclick: () => editUser(null) }, 'Add a user')),
      table('Users', ['Name', 'Full name', 'Group', ''], userRows),
      h('div', { class: 'page-head' }, h('h2', { class: 'title' }, 'Groups'), h('button', { type: 'button', onclick: () => editGroup(null) }, 'Add a group')),
      table('Groups', ['Name', 'May', 'Skin', ''], groupRows),
    ),
  );

  async function load() {
    again.cancel();
    const [userList, groupList] = await Promise.all([session.call(users, commands.getAll), session.call(groups, commands.getAll)]);
    if (stopped) return;
    const error = userList.error ?? groupList.error;
    if (error?.serviceAway) again.later();
    if (error) {
      userRows.replaceChildren(h('tr', {}, h('td', { colspan: 4, class: 'empty' }, failureText(error))));
      return;
    }
    known = { users: (userList.reply.M1 ?? []).map(readUser), groups: (groupList.reply.M1 ?? []).map(readGroup) };
    keepFocus(userRows, () => userRows.replaceChildren(...known.users.map(userRow)));
    keepFocus(groupRows, () => groupRows.replaceChildren(...known.groups.map(groupRow)));
  }

  const run = async (path, command, fields) => {
    const { error } = await session.call(path, command, fields);
    return error && failureText(error);
  };

  function userRow(user) {
    const name = user.disabled ? [user.name, h('span', { class: 'tag' }, 'disabled')] : [user.name];
    return row(name, ['Full name', user.fullName], ['Group', user.group], [
      button('Password', () => givePassword(user), `Password of ${user.name}`),
      button('Change', () => editUser(user), `Change ${user.name}`),
      button('Remove', () => remove(users, user), `Remove ${user.name}`),
    ]);
  }

  function groupRow(group) {
    return row([group.name], ['May', rightsText(group.policies)], ['Skin', group.skin], [
      button('Change', () => editGroup(group), `Change ${group.name}`),
      button('Remove', () => remove(groups, group), `Remove ${group.name}`),
    ]);
  }

  function remove(path, { id, name }) {
    ask({
      title: `Remove ${name}?`,
      content: [h('p', {}, path === users ? 'Who is logged in stays so until that session ends.' : 'A group with users cannot be removed.')],
      label: 'Remove',
      danger: true,
      action: () => run(path, commands.removeObj, { ufe0001: id }),
    }).then(load);
  }

  function givePassword(user) {
    const own = user.name === session.state.account.user;
    const old = passwordInput('current-password');
    const fresh = passwordInput('new-password');
    const again = passwordInput('new-password');
    ask({
      title: `Password of ${user.name}`,
      content: [own ? field('Present password', old) : null, field('New password', fresh), field('New password once more', again)].filter(Boolean),
      label: 'Set',
      async action() {
        const wrong = passwordComplaint(fresh.value, again.value);
        if (wrong) return wrong;
        const refused = await run(users, setPassword, { ufe0001: user.id, s3: fresh.value, s4: own ? old.value : undefined });
        if (!refused && own) session.passwordChanged(fresh.value);
        return refused;
      },
    });
  }

  function editUser(user) {
    const before = user ?? { name: '', fullName: '', group: 'users', hidden: true, disabled: false };
    const name = h('input', { value: before.name, maxlength: 64, spellcheck: 'false', autocapitalize: 'none', autocomplete: 'off' });
    const fullName = h('input', { value: before.fullName, maxlength: 128, autocomplete: 'off' });
    const group = choice(known.groups.map((entry) => entry.name), before.group);
    const hidden = checkbox('Not on the start page', before.hidden);
    const disabled = checkbox('Disabled: cannot log in', before.disabled);
    const fresh = passwordInput('new-password');
    const again = passwordInput('new-password');
    const read = () => ({
      id: user?.id,
      name: name.value.trim(),
      fullName: fullName.value.trim(),
      group: group.value,
      hidden: hidden.input.checked,
      disabled: disabled.input.checked,
    });
    ask({
      title: user ? `Change ${user.name}` : 'Add a user',
      content: [
        field('User name', name),
        field('Full name', fullName),
        field('Group', group),
        ...(user ? [] : [field('Password', fresh), field('Password once more', again)]),
        hidden.element,
        disabled.element,
      ],
      label: user ? 'Save' : 'Add',
      async action() {
        if (user) return run(users, commands.setObj, writeUser(read()));
        return passwordComplaint(fresh.value, again.value) ?? run(users, commands.addObj, { ...writeUser(read()), s3: fresh.value });
      },
    }).then(load);
  }

  function editGroup(group) {
    const before = group ?? { name: '', policies: 0x10, skin: 'default' };
    const name = h('input', { value: before.name, maxlength: 64, spellcheck: 'false', autocapitalize: 'none', autocomplete: 'off' });
    const boxes = rights.map(({ bit, title, meaning }) => ({ bit, ...checkbox(title, (before.policies & bit) !== 0, meaning) }));
    const named = rights.reduce((sum, { bit }) => sum | bit, 0);
    // One that was put into the user store is as good as one that came with the system.
    const skin = h('input', { value: before.skin, maxlength: 64, spellcheck: 'false', autocapitalize: 'none', autocomplete: 'off', list: 'skins' });
    const shipped = h('datalist', { id: 'skins' });
    skins().then((titles) => shipped.append(...titles.map((title) => h('option', { value: title }))));
    ask({
      title: group ? `Change ${group.name}` : 'Add a group',
      content: [
        field('Name', name),
        h('fieldset', {}, h('legend', {}, 'Its users may'), ...boxes.map(({ element }) => element)),
        field('Skin', skin, 'How the interface looks for them, and which pages it has.'),
        shipped,
      ],
      label: group ? 'Save' : 'Add',
      action() {
        // Bits without a name stay as they are.
        const policies = boxes.reduce((sum, { bit, input }) => sum | (input.checked ? bit : 0), before.policies & ~named) >>> 0;
        const fields = writeGroup({ id: group?.id, name: name.value.trim(), policies, skin: skin.value.trim() });
        return run(groups, group ? commands.setObj : commands.addObj, fields);
      },
    }).then(load);
  }

  load();
  return {
    onOnline: load,
    stop() {
      stopped = true;
      again.cancel();
    },
  };
}

// On a phone the rows are laid out as blocks, so what they are is said in so many words.
function table(label, titles, rows) {
  const heads = titles.map((title) => h('th', { scope: 'col' }, title || h('span', { class: 'hidden' }, 'What can be done')));
  rows.setAttribute('role', 'rowgroup');
  return h('div', { class: 'panel' }, h('table', { class: 'list', role: 'table', 'aria-label': label }, h('thead', {}, h('tr', {}, ...heads)), rows));
}

// On a phone there are no heads of columns: what a cell is stands beside it.
const cell = ([title, text]) => h('td', { role: 'cell', 'data-title': title }, text || null);

function row(name, second, third, buttons) {
  return h(
    'tr',
    { role: 'row' },
    h('th', { scope: 'row', role: 'rowheader' }, ...name),
    cell(second),
    cell(third),
    h('td', { role: 'cell' }, h('div', { class: 'buttons' }, ...buttons)),
  );
}

const button = (title, onclick, label) => h('button', { type: 'button', class: 'plain', onclick, 'aria-label': label }, title);

function choice(names, chosen) {
  const select = h('select', {}, ...names.map((name) => h('option', { value: name }, name)));
  select.value = chosen;
  return select;
}
