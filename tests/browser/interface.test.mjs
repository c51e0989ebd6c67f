// The interface in a real browser against the whole system.
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';

import { control, until } from './control.mjs';
import { account, desktop, figuresMove, get, goTo, launch, logIn, open, openStatus, origin, phone, sessionState, shots, waitFor } from './interface.mjs';

let browser;
before(async () => (browser = await launch()));
after(() => browser.close());

const looks = [
  ['desktop-light', desktop],
  ['desktop-dark', { ...desktop, colorScheme: 'dark' }],
  ['phone-light', phone],
  ['phone-dark', { ...phone, colorScheme: 'dark' }],
];

for (const [name, look] of looks) {
  test(`login and status page: ${name}`, async () => {
    const { context, page, troubles } = await open(browser, look);
    await page.getByLabel('User name').waitFor();
    await page.screenshot({ path: `${shots}/login-${name}.png` });
    await logIn(page);
    await page.waitForSelector('.status[data-state=live]');
    await figuresMove(page);
    assert.equal(await page.evaluate(() => document.documentElement.scrollWidth - innerWidth), 0, 'nothing is wider than the window');
    for (const [what, text] of [['processor', /^\d+(\.\d)? %$/], ['load', /^\d+\.\d\d$/], ['memory', /^\d+(\.\d)? %$/], ['uptime', /\d/]]) {
      await page.locator(`[data-figure=${what}]`).getByText(text).waitFor();
    }
    const loopback = page.locator('[data-interface=lo]');
    await loopback.getByText('127.0.0.1/8').waitFor();
    await loopback.locator('[data-rate=in]').getByText('bit/s').waitFor();
    await waitFor(page, () => document.querySelector('[data-interface=lo] .line.first').getAttribute('d')?.includes('L'));
    await page.getByRole('cell', { name: 'www', exact: true }).or(page.getByRole('button', { name: 'Show all' })).first().waitFor();
    await page.getByRole('meter', { name: 'Memory in use' }).waitFor();
    await page.screenshot({ path: `${shots}/status-${name}.png`, fullPage: true });
    assert.deepEqual(troubles, []);
    await context.close();
  });
}

test('a wrong password is refused, and the right one logs in', async () => {
  const { context, page } = await open(browser);
  await logIn(page, { user: account.user, password: 'wrong' });
  await page.getByRole('alert').getByText('User name or password is wrong.').waitFor();
  assert.equal(await sessionState(page), 'out');
  assert.equal(await page.locator('#page').isVisible(), false);
  assert.equal(await page.evaluate(() => document.activeElement.id), 'password');
  await page.screenshot({ path: `${shots}/login-refused.png` });
  await page.getByLabel('Password').fill(account.password);
  await page.keyboard.press('Enter');
  await page.waitForSelector('.status[data-state=live]');
  assert.equal(await sessionState(page), 'online');
  assert.equal(await page.locator('#password').inputValue(), '', 'the password is not left in the page');
  await context.close();
});

test('what is missing in the form is said without asking the server', async () => {
  const { context, page, troubles } = await open(browser);
  await page.getByLabel('User name').fill('');
  await page.getByRole('button', { name: 'Log in' }).click();
  await page.getByText('Give the user name.').waitFor();
  await page.getByLabel('User name').fill('x');
  await page.keyboard.press('Enter');
  await page.getByText('Give the password.').waitFor();
  assert.equal(await page.evaluate(() => document.activeElement.id), 'password');
  assert.deepEqual(troubles, []);
  await context.close();
});

test('figures move without the page being loaded again', async () => {
  const { context, page } = await openStatus(browser);
  const documents = [];
  page.on('request', (request) => request.resourceType() === 'document' && documents.push(request.url()));
  await page.evaluate(() => (globalThis.mark = 'the same page'));
  for (let i = 0; i < 3; i++) await figuresMove(page);
  assert.equal(await page.evaluate(() => globalThis.mark), 'the same page');
  assert.deepEqual(documents, []);
  await context.close();
});

test('the plot shows traffic that is made', async () => {
  const { context, page } = await openStatus(browser);
  const [style] = await page.$$eval('link[rel=stylesheet]', (list) => list.map((element) => element.href));
  const rate = () => page.locator('[data-interface=lo] [data-rate=in]').textContent();
  await until(async () => {
    await Promise.all(Array.from({ length: 20 }, () => get(context, style)));
    return /[MG]bit/.test(await rate());
  }, 'the rate to rise');
  const scales = await page.locator('[data-interface=lo] .scale').allTextContents();
  assert.match(scales[0], /^\d+ [MG]bit\/s$/);
  assert.equal(scales[0], scales[1], 'one scale for both directions');
  // The scale's steps are 1, 2, 5 and 10: what is largest reaches from two fifths of it to all of it.
  const share = await page.locator('[data-interface=lo] svg.traffic').evaluate((plot) => {
    const levels = (selector) => [...plot.querySelectorAll(selector)].map((line) => Number(line.getAttribute('y1')));
    const [base] = levels('line.base');
    const top = Math.min(...levels('line.grid'));
    const points = plot.querySelector('.line.first').getAttribute('d').match(/[\d.]+(?=[LM]|$)/g).map(Number);
    return (base - Math.min(...points)) / (base - top);
  });
  assert.ok(share > 0.38 && share < 1.02, `the line reaches ${share} of the scale`);
  await context.close();
});

test('two browsers at once, and each logs out for itself alone', async () => {
  const [one, other] = await Promise.all([openStatus(browser), openStatus(browser)]);
  const known = (await control.end_notices()).length;
  await Promise.all([figuresMove(one.page), figuresMove(other.page)]);
  await one.page.getByRole('button', { name: 'Log out' }).click();
  await one.page.getByRole('heading', { name: 'Log in' }).waitFor();
  await until(async () => (await control.end_notices()).length > known, 'the notice of the end on the bus');
  await figuresMove(other.page);
  assert.equal(await sessionState(other.page), 'online');
  await Promise.all([one.context.close(), other.context.close()]);
});

test('logging out leaves nothing on the page, and nobody is logged in after a reload', async () => {
  const { context, page } = await openStatus(browser);
  await page.getByRole('button', { name: 'Log out' }).click();
  await page.getByRole('heading', { name: 'Log in' }).waitFor();
  assert.equal(await page.locator('.status').count(), 0);
  assert.equal(await page.getByRole('button', { name: 'Log out' }).isVisible(), false);
  await page.reload();
  await page.getByRole('heading', { name: 'Log in' }).waitFor();
  const kept = await page.evaluate(() => [localStorage.length, sessionStorage.length, document.cookie]);
  assert.deepEqual(kept, [0, 0, '']);
  await context.close();
});

test('closing the page ends the session', async () => {
  const { context, page } = await openStatus(browser);
  const known = (await control.end_notices()).length;
  await page.close({ runBeforeUnload: true });
  await until(async () => (await control.end_notices()).length > known, 'the notice of the end on the bus');
  await context.close();
});

test('everything works by keyboard', async () => {
  const { context, page } = await open(browser);
  await page.getByLabel('User name').waitFor();
  const first = await page.evaluate(() => document.activeElement.id);
  assert.equal(first, (await page.getByLabel('User name').inputValue()) ? 'password' : 'user', 'what is to be filled in has the focus');
  if (first === 'user') {
    await page.keyboard.type(account.user);
    await page.keyboard.press('Tab');
  }
  await page.keyboard.type(account.password);
  await page.keyboard.press('Enter');
  await page.waitForSelector('.status[data-state=live]');
  const reached = [];
  for (let i = 0; i < 30; i++) {
    await page.keyboard.press('Tab');
    reached.push(await page.evaluate(() => document.activeElement.textContent.trim()));
  }
  for (const name of ['Status', 'Log out', 'Memory', 'CPU']) assert.ok(reached.includes(name), `${name} is reached`);
  await page.getByRole('button', { name: 'Memory' }).focus();
  await page.keyboard.press('Enter');
  assert.equal(await page.getByRole('columnheader', { name: 'Memory' }).getAttribute('aria-sort'), 'descending');
  await page.getByRole('button', { name: 'Log out' }).focus();
  await page.keyboard.press('Enter');
  await page.getByRole('heading', { name: 'Log in' }).waitFor();
  await context.close();
});

test('everything that can be used has a name, and pictures have words', async () => {
  const { context, page } = await openStatus(browser);
  const nameless = await page.evaluate(() =>
    [...document.querySelectorAll('button, a, input, select, [role=img], [role=meter], section, nav')]
      .filter((element) => element.checkVisibility())
      .filter((element) => {
        const by = element.getAttribute('aria-labelledby');
        const label = element.getAttribute('aria-label') ?? (by && document.getElementById(by)?.textContent) ?? element.labels?.[0]?.textContent;
        return !(label ?? element.textContent).trim();
      })
      .map((element) => element.outerHTML.slice(0, 100)),
  );
  assert.deepEqual(nameless, []);
  assert.equal(await page.evaluate(() => [...document.images].every((image) => image.hasAttribute('alt'))), true);
  assert.equal(await page.getByRole('heading', { level: 1 }).count(), 1);
  assert.equal(await page.getByRole('main').count(), 1);
  await context.close();
});

test('nothing jumps once the page is there', async () => {
  const { context, page } = await openStatus(browser);
  await page.evaluate(() => {
    globalThis.shifts = [];
    // The processes change places when their figures do; that is what they are sorted for.
    const isTable = ({ sources }) => sources.every(({ node }) => (node?.nodeType === 1 ? node : node?.parentElement)?.closest('table'));
    const watch = (list) => globalThis.shifts.push(...list.getEntries().filter((entry) => !isTable(entry)));
    new PerformanceObserver(watch).observe({ type: 'layout-shift' });
  });
  for (let i = 0; i < 3; i++) await figuresMove(page);
  const moved = await page.evaluate(() => globalThis.shifts.map(({ value, sources }) => `${value} ${sources.map(({ node }) => node?.className)}`));
  assert.deepEqual(moved, []);
  await context.close();
});

test('the first page is small, and others are fetched when they are opened', async () => {
  const { context, page } = await open(browser);
  await page.getByLabel('User name').waitFor();
  const fetched = () =>
    page.evaluate(() =>
      [...performance.getEntriesByType('navigation'), ...performance.getEntriesByType('resource')]
        .filter(({ name }) => !name.includes('/jsproxy'))
        .map((entry) => entry.encodedBodySize),
    );
  const login = await fetched();
  assert.ok(login.length >= 4);
  await logIn(page);
  await page.waitForSelector('.status[data-state=live]');
  const status = await fetched();
  assert.ok(status.length > login.length, 'the status page was fetched');
  assert.ok(status.every((size) => size > 0), 'the sizes are known');
  const sum = status.reduce((total, size) => total + size, 0);
  assert.ok(sum < 60000, `${sum} bytes`);
  await goTo(page, 'Users');
  assert.ok((await fetched()).length > status.length, 'the page of users was fetched');
  await context.close();
});

test('what may be kept is named after its content', async () => {
  const { context, page } = await open(browser);
  await page.getByLabel('User name').waitFor();
  const asked = await page.evaluate(() => performance.getEntriesByType('resource').map(({ name }) => new URL(name).pathname));
  const kept = asked.filter((path) => path.startsWith('/assets/'));
  assert.ok(kept.length >= 4, `${kept}`);
  for (const path of kept) {
    assert.match(path, /^\/assets\/[0-9a-f]{12}\//);
    const response = await get(context, origin + path);
    assert.equal(response.status(), 200);
    assert.equal(response.headers()['cache-control'], 'max-age=31536000');
    assert.equal(response.headers()['content-encoding'], 'gzip', path);
  }
  await context.close();
});
