// The server that this page came through, and how to change it without locking oneself out.
import { commands } from '../../client/index.js';
import { failureText } from '../forms.js';
import { path, problemText, writeRecord } from './record.js';

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

// The server ends connections on which nothing was asked for this long, in ms.
const idleLimit = 3500;
const probes = 3;

/** Changes the record of any server. What is wrong, or null. */
export async function change(session, record) {
  const { reply, error } = await session.call(path, commands.set, writeRecord(record));
  if (error) return failureText(error);
  return reply.s10 ? problemText(reply.s10) : null;
}

/**
 * Changes the record of the server that this page came through, one thing after the other, each proved before the next, and
 * takes back what would lock this browser out. A new port comes last: from then on the page is elsewhere.
 * @param {import('../../client/index.js').Session} session
 * @param {import('./record.js').ServerRecord} before
 * @param {import('./record.js').ServerRecord} wanted
 * @param {(text: string) => void} tell  What is going on.
 * @returns {Promise<{wrong?: string, moved?: string}>}  `moved` is where the interface is now.
 */
export async function changeOwn(session, before, wanted, tell) {
  const same = { ...wanted, port: before.port };
  tell('Applying …');
  const wrong = await change(session, same);
  if (wrong) return takeBack(session, before, wrong);
  tell('Looking whether this browser can still come in …');
  if (!(await canComeIn(session))) {
    return takeBack(session, before, 'This browser would have been locked out.');
  }
  if (wanted.port === before.port) return {};
  tell(`Moving to port ${wanted.port} …`);
  const refused = await change(session, wanted);
  return refused ? takeBack(session, same, refused) : { moved: addressAt(wanted.port) };
}

async function takeBack(session, before, wrong) {
  const again = await change(session, before);
  return { wrong: again ? `${wrong} It could not be taken back: ${again}` : `${wrong} Nothing has been changed.` };
}

// Requests over new connections. The one that calls go over is kept busy meanwhile, so that there is still a way to take
// everything back; all others have been ended by the server before it begins.
async function canComeIn(session) {
  const busy = setInterval(() => session.call([], 0), 1000);
  try {
    await new Promise((resolve) => setTimeout(resolve, idleLimit));
    const asked = Array.from({ length: probes }, () => fetch('/favicon.ico', { cache: 'no-store' }));
    return (await Promise.allSettled(asked)).every(({ status, value }) => status === 'fulfilled' && value.ok);
  } finally {
    clearInterval(busy);
  }
}
