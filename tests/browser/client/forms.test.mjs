// The two written forms of messages.
import assert from 'node:assert/strict';
import { test } from 'node:test';

import { ascii, hex, randomMessage, randomness, unhex } from './support.mjs';
import { bytesToText, textToBytes } from '../../../web/client/bytes.js';
import { flatten, unflatten, unflattenPayload } from '../../../web/client/binary_form.js';
import { readJson, writeJson } from '../../../web/client/json_form.js';
import { InvalidMessage, MalformedMessage } from '../../../web/client/fields.js';

const everyField = {
  b1: true,
  b2: false,
  u3: 200,
  u4: 256,
  q5: 0xffffffffffffffffn,
  a6: Uint8Array.from({ length: 16 }, (_, i) => i),
  s7: "it's",
  m8: { u1: 1 },
  r9: Uint8Array.of(1, 2),
  Ba: [true, false],
  Ub: [1, 2],
  Qc: [1n],
  Ad: [new Uint8Array(16)],
  Se: ['a', ''],
  Mf: [{}, {}],
  R10: [Uint8Array.of(1, 2), Uint8Array.of(3)],
};
const everyFieldFlat = `4d32
  01000001 02000000 03000009 c8 04000008 00010000 05000010 ffffffffffffffff
  06000018 000102030405060708090a0b0c0d0e0f 07000021 04 69742773 08000029 07 4d32 01000009 01 09000031 02 0102
  0a000080 0200 0100 0b000088 0200 01000000 02000000 0c000090 0100 0100000000000000
  0d000098 0100 00000000000000000000000000000000 0e0000a0 0200 0100 61 0000
  0f0000a8 0200 0200 4d32 0200 4d32 100000b0 0200 0200 0102 0100 03`;

test('every type of field is flattened and read back', () => {
  assert.equal(hex(flatten(everyField)), everyFieldFlat.replace(/\s/g, ''));
  assert.deepEqual(unflatten(unhex(everyFieldFlat)), everyField);
});

test('the example of the bus protocol, byte by byte', () => {
  const message = { Uff0001: [68, 1], uff0007: 3, s3: 'www', bfe000a: true };
  const bytes = '4d32 0100ff88 0200 44000000 01000000 0700ff09 03 03000021 03 777777 0a00fe01';
  assert.equal(hex(flatten(message)), bytes.replace(/\s/g, ''));
});

test('lengths above 255 take two bytes', () => {
  const flat = flatten({ s1: 'x'.repeat(256), r2: new Uint8Array(255) });
  assert.equal(hex(flat.subarray(2, 8)), '010000200001');
  assert.equal(hex(flat.subarray(264, 269)), '02000031ff');
});

test('the long forms of small values are read', () => {
  assert.deepEqual(unflatten(unhex('4d32 01000008 05000000 02000020 0100 61')), { u1: 5, s2: 'a' });
});

test('a payload has its length in place of the first two bytes', () => {
  assert.deepEqual(unflattenPayload(unhex('0007 01000009 05')), { u1: 5 });
  assert.throws(() => unflattenPayload(unhex('0008 01000009 05')), MalformedMessage);
  assert.throws(() => unflattenPayload(unhex('4d32 01000009 05')), MalformedMessage);
});

test('random messages come back from both forms', () => {
  const random = randomness(1);
  for (let i = 0; i < 2000; i++) {
    const message = randomMessage(random);
    assert.deepEqual(unflatten(flatten(message)), message);
    assert.deepEqual(readJson(writeJson(message)), message);
  }
});

test('a flattened message that is cut anywhere, or longer, is malformed or a shorter message', () => {
  const whole = flatten(everyField);
  for (let length = 0; length < whole.length; length++) {
    try {
      const message = unflatten(whole.subarray(0, length));
      assert.equal(hex(flatten(message)), hex(whole.subarray(0, length)));
    } catch (error) {
      assert.ok(error instanceof MalformedMessage, `${length}: ${error}`);
    }
  }
  for (const tail of ['00', '0000', '000000', '00000038', '000000b8']) {
    assert.throws(() => unflatten(new Uint8Array([...whole, ...unhex(tail)])), MalformedMessage);
  }
});

test('random bytes and damaged messages are malformed or messages, never anything else', () => {
  const random = randomness(2);
  for (let i = 0; i < 5000; i++) {
    const bytes = flatten(randomMessage(random)).slice();
    for (let k = random.below(4); k >= 0; k--) bytes[random.below(bytes.length)] = random.below(256);
    for (const read of [unflatten, readJson]) {
      try {
        assert.equal(typeof read(bytes), 'object');
      } catch (error) {
        assert.ok(error instanceof MalformedMessage, String(error.stack));
      }
    }
  }
});

const asJson = (message) => new TextDecoder().decode(writeJson(message));

test('the JSON form is written as the system writes it', () => {
  assert.equal(asJson({ u1: 5, b2: true, s3: "it's" }), String.raw`{u1:5,b2:1,s3:'it\'s'}`);
  assert.equal(asJson({ Uff0002: [1, 2] }), '{Uff0002:[1,2]}');
  assert.equal(asJson({ R4: [Uint8Array.of(1, 2), Uint8Array.of(3)] }), '{R4:[[1,2],[3]]}');
  assert.equal(asJson({ M5: [{}, {}] }), '{M5:[{},{}]}');
  assert.equal(asJson({ s1: 'a\\\n\r"\t' }), String.raw`{s1:'a\\\n\r"` + "\t'}");
  assert.equal(asJson({ q1: 0xffffffffffffffffn, Q2: [1n << 63n] }), '{q1:18446744073709551615,Q2:[9223372036854775808]}');
  assert.equal(asJson({ u1: undefined, r2: new Uint8Array() }), '{r2:[]}');
});

test('the JSON form is read as the system writes it', () => {
  const read = (text) => readJson(ascii(text));
  assert.deepEqual(read('{}'), {});
  assert.deepEqual(read('{q1:-1,Q2:[-9223372036854775808,5]}'), { q1: 0xffffffffffffffffn, Q2: [1n << 63n, 5n] });
  assert.deepEqual(read(String.raw`{s1:'a\'b\\c\nd\re\t'}`), { s1: "a'b\\c\nd\re\\t" });
  assert.deepEqual(read('{m5:{},M6:[]}'), { m5: {}, M6: [] });
  assert.deepEqual(read('{,u1:5,,u2:6,}'), { u1: 5, u2: 6 }, 'fields that could not be written left their commas');
});

test('text that is no message in JSON form is malformed', () => {
  const wrong = [
    '', '{', '}', '{u1}', '{u1:}', '{u1:5', '{u1:5}x', '{u1:-5}', '{u1:4294967296}', '{b1:2}', '{x1:5}', '{u1000000:5}', '{u:5}',
    "{s1:'a}", '{s1:a}', '{a1:[1,2]}', '{r1:[256]}', '{r1:[1,]}', '{U1:[1 2]}', '{U1:[1,2}', '{m1:[}', '{q1:18446744073709551616}',
    '{q1:-9223372036854775809}', '{u1 :5}', '{"u1":5}', '{u1:5 }', '{uFF:1}', '{'.repeat(50), '{m1:'.repeat(40),
  ];
  for (const text of wrong) assert.throws(() => readJson(ascii(text)), MalformedMessage, text);
});

test('what no message can hold is not written', () => {
  const wrong = [
    { u1: -1 }, { u1: 1.5 }, { u1: 2 ** 32 }, { u1: '5' }, { q1: -1n }, { q1: 1n << 64n }, { q1: 2 ** 60 }, { b1: 2 }, { b1: 'yes' },
    { a1: new Uint8Array(15) }, { a1: '::1' }, { s1: 5 }, { s1: null }, { s1: 'x'.repeat(65536) }, { r1: [1, 2] }, { m1: [] }, { m1: null },
    { U1: 5 }, { U1: [1, -1] }, { U1: new Array(65536).fill(0) }, { u1000000: 1 }, { x1: 1 }, { u: 1 }, { uFF: 1 }, { '': 1 },
  ];
  for (const message of wrong) {
    assert.throws(() => flatten(message), InvalidMessage);
    assert.throws(() => writeJson(message), InvalidMessage);
  }
  assert.throws(() => writeJson({ s1: 'a\0b' }), InvalidMessage);
  assert.deepEqual(unflatten(flatten({ s1: 'a\0b' })), { s1: 'a\0b' });
  assert.throws(() => flatten({ m1: { r1: new Uint8Array(65535) } }), InvalidMessage);
});

test('nesting has its limits', () => {
  const nest = (depth) => (depth === 0 ? {} : { m1: nest(depth - 1) });
  assert.deepEqual(unflatten(flatten(nest(32))), nest(32));
  assert.throws(() => flatten(nest(33)), InvalidMessage);
  assert.throws(() => writeJson(nest(12)), InvalidMessage);
  assert.equal(asJson(nest(11)).length, 11 * 5 + 2);
});

test('bytes travel as text, one character each, and never a NUL', () => {
  const text = bytesToText(unhex('007f80ff'));
  assert.equal(hex(ascii(text)), 'c4807fc280c3bf');
  assert.deepEqual(textToBytes(text), unhex('007f80ff'));
  assert.equal(textToBytes('\u0200'), null);
  const all = Uint8Array.from({ length: 20000 }, (_, i) => i);
  assert.deepEqual(textToBytes(bytesToText(all)), all);
  assert.ok(!bytesToText(all).includes('\0'));
});
