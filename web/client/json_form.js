// The JSON form of messages: an object literal with bare keys, single quotes and digits for booleans:
// {u1:5,b2:1,s3:'it\'s',Uff0001:[24,1],m5:{s1:'nested'}}. It has no length limit in answers.

import { InvalidMessage, MalformedMessage, fieldsOf, maxDepth, parseKey, stringBytes, utf8 } from './fields.js';

/** @typedef {import('./fields.js').Message} Message */

/** How deep the server reads nested messages in this form. */
export const maxJsonDepth = 11;

const escapes = { '\\': '\\\\', "'": "\\'", '\n': '\\n', '\r': '\\r' };

/**
 * Writes a message in JSON form, as UTF-8.
 * @param {Message} message
 * @returns {Uint8Array}
 * @throws {InvalidMessage} when a key or a value is none that a message in this form can hold: strings have no NUL.
 */
export function writeJson(message) {
  return utf8.encode(messageText(message, 0));
}

function messageText(message, depth) {
  if (depth > maxJsonDepth) throw new InvalidMessage(`messages lie more than ${maxJsonDepth} deep in each other`);
  const fields = [];
  for (const [field, value] of fieldsOf(message)) {
    const letter = field.isArray ? field.letter.toUpperCase() : field.letter;
    const text = field.isArray
      ? `[${value.map((element) => valueText(field.letter, element, depth)).join(',')}]`
      : valueText(field.letter, value, depth);
    fields.push(`${letter}${field.id.toString(16)}:${text}`);
  }
  return `{${fields.join(',')}}`;
}

function valueText(letter, value, depth) {
  switch (letter) {
    case 'b':
      return value ? '1' : '0';
    case 'u':
    case 'q':
      return String(value);
    case 's':
      return quoted(value);
    case 'm':
      return messageText(value, depth + 1);
    default:
      return `[${value.join(',')}]`;
  }
}

function quoted(text) {
  stringBytes(text);
  if (text.includes('\0')) throw new InvalidMessage('a string in the JSON form cannot hold a NUL');
  return `'${text.replace(/[\\'\n\r]/g, (character) => escapes[character])}'`;
}

const code = (character) => character.charCodeAt(0);
const [openBrace, closeBrace, openBracket, closeBracket, comma, colon, quote, backslash, minus, zero, nine] = Array.from(
  "{}[],:'\\-09",
  code,
);
const unescaped = new Map([
  [code('n'), 10],
  [code('r'), 13],
  [quote, quote],
  [backslash, backslash],
]);

/**
 * Reads a message in the JSON form as the server writes it. A field that the server could not write has left its comma
 * behind, which is skipped.
 * @param {Uint8Array} bytes
 * @returns {Message}
 * @throws {MalformedMessage}
 */
export function readJson(bytes) {
  const reader = new Reader(bytes);
  const message = reader.message(0);
  reader.end();
  return message;
}

class Reader {
  #bytes;
  #at = 0;

  constructor(bytes) {
    this.#bytes = bytes;
  }

  #fail(what) {
    throw new MalformedMessage(`${what} at byte ${this.#at}`);
  }

  #next() {
    return this.#bytes[this.#at];
  }

  #accept(byte) {
    if (this.#next() !== byte) return false;
    this.#at++;
    return true;
  }

  #expect(byte) {
    if (!this.#accept(byte)) this.#fail(`expected "${String.fromCharCode(byte)}"`);
  }

  end() {
    if (this.#at !== this.#bytes.length) this.#fail('expected the end');
  }

  message(depth) {
    if (depth > maxDepth) this.#fail(`messages lie more than ${maxDepth} deep in each other`);
    const message = {};
    this.#expect(openBrace);
    while (!this.#accept(closeBrace)) {
      if (this.#accept(comma)) continue;
      const key = this.#key();
      message[key.name] = key.isArray ? this.#list(key.letter, depth) : this.#value(key.letter, depth);
      if (this.#next() !== closeBrace) this.#expect(comma);
    }
    return message;
  }

  #key() {
    const from = this.#at;
    while (this.#at < this.#bytes.length && this.#next() !== colon && this.#at - from < 8) this.#at++;
    const name = String.fromCharCode(...this.#bytes.subarray(from, this.#at));
    this.#expect(colon);
    try {
      return { name, ...parseKey(name) };
    } catch {
      return this.#fail('a key is none');
    }
  }

  #list(letter, depth) {
    const list = [];
    this.#expect(openBracket);
    if (this.#accept(closeBracket)) return list;
    do list.push(this.#value(letter, depth));
    while (this.#accept(comma));
    this.#expect(closeBracket);
    return list;
  }

  #value(letter, depth) {
    switch (letter) {
      case 'b':
        return this.#number(1n) === 1n;
      case 'u':
        return Number(this.#number(0xffffffffn));
      case 'q':
        return this.#u64();
      case 's':
        return this.#string();
      case 'm':
        return this.message(depth + 1);
      default:
        return this.#bytesOf(letter);
    }
  }

  #number(limit) {
    const from = this.#at;
    while (this.#next() >= zero && this.#next() <= nine && this.#at - from < 20) this.#at++;
    if (this.#at === from) this.#fail('expected a number');
    const value = BigInt(String.fromCharCode(...this.#bytes.subarray(from, this.#at)));
    return value <= limit ? value : this.#fail('a number is too large');
  }

  // Values of 2^63 and more come negative.
  #u64() {
    if (!this.#accept(minus)) return this.#number((1n << 64n) - 1n);
    return BigInt.asUintN(64, -this.#number(1n << 63n));
  }

  #string() {
    this.#expect(quote);
    const text = [];
    for (;;) {
      const byte = this.#next();
      if (byte === undefined) this.#fail('a string has no end');
      this.#at++;
      if (byte === quote) return utf8.decode(Uint8Array.from(text));
      const meant = byte === backslash ? unescaped.get(this.#next()) : undefined;
      if (meant !== undefined) this.#at++;
      text.push(meant ?? byte);
    }
  }

  #bytesOf(letter) {
    const list = [];
    this.#expect(openBracket);
    if (!this.#accept(closeBracket)) {
      do list.push(Number(this.#number(255n)));
      while (this.#accept(comma));
      this.#expect(closeBracket);
    }
    if (letter === 'a' && list.length !== 16) this.#fail('an address has not 16 bytes');
    return Uint8Array.from(list);
  }
}
