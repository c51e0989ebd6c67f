// What the interface shows, and how it heals, when parts of the system go away.
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';

import { control, until } from './control.mjs';
import { figuresMove, goTo, launch, logIn, noticed, open, openStatus, sessionState, shots, unnoticed } from './interface.mjs';

let browser;
before(async () => (browser = await launch()));
after(() => browser.close());

const away = 'The status service does not answer.';
const lost = 'The server does not answer.';

test('the status service is started anew', async () => {
  const { context, page } = await openStatus(browser);
  await control.kill('sysd');
  await noticed(page, away);
  assert.equal(await page.getAttribute('.status', 'data-state'), 'stale');
  assert.equal(await sessionState(page), 'online');
  await page.screenshot({ path: `${shots}/fault-status-service.png` });
  await control.start('sysd');
  await unnoticed(page, away);
  await figuresMove(page);
  await context.close();
});

test('the user service is started anew: who is logged in notices nothing, and others log in when it is back', async () => {
  const { context, page } = await openStatus(browser);
  await control.kill('userd');
  await figuresMove(page);
  const other = await open(browser);
  await logIn(other.page);
  await other.page.getByRole('alert').getByText('User name or password is wrong.').waitFor();
  await control.start('userd');
  await logIn(other.page);
  await other.page.waitForSelector('.status[data-state=live]');
  assert.equal(await sessionState(page), 'online');
  await Promise.all([context.close(), other.context.close()]);
});

test('the server is started anew', async () => {
  const { context, page } = await openStatus(browser);
  await page.evaluate(() => (globalThis.mark = 'the same page'));
  await control.kill('www');
  await noticed(page, lost);
  assert.equal(await sessionState(page), 'lost');
  assert.equal(await page.locator('#link').textContent(), 'No answer');
  await page.screenshot({ path: `${shots}/fault-server.png` });
  await control.start('www');
  await page.getByRole('button', { name: 'Try now' }).click({ timeout: 5000 }).catch(() => {});
  await noticed(page, 'The server was started anew. You were logged in again.');
  await page.screenshot({ path: `${shots}/fault-server-back.png` });
  await figuresMove(page);
  assert.equal(await page.evaluate(() => globalThis.mark), 'the same page');
  await page.getByRole('button', { name: 'Dismiss' }).click();
  await unnoticed(page, 'The server was started anew.');
  await context.close();
});

test('the broker is started anew', async () => {
  const { context, page } = await openStatus(browser);
  await control.kill('busd');
  await noticed(page, away);
  assert.equal(await sessionState(page), 'online', 'the server itself goes on');
  await page.screenshot({ path: `${shots}/fault-broker.png` });
  await control.start('busd');
  await unnoticed(page, away);
  await figuresMove(page);
  await context.close();
});

test('the connection breaks and the session is still there', async () => {
  const { context, page } = await openStatus(browser);
  await context.setOffline(true);
  await page.evaluate(() => dispatchEvent(new Event('offline')));
  await noticed(page, lost);
  await context.setOffline(false);
  await noticed(page, 'The server answers again.');
  await figuresMove(page);
  await context.close();
});

test('the password was changed while the server was away', async () => {
  await control.tn('call', '13/2', 'addObj', "{s1:'carol',s3:'first password',s12:'users'}");
  const { context, page } = await open(browser);
  await logIn(page, { user: 'carol', password: 'first password' });
  await page.waitForSelector('.status[data-state=live]');
  await control.kill('www');
  await noticed(page, lost);
  await control.tn('call', '13/2', '0x20001', "{s1:'carol',s3:'second password'}");
  await control.start('www');
  await page.getByRole('alert').getByText('did not accept your login any more').waitFor();
  assert.equal(await page.locator('.status').count(), 0);
  await logIn(page, { user: 'carol', password: 'second password' });
  await page.waitForSelector('.status[data-state=live]');
  await context.close();
});

test('pages whose services are away say so, and heal', async () => {
  const { context, page } = await openStatus(browser);
  // There is no supervisor in this system.
  await page.getByRole('region', { name: 'Programs' }).getByText('The supervisor does not answer.').waitFor();
  await page.getByRole('region', { name: 'Web server' }).getByText('The supervisor does not answer.').waitFor();
  await goTo(page, 'Log');
  await page.getByText('The supervisor, which keeps the log, does not answer.').waitFor();
  await goTo(page, 'Sessions');
  await page.getByText('The supervisor, which knows where the server is, does not answer.').waitFor();

  await control.kill('tlsd');
  await goTo(page, 'Servers');
  await page.getByText('The counters stand still. The supervisor does not answer.').waitFor();
  await page.getByRole('region', { name: 'Certificate' }).getByText('The TLS service does not answer.').waitFor();
  await page.screenshot({ path: `${shots}/fault-certificate.png` });
  await control.start('tlsd');
  await page.getByText('SHA-256 fingerprint').waitFor();

  await control.kill('sysd');
  await goTo(page, 'Console');
  await page.getByText('The status service, which watches the bus, does not answer.').waitFor();
  await page.screenshot({ path: `${shots}/fault-console.png` });
  await control.start('sysd');
  await until(async () => {
    await control.tn('call', '68/1', 'getAll');
    return (await page.getByRole('log').locator('.line').count()) > 0;
  }, 'messages to come again');
  await context.close();
});

test('a page whose script cannot be fetched says so', async () => {
  const { context, page } = await openStatus(browser);
  await context.route('**/assets/**', (route) => route.abort());
  await page.getByRole('navigation').getByRole('link', { name: 'Users' }).click();
  await page.getByRole('heading', { level: 1, name: 'Users' }).waitFor();
  await page.getByText('This page could not be fetched from the server.').waitFor();
  await context.unroute('**/assets/**');
  await page.getByRole('button', { name: 'Load anew' }).click();
  await logIn(page);
  await page.getByRole('rowheader', { name: 'guests' }).waitFor();
  await context.close();
});
