// The interface: who is logged in, how the connection is, and which page is shown.
import { Session } from '../client/index.js';
import { byId, h, setText } from './dom.js';
import { Login } from './login.js';
import { Notices } from './notices.js';
import { pages } from './pages.js';
import { loadSkin, pagesOf, shippedSkins, wear } from './skin.js';

const session = new Session();
const notices = new Notices(byId('notices'));
const login = new Login(session);
const view = byId('page');

/** The page that is shown: its entry of `pages` and what its start returned. */
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
  document.title = account.host ? `${account.host} · tarn` : 'tarn';
  setText(byId('who'), account.user);
  byId('who').title = [account.fullName, account.group].filter(Boolean).join(', ');
  byId('account').hidden = false;
  byId('tabs').hidden = false;
  view.hidden = false;
  if (shown) shown.page.onOnline?.(account);
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
    notices.show('lost', `The server does not answer. ${when}`, { tone: 'bad', stays: true, action });
  };
  tell();
  countdown = setInterval(tell, 500);
}

// Pages

const permitted = () => pagesOf(skin, pages).filter(({ needs }) => (session.state.account.policies & needs) === needs);

function route() {
  if (!session.state.account || !skin) return;
  const list = permitted();
  // Behind a page's name may stand a place within the page.
  const [, wanted, rest = ''] = /^#\/([^/]*)\/?(.*)$/.exec(location.hash) ?? [];
  const entry = list.find((page) => page.name === wanted) ?? list[0];
  const within = entry?.name === wanted ? rest : '';
  showTabs(list, entry);
  if (shown && shown.entry === entry) return shown.page.onAddress?.(within);
  closePage();
  if (!entry) {
    view.append(h('p', { class: 'empty' }, 'Your group may not see anything here. An administrator can change that.'));
    return;
  }
  shown = { entry, page: entry.start(view, { session, notices, skins: shippedSkins, within }) };
}

function showTabs(list, current) {
  const links = list.map(({ name, title }) =>
    h('a', { href: `#/${name}`, 'aria-current': name === current?.name ? 'page' : null }, title),
  );
  byId('tabs').replaceChildren(...links);
}

function closePage() {
  shown?.page.stop();
  shown = null;
  view.replaceChildren();
}

session.onState(onState);
addEventListener('hashchange', route);
addEventListener('online', () => session.retryNow());
addEventListener('pagehide', () => session.endNow());
byId('logout').addEventListener('click', async () => {
  notices.clearAll();
  await session.end();
});
onState(session.state);
