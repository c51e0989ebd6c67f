// Server records as docs/server-record.md has them, in names instead of numbers; prefixes as people write them.
import { addressText, isIPv4, parseAddress } from '../../client/index.js';

export const path = [68, 1];
export const noCertificate = 0xffffffff;

/**
 * @typedef {object} ServerRecord
 * @property {string} name
 * @property {boolean} enabled
 * @property {number} port
 * @property {number} certificate
 * @property {string[]} allowed  Prefixes; none means everyone.
 * @property {string} problem  Why the servers have not taken it; may be empty all the same.
 * @property {boolean} taken
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
  if (message.a3) return `${addressText(message.a3)}/${message.u4 ?? 128}`;
  return `${addressText(mapped(message.u1 ?? 0))}/${bitsOfMask(message.u2 ?? 0)}`;
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
  const most = isIPv4(bytes) && address.includes('.') ? 32 : 128;
  const bits = length === undefined ? most : Number(length);
  return bits <= most ? { bytes, bits } : null;
}

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
