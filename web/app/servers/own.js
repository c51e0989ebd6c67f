// The server that this page came through, and how to change it without locking oneself out.
import { commands } from '../../client/index.js';
import { failureText } from '../forms.js';
import { admits, isSame, path, problemText, readRecord, trialField, writeRecord } from './record.js';

const ownPort = () => Number(location.port) || (location.protocol === 'https:' ? 443 : 80);

/** Whether this page was loaded through a server. */
export const isOwn = (record) => record.enabled && record.port === ownPort();

/** Where the interface is when its server has another port. */
export function addressAt(port) {
  const url = new URL(location.href);
  url.port = port;
  url.hash = '';
  return url.href;
}

// How long a change is on trial, in s: far longer than its proof takes.
const trialSeconds = 20;
// The server ends connections on which nothing was asked for this long, in ms.
const idleLimit = 3500;
const probes = 3;
const probePatience = 10000;
// While the service manager takes a change back, it is looked that often whether it has, in ms.
const lookPause = 1000;

const sessionsHandler = 3;
const lockedOut = 'This browser would have been locked out.';
const unchanged = 'Nothing has been changed.';

/** Changes the record of any server. What is wrong, or null. */
export async function change(session, record) {
  const { reply, error } = await session.call(path, commands.set, writeRecord(record));
  if (error) return failureText(error);
  return reply.s10 ? problemText(reply.s10) : null;
}

/**
 * Changes the record of the server that this page came through, one thing after the other. What could lock this browser out
 * is on trial until it is proved: the service manager takes it back by itself, so nothing has to get through to it, from here
 * or from anywhere, whatever stalls. A new port comes last: from then on the page is elsewhere.
 * @param {import('../../client/index.js').Session} session
 * @param {import('../programs.js').WebServer} server
 * @param {import('./record.js').ServerRecord} before
 * @param {import('./record.js').ServerRecord} wanted
 * @param {(text: string) => void} tell  What is going on.
 * @returns {Promise<{wrong?: string, moved?: string}>}  `moved` is where the interface is now.
 */
export async function changeOwn(session, server, before, wanted, tell) {
  const same = { ...wanted, port: before.port };
  if (before.trial || !isSame(before, same)) {
    if (await isKeptOut(server, before, same)) return { wrong: `${lockedOut} ${unchanged}` };
    const wrong = await tryOut(session, before, same, tell);
    if (wrong) return { wrong };
  }
  if (wanted.port === before.port) return {};
  tell(`Moving to port ${wanted.port} …`);
  const refused = await change(session, wanted);
  return refused ? { wrong: await takeBack(session, same, refused) } : { moved: addressAt(wanted.port) };
}

// Whether the server knows the address of this session, and it is not among the wanted ones any more. It does not know it behind
// a relay for TLS; and without a supervisor nobody knows where the server is.
async function isKeptOut(server, before, same) {
  const { reply } = await server.call(sessionsHandler, commands.getAll);
  const address = reply?.M1?.find(({ b7 }) => b7)?.a3;
  if (!address?.some((byte) => byte !== 0)) return false;
  return admits(before.allowed, address) && !admits(same.allowed, address);
}

// What is wrong, or null when the record has been changed.
async function tryOut(session, before, same, tell) {
  tell('Applying …');
  const end = Date.now() + trialSeconds * 1000;
  const outcome = (wrong) => untilOver(session, before, same, wrong, end, tell);
  const tried = await session.call(path, commands.set, { ...writeRecord(same), [trialField]: trialSeconds });
  if (isRefusal(tried.error)) return `${failureText(tried.error)} ${unchanged}`;
  if (tried.error) return outcome(failureText(tried.error));
  if (tried.reply.s10) {
    const wrong = problemText(tried.reply.s10);
    return (await change(session, before)) ? outcome(wrong) : `${wrong} ${unchanged}`;
  }
  tell('Looking whether this browser can still come in …');
  if (!(await canComeIn())) return outcome(lockedOut);
  // What came in when the trial was over proves nothing, whether this machine slept meanwhile or the manager was started anew.
  const seen = await session.call(path, commands.get, { s1: before.name });
  if (seen.error) return outcome(failureText(seen.error));
  const now = readRecord(seen.reply);
  if (!now.trial || !isSame(now, same)) return outcome('The trial was over before this browser had come in.');
  const kept = await session.call(path, commands.set, writeRecord(same));
  if (kept.error) return outcome(failureText(kept.error));
  return kept.reply.s10 ? takeBack(session, before, problemText(kept.reply.s10)) : null;
}

// With any other failure it is not known whether something was done.
const isRefusal = (error) => error !== undefined && (error.kind === 'invalid' || (error.kind === 'service' && !error.serviceAway));

// Waits until the record is not on trial any more and this browser can see it: what is wrong, or null when it is as wanted.
async function untilOver(session, before, same, wrong, end, tell) {
  tell(`${wrong} Taking it back, which takes up to ${Math.max(1, Math.ceil((end - Date.now()) / 1000))} s …`);
  while (session.state.name === 'online' || session.state.name === 'lost') {
    await new Promise((resolve) => setTimeout(resolve, lookPause));
    session.retryNow();
    const { reply, error } = await session.call(path, commands.get, { s1: before.name });
    if (isRefusal(error)) return `${wrong} ${failureText(error)}`;
    const now = reply && readRecord(reply);
    if (!now || now.trial) continue;
    if (isSame(now, same)) return null;
    return isSame(now, before) ? `${wrong} ${unchanged}` : `${wrong} Somebody else has changed the record meanwhile.`;
  }
  return wrong;
}

async function takeBack(session, before, wrong) {
  const again = await change(session, before);
  return again ? `${wrong} It could not be taken back: ${again}` : `${wrong} ${unchanged}`;
}

// Requests over new connections. Those that there are have been ended by the server before it begins, or are at work; and a
// request without credentials is given none that had some, in a browser that keeps them apart. The server ends the connection
// of a HEAD request for a file, so no later one finds it again.
async function canComeIn() {
  await new Promise((resolve) => setTimeout(resolve, idleLimit));
  return (await Promise.all(Array.from({ length: probes }, comesIn))).every(Boolean);
}

async function comesIn() {
  const abort = new AbortController();
  const timer = setTimeout(() => abort.abort(), probePatience);
  try {
    return (await fetch('/favicon.ico', { method: 'HEAD', cache: 'no-store', credentials: 'omit', signal: abort.signal })).ok;
  } catch {
    return false;
  } finally {
    clearTimeout(timer);
  }
}
