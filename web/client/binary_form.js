// The flattened form of messages: two bytes "M2", then the fields, little-endian (docs/bus-protocol.md).

import { InvalidMessage, MalformedMessage, fieldsOf, makeKey, maxDepth, maxLength, stringBytes, utf8 } from './fields.js';

/** @typedef {import('./fields.js').Message} Message */

const magic = [0x4d, 0x32];
const arrayBit = 0x80000000;
const shortBit = 0x01000000;

/** Bytes that grow. */
class Output {
  #bytes = new Uint8Array(256);
  #used = 0;

  #reserve(more) {
    if (this.#used + more <= this.#bytes.length) return;
    const larger = new Uint8Array(Math.max(this.#bytes.length * 2, this.#used + more));
    larger.set(this.#bytes.subarray(0, this.#used));
    this.#bytes = larger;
  }

  /** Writes the lowest `width` bytes of a number, the least significant first. */
  number(value, width) {
    this.#reserve(width);
    for (let i = 0; i < width; i++, value >>>= 8) this.#bytes[this.#used++] = value;
  }

  u64(value) {
    const whole = BigInt(value);
    this.number(Number(whole & 0xffffffffn), 4);
    this.number(Number(whole >> 32n), 4);
  }

  put(bytes) {
    this.#reserve(bytes.length);
    this.#bytes.set(bytes, this.#used);
    this.#used += bytes.length;
  }

  result() {
    return this.#bytes.subarray(0, this.#used);
  }
}

/**
 * Flattens a message.
 * @param {Message} message
 * @returns {Uint8Array}
 * @throws {InvalidMessage} when a key or a value is none that a message can hold.
 */
export function flatten(message) {
  return flattenAt(message, 0);
}

function flattenAt(message, depth) {
  if (depth > maxDepth) throw new InvalidMessage(`messages lie more than ${maxDepth} deep in each other`);
  const output = new Output();
  output.put(magic);
  for (const [field, value] of fieldsOf(message)) {
    if (field.isArray) writeArray(output, field, value, depth);
    else writeScalar(output, field, value, depth);
  }
  return output.result();
}

const header = (field, flags) => ((field.type << 27) | flags | field.id) >>> 0;

function writeScalar(output, field, value, depth) {
  switch (field.letter) {
    case 'b':
      return output.number(header(field, value ? shortBit : 0), 4);
    case 'u': {
      const isShort = value <= 0xff;
      output.number(header(field, isShort ? shortBit : 0), 4);
      return output.number(value, isShort ? 1 : 4);
    }
    case 'q':
      output.number(header(field, 0), 4);
      return output.u64(value);
    case 'a':
      output.number(header(field, 0), 4);
      return output.put(value);
    default: {
      const bytes = contentOf(field.letter, value, depth);
      const isShort = bytes.length <= 0xff;
      output.number(header(field, isShort ? shortBit : 0), 4);
      output.number(bytes.length, isShort ? 1 : 2);
      return output.put(bytes);
    }
  }
}

function writeArray(output, field, list, depth) {
  output.number(header(field, arrayBit), 4);
  output.number(list.length, 2);
  for (const value of list) {
    switch (field.letter) {
      case 'b':
        output.number(value ? 1 : 0, 1);
        break;
      case 'u':
        output.number(value, 4);
        break;
      case 'q':
        output.u64(value);
        break;
      case 'a':
        output.put(value);
        break;
      default: {
        const bytes = contentOf(field.letter, value, depth);
        output.number(bytes.length, 2);
        output.put(bytes);
      }
    }
  }
}

/** The bytes of a string, a message or a raw value. */
function contentOf(letter, value, depth) {
  if (letter === 's') return stringBytes(value);
  if (letter === 'r') return value;
  const bytes = flattenAt(value, depth + 1);
  if (bytes.length > maxLength) throw new InvalidMessage(`a nested message is longer than ${maxLength} bytes`);
  return bytes;
}

/** A place in bytes that are read. */
class Input {
  constructor(bytes) {
    this.bytes = bytes;
    this.at = 0;
  }

  get left() {
    return this.bytes.length - this.at;
  }

  number(width) {
    const bytes = this.take(width);
    let value = 0;
    for (let i = width - 1; i >= 0; i--) value = value * 256 + bytes[i];
    return value;
  }

  u64() {
    const low = this.number(4);
    return (BigInt(this.number(4)) << 32n) | BigInt(low);
  }

  take(length) {
    if (length > this.left) throw new MalformedMessage('a field runs beyond the end');
    this.at += length;
    return this.bytes.subarray(this.at - length, this.at);
  }
}

/**
 * Reads a flattened message. Byte values of the result are copies.
 * @param {Uint8Array} bytes
 * @returns {Message}
 * @throws {MalformedMessage}
 */
export function unflatten(bytes) {
  return unflattenAt(bytes, 0, false);
}

/**
 * Reads the payload of a frame in binary form, in which the length, most significant byte first, stands in place of "M2".
 * @param {Uint8Array} bytes
 * @returns {Message}
 * @throws {MalformedMessage}
 */
export function unflattenPayload(bytes) {
  return unflattenAt(bytes, 0, true);
}

function unflattenAt(bytes, depth, lengthInFront) {
  if (depth > maxDepth) throw new MalformedMessage(`messages lie more than ${maxDepth} deep in each other`);
  const input = new Input(bytes);
  const [first, second] = input.take(2);
  const expected = lengthInFront ? [bytes.length >>> 8, bytes.length & 0xff] : magic;
  if (first !== expected[0] || second !== expected[1]) throw new MalformedMessage('the first two bytes are none of a message');
  /** @type {Message} */
  const message = {};
  while (input.left > 0) {
    const head = input.number(4);
    const type = (head >>> 27) & 15;
    const isArray = head >= arrayBit;
    if (type > 6) throw new MalformedMessage(`a field has the unknown type ${type}`);
    const isShort = (head & shortBit) !== 0;
    const key = makeKey(type, isArray, head & 0xffffff);
    message[key] = isArray ? readArray(input, type, depth) : readScalar(input, type, isShort, depth);
  }
  return message;
}

function readScalar(input, type, isShort, depth) {
  if (type === 0) return isShort;
  if (type === 1) return input.number(isShort ? 1 : 4);
  if (type === 2) return input.u64();
  if (type === 3) return input.take(16).slice();
  return readContent(input, type, isShort ? 1 : 2, depth);
}

function readArray(input, type, depth) {
  const count = input.number(2);
  const list = [];
  for (let i = 0; i < count; i++) {
    if (type === 0) list.push(input.number(1) !== 0);
    else if (type === 1) list.push(input.number(4));
    else if (type === 2) list.push(input.u64());
    else if (type === 3) list.push(input.take(16).slice());
    else list.push(readContent(input, type, 2, depth));
  }
  return list;
}

function readContent(input, type, width, depth) {
  const bytes = input.take(input.number(width));
  if (type === 4) return utf8.decode(bytes);
  if (type === 5) return unflattenAt(bytes, depth + 1, false);
  return bytes.slice();
}
