// Keys, keystreams and frames.
import assert from 'node:assert/strict';
import { test } from 'node:test';
import crypto from 'node:crypto';

import { ascii, hex, randomness, unhex } from './support.mjs';
import { reversed, writeU32 } from '../../../web/client/bytes.js';
import { FrameReader, FrameWriter } from '../../../web/client/frames.js';
import { deriveKey, directionCipher, multiply } from '../../../web/client/keys.js';
import { RC4 } from '../../../web/client/rc4.js';

// The vectors of RFC 7748 have the least significant byte first.
const x25519 = (scalar, u) => hex(reversed(multiply(reversed(unhex(scalar)), reversed(unhex(u)))));

test('X25519 gives what RFC 7748 says', () => {
  assert.equal(
    x25519('a546e36bf0527c9d3b16154b82465edd62144c0ac1fc5a18506a2244ba449ac4', 'e6db6867583030db3594c1a424b15f7c726624ec26b3353b10a903a6d0ab1c4c'),
    'c3da55379de9c6908e94ea4df28d084f32eccf03491c71f754b4075577a28552',
  );
  assert.equal(
    x25519('4b66e9d4d1b4673c5ad22691957d6af5c11b6421e0ea01d42ca4169e7918ba0d', 'e5210f12786811d3f4b7959d0538ae2c31dbe7106fc03c3efc4cd549c715a493'),
    '95cbde9476e8907d7aade45cb4b873f88b595a68799fa152e6f8f7647aac7957',
  );
  const nine = '09' + '00'.repeat(31);
  assert.equal(x25519(nine, nine), '422c8e7a6227d7bca1350b3e2bb7279f7897b87bb6854b783c60e80311ae3079');
});

test('both sides agree, as an independent implementation does', () => {
  for (let i = 0; i < 20; i++) {
    const other = crypto.generateKeyPairSync('x25519');
    const otherPublic = reversed(other.publicKey.export({ format: 'der', type: 'spki' }).subarray(-32));
    const scalar = crypto.randomBytes(32);
    const head = unhex('302a300506032b656e032100');
    const mine = crypto.createPublicKey({ key: Buffer.concat([head, reversed(multiply(scalar))]), format: 'der', type: 'spki' });
    const secret = crypto.diffieHellman({ privateKey: other.privateKey, publicKey: mine });
    assert.equal(hex(multiply(scalar, otherPublic)), hex(reversed(secret)));
  }
});

test('a public value that leaves no secret is refused', () => {
  assert.equal(multiply(new Uint8Array(32).fill(7), new Uint8Array(32)), null);
});

test('RC4 gives what RFC 6229 says', () => {
  const at = (key, offset) => {
    const cipher = new RC4(unhex(key));
    cipher.take(offset);
    return hex(cipher.take(16));
  };
  const key = '0102030405060708090a0b0c0d0e0f10';
  assert.equal(at(key, 0), '9ac7cc9a609d1ef7b2932899cde41b97');
  assert.equal(at(key, 16), '5248c4959014126a6e8a84f11d1a9e1c');
  assert.equal(at(key, 752), 'c5ecf88de897fd57fed301701b82a259');
  assert.equal(at(key, 768), 'eccbe13de1fcc91c11a0b26c0bc8fa4d');
  assert.equal(at('0102030405', 0), 'b2396305f03dc027ccc3524a0a1118a8');
});

test('keys are derived as RFC 3079 says', () => {
  // The RFC's example has a master key of 16 bytes.
  const master = unhex('fdece3717a8c838cb388e527ae3cdd31');
  assert.equal(hex(deriveKey(master, false)), '8b7cdc149b993a1ba118cb153f56dccb');
});

const secret = Uint8Array.from({ length: 32 }, (_, i) => i);
const pair = (id = 7) => [new FrameWriter(id, directionCipher(secret, true)), new FrameReader(id, directionCipher(secret, true))];
const text = (payload) => payload && new TextDecoder().decode(payload);

test('a frame holds id, position, and the enciphered payload with its padding', () => {
  const [writer] = pair(0x01020304);
  const cipher = directionCipher(secret, true);
  const first = writer.seal(ascii('hello'));
  assert.equal(hex(first.subarray(0, 8)), '0102030400000001');
  const stream = cipher.take(13);
  assert.equal(text(first.subarray(8).map((byte, i) => byte ^ stream[i])), 'hello        ');
  assert.equal(hex(writer.seal(ascii('')).subarray(0, 8)), '010203040000000e');
});

test('frames are read in any order, each once', () => {
  const random = randomness(3);
  for (let round = 0; round < 50; round++) {
    const [writer, reader] = pair();
    const frames = Array.from({ length: 20 }, (_, i) => [String(i).repeat(random.below(50)), 0]);
    for (const frame of frames) frame[1] = writer.seal(ascii(frame[0]));
    frames.sort(() => random.below(3) - 1);
    for (const [plain, frame] of frames) {
      assert.equal(text(reader.open(frame)), plain);
      assert.equal(reader.open(frame), null, 'a frame is read once');
    }
  }
});

test('a frame that was tampered with, cut or of another session is refused, and may come again whole', () => {
  const [writer, reader] = pair();
  const frame = writer.seal(ascii('payload'));
  const bad = (change) => {
    const copy = frame.slice();
    change(copy);
    return copy;
  };
  assert.equal(reader.open(bad((copy) => (copy[copy.length - 1] ^= 1))), null);
  assert.equal(reader.open(bad((copy) => (copy[3] ^= 1))), null);
  assert.equal(reader.open(bad((copy) => (copy[7] ^= 1))), null);
  assert.equal(reader.open(frame.subarray(0, -1)), null);
  assert.equal(reader.open(frame.subarray(0, 15)), null);
  assert.equal(reader.open(new Uint8Array()), null);
  assert.equal(text(reader.open(frame)), 'payload');
  assert.equal(text(reader.open(writer.seal(ascii('next')))), 'next');
});

test('a frame from far ahead is refused, and does not hold up what follows', () => {
  const [writer, reader] = pair();
  const frame = writer.seal(ascii('one'));
  const far = frame.slice();
  writeU32(far, 4, 0x7fffffff);
  assert.equal(reader.open(far), null);
  writeU32(far, 4, 0);
  assert.equal(reader.open(far), null);
  assert.equal(text(reader.open(frame)), 'one');
});

test('the keystream of answers that never came is forgotten in the end', () => {
  const [writer, reader] = pair();
  const first = writer.seal(ascii('first'));
  const lost = Array.from({ length: 12 }, () => writer.seal(new Uint8Array(100000)));
  assert.equal(text(reader.open(writer.seal(ascii('after')))), 'after');
  assert.equal(reader.open(first), null, 'the oldest is given up');
  assert.ok(reader.open(lost[11]), 'the newest is still there');
});

test('positions of answers go round at 2^32', () => {
  const from = 2 ** 32 - 20;
  const [writer, reader] = [directionCipher(secret, false), new FrameReader(1, directionCipher(secret, false), from)];
  const seal = (position, length) => {
    const frame = new Uint8Array(8 + length).fill(0x20);
    const stream = writer.take(length);
    for (let i = 0; i < length; i++) frame[8 + i] ^= stream[i];
    writeU32(frame, 0, 1);
    writeU32(frame, 4, position);
    return frame;
  };
  const frames = [seal(from, 10), seal(from + 10, 15), seal(5, 12), seal(17, 9)];
  for (const index of [0, 2, 1, 3]) assert.ok(reader.open(frames[index]), `frame ${index}`);
  for (const frame of frames) assert.equal(reader.open(frame), null);
});

test('a writer whose positions are used up makes no frame', () => {
  const writer = new FrameWriter(1, directionCipher(secret, true), 2 ** 32 - 40);
  assert.ok(writer.seal(new Uint8Array(20)));
  assert.equal(writer.seal(new Uint8Array(20)), null);
});
