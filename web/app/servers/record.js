// Server records as docs/server-record.md has them, in names instead of numbers; prefixes as people write them.
import { addressText, isIPv4, parseAddress } from '../../client/index.js';

export const path = [68, 1];
export const noCertificate = 0xffffffff;
/** Of a command: for how many seconds it is tried. */
export const trialField = 'u12';

/**
 * @typedef {object} ServerRecord
 * @property {string} name
 * @property {boolean} enabled
 * @property {number} port
 * @property {number} certificate
 * @property {string[]} allowed  Prefixes; none means everyone.
 * @property {string} problem  Why the servers have not taken it; may be empty all the same.
 * @property {boolean} taken
 * @property {number} trial  Seconds until it is taken back; 0 when it stands.
 */

/** @returns {ServerRecord} */
export function readRecord(message) {
  return {
    name: message.s1,
    enabled: message.bfe000a !== true,
    port: message.u2 ?? 80,
    certificate: message.u5 ?? noCertificate,
    allowed: (message.M6 ?? []).map(prefixText),
    problem: message.s10 ?? '',
    taken: message.b11 === true,
    trial: message[trialField] ?? 0,
  };
}

/** The fields of a command that gives a record these values. */
export function writeRecord({ name, enabled, port, certificate, allowed }) {
  return { s1: name, bfe000a: !enabled, u2: port, u5: certificate, M6: allowed.map((text) => prefixMessage(parsePrefix(text))) };
}

const bitsOfMask = (mask) => 32 - Math.log2(2 ** 32 - mask);
const maskOfBits = (bits) => 2 ** 32 - 2 ** (32 - bits);
const mapped = (address) => Uint8Array.from([0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, address >>> 24, address >>> 16, address >>> 8, address]);

function prefixText(message) {
  if (message.a3) return textOf(plainPrefix(message.a3, message.u4 ?? 128));
  return `${addressText(mapped(message.u1 ?? 0))}/${bitsOfMask(message.u2 ?? 0)}`;
}

// Which bits of a byte belong to a prefix.
const maskAt = (index, bits) => (0xff00 >> Math.min(8, Math.max(0, bits - 8 * index))) & 0xff;

const textOf = ({ bytes, bits }) => `${addressText(bytes)}/${bits}`;

// One that lies within the IPv6 form of IPv4 addresses is a prefix of those; of one that reaches beyond that form no more is
// kept than its bits, so that it cannot be taken for such a one.
function plainPrefix(bytes, bits) {
  if (!isIPv4(bytes)) return { bytes, bits };
  if (bits >= 96) return { bytes, bits: bits - 96 };
  return { bytes: bytes.map((byte, i) => byte & maskAt(i, bits)), bits };
}

/**
 * Reads `192.168.1.0/24`, `fe80::/10`, or an address alone.
 * @param {string} text
 * @returns {{bytes: Uint8Array, bits: number}|null}  `bits` of the 32 of an IPv4 address.
 */
export function parsePrefix(text) {
  const [address, length, more] = text.trim().split('/');
  const bytes = parseAddress(address);
  if (!bytes || more !== undefined || (length !== undefined && !/^\d{1,3}$/.test(length))) return null;
  const most = address.includes(':') ? 128 : 32;
  const bits = length === undefined ? most : Number(length);
  if (bits > most) return null;
  return most === 32 ? { bytes, bits } : plainPrefix(bytes, bits);
}

/**
 * Whether a server that allows these prefixes lets an address in. An IPv4 address lies in prefixes of both kinds, since it has
 * an IPv6 form; no other address lies in a prefix of IPv4.
 * @param {string[]} allowed
 * @param {Uint8Array} address  16 bytes.
 */
export function admits(allowed, address) {
  return allowed.length === 0 || allowed.some((text) => liesIn(parsePrefix(text), address));
}

function liesIn({ bytes, bits }, address) {
  if (!isIPv4(bytes)) return agree(bytes, address, bits);
  return isIPv4(address) && agree(bytes, address, bits + 96);
}

const agree = (a, b, bits) => a.every((byte, i) => ((byte ^ b[i]) & maskAt(i, bits)) === 0);

/** Whether two records have the same values, however they are written. */
export const isSame = (a, b) => JSON.stringify(writeRecord(a)) === JSON.stringify(writeRecord(b));

function prefixMessage({ bytes, bits }) {
  if (!isIPv4(bytes)) return { a3: bytes, u4: bits };
  const address = ((bytes[12] << 24) | (bytes[13] << 16) | (bytes[14] << 8) | bytes[15]) >>> 0;
  return { u1: address, u2: maskOfBits(bits) };
}

/** What the problem of a record means. */
export function problemText(problem) {
  const texts = {
    'cannot bind service connection': 'The port is taken by something else, or may not be used.',
    'no such service': 'The running server has no server of this name in its configuration.',
    'no server is running': 'No server is running; it gets this when it starts.',
    timeout: 'The server did not answer.',
    unreachable: 'The server ended meanwhile.',
  };
  return texts[problem] ?? problem;
}
