// What the status service tells, as docs/services.md has it, in names instead of numbers.
import { addressText, isIPv4 } from '../../client/index.js';

export const path = [24, 1];
export const subscribe = 0x20011;
export const unsubscribe = 0x20012;
export const objects = Object.freeze({ system: 1, memory: 2, storage: 3, interfaces: 4, processes: 5 });

/** The objects of an answer or a push, by number. */
export function objectsOf(message) {
  return new Map((message.M1 ?? []).map((object) => [object.ufe0001, object]));
}

/** Why an object has no fields, or undefined. */
export const reasonOf = (object) => object.sfe000b;

export const readSystem = (object) => ({
  host: object.s1,
  version: object.s2,
  kernel: object.s3,
  architecture: object.s4,
  uptime: Number(object.q5),
  load: [object.u6, object.u7, object.u8].map((hundredths) => hundredths / 100),
  processors: object.u9,
  busy: Number(object.qa),
  total: Number(object.qb),
  running: object.uc,
  tasks: object.ud,
});

export const readMemory = (object) => ({
  total: Number(object.q1),
  available: Number(object.q2),
  unused: Number(object.q3),
  cached: Number(object.q4) + Number(object.q5),
  swap: Number(object.q6),
  swapUnused: Number(object.q7),
});

export const readStorage = (object) =>
  object.M1.map((entry) => ({
    place: entry.s1,
    type: entry.s2,
    device: entry.s3,
    total: Number(entry.q4),
    unused: Number(entry.q5),
    writable: Number(entry.q6),
    readOnly: entry.b9 === true,
  }));

export const readInterfaces = (object) =>
  object.M1.map((entry) => ({
    name: entry.s1,
    up: entry.b3 === true,
    link: entry.b4 === true,
    hardware: entry.s5,
    addresses: (entry.A7 ?? []).map((address, i) => `${addressText(address)}/${entry.U8[i]}`),
    hasIPv4: (entry.A7 ?? []).some(isIPv4),
    received: Number(entry.q9),
    sent: Number(entry.qd),
    errors: Number(entry.qb) + Number(entry.qf),
    dropped: Number(entry.qc) + Number(entry.q10),
    loopback: entry.b11 === true,
  }));

export const readProcesses = (object) => ({
  count: object.u2,
  list: object.M1.map((entry) => ({
    id: entry.u1,
    name: entry.s2,
    state: entry.s3,
    time: Number(entry.q5),
    memory: Number(entry.q6),
    threads: entry.u7,
    began: Number(entry.q8),
  })),
});
