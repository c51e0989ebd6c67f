// A session that nobody uses is gone after a minute, and one that is used is not.
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';

import { control, until } from './control.mjs';
import { account, figuresMove, get, launch, open, openStatus, origin, sessionState, waitFor } from './interface.mjs';

let browser;
before(async () => (browser = await launch()));
after(() => browser.close());

test('a session without a poll is gone after 60 seconds, one with a poll stays', async () => {
  const watching = await openStatus(browser);
  const { context, page } = await open(browser);
  const { files } = await (await get(context, `${origin}/system.json`)).json();
  const client = files.find((path) => path.endsWith('/client.js'));
  const began = Date.now();
  const id = await page.evaluate(async ([path, { user, password }]) => {
    const { Session } = await import(path);
    const session = new Session({ keepAlive: false });
    globalThis.session = session;
    globalThis.states = [];
    session.onState((state) => globalThis.states.push(state.name + (state.renewed ? `: ${state.renewed}` : '')));
    const { error } = await session.login(user, password);
    return error ? error.text : session.id;
  }, [client, account]);
  assert.equal(typeof id, 'number');
  await until(async () => (await control.end_notices()).includes(id), 'the notice of the end');
  const seconds = (Date.now() - began) / 1000;
  assert.ok(seconds > 58, `gone after ${seconds} s already`);

  // The next call finds that out, and the session comes back by itself.
  const reply = await page.evaluate(() => globalThis.session.call([24, 1], 0xfe0002, { ufe0001: 1 }).then(({ reply, error }) => reply?.s1 ?? error.kind));
  assert.equal(reply, 'gone');
  await waitFor(page, () => globalThis.session.state.name === 'online');
  assert.deepEqual(await page.evaluate(() => globalThis.states), ['connecting', 'online', 'lost', 'online: expired']);
  assert.equal(await page.evaluate(() => globalThis.session.call([24, 1], 0xfe0002, { ufe0001: 1 }).then(({ error }) => error)), undefined);

  assert.equal(await sessionState(watching.page), 'online');
  await figuresMove(watching.page);
  await Promise.all([context.close(), watching.context.close()]);
});
