// Users, groups and what they may: the page of users, and what others see.
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';

import { control, until } from './control.mjs';
import { account, launch, listed, logIn, makeFolder, noticed, open, openOn, sessionState, shots } from './interface.mjs';

let browser;
before(async () => (browser = await launch()));
after(() => browser.close());

const openPage = (title) => openOn(browser, title);

async function loggedIn(user, password) {
  const opened = await open(browser);
  await logIn(opened.page, { user, password });
  return opened;
}

test('a user is added, logs in, gets another password and group, is disabled and removed', async () => {
  const { context, page } = await openPage('Users');
  await page.getByRole('button', { name: 'Add a user' }).click();
  const dialog = page.getByRole('dialog');
  await dialog.getByLabel('User name').fill('bob');
  await dialog.getByLabel('Full name').fill('Bob Ångström');
  await dialog.getByLabel('Password', { exact: true }).fill('first password');
  await dialog.getByLabel('Password once more').fill('other password');
  await dialog.getByRole('button', { name: 'Add' }).click();
  await dialog.getByText('The two passwords are not the same.').waitFor();
  await dialog.getByLabel('Password once more').fill('first password');
  await dialog.getByRole('button', { name: 'Add' }).click();
  await dialog.waitFor({ state: 'hidden' });
  const row = page.getByRole('row', { name: 'bob' });
  await row.getByText('Bob Ångström').waitFor();

  const bob = await loggedIn('bob', 'first password');
  await bob.page.waitForSelector('.status[data-state=live]');
  assert.deepEqual(await bob.page.getByRole('navigation').getByRole('link').allTextContents(), ['Status', 'Files', 'Servers', 'Sessions', 'Account']);
  await bob.page.getByRole('navigation').getByRole('link', { name: 'Account' }).click();
  await bob.page.getByLabel('Present password').fill('wrong password');
  await bob.page.getByLabel('New password', { exact: true }).fill('second password');
  await bob.page.getByLabel('New password once more').fill('second password');
  await bob.page.getByRole('button', { name: 'Change the password' }).click();
  await bob.page.getByRole('alert').getByText('Wrong password.').waitFor();
  await bob.page.getByLabel('Present password').fill('first password');
  await bob.page.getByRole('button', { name: 'Change the password' }).click();
  await noticed(bob.page, 'The password has been changed.');

  // The session goes on with the new password when the server is started anew.
  await control.kill('www');
  await noticed(bob.page, 'The server does not answer.');
  await control.start('www');
  await noticed(bob.page, 'The server was started anew.');
  await bob.context.close();
  await until(() => sessionState(page).then((state) => state === 'online'), 'the manager to be back');

  await row.getByRole('button', { name: 'Change bob' }).click();
  await dialog.getByLabel('Group').selectOption('guests');
  await dialog.getByLabel('Disabled').check();
  await dialog.getByRole('button', { name: 'Save' }).click();
  await row.getByText('disabled').waitFor();
  await row.getByText('guests').waitFor();
  const refused = await loggedIn('bob', 'second password');
  await refused.page.getByRole('alert').getByText('User name or password is wrong.').waitFor();
  await refused.context.close();

  await row.getByRole('button', { name: 'Remove bob' }).click();
  await dialog.getByRole('button', { name: 'Remove' }).click();
  await row.waitFor({ state: 'detached' });
  await context.close();
});

test('what the user service says no to is shown', async () => {
  const { context, page } = await openPage('Users');
  await page.getByRole('button', { name: `Remove ${account.user}`, exact: true }).click();
  const dialog = page.getByRole('dialog');
  await dialog.getByRole('button', { name: 'Remove' }).click();
  await dialog.getByRole('alert').getByText('The last user who may manage users has to stay.').waitFor();
  await dialog.getByRole('button', { name: 'Cancel' }).click();
  await page.getByRole('rowheader', { name: account.user, exact: true }).waitFor();
  await context.close();
});

test('a group has rights and a skin, which its users wear', async () => {
  const { context, page } = await openPage('Users');
  await page.getByRole('button', { name: 'Add a group' }).click();
  const dialog = page.getByRole('dialog');
  await dialog.getByLabel('Name').fill('watchers');
  assert.deepEqual(await dialog.locator('datalist option').evaluateAll((list) => list.map(({ value }) => value)), ['admin', 'default', 'dusk']);
  await dialog.getByLabel('Skin').fill('dusk');
  await dialog.getByRole('button', { name: 'Add' }).click();
  await page.getByRole('row', { name: 'watchers' }).getByText('dusk').waitFor();
  await page.getByRole('row', { name: 'watchers' }).getByText('see status', { exact: true }).waitFor();
  await control.tn('call', '13/2', 'addObj', "{s1:'wendy',s3:'some password',s12:'watchers'}");
  const wendy = await loggedIn('wendy', 'some password');
  await wendy.page.waitForSelector('.status[data-state=live]');
  assert.deepEqual(await wendy.page.getByRole('navigation').getByRole('link').allTextContents(), ['Status', 'Servers', 'Sessions', 'Account']);
  const line = wendy.page.locator('[data-interface=lo] .line.first');
  assert.equal(await line.evaluate((element) => getComputedStyle(element).stroke), 'rgb(91, 75, 179)');
  await wendy.page.screenshot({ path: `${shots}/skin-dusk.png` });
  await wendy.context.close();
  await context.close();
});

test('a skin that was put into the user store is worn as well', async () => {
  const { context, page } = await openPage('Files');
  await makeFolder(page, 'skins');
  await page.getByRole('link', { name: 'skins', exact: true }).click();
  await listed(page, 'Nothing is here.');
  const skin = JSON.stringify({ pages: ['account', 'status', 'nonsense'], accent: { light: 'url(x)' } });
  await page.setInputFiles('input[type=file]', [{ name: 'bare.json', mimeType: 'application/json', buffer: Buffer.from(skin) }]);
  await page.locator('[data-transfer="skins/bare.json"]').getByText('stored').waitFor();
  await context.close();
  await control.tn('call', '13/3', 'addObj', "{s1:'bares',s18:'bare',ub:0x3d0}");
  await control.tn('call', '13/2', 'addObj', "{s1:'erin',s3:'some password',s12:'bares'}");
  const erin = await loggedIn('erin', 'some password');
  await erin.page.getByRole('heading', { level: 1, name: 'Account' }).waitFor();
  assert.deepEqual(await erin.page.getByRole('navigation').getByRole('link').allTextContents(), ['Account', 'Status']);
  assert.equal(await erin.page.evaluate(() => document.documentElement.style.length), 0, 'a colour that is none is not worn');
  await erin.context.close();
});

test('a user whom the status is not for sees the own account alone', async () => {
  await control.tn('call', '13/3', 'addObj', "{s1:'nobodies',ub:0x1000}");
  await control.tn('call', '13/2', 'addObj', "{s1:'dave',s3:'some password',s12:'nobodies'}");
  const { context, page } = await loggedIn('dave', 'some password');
  await page.getByRole('heading', { level: 1, name: 'Account' }).waitFor();
  assert.deepEqual(await page.getByRole('navigation').getByRole('link').allTextContents(), ['Account']);
  await context.close();
});

test('a page that a right is missing for says which, and who can give it', async () => {
  await control.tn('call', '13/2', 'addObj', "{s1:'frida',s3:'some password',s12:'guests'}");
  const { context, page, troubles } = await loggedIn('frida', 'some password');
  await page.waitForSelector('.status[data-state=live]');
  for (const [name, title, text] of [
    ['log', 'Log', 'This page needs the right “Change settings”, which your group “guests” does not have. An administrator can give it.'],
    ['users', 'Users', 'This page needs the right “Manage users”'],
    ['console', 'Console', 'This page needs the rights “Read files”'],
  ]) {
    await page.evaluate((hash) => (location.hash = hash), `#/${name}`);
    await page.getByRole('heading', { level: 1, name: title, exact: true }).waitFor();
    await page.getByText(text).waitFor();
  }
  await page.screenshot({ path: `${shots}/missing-right.png` });
  await page.evaluate(() => (location.hash = '#/servers'));
  await page.locator('[data-server=http]').waitFor();
  await page.getByText('SHA-256 fingerprint').waitFor();
  for (const name of ['Change', 'Remove', 'Add a server', 'Make a new one', 'Replace']) {
    assert.equal(await page.getByRole('button', { name }).count(), 0, `${name} is not offered`);
  }
  assert.deepEqual(troubles, []);
  await context.close();
});

test('each right is explained, where it is given and to whom it is given', async () => {
  const { context, page } = await openPage('Users');
  await page.getByRole('button', { name: 'Change administrators' }).click();
  const boxes = page.getByRole('dialog').getByRole('checkbox');
  await boxes.nth(5).waitFor();
  assert.equal(await boxes.count(), 6);
  const meanings = await boxes.evaluateAll((list) => list.map((box) => document.getElementById(box.getAttribute('aria-describedby')).textContent));
  for (const meaning of meanings) assert.match(meaning, /^[A-Z].*\.$/);
  await page.keyboard.press('Escape');
  await page.getByRole('navigation').getByRole('link', { name: 'Account' }).click();
  const told = page.getByRole('region', { name: 'What the group administrators may do' }).getByRole('listitem');
  await told.first().waitFor();
  const texts = await told.locator('p').allTextContents();
  assert.deepEqual(texts.sort(), meanings.sort());
  await context.close();
});
