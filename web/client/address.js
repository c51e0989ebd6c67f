// Addresses: 16 bytes of an IPv6 address; IPv4 stands in it as ::ffff:a.b.c.d.

const mappedPrefix = [0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff];

/** Whether 16 bytes are an IPv4 address. */
export function isIPv4(bytes) {
  return mappedPrefix.every((byte, i) => bytes[i] === byte);
}

/**
 * An address in its usual writing (RFC 5952).
 * @param {Uint8Array} bytes
 * @returns {string}
 */
export function addressText(bytes) {
  if (isIPv4(bytes)) return bytes.slice(12).join('.');
  const groups = Array.from({ length: 8 }, (_, i) => (bytes[2 * i] << 8) | bytes[2 * i + 1]);
  const [from, length] = longestZeros(groups);
  const text = (list) => list.map((group) => group.toString(16)).join(':');
  if (length < 2) return text(groups);
  return `${text(groups.slice(0, from))}::${text(groups.slice(from + length))}`;
}

function longestZeros(groups) {
  let best = [0, 0];
  for (let i = 0; i < groups.length; i++) {
    let length = 0;
    while (groups[i + length] === 0) length++;
    if (length > best[1]) best = [i, length];
  }
  return best;
}

/**
 * Reads an address as people write it.
 * @param {string} text
 * @returns {Uint8Array|null}
 */
export function parseAddress(text) {
  const ipv4 = parseIPv4(text);
  if (ipv4) return Uint8Array.from([...mappedPrefix, ...ipv4]);
  const sides = text.split('::');
  if (sides.length > 2) return null;
  const [head, tail] = sides.map(parseGroups);
  if (!head || (sides.length === 2 && !tail)) return null;
  const missing = 16 - head.length - (tail?.length ?? 0);
  if (sides.length === 2 ? missing < 2 : missing !== 0) return null;
  return Uint8Array.from([...head, ...new Array(missing).fill(0), ...(tail ?? [])]);
}

function parseIPv4(text) {
  const parts = text.split('.');
  if (parts.length !== 4 || !parts.every((part) => /^(0|[1-9]\d{0,2})$/.test(part) && part <= 255)) return null;
  return parts.map(Number);
}

// The bytes of "fe80:0:1", the last group of which may be an IPv4 address.
function parseGroups(text) {
  if (text === '') return [];
  const bytes = [];
  const groups = text.split(':');
  for (const [i, group] of groups.entries()) {
    const ipv4 = i === groups.length - 1 ? parseIPv4(group) : null;
    if (ipv4) bytes.push(...ipv4);
    else if (/^[0-9a-fA-F]{1,4}$/.test(group)) bytes.push(parseInt(group, 16) >> 8, parseInt(group, 16) & 0xff);
    else return null;
  }
  return bytes;
}
