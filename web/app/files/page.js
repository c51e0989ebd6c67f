// The files page: what is in the user store and the flash, bringing files there, fetching them, and putting them in order.
import { commands, permissions } from '../../client/index.js';
import { h } from '../dom.js';
import { ask, failureText, field } from '../forms.js';
import { retry } from '../poll.js';
import { Listing } from './listing.js';
import { child, folderAt, kinds, list, path, room } from './service.js';
import { Transfers } from './transfers.js';

/**
 * @param {HTMLElement} place
 * @param {{session: import('../../client/index.js').Session, notices: import('../notices.js').Notices, within: string}} context
 *     `within` is what stands behind the page's name in the address: the folder.
 */
export function startFiles(place, { session, notices, within }) {
  const mayWrite = (session.state.account.policies & permissions.writeFiles) !== 0;
  const transfers = new Transfers(session, reload);
  const listing = new Listing({ download, more, again: () => load(), rename: mayWrite ? rename : undefined, remove: mayWrite ? remove : undefined });
  const makeButton = h('button', { type: 'button', class: 'primary', disabled: true, onclick: make }, 'New folder');
  const area = uploadArea(upload);
  place.append(
    h(
      'div',
      { class: 'narrow' },
      h('div', { class: 'page-head' }, h('h1', {}, 'Files'), mayWrite ? makeButton : null),
      h('p', { class: 'soft lead' }, 'Names are enciphered on their way, contents are not.'),
      listing.element,
      mayWrite ? area.element : null,
      transfers.element,
    ),
  );

  let wanted = folderAt(within);
  // What is shown: a folder and what is known of it; null as long as it could not be listed.
  let shown = null;
  // Counts what was asked for, so that an answer that was overtaken is known.
  let turns = 0;
  let stopped = false;
  const another = retry(load);
  let loading = Promise.resolve();

  function load(least) {
    loading = loadNow(least);
    return loading;
  }

  async function loadNow(least) {
    if (stopped) return;
    another.cancel();
    const turn = ++turns;
    const folder = wanted;
    listing.wait();
    const [{ error, ...known }, space] = await Promise.all([list(session, folder, least), room(session, folder)]);
    if (stopped || turn !== turns) return;
    shown = error ? null : { folder, ...known };
    if (shown) listing.show(folder, shown);
    else listing.showError(folder, failureText(error));
    listing.showRoom(space);
    makeButton.disabled = area.button.disabled = !shown;
    if (error?.serviceAway) another.later();
  }

  // As much of the folder as was shown.
  function reload() {
    return load(shown?.entries.length);
  }

  async function more() {
    await loading;
    if (stopped || shown?.next === undefined) return;
    const turn = ++turns;
    const { folder, entries } = shown;
    listing.wait();
    const { error, ...known } = await list(session, folder, 1, shown.next);
    if (stopped || turn !== turns) return;
    if (error) notices.show('files', failureText(error), { tone: 'bad' });
    else shown = { folder, ...known, entries: [...entries, ...known.entries] };
    listing.show(folder, shown);
    if (!error) listing.focusRow(entries.length);
  }

  // What had the keyboard may be gone.
  function keepFocus() {
    if (!stopped && document.activeElement === document.body) listing.focusWay();
  }

  async function enter(rest) {
    const folder = folderAt(rest);
    if (folder === wanted) return;
    wanted = folder;
    await load();
    scrollTo(0, 0);
    keepFocus();
  }

  async function download(name) {
    notices.clear('files');
    const wrong = await transfers.get(name);
    if (wrong && !stopped) notices.show('files', wrong, { tone: 'bad' });
  }

  async function upload(files) {
    if (!shown) return;
    const { folder, entries } = shown;
    const there = new Set(entries.filter(({ kind }) => kind === kinds.file).map(({ name }) => name));
    const put = (file) => transfers.put(child(folder, file.name), file);
    const again = files.filter(({ name }) => there.has(name));
    files.filter(({ name }) => !there.has(name)).forEach(put);
    if (again.length === 0) return;
    const what = again.length === 1 ? again[0].name : `${again.length} files`;
    const content = [h('p', {}, `Already here: ${again.map(({ name }) => name).join(', ')}`)];
    const replaced = await ask({ title: `Replace ${what}?`, content, label: 'Replace', danger: true, action: async () => null });
    if (replaced && !stopped) again.forEach(put);
  }

  const run = async (command, fields) => {
    const { error } = await session.call(path, command, fields);
    return error && failureText(error);
  };

  async function change(question) {
    await ask(question);
    await reload();
    keepFocus();
  }

  function make() {
    const { folder } = shown;
    const name = nameInput('');
    change({
      title: 'New folder',
      content: [field('Name', name)],
      label: 'Create',
      async action() {
        if (!name.value || name.value.includes('/')) return 'A folder has a name without a slash.';
        return run(commands.addObj, { s1: child(folder, name.value) });
      },
    });
  }

  function rename(name, entry) {
    const fresh = nameInput(name);
    const answer = change({
      title: `Rename ${entry.name}`,
      content: [field('New name', fresh, 'With the names of the folders that it is to lie in.')],
      label: 'Rename',
      action: () => run(commands.moveObj, { s1: name, s2: fresh.value }),
    });
    fresh.setSelectionRange(name.length - entry.name.length, name.length);
    return answer;
  }

  function remove(name, { name: own, kind }) {
    const warning = kind === kinds.folder ? 'A folder has to be empty.' : 'It cannot be brought back.';
    change({
      title: `Remove ${own}?`,
      content: [h('p', {}, warning)],
      label: 'Remove',
      danger: true,
      action: () => run(commands.removeObj, { s1: name }),
    });
  }

  load();
  return {
    onOnline: reload,
    onAddress: enter,
    stop() {
      stopped = true;
      another.cancel();
      transfers.stop();
      notices.clear('files');
    },
  };
}

const nameInput = (value) => h('input', { value, spellcheck: 'false', autocomplete: 'off', autocapitalize: 'none' });

/** A place to drop files on, with a button to choose them, which is off until there is a folder to put them into. */
function uploadArea(take) {
  const picker = h('input', { type: 'file', multiple: true, class: 'hidden', tabindex: '-1', 'aria-hidden': 'true' });
  const button = h('button', { type: 'button', disabled: true, onclick: () => picker.click() }, 'Choose files');
  const element = h('section', { class: 'drop', 'aria-label': 'Upload' }, h('p', {}, 'Drop files here to store them in this folder'), button, picker);
  picker.addEventListener('change', () => {
    // The list empties with the input.
    take([...picker.files]);
    picker.value = '';
  });
  for (const event of ['dragenter', 'dragover', 'dragleave', 'drop']) {
    element.addEventListener(event, (happened) => {
      happened.preventDefault();
      element.classList.toggle('over', event === 'dragenter' || event === 'dragover');
      if (event === 'drop') take([...happened.dataTransfer.files]);
    });
  }
  return { element, button };
}
