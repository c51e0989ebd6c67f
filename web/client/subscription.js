import { errorCodes } from './failure.js';

/** @typedef {import('./fields.js').Message} Message */
/** @typedef {import('./failure.js').Failure} Failure */

/**
 * @typedef {object} SubscriptionOptions
 * @property {number[]} path  The service.
 * @property {number} command  What is sent to it to subscribe.
 * @property {Message} [fields]
 * @property {number} [stop]  The command that ends it.
 * @property {number} [within]  In ms: a service that has pushed nothing for so long is asked again, because it may have been
 *     started anew and know nothing of it.
 * @property {(reply: Message) => void} onReply  The answer to the command, also each time that it is sent again.
 * @property {(message: Message) => void} onPush  What the service pushes.
 * @property {(failure: Failure|null) => void} [onTrouble]  Why nothing comes; null when it comes again.
 */

const firstPause = 1000;
const longestPause = 8000;

/** What a service pushes to this session. Made by Session.subscribe; it holds until it is stopped, also over logins. */
export class Subscription {
  #options;
  #session;
  #active = true;
  #trouble = null;
  #timer;
  #attempt = 0;
  // Counts the commands: only the answer to the last one counts.
  #asked = 0;

  /**
   * @param {SubscriptionOptions} options
   * @param {{call: Function, isOnline: () => boolean, remove: () => void}} session
   */
  constructor(options, session) {
    this.#options = options;
    this.#session = session;
  }

  /** Why nothing comes, or null. @returns {Failure|null} */
  get trouble() {
    return this.#trouble;
  }

  /** Sends the command (again). Called by the session when it is online. */
  async activate() {
    if (!this.#active || !this.#session.isOnline()) return;
    const asked = ++this.#asked;
    clearTimeout(this.#timer);
    const { reply, error } = await this.#session.call(this.#options.command, this.#options.fields ?? {});
    if (asked !== this.#asked || !this.#active) return;
    if (error) this.#failed(error);
    else this.#arrived(() => this.#options.onReply(reply));
  }

  /**
   * A push. Called by the session. Whoever is logged in anywhere can address this session as services do, so it counts only
   * from the program that was asked: the broker vouches for the first piece of the sender's path.
   */
  deliver(message) {
    if (!this.#active || message.Uff0002?.[0] !== this.#options.path[0]) return;
    this.#arrived(() => this.#options.onPush(message));
  }

  /** The session is lost or has ended; it calls activate() when it is back. Called by the session. */
  interrupted(failure) {
    this.#asked++;
    clearTimeout(this.#timer);
    this.#setTrouble(failure);
  }

  /** Ends it; the service is told if it can be. Nothing is called back after this. */
  stop() {
    if (!this.#active) return;
    this.#active = false;
    clearTimeout(this.#timer);
    this.#session.remove();
    if (this.#options.stop !== undefined) this.#session.call(this.#options.stop, {});
  }

  #arrived(tell) {
    this.#attempt = 0;
    this.#setTrouble(null);
    const { within } = this.#options;
    clearTimeout(this.#timer);
    if (within) this.#timer = setTimeout(() => this.activate(), within);
    this.#guarded(tell);
  }

  #failed(error) {
    this.#setTrouble(error);
    if (!mayPass(error)) return;
    const pause = Math.min(firstPause * 2 ** this.#attempt++, longestPause);
    this.#timer = setTimeout(() => this.activate(), pause);
  }

  #setTrouble(failure) {
    if (!failure && !this.#trouble) return;
    this.#trouble = failure;
    this.#guarded(() => this.#options.onTrouble?.(failure));
  }

  #guarded(callback) {
    if (!this.#active) return;
    try {
      callback();
    } catch (error) {
      setTimeout(() => {
        throw error;
      });
    }
  }
}

// A service that is not there may come; one that says no will say it again.
function mayPass(error) {
  return error.kind !== 'service' || error.serviceAway || error.code === errorCodes.noSuchService || error.code === errorCodes.tooMuch;
}
