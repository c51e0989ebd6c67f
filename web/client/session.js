// A session that lasts: it logs in, calls services, takes what they push, and when the connection or the server's memory of
// it is lost it comes back by itself. Nothing here throws or rejects for what can go wrong outside: failures are values.

import { Failure } from './failure.js';
import { utf8 } from './fields.js';
import { fetchFile, sendFile } from './files.js';
import { Subscription } from './subscription.js';
import { Overtaken, TooLong, Tunnel } from './tunnel.js';

/** @typedef {import('./fields.js').Message} Message */
/** @typedef {import('./tunnel.js').Form} Form */

/**
 * Who is logged in, as the login answered.
 * @typedef {object} Account
 * @property {string} user
 * @property {number} policies  What the user may do (see `permissions`).
 * @property {string} fullName
 * @property {string} group
 * @property {string} host  Name of the machine.
 * @property {string} version  Version of the system.
 * @property {string} skin
 */

/**
 * How a session is.
 *
 * - `out`: nobody is logged in. After a failed login `failure` says why.
 * - `connecting`: a login is under way.
 * - `online`: logged in, and the server answers. `renewed` says what was before: null at first, `reconnected` when the server
 *   was away and still knows the session, `restarted` when it had forgotten it, `expired` when the session was away for so long
 *   that the server had to end it.
 * - `lost`: the server does not answer. `failure` says how, `attempt` counts, `retryAt` is the time of the next one.
 * - `refused`: the server is back, and the login that held before is not accepted any more. Log in again.
 * - `ended`: the server ended the session. Log in again.
 *
 * @typedef {object} SessionState
 * @property {'out'|'connecting'|'online'|'lost'|'refused'|'ended'} name
 * @property {Account} [account]  While online or lost.
 * @property {Failure} [failure]
 * @property {null|'reconnected'|'restarted'|'expired'} [renewed]
 * @property {number} [attempt]
 * @property {number} [retryAt]  As Date.now() counts.
 */

/** The rights of a user: bits of `account.policies`. */
export const permissions = Object.freeze({
  read: 0x10,
  readFiles: 0x40,
  writeFiles: 0x80,
  changeSettings: 0x100,
  manageUsers: 0x200,
  sensitiveFiles: 0x4000,
});

const endOfSession = 0xfe0014;
// Relayed to nobody: what comes back, always an error, comes from the server itself.
const ping = Object.freeze({ Uff0001: [] });

const loginPatience = 15000;
const pingPatience = 8000;
// A server that has been silent for this long is asked whether it is there.
const silence = 25000;
const watchInterval = 5000;
// How long the server keeps a session that nobody uses.
const serverKeeps = 60000;
// The server's minute began when it answered, and a busy page may have read that so much later.
const readLate = 5000;
const firstPause = 500;
const longestPause = 10000;
// While the machine starts, its user service may come last, and a login is refused until then.
const refusalsBelieved = 4;

export class Session {
  #url;
  #form;
  #keepAlive;
  #listeners = new Set();
  #subscriptions = new Map();
  #nextChannel = (globalThis.crypto.getRandomValues(new Uint32Array(1))[0] & 0x3fffffff) + 1;
  /** @type {SessionState} */
  #state = { name: 'out' };
  #credentials = null;
  /** @type {Tunnel|null} */
  #tunnel = null;
  #polling = null;
  #pollForm;
  // Counts what a login, a restoration or an end makes void.
  #round = 0;
  #heard = 0;
  #watch;
  #wake = () => {};

  /**
   * @param {object} [options]
   * @param {string|URL} [options.url]  Where the tunnel is.
   * @param {Form} [options.form]  How messages are written; `binary` is exact and small, `json` has no limit for answers.
   * @param {boolean} [options.keepAlive]  False keeps no poll waiting: nothing is pushed, and the server ends the session
   *     after 60 s without a call.
   */
  constructor({ url = '/jsproxy', form = 'binary', keepAlive = true } = {}) {
    this.#url = url;
    this.#form = form;
    this.#pollForm = form;
    this.#keepAlive = keepAlive;
  }

  /** @returns {SessionState} */
  get state() {
    return this.#state;
  }

  /** The id of the server's session; 0 without one. */
  get id() {
    return this.#tunnel?.id ?? 0;
  }

  /**
   * Has every change of the state told.
   * @param {(state: SessionState) => void} listener
   * @returns {() => void} ends it
   */
  onState(listener) {
    this.#listeners.add(listener);
    return () => this.#listeners.delete(listener);
  }

  /**
   * Logs in. The password is kept in memory, for logging in again, until the session ends.
   * @param {string} user
   * @param {string} password
   * @returns {Promise<{account?: Account, error?: Failure}>}
   */
  async login(user, password) {
    await this.end();
    const round = ++this.#round;
    this.#setState({ name: 'connecting' });
    try {
      const credentials = { user, password };
      const [tunnel, account] = await this.#open(credentials);
      if (round !== this.#round) {
        tunnel.exchange({ uff0007: endOfSession }).catch(() => {});
        return { error: new Failure('ended', 'the login was given up') };
      }
      this.#credentials = credentials;
      this.#enter(tunnel, account, null);
      return { account };
    } catch (error) {
      const failure = asFailure(error);
      if (round === this.#round) this.#setState({ name: 'out', failure });
      return { error: failure };
    }
  }

  /** Says that the password of this login has been changed, so that logging in again goes on working. */
  passwordChanged(password) {
    if (this.#credentials) this.#credentials = { ...this.#credentials, password };
  }

  /**
   * Sends a command to a service and waits for the answer.
   * @param {number[]} path  The service: [24, 1].
   * @param {number} command
   * @param {Message} [fields]
   * @param {{timeout?: number, form?: Form, signal?: AbortSignal}} [options]
   * @returns {Promise<{reply?: Message, error?: Failure}>}
   */
  call(path, command, fields = {}, options = {}) {
    return this.#call({ ...fields, Uff0001: path, uff0007: command }, options);
  }

  /**
   * Asks a service to push, and keeps it at that: after whatever happened the command is sent again.
   * @param {import('./subscription.js').SubscriptionOptions} options
   * @returns {Subscription}
   */
  subscribe(options) {
    const channel = this.#nextChannel++;
    const subscription = new Subscription(options, {
      call: (command, fields) => this.#call({ ...fields, Uff0001: options.path, Uff0002: [channel], uff0007: command }, {}),
      isOnline: () => this.#state.name === 'online',
      remove: () => this.#subscriptions.delete(channel),
    });
    this.#subscriptions.set(channel, subscription);
    subscription.activate();
    return subscription;
  }

  /**
   * Fetches a file of the user's store.
   * @param {string} name  `notes/today.txt`, or `/flash/...`.
   * @param {{signal?: AbortSignal}} [options]
   * @returns {Promise<{response?: Response, error?: Failure}>}
   */
  get(name, options = {}) {
    return this.#withTicket(name, options, (ticket) => fetchFile(`${this.#url}?${ticket}`, options));
  }

  /**
   * An address under which a file can be fetched once, to be used at once: what travels meanwhile may make it void.
   * @param {string} name
   * @returns {{href?: string, error?: Failure}}
   */
  link(name) {
    const { ticket, error } = this.#ticket(name);
    return error ? { error } : { href: `${this.#url}?${ticket}` };
  }

  /**
   * Writes a file of the user's store; folders above it are made.
   * @param {string} name
   * @param {Blob} content
   * @param {import('./files.js').SendOptions} [options]
   * @returns {Promise<{error?: Failure}>}
   */
  put(name, content, options = {}) {
    return this.#withTicket(name, options, (ticket) => sendFile(`${this.#url}/put?${ticket}`, content, options));
  }

  /**
   * Writes a file the way a form does; put() is plainer and takes every content.
   * @param {Blob} file
   * @param {import('./files.js').SendOptions & {name?: string}} [options]  `name` in place of that of a File.
   * @returns {Promise<{error?: Failure}>}
   */
  upload(file, { name = file.name ?? 'upload', ...options } = {}) {
    const form = new FormData();
    form.append('file', file, name);
    return this.#withTicket('', options, (ticket) => sendFile(`${this.#url}/upload?${ticket}`, form, options));
  }

  /** While the server is lost: tries again now. */
  retryNow() {
    this.#wake();
  }

  /**
   * Ends the session at the server and forgets the password. Subscriptions stay, for whoever logs in next.
   * @returns {Promise<void>} when the server has answered, or cannot be reached
   */
  async end() {
    const tunnel = this.#close({ name: 'out' });
    await tunnel?.exchange({ uff0007: endOfSession }, { timeout: 5000 }).catch(() => {});
  }

  /** Ends the session while the page goes away: nothing is waited for. */
  endNow() {
    const tunnel = this.#close({ name: 'out' });
    tunnel?.exchange({ uff0007: endOfSession }, { timeout: 0, keepalive: true }).catch(() => {});
  }

  // The state

  #setState(state) {
    const isNews = state.name !== 'out' || this.#state.name !== 'out' || state.failure;
    this.#state = state;
    if (!isNews) return;
    for (const listener of [...this.#listeners]) guarded(() => listener(state));
  }

  #enter(tunnel, account, renewed) {
    this.#tunnel = tunnel;
    this.#heard = Date.now();
    this.#setState({ name: 'online', account, renewed });
    if (this.#tunnel !== tunnel) return;
    clearInterval(this.#watch);
    if (this.#keepAlive) {
      this.#watch = setInterval(() => this.#askWhenSilent(), watchInterval);
      this.#poll(tunnel);
    }
    for (const subscription of this.#subscriptions.values()) subscription.activate();
  }

  /** Leaves the server's session to itself; the tunnel that was in use, or null. */
  #close(state) {
    this.#round++;
    const tunnel = this.#tunnel;
    this.#tunnel = null;
    this.#credentials = null;
    clearInterval(this.#watch);
    this.#polling?.abort();
    this.#wake();
    this.#setState(state);
    for (const subscription of this.#subscriptions.values()) subscription.interrupted(this.#offline());
    return tunnel;
  }

  #offline() {
    return this.#state.name === 'lost'
      ? new Failure('unreachable', 'the server does not answer')
      : new Failure('ended', 'nobody is logged in');
  }

  // Requests

  async #open(credentials) {
    const tunnel = await Tunnel.open(this.#url);
    const fields = { s1: credentials.user, s3: credentials.password };
    const answer = await tunnel.exchange(fields, { form: this.#form, timeout: loginPatience });
    return [tunnel, accountOf(answer)];
  }

  async #call(message, options) {
    if (this.#state.name !== 'online') return { error: this.#offline() };
    const tunnel = this.#tunnel;
    try {
      const reply = await this.#exchange(tunnel, message, { form: this.#form, ...options });
      this.#heard = Date.now();
      return 'uff0022' in reply ? { error: new Failure('service', reply.sff0023 ?? '', reply.uff0022) } : { reply };
    } catch (error) {
      return { error: this.#noticed(tunnel, error, options.signal) };
    }
  }

  // What the server says of a frame that it did not take leaves open whether the session is well, so it is asked.
  async #exchange(tunnel, message, options) {
    try {
      return await tunnel.exchange(message, options);
    } catch (error) {
      if (!(error instanceof Failure) || error.kind !== 'gone') throw error;
      await tunnel.exchange(ping, { timeout: pingPatience });
      if (error instanceof Overtaken) return tunnel.exchange(message, options);
      throw new Failure('timeout', 'the connection broke before the answer came');
    }
  }

  #ticket(name) {
    if (this.#state.name !== 'online') return { error: this.#offline() };
    try {
      return { ticket: this.#tunnel.ticket(utf8.encode(name)) };
    } catch (error) {
      return { error: this.#noticed(this.#tunnel, error) };
    }
  }

  async #withTicket(name, { signal }, request) {
    const { ticket, error } = this.#ticket(name);
    if (error) return { error };
    try {
      return await request(ticket);
    } catch (error) {
      const failure = asFailure(error);
      // A server that refuses a body early may end the connection in the middle of it; that alone is no loss.
      if (failure.kind === 'unreachable' && !signal?.aborted) this.#ask();
      return { error: failure };
    }
  }

  async #poll(tunnel) {
    const polling = new AbortController();
    this.#polling = polling;
    while (this.#tunnel === tunnel && !polling.signal.aborted) {
      try {
        const options = { form: this.#pollForm, timeout: 0, signal: polling.signal };
        this.#dispatch(await this.#exchange(tunnel, {}, options));
      } catch (error) {
        if (polling.signal.aborted) return;
        if (!this.#pollsOn(error)) {
          this.#noticed(tunnel, error);
          return;
        }
      }
      this.#heard = Date.now();
    }
  }

  // With these a push is lost and the session is well: all is asked for again. What is too long for the binary form comes in
  // the other from now on.
  #pollsOn(error) {
    const isTooLong = error instanceof TooLong;
    if (!isTooLong && error.kind !== 'timeout') return false;
    if (isTooLong) this.#pollForm = 'json';
    for (const subscription of this.#subscriptions.values()) subscription.activate();
    return true;
  }

  #dispatch(message) {
    this.#subscriptions.get(message.Uff0001?.[0])?.deliver(message);
  }

  // Losing and coming back

  /** Draws the conclusions from a failed exchange, and returns it as a Failure. */
  #noticed(tunnel, error, signal) {
    const failure = asFailure(error);
    if (tunnel !== this.#tunnel || this.#state.name !== 'online' || signal?.aborted) return failure;
    if (failure.kind === 'ended' || failure.kind === 'refused') this.#close({ name: 'ended', failure });
    else if (failure.kind === 'timeout') this.#ask();
    else if (failure.kind !== 'invalid' && !(failure instanceof TooLong)) this.#restore(failure);
    return failure;
  }

  #askWhenSilent() {
    if (Date.now() - this.#heard > silence) this.#ask();
  }

  #asking = false;

  async #ask() {
    if (this.#asking || this.#state.name !== 'online') return;
    this.#asking = true;
    const tunnel = this.#tunnel;
    try {
      await tunnel.exchange(ping, { timeout: pingPatience });
      this.#heard = Date.now();
    } catch (error) {
      const failure = asFailure(error);
      const isSilent = failure.kind === 'timeout';
      this.#noticed(tunnel, isSilent ? new Failure('unreachable', failure.text) : failure);
    } finally {
      this.#asking = false;
    }
  }

  async #restore(failure) {
    const round = ++this.#round;
    const { account } = this.#state;
    const away = { tunnel: this.#tunnel, since: this.#heard, refusals: 0 };
    if (failure.kind === 'gone') this.#forget(away);
    this.#polling?.abort();
    for (let attempt = 1; round === this.#round; attempt++) {
      const pause = failure.kind === 'gone' && attempt === 1 ? 0 : pauseBefore(attempt);
      this.#setState({ name: 'lost', account, failure, attempt, retryAt: Date.now() + pause });
      if (attempt === 1) for (const subscription of this.#subscriptions.values()) subscription.interrupted(failure);
      await this.#rest(pause);
      if (round === this.#round) failure = await this.#tryAgain(round, away, account);
      if (!failure) return;
    }
  }

  // One attempt: by the session that was, then by a new one. Why it failed, or null when there is nothing left to do.
  async #tryAgain(round, away, account) {
    try {
      if (away.tunnel && (await this.#stillKnown(away))) {
        if (round === this.#round) this.#enter(away.tunnel, account, 'reconnected');
        return null;
      }
      const [tunnel, newAccount] = await this.#open(this.#credentials);
      if (round === this.#round) this.#enter(tunnel, newAccount, away.expired ? 'expired' : 'restarted');
      else tunnel.exchange({ uff0007: endOfSession }).catch(() => {});
      return null;
    } catch (error) {
      const failure = asFailure(error);
      if (round !== this.#round) return null;
      if (failure.kind !== 'refused' || ++away.refusals < refusalsBelieved) return failure;
      this.#close({ name: 'refused', failure });
      return null;
    }
  }

  async #stillKnown(away) {
    try {
      await away.tunnel.exchange(ping, { timeout: pingPatience });
      return true;
    } catch (error) {
      const { kind } = asFailure(error);
      if (kind === 'unreachable' || kind === 'timeout') throw error;
      this.#forget(away);
      return false;
    }
  }

  #forget(away) {
    away.tunnel = null;
    away.expired = Date.now() - away.since >= serverKeeps - readLate;
  }

  #rest(milliseconds) {
    return new Promise((resolve) => {
      const timer = setTimeout(resolve, milliseconds);
      this.#wake = () => {
        clearTimeout(timer);
        resolve();
      };
    });
  }
}

// Twice as long each time, and never quite the same, so that not all browsers come at once.
function pauseBefore(attempt) {
  return Math.min(firstPause * 2 ** (attempt - 1), longestPause) * (0.8 + 0.4 * Math.random());
}

function accountOf(answer) {
  return Object.freeze({
    user: answer.sff000a ?? '',
    policies: answer.uff000b ?? 0,
    fullName: answer.s11 ?? '',
    group: answer.s12 ?? '',
    host: answer.s15 ?? '',
    version: answer.s17 ?? '',
    skin: answer.sfe0009 ?? '',
  });
}

function asFailure(error) {
  if (error instanceof Failure) return error;
  throw error;
}

// An error in somebody's callback is that callback's own: it is reported, and nothing here stops for it.
function guarded(callback) {
  try {
    callback();
  } catch (error) {
    setTimeout(() => {
      throw error;
    });
  }
}

