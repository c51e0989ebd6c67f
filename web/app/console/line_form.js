// The line form of messages, as `tn` takes and shows it: {u1:5,b2:1,s3:'it\'s',Uff0001:[68,1],m5:{},r4:[1,2]}. A key is the
// letter of the type and the number of the field in hexadecimal; numbers are decimal or, behind 0x, hexadecimal. It is
// strict: nothing is guessed, and what is wrong is told with its place.

const letters = 'buqasmr';
const maxIdDigits = 6;
const maxNesting = 32;
const maxLength = 0xffff;
const named = { '\\': '\\', "'": "'", n: '\n', r: '\r', t: '\t', 0: '\0' };
const utf8 = new TextDecoder('utf-8', { fatal: true });
const encoder = new TextEncoder();

/** Where a text stops being a message, counted from 0, and what should have stood there. */
export class LineFault extends Error {
  constructor(position, expected) {
    super(`expected ${expected}`);
    this.position = position;
    this.expected = expected;
  }
}

/**
 * Reads a message.
 * @param {string} text
 * @returns {{message?: object, fault?: LineFault}}
 */
export function readLine(text) {
  try {
    return { message: new Reader(text).whole() };
  } catch (fault) {
    if (fault instanceof LineFault) return { fault };
    throw fault;
  }
}

class Reader {
  #text;
  #at = 0;
  #nesting = 0;

  constructor(text) {
    this.#text = text;
  }

  whole() {
    const message = this.#message();
    this.#skipSpace();
    if (this.#at < this.#text.length) this.#fail('the end of the text');
    return message;
  }

  #fail(expected, position = this.#at) {
    throw new LineFault(position, expected);
  }

  #skipSpace() {
    while (' \t\r\n'.includes(this.#text[this.#at] ?? '-')) this.#at++;
  }

  #take(character) {
    this.#skipSpace();
    if (this.#text[this.#at] !== character) return false;
    this.#at++;
    return true;
  }

  #expect(character, expected = `'${character}'`) {
    if (!this.#take(character)) this.#fail(expected);
  }

  #message() {
    this.#expect('{');
    if (this.#nesting > maxNesting) this.#fail('at most 32 messages within one another', this.#at - 1);
    this.#nesting++;
    const message = {};
    if (!this.#take('}')) {
      do this.#field(message);
      while (this.#take(','));
      this.#expect('}', "',' or '}'");
    }
    this.#nesting--;
    return message;
  }

  #field(message) {
    this.#skipSpace();
    const start = this.#at;
    const letter = this.#text[this.#at] ?? '';
    const type = letter.toLowerCase();
    if (!letter || !letters.includes(type)) this.#fail(`a type letter (one of ${letters}${letters.toUpperCase()})`);
    this.#at++;
    const key = letter + this.#id().toString(16);
    if (key in message) this.#fail('a key that is not there yet', start);
    this.#expect(':');
    this.#skipSpace();
    const from = this.#at;
    message[key] = letter === type ? this.#value(type) : this.#list(() => this.#value(type));
    if (type === 'r' && letter === 'r' && message[key].length > maxLength) this.#fail('a value that a message has room for', from);
  }

  #id() {
    const digits = /^[0-9a-f]*/i.exec(this.#text.slice(this.#at))[0];
    if (!digits) this.#fail('a field number in hexadecimal');
    if (digits.length > maxIdDigits) this.#fail('a field number of at most 6 digits');
    this.#at += digits.length;
    return parseInt(digits, 16);
  }

  #list(read) {
    this.#expect('[');
    const values = [];
    if (this.#take(']')) return values;
    do {
      this.#skipSpace();
      if (values.length === maxLength) this.#fail('at most 65535 values in a list');
      values.push(read());
    } while (this.#take(','));
    this.#expect(']', "',' or ']'");
    return values;
  }

  #value(type) {
    switch (type) {
      case 'b':
        return this.#boolean();
      case 'u':
        return Number(this.#number(0xffffffffn));
      case 'q':
        return this.#number(0xffffffffffffffffn);
      case 's':
        return this.#string();
      case 'm':
        return this.#message();
      default:
        return this.#bytes(type);
    }
  }

  #boolean() {
    const digit = this.#text[this.#at];
    if (digit !== '0' && digit !== '1') this.#fail('0 or 1');
    this.#at++;
    return digit === '1';
  }

  #number(largest) {
    const [digits] = /^(0x[0-9a-f]+|\d*)/i.exec(this.#text.slice(this.#at));
    if (!digits || /^0x/i.test(this.#text.slice(this.#at)) !== /^0x/i.test(digits)) this.#fail('a number');
    const value = BigInt(digits);
    if (value > largest) this.#fail(`a number up to ${largest}`);
    this.#at += digits.length;
    return value;
  }

  #bytes(type) {
    const start = this.#at;
    const values = this.#list(() => Number(this.#number(255n)));
    if (type === 'a' && values.length !== 16) this.#fail('the 16 bytes of an address', start);
    return Uint8Array.from(values);
  }

  // Escapes stand for bytes, which together have to be UTF-8: nothing else can travel from a page as a string.
  #string() {
    this.#expect("'", 'a string in single quotes');
    const start = this.#at;
    const bytes = [];
    for (;;) {
      const character = String.fromCodePoint(this.#text.codePointAt(this.#at) ?? 0);
      if (this.#at >= this.#text.length) this.#fail('a closing quote');
      if (character === "'") break;
      if (/[\0-\x1f\x7f]/.test(character)) this.#fail('control characters written as \\n, \\r, \\t, \\0 or \\xNN');
      if (character === '\\') {
        bytes.push(this.#escape());
      } else {
        bytes.push(...encoder.encode(character));
        this.#at += character.length;
      }
    }
    this.#at++;
    if (bytes.length > maxLength) this.#fail('a value that a message has room for', start - 1);
    try {
      return utf8.decode(Uint8Array.from(bytes));
    } catch {
      return this.#fail('a text in UTF-8', start);
    }
  }

  #escape() {
    const start = this.#at++;
    const name = this.#text[this.#at];
    if (name === 'x') {
      const [, digits] = /^x([0-9a-f]{2})/i.exec(this.#text.slice(this.#at)) ?? [];
      if (!digits) this.#fail('two hexadecimal digits behind \\x');
      this.#at += 3;
      return parseInt(digits, 16);
    }
    if (name === undefined || !Object.hasOwn(named, name)) this.#fail("one of the escapes \\\\ \\' \\n \\r \\t \\0 \\xNN", start);
    this.#at++;
    return named[name].charCodeAt(0);
  }
}

/** Writes a message in the line form. @param {object} message */
export function writeLine(message) {
  const fields = Object.entries(message).map(([key, value]) => {
    const type = key[0].toLowerCase();
    return `${key}:${type === key[0] ? written(type, value) : `[${value.map((element) => written(type, element)).join(',')}]`}`;
  });
  return `{${fields.join(',')}}`;
}

const shown = { '\n': '\\n', '\r': '\\r', '\t': '\\t', '\0': '\\0', '\\': '\\\\', "'": "\\'" };

function written(type, value) {
  switch (type) {
    case 'b':
      return value ? '1' : '0';
    case 's':
      return `'${value.replace(/[\0-\x1f\x7f\\']/g, (found) => shown[found] ?? `\\x${found.charCodeAt(0).toString(16).padStart(2, '0')}`)}'`;
    case 'm':
      return writeLine(value);
    case 'a':
    case 'r':
      return `[${[...value].join(',')}]`;
    default:
      return String(value);
  }
}
