// Bytes as the tunnel needs them: big-endian numbers, joining, and the text encoding that carries bytes as characters.

/** Reads four bytes, most significant first. */
export function readU32(bytes, at) {
  return ((bytes[at] << 24) | (bytes[at + 1] << 16) | (bytes[at + 2] << 8) | bytes[at + 3]) >>> 0;
}

/** Writes four bytes, most significant first. */
export function writeU32(bytes, at, value) {
  bytes[at] = value >>> 24;
  bytes[at + 1] = value >>> 16;
  bytes[at + 2] = value >>> 8;
  bytes[at + 3] = value;
}

/** @param {Uint8Array[]} pieces @returns {Uint8Array} */
export function join(...pieces) {
  const whole = new Uint8Array(pieces.reduce((length, piece) => length + piece.length, 0));
  let at = 0;
  for (const piece of pieces) {
    whole.set(piece, at);
    at += piece.length;
  }
  return whole;
}

/** The bytes in the opposite order, as a copy. */
export function reversed(bytes) {
  return Uint8Array.from(bytes).reverse();
}

// How many characters are made in one call: the arguments of a call lie on the stack.
const slice = 8192;

/**
 * Each byte as one character; byte 0 becomes U+0100, so that the text never holds a NUL.
 * @param {Uint8Array} bytes
 * @returns {string}
 */
export function bytesToText(bytes) {
  let text = '';
  for (let at = 0; at < bytes.length; at += slice) {
    text += String.fromCharCode(...Array.from(bytes.subarray(at, at + slice), (byte) => byte || 0x100));
  }
  return text;
}

/**
 * The low eight bits of each character; null when a character is none of the encoding (above U+01FF).
 * @param {string} text
 * @returns {Uint8Array|null}
 */
export function textToBytes(text) {
  const bytes = new Uint8Array(text.length);
  for (let i = 0; i < text.length; i++) {
    const character = text.charCodeAt(i);
    if (character > 0x1ff) return null;
    bytes[i] = character;
  }
  return bytes;
}
