// Names of what can be asked on the bus: they are offered, and everything else can be written as a number.
import { commands } from '../../client/index.js';

/** The services that a page can call, by their paths. */
export const services = [
  { path: '2/1', title: 'programs of the system', commands: { get: commands.get } },
  { path: '2/2', title: 'log', commands: { getAll: commands.getAll } },
  { path: '12/1', title: 'certificate', commands: { get: commands.get, set: commands.set, reset: commands.reset, reload: 0x60001 } },
  { path: '13/2', title: 'users', commands: { setPassword: 0x20001 } },
  { path: '13/3', title: 'groups', commands: {} },
  { path: '24/1', title: 'status', commands: { getObj: commands.getObj, getAll: commands.getAll, subscribe: 0x20011, unsubscribe: 0x20012 } },
  { path: '24/2', title: 'files', commands: {} },
  { path: '24/3', title: 'messages on the bus', commands: { getAll: commands.getAll } },
  { path: '68/1', title: 'servers', commands: {} },
];

/** The commands that are offered for a path. @returns {Record<string, number>} */
export function commandsOf(path) {
  const service = services.find((candidate) => candidate.path === path);
  return { ...commands, ...service?.commands };
}

const wholeNumber = /^(0x[0-9a-f]{1,8}|\d{1,10})$/i;

/** @returns {number|null} */
function number(text) {
  const value = wholeNumber.test(text) ? Number(text) : NaN;
  return value <= 0xffffffff ? value : null;
}

/** Reads `24/1`. @returns {number[]|null} */
export function readPath(text) {
  const parts = text.trim().split('/').map(number);
  return parts.includes(null) ? null : parts;
}

/** Reads a command: one of the names, or a number. @returns {number|null} */
export function readCommand(text, path) {
  const known = commandsOf(path);
  const name = text.trim();
  return Object.hasOwn(known, name) ? known[name] : number(name);
}
