// The console: a message of one's own, looked at while it is typed, and the messages on the bus as they pass.
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';

import { control, until } from './control.mjs';
import { launch, openOn, shots } from './interface.mjs';

let browser;
before(async () => (browser = await launch()));
after(() => browser.close());

const parts = (page) => ({
  path: page.getByLabel('Destination'),
  command: page.getByLabel('Command'),
  fields: page.getByLabel('Fields'),
  fault: page.getByRole('form', { name: 'Message' }).getByRole('status'),
  send: page.getByRole('button', { name: 'Send' }),
  answer: page.getByRole('region', { name: 'Reply' }),
});

// The message of one's own

test('a message is sent, and its reply can be read', async () => {
  const { context, page, troubles } = await openOn(browser, 'Console');
  const { path, command, fields, send, answer } = parts(page);
  await path.fill('68/1');
  await command.fill('get');
  await fields.fill("{s1:'http'}");
  await send.click();
  await answer.getByText('68/1 get').waitFor();
  const row = answer.locator('> .tree > li').filter({ hasText: /^u2 / });
  assert.equal(await row.textContent(), `u2 u32 ${new URL(page.url()).port}`);
  await answer.getByText('As a line').click();
  const line = await answer.locator('pre').textContent();
  assert.match(line, /^\{.*s1:'http'.*\}$/);

  // What came can be sent again.
  await command.fill('set');
  await fields.fill(line.replace(/,s10:'[^']*'|,b11:\d/g, ''));
  await page.keyboard.press('Tab');
  await send.click();
  await answer.getByText('68/1 set').waitFor();
  await answer.getByText('without fields').waitFor();
  await page.screenshot({ path: `${shots}/console-reply.png` });
  assert.deepEqual(troubles, []);
  await context.close();
});

test('what a service says no to, and one that is not there', async () => {
  const { context, page } = await openOn(browser, 'Console');
  const { path, command, fields, send, answer } = parts(page);
  await path.fill('68/1');
  await command.fill('0x12345');
  await fields.fill('');
  await send.click();
  await answer.getByText('Error 0xfe0007: unknown command').waitFor();
  await path.fill('77/1');
  await send.click();
  await answer.getByText('Error 0xfe000e: unreachable').waitFor();
  await context.close();
});

test('what is typed is looked at as it is typed', async () => {
  const { context, page } = await openOn(browser, 'Console');
  const { path, command, fields, fault, send } = parts(page);
  const wrong = async (input, value, text) => {
    await input.fill(value);
    await fault.getByText(text).waitFor();
    assert.equal(await input.getAttribute('aria-invalid'), 'true');
    assert.equal(await send.isDisabled(), true);
  };
  await wrong(fields, '{u1:5,', 'Column 7: expected a type letter (one of buqasmrBUQASMR).');
  await wrong(fields, '{u1:5,\n s2:hello}', 'Line 2, column 5: expected a string in single quotes.');
  assert.equal(await fault.locator('mark').textContent(), 'h');
  await page.screenshot({ path: `${shots}/console-fault.png` });
  await fields.fill("{u1:5,\n s2:'hello'}");
  await until(async () => (await fault.textContent()) === '', 'the fault to go');
  assert.equal(await fields.getAttribute('aria-invalid'), null);
  assert.equal(await send.isDisabled(), false);
  await wrong(path, '24/x', 'A destination is numbers and slashes');
  await path.fill('24/1');
  await wrong(command, 'fetch', 'A command is one of the names that are offered');
  await command.fill('subscribe');
  assert.equal(await send.isDisabled(), false);
  const offered = () => page.locator('#known-commands option').evaluateAll((list) => list.map(({ value }) => value));
  assert.ok((await offered()).includes('subscribe'));
  await path.fill('13/2');
  assert.ok((await offered()).includes('setPassword') && !(await offered()).includes('subscribe'));
  await context.close();
});

test('by keyboard alone', async () => {
  const { context, page } = await openOn(browser, 'Console');
  const { path, answer } = parts(page);
  await path.focus();
  await page.keyboard.press('ControlOrMeta+A');
  await page.keyboard.type('13/2');
  await page.keyboard.press('Tab');
  await page.keyboard.press('ControlOrMeta+A');
  await page.keyboard.type('get');
  await page.keyboard.press('Enter');
  await answer.getByText('13/2 get').waitFor();
  await answer.locator('> .tree > li').filter({ hasText: /^s12 string administrators$/ }).waitFor();
  await context.close();
});

// Messages on the bus

const frames = (page) => page.getByRole('log').locator('.line');

test('messages on the bus are shown as they pass', async () => {
  const { context, page, troubles } = await openOn(browser, 'Console');
  await frames(page).first().waitFor();
  await page.getByLabel('Messages that contain').fill("s1:'nobody-has-this'");
  await page.getByText('Nothing has passed yet.').waitFor();
  await until(async () => {
    await control.tn('call', '68/1', 'get', "{s1:'nobody-has-this'}");
    return (await frames(page).count()) > 0;
  }, 'the message');
  const frame = frames(page).first();
  await frame.getByText("s1:'nobody-has-this'").waitFor();
  assert.match(await frame.locator('.origin').textContent(), /^\S+ → sermgr$/);
  assert.match(await frame.locator('time').textContent(), /^\d\d:\d\d:\d\d\.\d{3}$/);
  await page.screenshot({ path: `${shots}/console-filtered.png` });

  await page.getByLabel('Messages that contain').fill('');
  await page.getByLabel('From or to').selectOption('sermgr');
  await until(async () => {
    await control.tn('call', '68/1', 'get', "{s1:'http'}");
    return (await frames(page).count()) > 1;
  }, 'messages of the one program');
  for (const way of await page.getByRole('log').locator('.origin').allTextContents()) assert.match(way, /sermgr/);

  await page.getByRole('button', { name: 'Pause' }).click();
  const before = await frames(page).count();
  await control.tn('call', '68/1', 'get', "{s1:'http'}");
  await page.getByRole('button', { name: /Go on \(\d+\)/ }).waitFor();
  assert.equal(await frames(page).count(), before, 'nothing has moved');
  await page.getByRole('button', { name: 'Clear' }).click();
  assert.equal(await frames(page).count(), 0);
  assert.deepEqual(troubles, []);
  await context.close();
});

test('passwords do not pass before anybody', async () => {
  const { context, page } = await openOn(browser, 'Console');
  await page.getByLabel('From or to').selectOption('userd');
  await until(async () => {
    await control.tn('call', '13/2', 'addObj', "{s1:'henry',s3:'a secret of henry'}");
    return (await page.getByRole('log').getByText('(not shown)').count()) > 0;
  }, 'the message that is not shown');
  assert.doesNotMatch(await page.getByRole('log').textContent(), /secret of henry/);
  await context.close();
});

// Last: its service is started anew.
test('the service that watches goes away and comes back', async () => {
  const { context, page } = await openOn(browser, 'Console');
  await frames(page).first().waitFor();
  await control.kill('sysd');
  await until(async () => {
    await control.tn('call', '68/1', 'get', "{s1:'after-the-restart'}");
    return (await page.getByRole('log').getByText('after-the-restart').count()) > 0;
  }, 'messages to come again');
  await context.close();
});
