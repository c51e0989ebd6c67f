// The programs of the system as their supervisor tells of them, and the way to the one that has no fixed id on the bus.
import { Failure, commands, errorCodes } from '../client/index.js';
import { failureText } from './forms.js';

const supervisor = [2, 1];

/**
 * @typedef {object} Program
 * @property {string} name
 * @property {number} bus  Its id on the bus; 0 while it is not there.
 * @property {number} process  0 while it does not run.
 * @property {number} restarts  How often it was started again.
 * @property {number} age  In ms, since its start.
 * @property {boolean} answers
 * @property {number} sent  Messages on the bus.
 * @property {number} received
 * @property {number} bounced  Messages of its own that came back.
 */

const readProgram = (message) => ({
  name: message.s1,
  bus: message.u2 ?? 0,
  process: message.u3 ?? 0,
  restarts: message.u4 ?? 0,
  age: Number(message.q5 ?? 0),
  answers: message.b6 === true,
  sent: Number(message.q7 ?? 0),
  received: Number(message.qb ?? 0),
  bounced: Number(message.q9 ?? 0),
});

/**
 * @param {import('../client/index.js').Session} session
 * @returns {Promise<{programs?: Program[], error?: Failure}>}
 */
export async function askPrograms(session) {
  const { reply, error } = await session.call(supervisor, commands.get);
  return error ? { error } : { programs: (reply.M1 ?? []).map(readProgram) };
}

/** Calls handlers of the web server, which gets another id on the bus each time it is started. */
export class WebServer {
  #session;
  #id = 0;

  /** @param {import('../client/index.js').Session} session */
  constructor(session) {
    this.#session = session;
  }

  /** As Session.call. `supervisorAway` is true when the server could not be looked for. */
  async call(handler, command, fields) {
    if (!this.#id) {
      const { programs, error } = await askPrograms(this.#session);
      if (error) return { error, supervisorAway: true };
      this.#id = programs.find(({ name }) => name === 'www')?.bus ?? 0;
      if (!this.#id) return { error: new Failure('service', 'the server is not on the bus', errorCodes.unreachable) };
    }
    const answer = await this.#session.call([this.#id, handler], command, fields);
    if (answer.error) this.#id = 0;
    return answer;
  }
}

/** What a failure means, with the name of who was asked. */
export const troubleText = (failure, who) => (failure.serviceAway ? `${who} does not answer.` : failureText(failure));
