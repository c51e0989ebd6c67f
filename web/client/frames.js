// Enciphered frames: session id and keystream position, four bytes each, most significant first, then the payload and eight
// spaces, both enciphered. The position says which part of the direction's keystream a frame was enciphered with, so that
// frames may overtake each other. Positions begin with 1 and count modulo 2^32.

import { readU32, writeU32 } from './bytes.js';

/** @typedef {import('./rc4.js').RC4} RC4 */

const headLength = 8;
const padding = 8;
const space = 0x20;

/** Enciphers frames for the server. */
export class FrameWriter {
  #sessionId;
  #cipher;
  #position;

  /** @param {number} sessionId @param {RC4} cipher @param {number} [position]  Where the cipher stands. */
  constructor(sessionId, cipher, position = 1) {
    this.#sessionId = sessionId;
    this.#cipher = cipher;
    this.#position = position;
  }

  /** Where the next frame begins. */
  get position() {
    return this.#position;
  }

  /**
   * @param {Uint8Array} payload
   * @returns {Uint8Array|null} The frame; null when the positions are used up and a new session is needed.
   */
  seal(payload) {
    const length = payload.length + padding;
    if (this.#position + length > 0xffffffff) return null;
    const frame = new Uint8Array(headLength + length).fill(space);
    frame.set(payload, headLength);
    writeU32(frame, 0, this.#sessionId);
    writeU32(frame, 4, this.#position);
    combine(frame, headLength, this.#cipher.take(length));
    this.#position += length;
    return frame;
  }
}

// How far ahead of everything seen a frame may begin, and how much keystream is kept for frames that are missing. What is
// missing longest is given up first: those answers belong to requests that were broken off.
const maxAhead = 16 << 20;
const maxMissing = 1 << 20;

/** Deciphers the server's frames, in any order, each once. */
export class FrameReader {
  #sessionId;
  #cipher;
  #position;
  #missing = [];

  /** @param {number} sessionId @param {RC4} cipher @param {number} [position]  Where the cipher stands. */
  constructor(sessionId, cipher, position = 1) {
    this.#sessionId = sessionId;
    this.#cipher = cipher;
    this.#position = position;
  }

  /**
   * @param {Uint8Array} frame
   * @returns {Uint8Array|null} The payload; null for a frame that is not of this session, was read before, or was tampered
   *     with. A frame that was refused may come again.
   */
  open(frame) {
    if (frame.length < headLength + padding || readU32(frame, 0) !== this.#sessionId) return null;
    const from = readU32(frame, 4);
    const length = frame.length - headLength;
    if (!this.#advance(from, length)) return null;
    const payload = this.#decipher(frame.slice(headLength), from);
    this.#forgetOldest();
    return payload;
  }

  #decipher(plain, from) {
    const piece = this.#missing.find((candidate) => within(from, plain.length, candidate));
    if (!piece) return null;
    const offset = (from - piece.from) >>> 0;
    combine(plain, 0, piece.stream.subarray(offset, offset + plain.length));
    if (!plain.subarray(-padding).every((byte) => byte === space)) return null;
    this.#consume(piece, offset, plain.length);
    return plain.subarray(0, -padding);
  }

  // Makes keystream as far as the frame's end; everything that was made and not used is missing.
  #advance(from, length) {
    const ahead = (from + length - this.#position) | 0;
    if (ahead > maxAhead + length) return false;
    if (ahead > 0) {
      this.#missing.push({ from: this.#position, stream: this.#cipher.take(ahead) });
      this.#position = (this.#position + ahead) >>> 0;
      this.#joinNewest();
    }
    return true;
  }

  // A frame that was refused has left its keystream; a longer one may begin in it and reach beyond.
  #joinNewest() {
    const [before, newest] = this.#missing.slice(-2);
    if (!newest || (before.from + before.stream.length) >>> 0 !== newest.from) return;
    const stream = new Uint8Array(before.stream.length + newest.stream.length);
    stream.set(before.stream);
    stream.set(newest.stream, before.stream.length);
    this.#missing.splice(-2, 2, { from: before.from, stream });
  }

  #consume(piece, offset, length) {
    const rest = [];
    const end = offset + length;
    if (offset > 0) rest.push({ from: piece.from, stream: piece.stream.slice(0, offset) });
    if (end < piece.stream.length) rest.push({ from: (piece.from + end) >>> 0, stream: piece.stream.slice(end) });
    this.#missing.splice(this.#missing.indexOf(piece), 1, ...rest);
  }

  #forgetOldest() {
    let tooMuch = this.#missing.reduce((sum, { stream }) => sum + stream.length, -maxMissing);
    while (tooMuch > 0) {
      const { from, stream } = this.#missing.shift();
      if (stream.length > tooMuch) this.#missing.unshift({ from: (from + tooMuch) >>> 0, stream: stream.slice(tooMuch) });
      tooMuch -= stream.length;
    }
  }
}

function within(from, length, piece) {
  const offset = (from - piece.from) >>> 0;
  return offset + length <= piece.stream.length;
}

function combine(bytes, at, stream) {
  for (let i = 0; i < stream.length; i++) bytes[at + i] ^= stream[i];
}
