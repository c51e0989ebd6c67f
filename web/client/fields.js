// Messages as plain objects. A field's key is the letter of its type and its number in lowercase hexadecimal, as the
// system writes it everywhere else too: { u1: 5, b2: true, s3: "it's", Uff0001: [24, 1], m5: { s1: 'nested' } }.
//
// | letter | value                            | letter | value                   |
// |--------|----------------------------------|--------|-------------------------|
// | b      | boolean                          | B      | array of booleans       |
// | u      | number, 0 to 2^32 - 1            | U      | array of such numbers   |
// | q      | bigint, 0 to 2^64 - 1            | Q      | array of bigints        |
// | a      | Uint8Array of 16: IPv6 address   | A      | array of addresses      |
// | s      | string                           | S      | array of strings        |
// | m      | message                          | M      | array of messages       |
// | r      | Uint8Array                       | R      | array of Uint8Arrays    |
//
// Where a bigint or a boolean is written, a number will do as well. Fields that are undefined are left out.

/** @typedef {Record<string, any>} Message */

/** The letters in the order of their type codes. */
export const letters = 'buqasmr';

/** What a string, a raw value, a nested message and an array may have at the most: bytes or elements. */
export const maxLength = 0xffff;

/** How deep messages may lie in each other below the outermost one. */
export const maxDepth = 32;

/** A message that cannot be written: thrown by the codecs, turned into a Failure of kind `invalid` by a session. */
export class InvalidMessage extends Error {}

/** Bytes or text that are no message: thrown by the codecs, turned into a Failure of kind `malformed` by a session. */
export class MalformedMessage extends Error {}

const keyForm = /^([buqasmrBUQASMR])([0-9a-f]{1,6})$/;

/**
 * Takes a key apart.
 * @param {string} key
 * @returns {{letter: string, type: number, isArray: boolean, id: number}} `letter` is the lowercase one.
 */
export function parseKey(key) {
  const parts = keyForm.exec(key);
  if (!parts) throw new InvalidMessage(`"${key}" is no field: a letter of ${letters} and a number of up to six hexadecimal digits`);
  const letter = parts[1].toLowerCase();
  return { letter, type: letters.indexOf(letter), isArray: letter !== parts[1], id: parseInt(parts[2], 16) };
}

/** The key of a field. */
export function makeKey(type, isArray, id) {
  const letter = letters[type];
  return (isArray ? letter.toUpperCase() : letter) + id.toString(16);
}

const encoder = new TextEncoder();
const decoder = new TextDecoder('utf-8', { ignoreBOM: true });

/** Text as UTF-8, and back; bytes that are no UTF-8 come out as U+FFFD. */
export const utf8 = {
  encode: (text) => encoder.encode(text),
  decode: (bytes) => decoder.decode(bytes),
};

const checks = {
  b: (value) => typeof value === 'boolean' || value === 0 || value === 1,
  u: (value) => Number.isInteger(value) && value >= 0 && value <= 0xffffffff,
  q: (value) => (typeof value === 'bigint' && value >= 0n && value < 1n << 64n) || (Number.isSafeInteger(value) && value >= 0),
  a: (value) => value instanceof Uint8Array && value.length === 16,
  s: (value) => typeof value === 'string',
  m: (value) => typeof value === 'object' && value !== null && !Array.isArray(value) && !(value instanceof Uint8Array),
  r: (value) => value instanceof Uint8Array && value.length <= maxLength,
};

/**
 * The fields of a message that are there, checked: [key taken apart, value].
 * @param {Message} message
 */
export function* fieldsOf(message) {
  for (const [key, value] of Object.entries(message)) {
    if (value === undefined) continue;
    const field = parseKey(key);
    if (field.isArray && (!Array.isArray(value) || value.length > maxLength)) {
      throw new InvalidMessage(`${key} wants an array of at most ${maxLength} elements`);
    }
    for (const element of field.isArray ? value : [value]) {
      if (!checks[field.letter](element)) throw new InvalidMessage(`a value of ${key} does not fit its type`);
    }
    yield [field, value];
  }
}

/** A string as bytes, checked for its length. */
export function stringBytes(text) {
  const bytes = encoder.encode(text);
  if (bytes.length > maxLength) throw new InvalidMessage(`a string is longer than ${maxLength} bytes`);
  return bytes;
}
