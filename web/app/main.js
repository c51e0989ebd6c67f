// The interface: who is logged in, how the connection is, and which page is shown.
import { Session } from '../client/index.js';
import { byId, h, setText } from './dom.js';
import { Login } from './login.js';
import { Notices } from './notices.js';
import { pages } from './pages.js';
import { rightsOf } from './rights.js';
import { loadSkin, pagesOf, shippedSkins, wear } from './skin.js';

const session = new Session();
const notices = new Notices(byId('notices'));
const login = new Login(session);
const view = byId('page');

/** The page that is shown: its entry of `pages`, the place in it, and what its start returned, null until its script is there. */
let shown = null;

/** The skin of who is logged in; null until it is there. @type {import('./skin.js').Skin|null} */
let skin = null;

const linkTexts = { online: 'Connected', connecting: 'Connecting', lost: 'No answer' };
const renewals = {
  reconnected: 'The server answers again.',
  restarted: 'The server was started anew. You were logged in again.',
  expired: 'The connection was away for too long and its session had ended. You were logged in again.',
};
const goodbyes = {
  refused: 'The server was started anew and did not accept your login any more. Log in again.',
  ended: 'Your session has ended. Log in again.',
};

function onState(state) {
  document.documentElement.dataset.session = state.name;
  byId('link').dataset.state = state.name;
  setText(byId('link-text'), linkTexts[state.name] ?? '');
  stopCountdown();
  if (state.name === 'online') onOnline(state);
  else if (state.name === 'lost') onLost(state);
  else if (state.name !== 'connecting') onOut(state);
}

function onOnline({ account, renewed }) {
  notices.clear('lost');
  if (renewed) notices.show('renewed', renewals[renewed], { tone: 'good' });
  login.hide();
  setText(byId('host'), account.host || 'tarn');
  setText(byId('who'), account.user);
  byId('who').title = [account.fullName, account.group].filter(Boolean).join(', ');
  byId('account').hidden = false;
  byId('tabs').hidden = false;
  view.hidden = false;
  shown?.page?.onOnline?.(account);
  if (skin) route();
  else dress(account);
}

async function dress(account) {
  const loaded = await loadSkin(session, account.skin);
  if (session.state.account?.user !== account.user) return;
  skin = loaded;
  wear(skin);
  route();
}

function onOut(state) {
  closePage();
  notices.clearAll();
  skin = null;
  wear({});
  setText(byId('host'), 'tarn');
  document.title = 'tarn';
  byId('account').hidden = true;
  byId('tabs').hidden = true;
  view.hidden = true;
  login.show(goodbyes[state.name]);
}

// The connection

let countdown;

function stopCountdown() {
  clearInterval(countdown);
}

function onLost({ retryAt }) {
  const tell = () => {
    const seconds = Math.ceil((retryAt - Date.now()) / 1000);
    const when = seconds > 0 ? `Trying again in ${seconds} s.` : 'Trying again …';
    const action = { label: 'Try now', run: () => session.retryNow() };
    notices.clear('renewed');
    notices.show('lost', 'The server does not answer.', { tone: 'bad', stays: true, action, aside: when });
  };
  tell();
  countdown = setInterval(tell, 500);
}

// Pages

const isPermitted = ({ needs }) => (session.state.account.policies & needs) === needs;

function route() {
  const { account } = session.state;
  if (!account || !skin) return;
  const list = pagesOf(skin, pages);
  const offered = list.filter(isPermitted);
  // Behind a page's name may stand a place within the page.
  const [, wanted, rest = ''] = /^#\/([^/]*)\/?(.*)$/.exec(location.hash) ?? [];
  const isWanted = ({ name }) => name === wanted;
  const entry = list.find(isWanted) ?? pages.find((page) => isWanted(page) && !isPermitted(page)) ?? offered[0];
  const within = entry?.name === wanted ? rest : '';
  showTabs(offered, entry);
  document.title = [entry?.title, account.host, 'tarn'].filter(Boolean).join(' · ');
  if (shown?.entry === entry) {
    shown.within = within;
    shown.page?.onAddress?.(within);
    return;
  }
  closePage();
  if (!entry) view.append(h('p', { class: 'empty' }, 'Your group may not see anything here. An administrator can change that.'));
  else if (isPermitted(entry)) openPage(entry, within);
  else refusePage(entry);
}

async function openPage(entry, within) {
  const opened = { entry, page: null, within };
  shown = opened;
  let start;
  try {
    start = await entry.load();
  } catch {
    if (shown === opened) missPage(entry);
    return;
  }
  if (shown === opened) opened.page = start(view, { session, notices, skins: shippedSkins, within: opened.within });
}

// The script of the page could not be fetched: the server is away, or has been given another version meanwhile.
function missPage({ title }) {
  shown = null;
  view.replaceChildren(
    explanation(title, 'This page could not be fetched from the server. When it answers again, load the interface anew and log in.',
      h('button', { type: 'button', class: 'primary', onclick: () => location.reload() }, 'Load anew')),
  );
}

function refusePage({ title, needs }) {
  const { account } = session.state;
  const lacking = rightsOf(needs & ~account.policies).map((right) => `“${right.title}”`);
  const what = lacking.length === 1 ? `the right ${lacking[0]}` : `the rights ${lacking.join(', ')}`;
  view.append(
    explanation(title, `This page needs ${what}, which your group “${account.group}” does not have. An administrator can give it.`),
  );
}

const explanation = (title, text, ...more) =>
  h('div', { class: 'narrow' }, h('div', { class: 'page-head' }, h('h1', {}, title)), h('div', { class: 'panel form' }, h('p', {}, text), ...more));

// Tabs that stay are left as they are: one of them may have the keyboard.
function showTabs(list, current) {
  const tabs = byId('tabs');
  const names = list.map(({ name }) => name).join(' ');
  if (tabs.dataset.pages !== names) {
    tabs.dataset.pages = names;
    tabs.replaceChildren(...list.map(({ name, title }) => h('a', { href: `#/${name}` }, title)));
  }
  list.forEach(({ name }, index) => {
    if (name === current?.name) {
      tabs.children[index].setAttribute('aria-current', 'page');
      tabs.children[index].scrollIntoView({ block: 'nearest', inline: 'nearest' });
    } else {
      tabs.children[index].removeAttribute('aria-current');
    }
  });
}

// What asks goes with the page that it belongs to, undone.
function closePage() {
  for (const dialog of document.querySelectorAll('dialog[open]')) dialog.close();
  shown?.page?.stop();
  shown = null;
  view.replaceChildren();
}

// A file that is dropped beside the place for it would be shown by the browser, in the place of the interface.
function refuseDrop(event) {
  if (event.defaultPrevented || !event.dataTransfer?.types.includes('Files')) return;
  event.preventDefault();
  event.dataTransfer.dropEffect = 'none';
}

session.onState(onState);
addEventListener('dragover', refuseDrop);
addEventListener('drop', refuseDrop);
addEventListener('hashchange', route);
addEventListener('online', () => session.retryNow());
addEventListener('pagehide', () => session.endNow());
byId('logout').addEventListener('click', async () => {
  notices.clearAll();
  await session.end();
});
onState(session.state);
