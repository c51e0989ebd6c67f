// One session of the server, from its key agreement to its end. It knows nothing of reconnecting: see session.js.

import { bytesToText, join, readU32, textToBytes } from './bytes.js';
import { flatten, unflattenPayload } from './binary_form.js';
import { Failure } from './failure.js';
import { InvalidMessage, maxLength } from './fields.js';
import { FrameReader, FrameWriter } from './frames.js';
import { readJson, writeJson } from './json_form.js';
import { directionCipher, multiply, randomScalar } from './keys.js';

/** @typedef {import('./fields.js').Message} Message */
/** @typedef {'binary'|'json'} Form  How a message and its answer are written. */

/**
 * @typedef {object} ExchangeOptions
 * @property {Form} [form]
 * @property {number} [timeout]  In ms; 0 waits for as long as the connection stands.
 * @property {AbortSignal} [signal]  Breaks the request off.
 * @property {boolean} [keepalive]  Has the browser finish the request when the page goes away.
 */

// A Content-Type of exactly this says that a body is bytes; anything else says that it is text.
const binaryType = 'msg';
const maxBody = 131072;

/** The kind of failure that each HTTP status of the tunnel stands for. */
const kinds = { 403: 'refused', 410: 'ended', 500: 'gone' };

// Frames overtake each other on their connections, and the server does not wait for one that was overtaken by more than 65535
// bytes. So no frame is sent that would reach further beyond the oldest one on its way; what is on its way for longer than
// this, in ms, has arrived and waits for its answer: a connection that finds no room at the server is tried again by the system
// after one and three seconds.
const reach = 65000;
const onTheWay = 4000;

export class Tunnel {
  #url;
  #id;
  #writer;
  #reader;
  // Where the frames begin that are on their way, the oldest first; and who waits for that to change.
  #departed = [];
  #queue = Promise.resolve();
  #arrival = () => {};

  /**
   * Agrees on keys with the server.
   * @param {string|URL} url  Where the tunnel is, for example "/jsproxy".
   * @param {ExchangeOptions} [options]
   * @returns {Promise<Tunnel>}
   * @throws {Failure} of kind unreachable, timeout or malformed.
   */
  static async open(url, { timeout = 10000, signal } = {}) {
    const scalar = randomScalar();
    const body = join(new Uint8Array(8), multiply(scalar));
    const text = await postTwice(url, { form: 'binary', body, timeout, signal }, (response) => response.text());
    const answer = textToBytes(text);
    if (!answer || answer.length !== 40) throw new Failure('malformed', 'the answer to the key exchange is none');
    const secret = multiply(scalar, answer.subarray(8));
    if (!secret) throw new Failure('malformed', 'the public value of the server leaves no secret');
    return new Tunnel(url, readU32(answer, 0), secret);
  }

  /**
   * @param {string|URL} url
   * @param {number} id  The session's id.
   * @param {Uint8Array} secret  The shared secret.
   */
  constructor(url, id, secret) {
    this.#url = url;
    this.#id = id;
    this.#writer = new FrameWriter(id, directionCipher(secret, true));
    this.#reader = new FrameReader(id, directionCipher(secret, false));
  }

  /** The number that the server gave this session. */
  get id() {
    return this.#id;
  }

  /**
   * A frame that proves this session, for the query of a request that is made at once: its payload names a file.
   * @param {Uint8Array} payload
   * @returns {string} percent-encoded
   * @throws {Failure} of kind gone, when the session is used up.
   */
  ticket(payload) {
    this.#depart(this.#writer.position);
    return encodeURIComponent(bytesToText(this.#seal(payload)));
  }

  /**
   * Sends a message and returns its answer. Exchanges may overlap; their answers come in any order.
   * @param {Message} message
   * @param {ExchangeOptions} [options]
   * @returns {Promise<Message>}
   * @throws {Failure} of any kind but service: an error of a service is an answer here. `gone` is what the server says of every
   *     frame that it does not take, also of one that it had before, or (an Overtaken) that came too late; the session may be well.
   */
  async exchange(message, options = {}) {
    const form = options.form ?? 'binary';
    const payload = form === 'json' ? payloadOf(writeJson, message) : binaryPayload(message);
    // One after the other, so that a long one is not passed by others for ever.
    const turn = this.#queue.then(() => this.#untilInReach(payload.length));
    this.#queue = turn;
    await turn;
    return this.#send(payload, { ...options, form });
  }

  async #untilInReach(length) {
    while (this.#departed.length && this.#writer.position + length - this.#departed[0].from > reach) {
      await new Promise((resolve) => (this.#arrival = resolve));
    }
  }

  #depart(from) {
    const departure = { from };
    this.#departed.push(departure);
    const arrived = () => {
      clearTimeout(timer);
      const index = this.#departed.indexOf(departure);
      if (index >= 0) this.#departed.splice(index, 1);
      this.#arrival();
    };
    const timer = setTimeout(arrived, onTheWay);
    return arrived;
  }

  async #send(payload, { form, timeout = 10000, signal, keepalive }) {
    const from = this.#writer.position;
    // A poll does not count, being there all the time; it can be sent again without harm.
    const arrived = timeout > 0 ? this.#depart(from) : () => {};
    const frame = this.#seal(payload);
    try {
      return await this.#sendFrame(frame, { form, timeout, signal, keepalive });
    } catch (failure) {
      throw failure.kind === 'gone' && this.#writer.position - from > reach ? new Overtaken() : failure;
    } finally {
      arrived();
    }
  }

  async #sendFrame(frame, { form, timeout, signal, keepalive }) {
    const body = form === 'json' ? bytesToText(frame) : frame;
    // The server takes each frame once, so the same one can be posted again without anything being done twice.
    const bytes = await postTwice(this.#url, { form, body, timeout, signal, keepalive }, async (response) =>
      form === 'json' ? textToBytes(await response.text()) : new Uint8Array(await response.arrayBuffer()),
    );
    if (bytes?.length === 0) throw new TooLong();
    const answer = bytes && this.#reader.open(bytes);
    if (!answer) throw new Failure('malformed', 'the answer is no frame of this session');
    try {
      return form === 'json' ? readJson(answer) : unflattenPayload(answer);
    } catch (error) {
      throw new Failure('malformed', `the answer is no message: ${error.message}`);
    }
  }

  #seal(payload) {
    const frame = this.#writer.seal(payload);
    if (!frame) throw new Failure('gone', 'the keystream of the session is used up');
    return frame;
  }
}

/** A frame came so late that the server did not look at it: what was asked has not been done. */
export class Overtaken extends Failure {
  constructor() {
    super('gone', 'the request was overtaken by too many others', 500);
  }
}

/** The server had an answer and could not send it in the binary form. */
export class TooLong extends Failure {
  constructor() {
    super('malformed', 'the answer is too long for the binary form; ask in the JSON form');
  }
}

function payloadOf(write, message) {
  try {
    return write(message);
  } catch (error) {
    if (error instanceof InvalidMessage) throw new Failure('invalid', error.message);
    throw error;
  }
}

function binaryPayload(message) {
  const bytes = payloadOf(flatten, message);
  if (bytes.length > maxLength) throw new Failure('invalid', `the message is longer than ${maxLength} bytes`);
  bytes[0] = bytes.length >>> 8;
  bytes[1] = bytes.length;
  return bytes;
}

// A connection that was kept may have been closed by the server just now, which not every client sees in time.
async function postTwice(url, options, read) {
  try {
    return await post(url, options, read);
  } catch (failure) {
    if (failure.kind !== 'unreachable' || failure.code || options.signal?.aborted || options.keepalive) throw failure;
    return post(url, options, read);
  }
}

async function post(url, { form, body, timeout, signal, keepalive = false }, read) {
  const size = typeof body === 'string' ? new TextEncoder().encode(body).length : body.length;
  if (size > maxBody) throw new Failure('invalid', `the request is longer than ${maxBody} bytes`);
  const abort = new AbortController();
  const stop = () => abort.abort();
  signal?.addEventListener('abort', stop);
  if (signal?.aborted) stop();
  let late = false;
  const timer = timeout > 0 ? setTimeout(() => ((late = true), stop()), timeout) : undefined;
  try {
    const headers = { 'Content-Type': form === 'json' ? 'text/plain' : binaryType };
    const response = await fetch(url, { method: 'POST', headers, body, signal: abort.signal, keepalive, cache: 'no-store' });
    if (response.status === 200) return await read(response);
    throw new Failure(kinds[response.status] ?? 'unreachable', `the server answered ${response.status}`, response.status);
  } catch (error) {
    if (error instanceof Failure) throw error;
    if (late) throw new Failure('timeout', `no answer within ${timeout} ms`);
    throw new Failure('unreachable', signal?.aborted ? 'broken off' : 'the server does not answer');
  } finally {
    clearTimeout(timer);
    signal?.removeEventListener('abort', stop);
  }
}
