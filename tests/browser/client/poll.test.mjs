// Asking a service again and again: not while nobody sees it, never twice at a time, and for good only when it is stopped.
import assert from 'node:assert/strict';
import { beforeEach, test } from 'node:test';

import { poll } from '../../../web/app/poll.js';
import { until } from '../control.mjs';

// As much of a page and of a session as asking needs.
let faults;
let session;

beforeEach(() => {
  faults = [];
  globalThis.document = Object.assign(new EventTarget(), { hidden: false });
  globalThis.reportError = (fault) => faults.push(fault);
  const listeners = new Set();
  session = {
    state: { name: 'online' },
    onState(listener) {
      listeners.add(listener);
      return () => listeners.delete(listener);
    },
    become(name) {
      session.state = { name };
      for (const listener of listeners) listener(session.state);
    },
    listeners,
  };
});

function hide(hidden) {
  document.hidden = hidden;
  document.dispatchEvent(new Event('visibilitychange'));
}

/** What is asked is answered when the test says so. */
function makeService() {
  const waiting = [];
  const service = {
    asked: 0,
    ask() {
      service.asked++;
      return new Promise((resolve, reject) => waiting.push({ resolve, reject }));
    },
    answer: () => waiting.shift().resolve(),
    fail: (fault) => waiting.shift().reject(fault),
    waits: () => waiting.length,
  };
  return service;
}

test('one question at a time, and the next one after the answer', async () => {
  const service = makeService();
  const { now, stop } = poll(session, 1, service.ask);
  assert.equal(service.asked, 1);
  now();
  now();
  assert.equal(service.waits(), 1);
  service.answer();
  await until(() => service.asked === 2, 'the second question');
  service.answer();
  await until(() => service.asked === 3, 'the third question');
  assert.equal(service.waits(), 1);
  stop();
});

test('an answer that cannot be taken is told, and the asking goes on', async () => {
  const service = makeService();
  const { stop } = poll(session, 1, service.ask);
  const fault = new RangeError('no such time');
  service.fail(fault);
  await until(() => service.asked === 2, 'another question');
  assert.deepEqual(faults, [fault]);
  stop();
});

test('nothing is asked while the page is hidden or the session away, and at once when it is back', async () => {
  const service = makeService();
  hide(true);
  const { stop } = poll(session, 1, service.ask);
  assert.equal(service.asked, 0);
  hide(false);
  assert.equal(service.asked, 1);
  session.become('lost');
  service.answer();
  await new Promise((resolve) => setTimeout(resolve, 20));
  assert.equal(service.asked, 1);
  session.become('online');
  assert.equal(service.asked, 2);
  stop();
});

test('once it is stopped nothing is asked, and nobody listens any more', async () => {
  const service = makeService();
  const { now, stop } = poll(session, 1, service.ask);
  stop();
  service.answer();
  now();
  hide(false);
  session.become('online');
  await new Promise((resolve) => setTimeout(resolve, 20));
  assert.equal(service.asked, 1);
  assert.equal(session.listeners.size, 0);
});
