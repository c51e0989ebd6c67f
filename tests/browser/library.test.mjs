// The client library in Node against a real server.
import assert from 'node:assert/strict';
import { afterEach, before, test } from 'node:test';

import './client/support.mjs';
import { account, control, origin, until } from './control.mjs';
import { InvalidMessage, Session, Tunnel, commands, errorCodes } from '../../web/client/index.js';

const url = `${origin}/jsproxy`;
const echo = 1, late = 2, silent = 3, error = 4, long = 5, push = 6;
let helper;
before(async () => (helper = await control.helper_path()));

// A session that is left over would keep the process from ending.
const opened = [];
afterEach(() => Promise.all(opened.splice(0).map((session) => session.end())));

const open = async (options = {}) => {
  const session = new Session({ url, ...options });
  opened.push(session);
  const { error: failure } = await session.login(account.user, account.password);
  assert.equal(failure, undefined);
  return session;
};

// What is echoed comes back among the header fields of the reply.
const own = (message) => Object.fromEntries(Object.entries(message).filter(([key]) => !/^.ff00/.test(key)));

const everyField = {
  b1: true, b2: false, u3: 0xffffffff, q4: (1n << 64n) - 1n, a5: Uint8Array.from({ length: 16 }, (_, i) => 255 - i), s6: "it's \\ ü\n\r\"",
  r7: Uint8Array.from({ length: 300 }, (_, i) => i), m8: { u1: 1, m2: { s3: 'deep' } }, B9: [true, false, true], Ua: [0, 1, 0xffffffff],
  Qb: [1n, (1n << 63n) - 1n], Ac: [new Uint8Array(16)], Sd: ['', 'x'], Me: [{}, { u1: 2 }], Rf: [new Uint8Array(), Uint8Array.of(0, 255)],
};

for (const form of ['binary', 'json']) {
  test(`a login, a call and an end in ${form} form`, async () => {
    const session = await open({ form });
    const known = await control.end_notices();
    const { id, state } = session;
    assert.equal(state.name, 'online');
    assert.equal(state.account.user, account.user);
    assert.equal(state.account.group, 'administrators');
    assert.equal(state.account.policies, 0x43d0);
    assert.equal(state.account.skin, 'admin');
    assert.ok(state.account.host.length > 0 && state.account.version.length > 0);
    const { reply } = await session.call(helper, echo, everyField);
    assert.deepEqual(own(reply), everyField);
    await session.end();
    assert.equal(session.state.name, 'out');
    await until(async () => (await control.end_notices()).length > known.length, 'the notice of the end');
    assert.equal((await control.end_notices()).at(-1), id);
    assert.equal((await session.call(helper, echo)).error.kind, 'ended');
  });
}

test('answers come in any order', async () => {
  const session = await open();
  const calls = Array.from({ length: 12 }, (_, i) => session.call(helper, i % 2 ? late : echo, { u1: i, r2: new Uint8Array(i * 100) }));
  for (const [i, call] of calls.entries()) {
    const { reply, error: failure } = await call;
    assert.equal(failure, undefined);
    assert.equal(reply.u1, i);
    assert.equal(reply.r2.length, i * 100);
  }
  await session.end();
});

test('much may be on its way at once', async () => {
  const session = await open();
  const calls = Array.from({ length: 20 }, (_, i) => session.call(helper, echo, { u1: i, r2: new Uint8Array(30000) }));
  for (const [i, call] of calls.entries()) assert.equal((await call).reply?.u1, i);
  await session.end();
});

test('a request that was overtaken by too many others is sent again', async () => {
  const session = await open();
  const { fetch } = globalThis;
  let held = 0;
  let release;
  const released = new Promise((resolve) => (release = resolve));
  globalThis.fetch = async (...args) => {
    const isPoll = args[1].body.length < 20;
    if (!isPoll && held++ === 0) await released;
    return fetch(...args);
  };
  const overtaken = session.call(helper, echo, { u1: 1 }, { timeout: 60000 });
  await until(() => held > 0, 'the request to be held');
  globalThis.fetch = fetch;
  for (let i = 0; i < 4; i++) assert.equal((await session.call(helper, echo, { r1: new Uint8Array(25000) })).error, undefined);
  release();
  assert.equal((await overtaken).reply?.u1, 1);
  assert.ok((await control.log_lines('www')).includes('bad seq'), 'the first try came too late');
  assert.equal(session.state.renewed, null, 'the session is the same');
  await session.end();
});

test('requests that were broken off leave the session whole', async () => {
  const session = await open();
  for (let i = 0; i < 10; i++) {
    const abort = new AbortController();
    const broken = session.call(helper, silent, { r1: new Uint8Array(9000) }, { signal: abort.signal });
    setTimeout(() => abort.abort(), i * 5);
    assert.equal((await broken).error.kind, 'unreachable');
    assert.equal((await session.call(helper, echo, { u1: i })).reply.u1, i);
  }
  assert.equal(session.state.name, 'online');
  await session.end();
});

test('what a service says no to is told with its code and text', async () => {
  const session = await open();
  const { error: failure, reply } = await session.call(helper, error);
  assert.equal(reply, undefined);
  assert.deepEqual([failure.kind, failure.code, failure.text], ['service', 0xfe1234, 'as you wish']);
  const unknown = await session.call([24, 1], 0x99999);
  assert.deepEqual([unknown.error.kind, unknown.error.code], ['service', errorCodes.unknownCommand]);
  const nobody = await session.call([77, 1], commands.get);
  assert.deepEqual([nobody.error.kind, nobody.error.code, nobody.error.serviceAway], ['service', errorCodes.unreachable, true]);
  await session.end();
});

test('a service that does not answer ends in a time-out, of the bus or of the caller', async () => {
  const session = await open();
  const [bus, own] = await Promise.all([session.call(helper, silent), session.call(helper, silent, {}, { timeout: 300 })]);
  assert.deepEqual([own.error.kind, own.error.code], ['timeout', 0]);
  assert.deepEqual([bus.error.kind, bus.error.code], ['service', errorCodes.timeout]);
  assert.equal(session.state.name, 'online');
  await session.end();
});

test('an answer that is too long for the binary form comes in the JSON form', async () => {
  const session = await open();
  const { error: failure } = await session.call(helper, long, {});
  assert.equal(failure.kind, 'malformed');
  const { reply } = await session.call(helper, long, {}, { form: 'json' });
  assert.equal(reply.R1.length, 2);
  assert.deepEqual(reply.R1[1].subarray(250, 260), Uint8Array.of(250, 251, 252, 253, 254, 255, 0, 1, 2, 3));
  assert.equal(session.state.name, 'online');
  await session.end();
});

test('what cannot be sent is told before anything is sent', async () => {
  const session = await open();
  for (const fields of [{ u1: -1 }, { s1: 'x'.repeat(70000) }, { nonsense: 1 }, { r1: new Uint8Array(40000), r2: new Uint8Array(40000) }]) {
    assert.equal((await session.call(helper, echo, fields)).error.kind, 'invalid');
  }
  assert.equal((await session.call(helper, echo, { u1: 1 })).reply.u1, 1);
  await session.end();
});

test('pushes reach the subscription that asked for them, in their order', async () => {
  for (const form of ['binary', 'json']) {
    const session = await open({ form });
    const seen = [[], []];
    const subscriptions = seen.map((list, i) =>
      session.subscribe({
        path: helper,
        command: push,
        fields: { u2: 20 + i },
        onReply: (reply) => list.push(reply.u1),
        onPush: (message) => list.push(message.u1),
      }),
    );
    await until(() => seen[0].length === 21 && seen[1].length === 22, 'all pushes');
    seen.forEach((list) => assert.deepEqual(list, Array.from(list, (_, i) => i)));
    for (const subscription of subscriptions) subscription.stop();
    await session.end();
  }
});

test('a push that is too long for the binary form does not end the subscription', async () => {
  const session = await open();
  const seen = [];
  const subscription = session.subscribe({
    path: helper,
    command: push,
    fields: { u2: 3, u3: 120000 },
    onReply: () => {},
    onPush: (message) => seen.push(message),
  });
  await until(() => seen.length >= 3, 'pushes in the other form');
  assert.equal(seen.at(-1).R4.length, 2);
  subscription.stop();
  await session.end();
});

test('a callback that fails holds up nothing', async () => {
  const session = await open();
  const uncaught = [];
  const keep = process.listeners('uncaughtException');
  process.removeAllListeners('uncaughtException');
  process.on('uncaughtException', (thrown) => uncaught.push(thrown.message));
  const seen = [];
  const subscription = session.subscribe({
    path: helper,
    command: push,
    fields: { u2: 5 },
    onReply: () => {},
    onPush: (message) => {
      seen.push(message.u1);
      throw new Error('the callback of the test');
    },
  });
  await until(() => seen.length === 5 && uncaught.length === 5, 'all pushes and all errors');
  process.removeAllListeners('uncaughtException');
  for (const listener of keep) process.on('uncaughtException', listener);
  assert.deepEqual(new Set(uncaught), new Set(['the callback of the test']));
  subscription.stop();
  await session.end();
});

test('files are written and read back, whatever is in them', async () => {
  const session = await open();
  const contents = { 'empty.txt': '', 'notes/today äöü.txt': 'short', 'a/b/c.bin': Buffer.alloc(300000, '\r\n--x\0').toString('latin1') };
  for (const [name, text] of Object.entries(contents)) {
    assert.deepEqual(await session.put(name, new Blob([text])), {});
    const { response } = await session.get(name);
    assert.equal(await response.text(), text);
    const { href } = session.link(name);
    assert.equal(await (await fetch(href)).text(), text);
    assert.equal((await fetch(href)).status, 403, 'an address holds once');
  }
  assert.deepEqual(await session.upload(new Blob(['by a form']), { name: 'form.txt' }), {});
  assert.equal(await control.read_file('/rw/disk/form.txt'), 'by a form');
  assert.deepEqual(await session.upload(new Blob(['named']), { name: 'named.txt' }), {});
  assert.equal(await (await session.get('named.txt')).response.text(), 'named');
  await session.end();
  assert.equal((await session.get('named.txt')).error.kind, 'ended');
  assert.equal(session.link('named.txt').error.kind, 'ended');
});

test('files that are not there or not allowed are told apart', async () => {
  const session = await open();
  const code = async (result) => [(await result).error?.kind, (await result).error?.code];
  assert.deepEqual(await code(session.get('not/there')), ['service', 404]);
  assert.deepEqual(await code(session.get('../etc/passwd')), ['service', 404]);
  assert.deepEqual(await code(session.put('../up', new Blob(['x']))), ['service', 403]);
  const abort = new AbortController();
  abort.abort();
  assert.deepEqual(await code(session.get('x', { signal: abort.signal })), ['unreachable', 0]);
  await control.tn('call', '13/2', 'addObj', "{s1:'guest',s3:'guest password',s12:'guests'}");
  const guest = new Session({ url });
  assert.equal((await guest.login('guest', 'guest password')).error, undefined);
  assert.deepEqual(await code(guest.get('named.txt')), ['service', 403]);
  assert.deepEqual(await code(guest.put('mine', new Blob(['x']))), ['service', 403]);
  assert.equal((await guest.get('/skins/default.json')).error, undefined, "the own skin is everybody's");
  assert.equal(session.state.name, 'online');
  await Promise.all([session.end(), guest.end()]);
});

test('many sessions at once are kept apart', async () => {
  const sessions = [];
  for (let i = 0; i < 12; i++) sessions.push(await open());
  assert.equal(new Set(sessions.map((session) => session.id)).size, 12);
  const replies = await Promise.all(sessions.map((session, i) => session.call(helper, echo, { u1: i })));
  assert.deepEqual(replies.map(({ reply }) => reply.u1), sessions.map((_, i) => i));
  await Promise.all(sessions.map((session) => session.end()));
});

test('a login that is given up by the next one leaves no session behind', async () => {
  const session = new Session({ url });
  const known = (await control.end_notices()).length;
  const [first, second] = await Promise.all([
    session.login(account.user, account.password),
    session.login(account.user, account.password),
  ]);
  assert.equal(first.error.kind, 'ended');
  assert.equal(second.error, undefined);
  await until(async () => (await control.end_notices()).length > known, 'the end of the first');
  assert.equal(session.state.name, 'online');
  await session.end();
});

test('the tunnel alone throws its failures', async () => {
  await assert.rejects(Tunnel.open(`${origin}/favicon.ico`), { kind: 'unreachable', code: 405 });
  await assert.rejects(Tunnel.open(`${origin}/nothing/here`), (failure) => failure.kind === 'unreachable' && failure.code >= 400);
  await assert.rejects(Tunnel.open(`http://127.0.0.1:${await control.free_port()}/jsproxy`), { kind: 'unreachable', code: 0 });
  const tunnel = await Tunnel.open(url);
  await assert.rejects(tunnel.exchange({ u1: 'no number' }), { kind: 'invalid' });
  await assert.rejects(tunnel.exchange({ s1: 'nobody', s3: 'nothing' }), { kind: 'refused', code: 403 });
  await assert.rejects(tunnel.exchange({}), { kind: 'gone', code: 500 });
  assert.ok(new InvalidMessage() instanceof Error);
});

test('a session without a server says so', async () => {
  const session = new Session({ url: `http://127.0.0.1:${await control.free_port()}/jsproxy` });
  const { error: failure } = await session.login(account.user, account.password);
  assert.equal(failure.kind, 'unreachable');
  assert.equal((await session.call(helper, echo)).error.kind, 'ended');
});

// These come last: they cost time for everybody who logs in from this machine after them.
test('a wrong password and an unknown user are refused alike', async () => {
  for (const [user, password] of [[account.user, 'wrong'], ['nobody', account.password], ['', '']]) {
    const session = new Session({ url });
    const { error: failure } = await session.login(user, password);
    assert.equal(failure.kind, 'refused');
    assert.equal(session.state.name, 'out');
    assert.equal(session.state.failure, failure);
  }
});
