// The page of servers, which may not lock anybody out.
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';

import { control } from './control.mjs';
import { get, launch, logIn, noticed, openOn, origin, shots } from './interface.mjs';

let browser;
before(async () => (browser = await launch()));
after(() => browser.close());

const server = (page, name) => page.locator(`[data-server=${name}]`);

async function changeServer(page, name, values) {
  await server(page, name).getByRole('button', { name: 'Change' }).click();
  const dialog = page.getByRole('dialog');
  for (const [label, value] of Object.entries(values)) {
    const input = dialog.getByLabel(label);
    if (typeof value === 'boolean') await input.setChecked(value);
    else await input.fill(value);
  }
  await dialog.getByRole('button', { name: 'Save' }).click();
  return dialog;
}

test('servers are added, changed and removed', async () => {
  const { context, page } = await openOn(browser, 'Servers');
  await server(page, 'http').getByText('this page').waitFor();
  await page.getByRole('button', { name: 'Add a server' }).click();
  const dialog = page.getByRole('dialog');
  await dialog.getByLabel('Name').fill('guest');
  await dialog.getByLabel('Port').fill('70000');
  await dialog.getByRole('button', { name: 'Add' }).click();
  await dialog.getByText('A port is a number from 1 to 65535.').waitFor();
  await dialog.getByLabel('Port').fill(String(await control.free_port()));
  await dialog.getByLabel('Reachable from').fill('192.168.1.0/24\nfd00::/8, 10.1.2.3\nnonsense');
  await dialog.getByRole('button', { name: 'Add' }).click();
  await dialog.getByText('nonsense is no prefix.').waitFor();
  await dialog.getByLabel('Reachable from').fill('192.168.1.0/24\nfd00::/8, 10.1.2.3');
  await dialog.getByRole('button', { name: 'Add' }).click();
  await noticed(page, 'The running server has no server of this name in its configuration.');
  await server(page, 'guest').getByText('from 192.168.1.0/24, fd00::/8, 10.1.2.3/32').waitFor();
  await server(page, 'guest').getByText('Problem').waitFor();
  await page.screenshot({ path: `${shots}/servers-problem.png`, fullPage: true });
  await server(page, 'guest').getByRole('button', { name: 'Remove' }).click();
  await dialog.getByRole('button', { name: 'Remove' }).click();
  await server(page, 'guest').waitFor({ state: 'detached' });

  const port = await control.free_port();
  await changeServer(page, 'https', { Port: String(port), Certificate: '7' });
  await server(page, 'https').getByText(`Port ${port}, certificate 7, from 127.0.0.0/8, ::1/128`).waitFor();
  await changeServer(page, 'https', { Listen: false });
  await server(page, 'https').getByText('Off').waitFor();
  assert.equal(await control.refuses(port), true);
  await context.close();
});

test('a port that is taken is not taken, and the page stays', async () => {
  const { context, page } = await openOn(browser, 'Servers');
  const dialog = await changeServer(page, 'http', { Port: String(await control.occupy()) });
  await dialog.getByText('The port is taken by something else, or may not be used. Nothing has been changed.').waitFor();
  await dialog.getByRole('button', { name: 'Cancel' }).click();
  await server(page, 'http').getByText(`Port ${new URL(origin).port},`).waitFor();
  assert.equal((await get(context, origin + '/favicon.ico')).status(), 200);
  await context.close();
});

test('a record that is on trial says so for as long as it is', async () => {
  await control.tn('call', '68/1', 'set', "{s1:'https',u12:60}");
  const { context, page } = await openOn(browser, 'Servers');
  await server(page, 'https').getByText(/^On trial, taken back in \d+ s\.$/).waitFor();
  await page.screenshot({ path: `${shots}/servers-trial.png` });
  await control.tn('call', '68/1', 'set', "{s1:'https'}");
  await server(page, 'https').getByText('On trial').waitFor({ state: 'detached' });
  await context.close();
});

test('nobody locks out the own browser', async () => {
  const { context, page } = await openOn(browser, 'Servers');
  const dialog = await changeServer(page, 'http', { 'Reachable from': '10.0.0.0/8' });
  await dialog.getByText(/^This browser would have been locked out\. Taking it back, which takes up to \d+ s …$/).waitFor();
  await page.screenshot({ path: `${shots}/servers-taking-back.png` });
  await dialog.getByText('This browser would have been locked out. Nothing has been changed.').waitFor();
  await page.screenshot({ path: `${shots}/servers-locked-out.png` });
  await dialog.getByRole('button', { name: 'Cancel' }).click();
  await server(page, 'http').getByText('from 127.0.0.0/8, ::1/128').waitFor();
  assert.equal((await get(context, origin + '/favicon.ico')).status(), 200);

  const again = await changeServer(page, 'http', { Listen: false });
  await again.getByText('This page comes through this server.').waitFor();
  assert.equal((await get(context, origin + '/favicon.ico')).status(), 200, 'nothing has happened yet');
  await again.getByRole('button', { name: 'Cancel' }).click();

  await changeServer(page, 'http', { 'Reachable from': '127.0.0.1\n::1' });
  await server(page, 'http').getByText('from 127.0.0.1/32, ::1/128').waitFor();
  await context.close();
});

// The last one: the others know the old address.
test('the page follows its server to another port', async () => {
  const { context, page } = await openOn(browser, 'Servers');
  const port = await control.free_port();
  await changeServer(page, 'http', { Port: String(port) });
  await noticed(page, `The server has moved to http://127.0.0.1:${port}/. Log in there.`);
  await page.waitForURL(`http://127.0.0.1:${port}/`);
  assert.equal(await control.refuses(Number(new URL(origin).port)), true);
  await logIn(page);
  await page.waitForSelector('.status[data-state=live]');
  await context.close();
});
