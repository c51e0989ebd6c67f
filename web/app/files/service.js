// What the file service takes and tells, as docs/services.md has it, in names instead of numbers; and names of files.
import { commands } from '../../client/index.js';

export const path = [24, 2];

/** How many entries are asked for at a time. */
const pageSize = 200;

export const kinds = { file: 1, folder: 2, other: 3 };

/** Where files lie. Names are taken from these tops. */
export const places = [
  { title: 'User store', top: '' },
  { title: 'Flash', top: '/flash/' },
];

/**
 * @typedef {object} Entry
 * @property {string} name  Without its folder's.
 * @property {number} kind  One of `kinds`.
 * @property {bigint} size
 * @property {number} changed  In ms since 1970.
 * @property {boolean} secret
 */

/** @returns {Entry} */
const readEntry = (message) => ({
  name: message.s1,
  kind: message.u2 ?? kinds.other,
  size: message.q3 ?? 0n,
  changed: Number(message.q4 ?? 0n),
  secret: message.b5 === true,
});

/**
 * Lists a folder, page by page.
 * @param {import('../../client/index.js').Session} session
 * @param {string} folder
 * @param {number} [least]  Pages are asked for until there are so many entries.
 * @param {string} [next]  Of an earlier list: goes on behind it.
 * @returns {Promise<{entries?: Entry[], next?: string, total?: number, nameless?: number, error?: object}>}  `next` is there when
 *     there are more, `total` counts the whole folder without the `nameless`.
 */
export async function list(session, folder, least = 1, next = undefined) {
  const entries = [];
  for (;;) {
    const { reply, error } = await session.call(path, commands.getAll, { s1: folder, s2: next, u3: pageSize });
    if (error) return { error };
    entries.push(...(reply.M1 ?? []).map(readEntry));
    next = reply.s2;
    if (next === undefined || entries.length >= least) return { entries, next, total: reply.u3 ?? 0, nameless: reply.u4 ?? 0 };
  }
}

/** The room where a folder lies: `{free, all, fixed}`, fixed when nothing can be written there; null when it is not known. */
export async function room(session, folder) {
  const { reply } = await session.call(path, commands.get, { s1: folder });
  return reply ? { free: reply.q6 ?? 0n, all: reply.q4 ?? 0n, fixed: reply.b9 === true } : null;
}

/** The name of what lies in a folder. */
export const child = (folder, name) => (folder === '' || folder.endsWith('/') ? folder + name : `${folder}/${name}`);

export const placeOf = (folder) => places.find(({ top }) => top && folder.startsWith(top)) ?? places[0];

/** The way to a folder from the top of its place. @returns {{title: string, folder: string}[]} */
export function wayTo(folder) {
  const { title, top } = placeOf(folder);
  const way = [{ title, folder: top }];
  for (const piece of folder.slice(top.length).split('/').filter(Boolean)) {
    way.push({ title: piece, folder: child(way.at(-1).folder, piece) });
  }
  return way;
}

/** A folder's address within the interface. */
export const addressOf = (folder) => (folder ? `#/files/${folder.split('/').map(encodeURIComponent).join('/')}` : '#/files');

/** The folder that is meant by what stands behind `#/files/`. */
export function folderAt(rest) {
  let name;
  try {
    name = decodeURIComponent(rest);
  } catch {
    return '';
  }
  const { top } = placeOf(name);
  return top + name.slice(top.length).replace(/^\/+|\/+$/g, '');
}
