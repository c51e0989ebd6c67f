// What the tests of the client library share.
import { webcrypto } from 'node:crypto';

// Node 18 has the browser's source of random numbers under another name.
globalThis.crypto ??= webcrypto;

export const hex = (bytes) => Buffer.from(bytes).toString('hex');
export const unhex = (text) => new Uint8Array(Buffer.from(text.replace(/\s/g, ''), 'hex'));
export const ascii = (text) => new TextEncoder().encode(text);

/** Random numbers that are the same in every run. */
export function randomness(seed) {
  let state = seed >>> 0;
  const next = () => {
    state = (state + 0x6d2b79f5) >>> 0;
    let t = state;
    t = Math.imul(t ^ (t >>> 15), t | 1);
    t ^= t + Math.imul(t ^ (t >>> 7), t | 61);
    return (t ^ (t >>> 14)) >>> 0;
  };
  return {
    below: (limit) => next() % limit,
    u32: next,
    u64: () => (BigInt(next()) << 32n) | BigInt(next()),
    bytes: (length) => Uint8Array.from({ length }, () => next() & 0xff),
    pick: (list) => list[next() % list.length],
  };
}

const characters = ['a', 'Z', ' ', "'", '"', '\\', '\n', '\r', '\t', '\u0001', '\u007f', 'é', 'Ā', '€', '\ufeff', '𝄞'];
const text = (random) => Array.from({ length: random.below(12) }, () => random.pick(characters)).join('');

const makers = {
  b: (random) => random.below(2) === 1,
  u: (random) => random.pick([0, 1, 200, 255, 256, 0xffffffff, random.u32()]),
  q: (random) => random.pick([0n, 255n, 1n << 63n, (1n << 64n) - 1n, random.u64()]),
  a: (random) => random.bytes(16),
  s: (random) => random.pick([text(random), text(random), 'x'.repeat(255 + random.below(3))]),
  m: (random, depth) => randomMessage(random, depth + 1),
  r: (random) => random.bytes(random.pick([0, 1, 255, 256, random.below(40)])),
};

/** A random message of every type of field, nested up to three deep. */
export function randomMessage(random, depth = 0) {
  const message = {};
  for (let count = random.below(depth ? 4 : 12); count > 0; count--) {
    const letter = random.pick(depth < 3 ? [...'buqasmr'] : [...'buqasr']);
    const id = random.pick([0, 1, 0xff, 0xff0007, 0xffffff, random.below(1 << 24)]).toString(16);
    const make = () => makers[letter](random, depth);
    if (random.below(2)) message[letter + id] = make();
    else message[letter.toUpperCase() + id] = Array.from({ length: random.below(4) }, make);
  }
  return message;
}
