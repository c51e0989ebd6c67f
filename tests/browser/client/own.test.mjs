// Changing the server that the page came through, against a service manager made of a record and a clock that is turned by hand.
import assert from 'node:assert/strict';
import { afterEach, beforeEach, mock, test } from 'node:test';

import { changeOwn } from '../../../web/app/servers/own.js';
import { readRecord, writeRecord } from '../../../web/app/servers/record.js';
import { Failure, commands, parseAddress } from '../../../web/client/index.js';

const before = { name: 'http', enabled: true, port: 80, certificate: 1, allowed: ['127.0.0.0/8'] };
const wanted = { ...before, allowed: ['10.0.0.0/8'] };

/** What the page says of a record, whatever the manager adds to it. */
const valuesOf = (message) => writeRecord(readRecord(message));

/** A service manager that takes trials back as the real one does, and the session to it. */
class Manager {
  state = { name: 'online' };
  stored = writeRecord(before);
  trial = null;
  sets = [];

  get record() {
    if (this.trial && Date.now() >= this.trial.end) this.trial = null;
    return this.trial?.record ?? this.stored;
  }

  async call(path, command, fields) {
    if (command === commands.get) return { reply: this.record === this.stored ? this.stored : { ...this.record, u12: 1 } };
    assert.equal(command, commands.set);
    this.sets.push(fields);
    const { u12, ...record } = fields;
    if (u12) this.trial = { record, end: Date.now() + u12 * 1000 };
    else [this.stored, this.trial] = [record, null];
    return { reply: {} };
  }

  retryNow() {}
}

// A web server that nobody can find: only the proof tells who comes in.
const server = { call: async () => ({ error: new Failure('service', 'away') }) };

/** Time that passes when it is told to. Turned by hand, as not every Node has such a clock. */
class Time {
  now = 0;
  #due = new Set();

  take() {
    mock.method(Date, 'now', () => this.now);
    mock.method(globalThis, 'clearTimeout', (timer) => this.#due.delete(timer));
    mock.method(globalThis, 'setTimeout', (run, pause) => {
      const timer = { run, at: this.now + pause };
      this.#due.add(timer);
      return timer;
    });
  }

  pass(pause) {
    this.now += pause;
    for (const timer of [...this.#due].filter(({ at }) => at <= this.now)) {
      this.#due.delete(timer);
      timer.run();
    }
  }
}

let time;
let manager;
let said;
let comesIn;

beforeEach(() => {
  time = new Time();
  time.take();
  manager = new Manager();
  said = [];
  comesIn = () => true;
  mock.method(globalThis, 'fetch', async () => ({ ok: comesIn() }));
});
afterEach(() => mock.restoreAll());

/** Lets a promise come to its end while time goes on in steps. */
async function passing(promise, step) {
  let over = false;
  const result = promise.finally(() => (over = true));
  for (let i = 0; !over && i < 1000; i++) {
    await new Promise((resolve) => setImmediate(resolve));
    if (!over) time.pass(step);
  }
  assert.ok(over);
  return result;
}

const make = (record) => changeOwn(manager, server, before, record, (text) => said.push(text));

test('a change is tried, proved and made', async () => {
  assert.deepEqual(await passing(make(wanted), 500), {});
  assert.equal(manager.sets.length, 2);
  assert.equal(manager.sets[0].u12, 20);
  assert.equal('u12' in manager.sets[1], false);
  assert.deepEqual(valuesOf(manager.record), writeRecord(wanted));
});

test('what keeps the browser out is taken back by nobody but the manager', async () => {
  comesIn = () => valuesOf(manager.record).M6[0].u1 === 0x7f000000;
  const { wrong } = await passing(make(wanted), 500);
  assert.equal(wrong, 'This browser would have been locked out. Nothing has been changed.');
  assert.equal(manager.sets.length, 1);
  assert.match(said.at(-1), /Taking it back, which takes up to \d+ s …$/);
  assert.deepEqual(valuesOf(manager.record), writeRecord(before));
});

test('who comes in after the trial has proved nothing', async () => {
  comesIn = () => valuesOf(manager.record).M6[0].u1 === 0x7f000000;
  const { wrong } = await passing(make(wanted), 60000);
  assert.equal(wrong, 'The trial was over before this browser had come in. Nothing has been changed.');
  assert.equal(manager.sets.length, 1);
  assert.deepEqual(valuesOf(manager.record), writeRecord(before));
});

test('who comes in after the manager was started anew has proved nothing', async () => {
  comesIn = () => {
    manager.trial = null;
    return true;
  };
  const { wrong } = await passing(make(wanted), 500);
  assert.equal(wrong, 'The trial was over before this browser had come in. Nothing has been changed.');
  assert.equal(manager.sets.length, 1);
  assert.deepEqual(valuesOf(manager.record), writeRecord(before));
});

test('another trial than the own one proves nothing', async () => {
  const other = { ...before, allowed: [] };
  comesIn = () => {
    manager.trial.record = writeRecord(other);
    return true;
  };
  const { wrong } = await passing(make(wanted), 500);
  assert.equal(wrong, 'The trial was over before this browser had come in. Nothing has been changed.');
  assert.equal(manager.sets.length, 1);
});

test('when the answers are lost the record tells what has become of it', async () => {
  const answering = manager.call;
  const lost = new Failure('unreachable', 'no answer');
  for (const [losing, expected] of [
    [(fields) => 'u12' in fields, { wrong: 'The server does not answer. Nothing has been changed.' }],
    [(fields) => !('u12' in fields), {}],
  ]) {
    manager = new Manager();
    manager.call = async (path, command, fields) => {
      const answer = await answering.call(manager, path, command, fields);
      return command === commands.set && losing(fields) ? { error: lost } : answer;
    };
    assert.deepEqual(await passing(make(wanted), 500), expected);
  }
});

test('a record that somebody removes meanwhile is not waited for', async () => {
  const answering = manager.call;
  manager.call = async (path, command, fields) =>
    command === commands.get ? { error: new Failure('service', 'no such service', 0xfe0006) } : answering.call(manager, path, command, fields);
  comesIn = () => false;
  const { wrong } = await passing(make(wanted), 500);
  assert.match(wrong, /^This browser would have been locked out\. /);
  assert.doesNotMatch(wrong, /Nothing has been changed/);
});

test('what the servers cannot take is taken back at once', async () => {
  const answering = manager.call;
  manager.call = async (path, command, fields) => {
    const answer = await answering.call(manager, path, command, fields);
    return fields.u12 ? { reply: { s10: 'cannot bind service connection' } } : answer;
  };
  const { wrong } = await passing(make(wanted), 500);
  assert.equal(wrong, 'The port is taken by something else, or may not be used. Nothing has been changed.');
  assert.equal(manager.trial, null);
  assert.deepEqual(valuesOf(manager.record), writeRecord(before));
});

test('what is refused has not been tried', async () => {
  manager.call = async () => ({ error: new Failure('service', 'not allowed', 0xfe0009) });
  const { wrong } = await passing(make(wanted), 500);
  assert.equal(wrong, 'Not allowed. Nothing has been changed.');
});

test('an address that is not among the wanted ones is not even tried', async () => {
  const knowing = (address) => ({ call: async () => ({ reply: { M1: [{ u1: 1 }, { u1: 2, b7: true, a3: parseAddress(address) }] } }) });
  const tell = (text) => said.push(text);
  const { wrong } = await passing(changeOwn(manager, knowing('127.0.0.1'), before, wanted, tell), 500);
  assert.equal(wrong, 'This browser would have been locked out. Nothing has been changed.');
  assert.equal(manager.sets.length, 0);
  // Nobody knows who is behind a relay; and who came in past the prefixes is not judged by them.
  for (const address of ['::', '192.0.2.1']) {
    manager = new Manager();
    assert.deepEqual(await passing(changeOwn(manager, knowing(address), before, wanted, tell), 500), {});
  }
});
