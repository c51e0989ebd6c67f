// What is easily lost: the keyboard's place, a dialog's page, a dropped file, and what went wrong behind lines that are there.
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';

import { control, until } from './control.mjs';
import { goTo, launch, logIn, noticed, open, openOn, openStatus, shots, waitFor } from './interface.mjs';

let browser;
before(async () => (browser = await launch()));
after(() => browser.close());

const focused = (page) => page.evaluate(() => document.activeElement.getAttribute('aria-label') ?? document.activeElement.textContent);
const focusComes = (page, name) => until(async () => (await focused(page)) === name, `the keyboard to be at ${name}`);

test('the keyboard stays where it was when a list is made anew', async () => {
  await control.tn('call', '13/2', 'addObj', "{s1:'dora',s3:'some password'}");
  const { context, page, troubles } = await openOn(browser, 'Users');
  const dialog = page.getByRole('dialog');
  await page.getByRole('button', { name: 'Change dora' }).press('Enter');
  await dialog.getByLabel('Full name').fill('Dora');
  await page.keyboard.press('Enter');
  await page.getByRole('row', { name: 'dora' }).getByText('Dora', { exact: true }).waitFor();
  await focusComes(page, 'Change dora');

  // What is gone leaves the keyboard in its list.
  await page.getByRole('button', { name: 'Remove dora' }).press('Enter');
  await dialog.getByRole('button', { name: 'Remove' }).press('Enter');
  await page.getByRole('row', { name: 'dora' }).waitFor({ state: 'detached' });
  assert.equal(await page.evaluate(() => document.activeElement.tagName), 'TBODY');

  await goTo(page, 'Servers');
  await page.getByRole('button', { name: 'Change https' }).press('Enter');
  await dialog.getByRole('button', { name: 'Save' }).press('Enter');
  await dialog.waitFor({ state: 'hidden' });
  const renewed = page.locator('[data-server=https]');
  await renewed.waitFor();
  await focusComes(page, 'Change https');
  assert.deepEqual(troubles, []);
  await context.close();
});

test('the button of a dialog keeps the keyboard while its action runs and when it is refused', async () => {
  const { context, page } = await openOn(browser, 'Users');
  await page.getByRole('button', { name: 'Remove admin', exact: true }).click();
  const dialog = page.getByRole('dialog');
  await dialog.getByRole('button', { name: 'Remove' }).press('Enter');
  await dialog.getByRole('alert').getByText('The last user who may manage users has to stay.').waitFor();
  assert.equal(await focused(page), 'Remove');
  await context.close();
});

test('the button that sends a message keeps the keyboard while the service thinks', async () => {
  const { context, page } = await openOn(browser, 'Console');
  const [id, handler] = await control.helper_path();
  await page.getByLabel('Destination').fill(`${id}/${handler}`);
  // Three requests are answered together.
  await page.getByLabel('Command').fill('2');
  const send = page.getByRole('button', { name: 'Send' });
  await send.press('Enter');
  await waitFor(page, () => document.querySelector('.sender button').getAttribute('aria-disabled') === 'true');
  await send.press('Enter');
  assert.equal(await focused(page), 'Send');
  await until(async () => {
    await control.tn('call', `${id}/${handler}`, '2', '--timeout', '500');
    return (await send.getAttribute('aria-disabled')) === null;
  }, 'the answer');
  await page.getByRole('region', { name: 'Reply' }).getByText(`${id}/${handler} 2`).waitFor();
  await context.close();
});

test('a dialog goes with its page, and with the session', async () => {
  await control.tn('call', '13/2', 'addObj', "{s1:'emil',s3:'some password',s12:'administrators'}");
  const { context, page } = await open(browser);
  await logIn(page, { user: 'emil', password: 'some password' });
  await page.waitForSelector('.status[data-state=live]');
  await goTo(page, 'Users');
  await page.getByRole('button', { name: 'Add a group' }).click();
  await page.getByRole('dialog', { name: 'Add a group' }).waitFor();
  await page.goBack();
  await page.waitForSelector('.status[data-state=live]');
  assert.equal(await page.locator('dialog').count(), 0);

  await goTo(page, 'Users');
  await page.getByRole('button', { name: 'Add a user' }).click();
  await page.getByRole('dialog', { name: 'Add a user' }).getByLabel('Password', { exact: true }).fill('half a passw');
  const manager = await openStatus(browser);
  const [, list] = /"M1":(\[.*?\])/s.exec((await control.tn('call', '--json', `${await serverId()}/3`, 'getAll')).text) ?? [];
  const { u1: id } = JSON.parse(list).find(({ s2 }) => s2 === 'emil');
  await control.tn('call', `${await serverId()}/3`, 'removeObj', `{ufe0001:${id}}`);
  await page.getByText('Your session has ended. Log in again.').waitFor();
  assert.equal(await page.locator('dialog').count(), 0);
  await Promise.all([context.close(), manager.context.close()]);
});

const serverId = async () => /^\s*(\d+)\s+www\b/m.exec((await control.tn('list')).text)[1];

test('a file that misses its place does not take the place of the interface', async () => {
  const { context, page } = await openOn(browser, 'Files');
  const refused = await page.evaluate(() => {
    const dataTransfer = new DataTransfer();
    dataTransfer.items.add(new File(['text'], 'note.txt'));
    const events = ['dragover', 'drop'].map((type) => new DragEvent(type, { bubbles: true, cancelable: true, dataTransfer }));
    return events.map((event) => !document.querySelector('h1').dispatchEvent(event));
  });
  assert.deepEqual(refused, [true, true]);
  // A text may be moved from one input to another.
  const text = await page.evaluate(() => {
    const dataTransfer = new DataTransfer();
    dataTransfer.setData('text/plain', 'a word');
    return document.querySelector('h1').dispatchEvent(new DragEvent('drop', { bubbles: true, cancelable: true, dataTransfer }));
  });
  assert.equal(text, true);
  await context.close();
});

test('that the server is away is read out once, and not with each second of the wait', async () => {
  const { context, page } = await openStatus(browser);
  await context.setOffline(true);
  await page.evaluate(() => dispatchEvent(new Event('offline')));
  await noticed(page, 'The server does not answer.');
  const aside = page.getByRole('status').locator('[aria-hidden=true]').getByText(/^Trying again/);
  await aside.waitFor();
  const read = await page.locator('.notice p').evaluate((text) => text.firstChild.textContent);
  assert.equal(read, 'The server does not answer.');
  await context.setOffline(false);
  await noticed(page, 'The server answers again.');
  await context.close();
});

// Last: services are started anew.
test('what is wrong is said over the lines that are there, and lists come back by themselves', async () => {
  const { context, page } = await openOn(browser, 'Console');
  await until(async () => {
    await control.tn('call', '68/1', 'getAll');
    return (await page.getByRole('log').locator('.line').count()) > 0;
  }, 'messages');
  await control.kill('sysd');
  const trouble = page.getByText('The status service, which watches the bus, does not answer.');
  await trouble.waitFor();
  assert.ok((await page.getByRole('log').locator('.line').count()) > 0);
  await page.screenshot({ path: `${shots}/console-stale.png` });
  await control.start('sysd');
  await trouble.waitFor({ state: 'hidden' });

  await control.kill('userd');
  await goTo(page, 'Users');
  await page.getByText('The service does not answer. Try again in a moment.').waitFor();
  await control.start('userd');
  await page.getByRole('row', { name: 'guests' }).waitFor();
  await control.kill('sermgr');
  await goTo(page, 'Servers');
  await page.getByText('The service does not answer. Try again in a moment.').waitFor();
  await control.start('sermgr');
  await page.locator('[data-server=http]').waitFor();
  await context.close();
});
