// The line form of messages, which is to be what the command line takes and shows.
import assert from 'node:assert/strict';
import { test } from 'node:test';

import { readLine, writeLine } from '../../../web/app/console/line_form.js';

const bytes = (...values) => Uint8Array.from(values);

test('every type is read, and written as it was', () => {
  const address = [0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 255, 255, 10, 0, 0, 1];
  const text = `{b1:1,u2:4294967295,q3:18446744073709551615,a4:[${address}],s5:'it\\'s',m6:{u1:0},r7:[1,255],B8:[1,0],U9:[68,1],Qa:[],Ab:[[${address}]],Sc:['',','],Md:[{},{b1:0}],Re:[[],[7]]}`;
  const { message } = readLine(text);
  assert.deepEqual(message, {
    b1: true,
    u2: 0xffffffff,
    q3: 0xffffffffffffffffn,
    a4: bytes(...address),
    s5: "it's",
    m6: { u1: 0 },
    r7: bytes(1, 255),
    B8: [true, false],
    U9: [68, 1],
    Qa: [],
    Ab: [bytes(...address)],
    Sc: ['', ','],
    Md: [{}, { b1: false }],
    Re: [bytes(), bytes(7)],
  });
  assert.equal(writeLine(message), text);
});

test('white space, hexadecimal numbers and large field numbers', () => {
  assert.deepEqual(readLine(' {\n u1 : 0x1F , UFF0001:[ 0X44 ,\t1 ] } ').message, { u1: 31, Uff0001: [68, 1] });
  assert.deepEqual(readLine('{u0001:7}').message, { u1: 7 });
});

test('escapes stand for bytes, and come back where they are needed', () => {
  const { message } = readLine("{s1:'\\\\ \\' \\n\\r\\t\\0 \\x41\\xc3\\xa9 é😀'}");
  assert.deepEqual(message, { s1: "\\ ' \n\r\t\0 Aé é😀" });
  assert.equal(writeLine({ s1: "\\'\n\x1b\x7f" }), "{s1:'\\\\\\'\\n\\x1b\\x7f'}");
});

const faults = [
  ['', 0, "'{'"],
  ['u1:5', 0, "'{'"],
  ['{', 1, 'a type letter (one of buqasmrBUQASMR)'],
  ['{x1:5}', 1, 'a type letter (one of buqasmrBUQASMR)'],
  ['{u:5}', 2, 'a field number in hexadecimal'],
  ['{u1234567:5}', 2, 'a field number of at most 6 digits'],
  ['{u1 5}', 4, "':'"],
  ['{u1:}', 4, 'a number'],
  ['{u1:-1}', 4, 'a number'],
  ['{u1:0x}', 4, 'a number'],
  ['{u1:4294967296}', 4, 'a number up to 4294967295'],
  ['{q1:18446744073709551616}', 4, 'a number up to 18446744073709551615'],
  ['{b1:2}', 4, '0 or 1'],
  ['{s1:text}', 4, 'a string in single quotes'],
  ["{s1:'text", 9, 'a closing quote'],
  ["{s1:'a\nb'}", 6, 'control characters written as \\n, \\r, \\t, \\0 or \\xNN'],
  ["{s1:'\\q'}", 5, "one of the escapes \\\\ \\' \\n \\r \\t \\0 \\xNN"],
  ["{s1:'\\x4'}", 6, 'two hexadecimal digits behind \\x'],
  ["{s1:'\\xff'}", 5, 'a text in UTF-8'],
  ['{a1:[1,2]}', 4, 'the 16 bytes of an address'],
  ['{r1:[256]}', 5, 'a number up to 255'],
  ['{U1:5}', 4, "'['"],
  ['{U1:[1 2]}', 7, "',' or ']'"],
  ['{U1:[1,]}', 7, 'a number'],
  ['{u1:5,u1:6}', 6, 'a key that is not there yet'],
  ['{u1:5 u2:6}', 6, "',' or '}'"],
  ['{u1:5,}', 6, 'a type letter (one of buqasmrBUQASMR)'],
  ['{u1:5} x', 7, 'the end of the text'],
];

for (const [text, position, expected] of faults) {
  test(`what is wrong with ${JSON.stringify(text)}`, () => {
    const { message, fault } = readLine(text);
    assert.equal(message, undefined);
    assert.deepEqual([fault.position, fault.expected], [position, expected]);
  });
}

test('messages lie at most 32 deep below the outermost one', () => {
  const nested = (depth) => `${'{m1:'.repeat(depth)}{}${'}'.repeat(depth)}`;
  assert.equal(readLine(nested(32)).fault, undefined);
  assert.equal(readLine(nested(33)).fault.expected, 'at most 32 messages within one another');
});
