// What the web server counts, in names instead of numbers.

/** The handler of the server that tells them. */
export const countersHandler = 2;

const number = (value) => Number(value ?? 0);

/** One of the servers. */
const readServer = (message) => ({
  name: message.s1,
  enabled: message.b2 === true,
  port: message.u3 ?? 0,
  accepted: number(message.q5),
  refused: number(message.q6),
  answers: [message.q7, message.q8, message.q9, message.qa].map(number),
  received: number(message.qb),
  sent: number(message.qc),
  timeouts: [message.qd, message.qe, message.qf].map(number),
  pauses: number(message.q10),
  open: message.u11 ?? 0,
});

export const readCounters = (message) => ({
  servers: (message.M1 ?? []).map(readServer),
  open: message.u2 ?? 0,
  limit: message.u3 ?? 0,
  age: number(message.q4),
  linesDropped: number(message.q5),
});

/** The classes of answers, in the order of a server's `answers`. */
export const answerClasses = ['Good (2xx)', 'Moved (3xx)', 'Wrong (4xx)', 'Failed (5xx)'];

export const sum = (values) => values.reduce((total, value) => total + value, 0);
