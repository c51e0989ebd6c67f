// The key agreement of a session: X25519, and two RC4 keys out of the shared secret as RFC 3079 derives start keys.
//
// On the wire numbers stand most significant byte first; X25519 as published, and as the package has it, is the other way
// round, so values are turned over here. No part of this needs more of the browser than crypto.getRandomValues, which pages
// over plain http have too.

import { montgomery } from '@noble/curves/abstract/montgomery';
import { sha1 } from '@noble/hashes/legacy';

import { join, reversed } from './bytes.js';
import { utf8 } from './fields.js';
import { RC4 } from './rc4.js';

const prime = 2n ** 255n - 19n;

// x^(p - 2), which is 1/x.
function inverse(x) {
  let result = 1n;
  for (let exponent = prime - 2n; exponent > 0n; exponent >>= 1n, x = (x * x) % prime) {
    if (exponent & 1n) result = (result * x) % prime;
  }
  return result;
}

const curve = montgomery({
  P: prime,
  type: 'x25519',
  powPminus2: inverse,
  adjustScalarBytes(bytes) {
    bytes[0] &= 0xf8;
    bytes[31] = (bytes[31] & 0x7f) | 0x40;
    return bytes;
  },
});

/**
 * X25519 with all numbers most significant byte first.
 * @param {Uint8Array} scalar  32 bytes, clamped here.
 * @param {Uint8Array} [u]  32 bytes, the other side's public value; the base point when absent.
 * @returns {Uint8Array|null} 32 bytes; null for a public value that leaves no secret.
 */
export function multiply(scalar, u) {
  try {
    return reversed(u ? curve.scalarMult(reversed(scalar), reversed(u)) : curve.scalarMultBase(reversed(scalar)));
  } catch {
    return null;
  }
}

/** A scalar of this side, from the browser's source of random numbers. */
export function randomScalar() {
  return globalThis.crypto.getRandomValues(new Uint8Array(32));
}

// The sentences stand in RFC 3079; they are key material, not prose.
const magicToServer = 'On the client side, this is the send key; on the server side, it is the receive key.';
const magicToBrowser = 'On the client side, this is the receive key; on the server side, it is the send key.';

/**
 * The RC4 key of one direction.
 * @param {Uint8Array} secret  The shared secret, 32 bytes.
 * @param {boolean} toServer  From the browser to the server, or the other way.
 * @returns {Uint8Array} 16 bytes.
 */
export function deriveKey(secret, toServer) {
  const magic = utf8.encode(toServer ? magicToServer : magicToBrowser);
  return sha1(join(secret, new Uint8Array(40), magic, new Uint8Array(40).fill(0xf2))).subarray(0, 16);
}

// What is thrown away of each keystream: its beginning tells something of the key.
const discarded = 768;

/**
 * The cipher of one direction, ready for position 1.
 * @param {Uint8Array} secret
 * @param {boolean} toServer
 */
export function directionCipher(secret, toServer) {
  const cipher = new RC4(deriveKey(secret, toServer));
  cipher.take(discarded);
  return cipher;
}
