/**
 * Why something did not work, as a value that a caller can act on.
 *
 * | kind          | what happened                                               | what to do                             |
 * |---------------|-------------------------------------------------------------|----------------------------------------|
 * | `refused`     | the login was not accepted                                  | ask for the password again             |
 * | `gone`        | the server does not know the session any more               | nothing: the session is renewed        |
 * | `ended`       | the session was ended, by this side or at its demand        | log in again                           |
 * | `unreachable` | no answer: no network, no server, or no tunnel at this URL  | nothing: the session tries again       |
 * | `timeout`     | no answer in time; whether it was done is not known         | ask again, if that does no harm        |
 * | `service`     | the service answered with an error; `code` says which       | as the service's documentation says    |
 * | `malformed`   | what came cannot be understood                              | report it                              |
 * | `invalid`     | the message cannot be sent: a value does not fit its field  | correct it                             |
 *
 * @typedef {'refused'|'gone'|'ended'|'unreachable'|'timeout'|'service'|'malformed'|'invalid'} FailureKind
 */
export class Failure extends Error {
  /**
   * @param {FailureKind} kind
   * @param {string} text  What happened, in words for a log; of a service error the text that the service gave.
   * @param {number} [code]  Of a service error its code; of a refused HTTP request its status; else 0.
   */
  constructor(kind, text, code = 0) {
    super(text);
    this.name = 'Failure';
    this.kind = kind;
    this.text = text;
    this.code = code;
  }

  /** Whether a service answered that it cannot be reached: it is not running, or the broker is not. */
  get serviceAway() {
    return this.kind === 'service' && (this.code === errorCodes.unreachable || this.code === errorCodes.timeout);
  }
}

/** Error codes of the bus and of the system's services. */
export const errorCodes = Object.freeze({
  noSuchService: 0xfe0006,
  unknownCommand: 0xfe0007,
  notAllowed: 0xfe0009,
  notWellFormed: 0xfe0010,
  notStored: 0xfe0011,
  tooMuch: 0xfe0012,
  conflict: 0xfe0013,
  timeout: 0xfe000d,
  unreachable: 0xfe000e,
});
