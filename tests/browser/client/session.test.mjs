// A session against a stand-in for the server that does what each test wants: how it is lost, comes back and ends.
import assert from 'node:assert/strict';
import { afterEach, beforeEach, test } from 'node:test';

import './support.mjs';
import { until } from '../control.mjs';
import { flatten, unflattenPayload } from '../../../web/client/binary_form.js';
import { bytesToText, join, readU32, writeU32 } from '../../../web/client/bytes.js';
import { FrameReader, FrameWriter } from '../../../web/client/frames.js';
import { Session } from '../../../web/client/index.js';
import { directionCipher, multiply, randomScalar } from '../../../web/client/keys.js';

const [helper, echo, subscribe, unsubscribe] = [[1000, 1], 1, 2, 3];

/** Speaks the server's side of the tunnel in binary form. */
class Server {
  sessions = new Map();
  nextId = 7;
  isDown = false;
  isPortal = false;
  refuses = false;
  logins = 0;
  asked = [];
  requests = [];
  // How many of the next requests break: before the server has them, or after it has done what they ask.
  breaksBefore = 0;
  breaksAfter = 0;

  fetch = async (url, init) => {
    this.requests.push({ url: String(url), keepalive: init.keepalive === true });
    if (this.isDown || this.breaksBefore-- > 0) throw new TypeError('fetch failed');
    const isBroken = this.breaksAfter-- > 0;
    const answer = this.#respond(init);
    if (isBroken) throw new TypeError('terminated');
    return answer;
  };

  #respond(init) {
    if (this.isPortal) return new Response('<html>Please accept our terms</html>');
    const body = new Uint8Array(init.body);
    const id = readU32(body, 0);
    if (id === 0) return this.#agree(body.subarray(8));
    const session = this.sessions.get(id);
    const payload = session?.reader.open(body);
    return payload ? this.#take(session, unflattenPayload(payload), init.signal) : new Response('', { status: 500 });
  }

  #agree(publicValue) {
    const scalar = randomScalar();
    const secret = multiply(scalar, publicValue);
    const id = this.nextId++;
    this.sessions.set(id, {
      id,
      reader: new FrameReader(id, directionCipher(secret, true)),
      writer: new FrameWriter(id, directionCipher(secret, false)),
      polls: [],
    });
    const head = new Uint8Array(8);
    writeU32(head, 0, id);
    return new Response(bytesToText(join(head, multiply(scalar))));
  }

  #take(session, message, signal) {
    if (!session.user) return this.#logIn(session, message);
    if (message.Uff0001) return this.#answer(session, this.#serve(message));
    if (message.uff0007 === 0xfe0014) {
      this.sessions.delete(session.id);
      return this.#answer(session, {});
    }
    return new Promise((resolve, reject) => {
      session.polls.push(resolve);
      signal.addEventListener('abort', () => reject(new TypeError('aborted')));
    });
  }

  #logIn(session, { s1, s3 }) {
    this.logins++;
    if (this.refuses || s3 !== 'right') {
      this.sessions.delete(session.id);
      return new Response('', { status: 403 });
    }
    session.user = s1;
    return this.#answer(session, { Uff0001: [session.id], sff000a: s1, uff000b: 0x10, s15: 'box' });
  }

  #serve(message) {
    if (message.Uff0001.length === 0) return { uff0022: 0xfe000e, sff0023: 'unreachable' };
    this.asked.push(message);
    return { u1: message.u1 };
  }

  #answer(session, message) {
    const bytes = flatten(message);
    bytes[0] = bytes.length >>> 8;
    bytes[1] = bytes.length;
    return new Response(session.writer.seal(bytes));
  }

  get only() {
    assert.equal(this.sessions.size, 1);
    return [...this.sessions.values()][0];
  }

  // From the service, unless the message says otherwise.
  async push(session, message) {
    await until(() => session.polls.length, 'a poll');
    session.polls.shift()(this.#answer(session, { Uff0002: helper, ...message }));
  }

  // What a server that is started anew knows: nothing. Its connections end.
  forget() {
    const polls = [...this.sessions.values()].flatMap((session) => session.polls);
    this.sessions.clear();
    for (const resolve of polls) resolve(Promise.reject(new TypeError('terminated')));
  }
}

const { fetch } = globalThis;
let server, session, states;
beforeEach(async () => {
  server = new Server();
  globalThis.fetch = server.fetch;
  session = new Session({ url: 'http://box/jsproxy' });
  states = [];
  session.onState(({ name, renewed, failure }) => states.push([name, renewed ?? failure?.kind].filter(Boolean).join(': ')));
});
afterEach(async () => {
  server.isDown = server.isPortal = false;
  await session.end();
  globalThis.fetch = fetch;
});

const logIn = async () => {
  const { account, error } = await session.login('ada', 'right');
  assert.equal(error, undefined);
  assert.deepEqual([account.user, account.policies, account.host], ['ada', 0x10, 'box']);
};
const isName = (name) => until(() => session.state.name === name, `the session to be ${name}`);

/** A subscription that keeps what it is told. */
function subscribed(options = {}) {
  const seen = { replies: [], pushes: [], troubles: [] };
  seen.subscription = session.subscribe({
    path: helper,
    command: subscribe,
    fields: { u1: 5 },
    stop: unsubscribe,
    onReply: (reply) => seen.replies.push(reply.u1),
    onPush: (message) => seen.pushes.push(message.u1),
    onTrouble: (failure) => seen.troubles.push(failure?.kind ?? 'over'),
    ...options,
  });
  return seen;
}

test('states of a login, right and wrong', async () => {
  assert.equal((await session.login('ada', 'wrong')).error.kind, 'refused');
  await logIn();
  await session.end();
  assert.deepEqual(states, ['connecting', 'out: refused', 'connecting', 'online', 'out']);
  assert.equal(server.sessions.size, 0);
});

test('a subscription is told its answer and its pushes, and those of others are not mixed in', async () => {
  const early = subscribed();
  await logIn();
  const late = subscribed();
  await until(() => early.replies.length && late.replies.length, 'both answers');
  const channels = server.asked.map((message) => message.Uff0002);
  assert.notDeepEqual(channels[0], channels[1]);
  await server.push(server.only, { Uff0001: channels[0], u1: 1 });
  await server.push(server.only, { Uff0001: channels[1], u1: 2 });
  await server.push(server.only, { Uff0001: [99], u1: 3 });
  await server.push(server.only, { u1: 4 });
  // Of another session of the same server, and of nobody.
  await server.push(server.only, { Uff0001: channels[0], Uff0002: [1005, 1, 7], u1: 5 });
  await server.push(server.only, { Uff0001: channels[0], Uff0002: [], u1: 6 });
  await server.push(server.only, { Uff0001: channels[1], u1: 7 });
  await until(() => late.pushes.length === 2, 'the last push');
  assert.deepEqual([early.pushes, late.pushes], [[1], [2, 7]]);
  late.subscription.stop();
  await until(() => server.asked.at(-1).uff0007 === unsubscribe, 'the service to be told');
  assert.deepEqual(server.asked.at(-1).Uff0002, channels[1]);
});

test('a server that has forgotten everything is logged in to again', async () => {
  await logIn();
  const seen = subscribed();
  await until(() => seen.replies.length === 1, 'the answer');
  server.forget();
  await until(() => seen.replies.length === 2, 'the answer again');
  assert.deepEqual(states, ['connecting', 'online', 'lost: gone', 'online: restarted']);
  assert.deepEqual(seen.troubles, ['gone', 'over']);
  assert.equal(server.logins, 2);
  assert.equal((await session.call(helper, echo, { u1: 9 })).reply.u1, 9);
});

test('a call finds out that the session is gone, and says so', async () => {
  session = new Session({ url: 'http://box/jsproxy', keepAlive: false });
  await logIn();
  server.forget();
  assert.equal((await session.call(helper, echo)).error.kind, 'gone');
  await isName('online');
  assert.equal(session.state.renewed, 'restarted');
});

test('a server that was away and knows the session needs no login', async () => {
  await logIn();
  const { id } = session;
  const seen = subscribed();
  await until(() => seen.replies.length === 1, 'the answer');
  server.isDown = true;
  assert.equal((await session.call(helper, echo)).error.kind, 'unreachable');
  await until(() => session.state.attempt === 2, 'the second attempt');
  assert.ok(session.state.retryAt > Date.now());
  const before = server.requests.length;
  assert.equal((await session.call(helper, echo)).error.kind, 'unreachable');
  assert.equal(server.requests.length, before, 'that is said at once');
  server.isDown = false;
  session.retryNow();
  await isName('online');
  assert.equal(session.state.renewed, 'reconnected');
  assert.deepEqual([session.id, server.logins], [id, 1]);
  await until(() => seen.replies.length === 2, 'the answer again: pushes may have been lost');
});

test('a connection that ends before the server has the request costs nothing', async () => {
  server.breaksBefore = 1;
  await logIn();
  for (let i = 0; i < 5; i++) {
    server.breaksBefore = 1;
    assert.equal((await session.call(helper, echo, { u1: i })).reply.u1, i);
  }
  assert.deepEqual(server.asked.map(({ u1 }) => u1), [0, 1, 2, 3, 4]);
  assert.deepEqual(states, ['connecting', 'online']);
});

test('a connection that ends before the answer comes has nothing done twice', async () => {
  await logIn();
  await until(() => server.only.polls.length === 1, 'the poll');
  server.breaksAfter = 1;
  assert.equal((await session.call(helper, echo, { u1: 1 })).error.kind, 'timeout');
  assert.equal((await session.call(helper, echo, { u1: 2 })).reply.u1, 2);
  assert.deepEqual(server.asked.map(({ u1 }) => u1), [1, 2]);
  assert.deepEqual(states, ['connecting', 'online']);
});

test('a poll whose connection ends has the subscriptions renewed', async () => {
  await logIn();
  const seen = subscribed();
  await until(() => seen.replies.length === 1 && server.only.polls.length === 1, 'the poll');
  server.only.polls.shift()(Promise.reject(new TypeError('terminated')));
  await until(() => seen.replies.length === 2 && server.only.polls.length === 1, 'everything again, and the next poll');
  assert.deepEqual(states, ['connecting', 'online']);
});

test('somebody else who answers is no server', async () => {
  await logIn();
  server.isPortal = true;
  assert.equal((await session.call(helper, echo)).error.kind, 'malformed');
  await isName('lost');
  await until(() => session.state.attempt === 2, 'the second attempt');
  assert.equal(session.state.failure.kind, 'malformed');
  server.isPortal = false;
  session.retryNow();
  await isName('online');
  assert.equal(session.state.renewed, 'restarted');
});

test('a login that does not hold any more is tried a few times, and then given up', async () => {
  await logIn();
  server.refuses = true;
  server.forget();
  await isName('lost');
  while (session.state.name === 'lost') {
    session.retryNow();
    await new Promise((resolve) => setTimeout(resolve, 20));
  }
  assert.equal(session.state.name, 'refused');
  assert.equal(server.logins, 1 + 4);
  server.refuses = false;
  await new Promise((resolve) => setTimeout(resolve, 100));
  assert.equal(server.logins, 1 + 4, 'the password is forgotten');
});

test('a changed password is the one to log in with again', async () => {
  await logIn();
  session.passwordChanged('another');
  server.forget();
  await isName('lost');
  await until(() => server.logins === 2, 'the next login');
  assert.equal(session.state.name, 'lost');
  session.passwordChanged('right');
  session.retryNow();
  await isName('online');
});

test('a session that the server ends is over', async () => {
  await logIn();
  const seen = subscribed();
  await until(() => seen.replies.length === 1 && server.only.polls.length === 1, 'the poll');
  server.only.polls.shift()(new Response('', { status: 410 }));
  await isName('ended');
  const before = server.requests.length;
  await new Promise((resolve) => setTimeout(resolve, 700));
  assert.equal(server.requests.length, before, 'nothing more is asked');
  assert.deepEqual(seen.troubles, ['ended']);
  await logIn();
  await until(() => seen.replies.length === 2, 'the subscription to hold over the next login');
});

test('logging out while the server is lost stays out', async () => {
  await logIn();
  server.isDown = true;
  await session.call(helper, echo);
  await isName('lost');
  const ended = session.end();
  assert.equal(session.state.name, 'out');
  server.isDown = false;
  await ended;
  await new Promise((resolve) => setTimeout(resolve, 1200));
  assert.equal(session.state.name, 'out');
  assert.equal(server.logins, 1);
});

test('a page that goes away has the browser finish the end', async () => {
  await logIn();
  session.endNow();
  assert.equal(session.state.name, 'out');
  await until(() => server.sessions.size === 0, 'the end');
  assert.equal(server.requests.at(-1).keepalive, true);
});

test('a service that says nothing for too long is asked again', async () => {
  await logIn();
  const seen = subscribed({ within: 150 });
  await until(() => seen.replies.length >= 3, 'it to be asked again');
  assert.deepEqual(seen.troubles, []);
  seen.subscription.stop();
  const count = seen.replies.length;
  await new Promise((resolve) => setTimeout(resolve, 400));
  assert.equal(seen.replies.length, count);
});
