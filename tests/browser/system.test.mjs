// What the programs of the system tell of themselves: programs and web server, certificate, sessions, log.
import assert from 'node:assert/strict';
import { readFile } from 'node:fs/promises';
import { after, before, test } from 'node:test';

import { control, until } from './control.mjs';
import { get, goTo, launch, logIn, noticed, open, openOn, openStatus, origin, sessionState, shots } from './interface.mjs';

let browser;
before(async () => (browser = await launch()));
after(() => browser.close());

const figure = (panel, title) => panel.locator(`dt:text-is("${title}") + dd`);
const numberOf = async (locator) => Number((await locator.textContent()).replace(/\D/g, ''));

/** Waits until a figure is larger than it was. */
const rises = (locator, before) => until(async () => (await numberOf(locator)) > before, `a figure to rise above ${before}`);

// Overview

test('the overview shows the programs, and that one was started again', async () => {
  const { context, page } = await openStatus(browser);
  const panel = page.getByRole('region', { name: 'Programs' });
  for (const name of ['busd', 'sermgr', 'userd', 'sysd', 'tlsd', 'www']) {
    await panel.locator(`[data-program=${name}]`).getByText('Runs', { exact: true }).waitFor();
  }
  const cut = await panel.locator('td').evaluateAll((cells) => cells.filter((cell) => cell.scrollWidth > cell.clientWidth).map((cell) => cell.textContent));
  assert.deepEqual(cut, [], 'everything can be read');
  const tlsd = panel.locator('[data-program=tlsd]');
  await control.kill('tlsd');
  await tlsd.getByText('started again once').waitFor();
  await tlsd.getByText('Runs', { exact: true }).waitFor();
  await page.screenshot({ path: `${shots}/programs-started-again.png` });
  await context.close();
});

test('the overview counts what the web server answers', async () => {
  const { context, page } = await openStatus(browser);
  const panel = page.getByRole('region', { name: 'Web server' });
  const good = figure(panel, 'Good (2xx)');
  const wrong = figure(panel, 'Wrong (4xx)');
  await rises(good, 0);
  const before = await numberOf(wrong);
  await Promise.all(Array.from({ length: 5 }, () => get(context, `${origin}/is-not-there`)));
  await rises(wrong, before + 4);
  await until(async () => parseFloat(await panel.locator('[data-figure=answers]').textContent()) > 0, 'the rate');
  await until(async () => (await panel.locator('.line.first').getAttribute('d'))?.includes('L'), 'the plot');
  assert.match(await figure(panel, 'Connections').textContent(), /^\d+ of \d/);
  await context.close();
});

test('nothing jumps when the slower figures come', async () => {
  const { context, page } = await open(browser);
  await page.evaluate(() => {
    globalThis.shifts = [];
    const sizes = (list) => list.getEntries().filter(({ hadRecentInput }) => !hadRecentInput);
    new PerformanceObserver((list) => globalThis.shifts.push(...sizes(list))).observe({ type: 'layout-shift' });
  });
  await logIn(page);
  await page.locator('.programs[data-state=live]').waitFor();
  await page.locator('.web-server[data-state=live]').waitFor();
  const moved = await page.evaluate(() => globalThis.shifts.flatMap(({ sources }) => sources.map(({ node }) => (node?.closest ? node : node?.parentElement)?.closest('.interfaces, .web-server, .programs, .tiles') && (node.outerHTML ?? node.textContent).slice(0, 80))));
  assert.deepEqual(moved.filter(Boolean), []);
  await context.close();
});

// Servers

test('each server has its counters', async () => {
  const { context, page, troubles } = await openOn(browser, 'Servers');
  const http = page.locator('[data-server=http]');
  const moved = figure(http, 'Wrong (4xx)');
  await page.getByText('Counted since the server was started').waitFor();
  const before = await numberOf(moved);
  await get(context, `${origin}/is-not-there`);
  await rises(moved, before);
  assert.equal(await figure(page.locator('[data-server=https]'), 'Accepted').textContent(), '0');
  assert.deepEqual(troubles, []);
  await context.close();
});

test('a change that would lock out the own browser is refused before anything is changed', async () => {
  const { context, page, troubles } = await openOn(browser, 'Servers');
  const http = page.locator('[data-server=http]');
  const dialog = page.getByRole('dialog');
  await http.getByRole('button', { name: 'Change' }).click();
  await dialog.getByLabel('Reachable from').fill('10.0.0.0/8\n::1');
  await dialog.getByRole('button', { name: 'Save' }).click();
  await dialog.getByText('This browser would have been locked out. Nothing has been changed.').waitFor();
  await dialog.getByLabel('Reachable from').fill('127.0.0.0/8\n::1\n10.0.0.0/8');
  await dialog.getByRole('button', { name: 'Save' }).click();
  await http.getByText('from 127.0.0.0/8, ::1/128, 10.0.0.0/8').waitFor();
  // The log tells of all trials, in their order.
  const trials = await until(async () => {
    const lines = (await control.log_lines('tnrun')).filter((line) => line.includes('on trial'));
    return lines.length > 0 && lines;
  }, 'the trial in the log');
  assert.equal(trials.length, 1, 'the first change was not tried');
  assert.deepEqual(troubles, []);
  await context.close();
});

test('the certificate is shown, fetched, renewed and replaced', async () => {
  const { context, page } = await openOn(browser, 'Servers');
  const panel = page.getByRole('region', { name: 'Certificate' });
  const fingerprint = panel.locator('.fingerprint');
  await panel.getByText('localhost, 127.0.0.1, ::1').waitFor();
  assert.equal(await figure(panel, 'Signed by').textContent(), 'itself');
  assert.match(await figure(panel, 'Good until').textContent(), /^20\d\d-\d\d-\d\d8\d\d days left$/);
  assert.equal(await panel.locator('.warning').count(), 0);
  const first = await fingerprint.textContent();
  assert.match(first, /^([0-9A-F]{2}:){31}[0-9A-F]{2}$/);
  const [download] = await Promise.all([page.waitForEvent('download'), panel.getByRole('button', { name: 'Download' }).click()]);
  assert.equal(download.suggestedFilename(), 'certificate.pem');
  const pem = await readFile(await download.path(), 'utf8');
  assert.match(pem, /^-----BEGIN CERTIFICATE-----\n/);

  await panel.getByRole('button', { name: 'Make a new one' }).click();
  await page.getByRole('dialog').getByRole('button', { name: 'Make it' }).click();
  await noticed(page, 'The new certificate is in use for new connections.');
  await until(async () => (await fingerprint.textContent()) !== first, 'another fingerprint');

  const present = await fingerprint.textContent();
  await panel.getByRole('button', { name: 'Replace' }).click();
  const dialog = page.getByRole('dialog');
  await dialog.getByLabel('Certificates').fill(pem);
  await dialog.getByLabel('Private key').fill(await control.read_file('/rw/store/tls/key.pem'));
  await dialog.getByRole('button', { name: 'Use them' }).click();
  await until(async () => (await dialog.getByRole('alert').textContent()).length > 10, 'why it is refused');
  await page.screenshot({ path: `${shots}/certificate-refused.png` });
  await dialog.getByRole('button', { name: 'Cancel' }).click();
  assert.equal(await fingerprint.textContent(), present);
  await context.close();
});

// Sessions

test('sessions are shown, marked, and ended', async () => {
  await control.tn('call', '13/2', 'addObj', "{s1:'gina',s3:'some password'}");
  const { context, page } = await openOn(browser, 'Sessions');
  const own = page.locator('[data-own]');
  await own.getByText('this one').waitFor();
  await own.getByText('127.0.0.1').waitFor();
  const gina = await open(browser);
  await logIn(gina.page, { user: 'gina', password: 'some password' });
  await gina.page.waitForSelector('.status[data-state=live]');
  const row = page.getByRole('row', { name: 'gina' });
  await row.getByText('see status, read files, write files').waitFor();

  // Who may not manage users sees the own ones alone.
  await goTo(gina.page, 'Sessions');
  await gina.page.getByText('These are your own.').waitFor();
  await gina.page.locator('[data-own]').waitFor();
  assert.equal(await gina.page.locator('tr[data-session]').count(), 1);

  await row.getByRole('button', { name: 'End the session of gina' }).click();
  const dialog = page.getByRole('dialog', { name: 'End the session of gina?' });
  await page.screenshot({ path: `${shots}/session-end.png` });
  await dialog.getByRole('button', { name: 'Cancel' }).click();
  assert.equal(await sessionState(gina.page), 'online', 'nothing has happened yet');
  await row.getByRole('button', { name: 'End the session of gina' }).click();
  await dialog.getByRole('button', { name: 'End it' }).click();
  await noticed(page, 'The session of gina has ended.');
  await row.waitFor({ state: 'detached' });
  await gina.page.getByText('Your session has ended. Log in again.').waitFor();
  assert.equal(await sessionState(gina.page), 'ended');
  await gina.context.close();

  await own.getByRole('button', { name: 'End' }).click();
  const last = page.getByRole('dialog', { name: 'End your own session?' });
  await last.getByText('you will be logged out').waitFor();
  await last.getByRole('button', { name: 'End it' }).click();
  await page.getByRole('heading', { name: 'Log in' }).waitFor();
  assert.equal(await page.getByRole('dialog').count(), 0);
  await context.close();
});

// Log

const lines = (page) => page.getByRole('log').locator('.line');
const scrollTop = (page) => page.getByRole('log').evaluate((element) => Math.round(element.scrollTop));

/** Has the broker write lines: who has joined, and left. */
const writeLines = () => control.tn('list');

test('the log is live, and filtered by text and by program', async () => {
  const { context, page, troubles } = await openOn(browser, 'Log');
  await lines(page).first().waitFor();
  await page.getByLabel('Lines that contain').fill('tn joined as');
  await until(async () => {
    const texts = await lines(page).allTextContents();
    return texts.length > 0 && texts.every((text) => text.includes('tn joined as'));
  }, 'the filter');
  const before = await lines(page).count();
  await writeLines();
  await until(async () => (await lines(page).count()) > before, 'the new line');
  await page.screenshot({ path: `${shots}/log-filtered.png` });
  await page.getByLabel('Program').selectOption('sermgr');
  await page.getByText('No line fits.').waitFor();
  await page.getByLabel('Lines that contain').fill('');
  await lines(page).first().waitFor();
  assert.deepEqual([...new Set(await page.getByRole('log').locator('.origin').allTextContents())], ['sermgr']);
  assert.deepEqual(troubles, []);
  await context.close();
});

test('the log is held, and fetched as text', async () => {
  const { context, page } = await openOn(browser, 'Log');
  await lines(page).first().waitFor();
  await page.getByRole('button', { name: 'Pause' }).click();
  const held = page.getByRole('button', { name: /Go on/ });
  assert.equal(await held.getAttribute('aria-pressed'), 'true');
  const before = await lines(page).count();
  await writeLines();
  await page.getByRole('button', { name: /Go on \(\d+\)/ }).waitFor();
  assert.equal(await lines(page).count(), before, 'nothing has moved');
  await held.click();
  await until(async () => (await lines(page).count()) > before, 'the lines that were held');

  const [download] = await Promise.all([page.waitForEvent('download'), page.getByRole('button', { name: 'Download' }).click()]);
  assert.match(download.suggestedFilename(), /^log-.*\.txt$/);
  const text = await readFile(await download.path(), 'utf8');
  const first = await lines(page).first().locator('.text').textContent();
  assert.ok(text.split('\n')[0].endsWith(first), 'the first line is the first');
  assert.match(text, /^\d{4}-\d\d-\d\dT[\d:.]+Z busd tn joined as \d+/m);
  await context.close();
});

test('the log keeps its place for who reads further up, and does not grow for ever', async () => {
  const { context, page } = await openOn(browser, 'Log');
  await lines(page).first().waitFor();
  await page.getByRole('log').evaluate((element) => (element.scrollTop = 0));
  const below = page.getByRole('button', { name: /new lines? below/ });
  await writeLines();
  await below.waitFor();
  assert.equal(await scrollTop(page), 0);
  await page.screenshot({ path: `${shots}/log-held.png` });
  await below.click();
  await until(async () => (await scrollTop(page)) > 0, 'the end');
  await below.waitFor({ state: 'hidden' });

  // Each connection is a line, also one whose request comes too late on a busy machine.
  const connect = () => get(context, `${origin}/favicon.ico`).catch(() => {});
  const most = 1000;
  while ((await lines(page).count()) < most) {
    const before = await lines(page).count();
    await Promise.all(Array.from({ length: 100 }, connect));
    await until(async () => (await lines(page).count()) > before, 'more lines');
  }
  await writeLines();
  await until(async () => /tn \(\d+\) left/.test((await page.getByRole('log').textContent()).slice(-2000)), 'the newest line');
  assert.equal(await lines(page).count(), most);
  await context.close();
});
