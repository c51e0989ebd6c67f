// What the tests of the interface share.
import assert from 'node:assert/strict';

import { get, launch, newContext, watch } from './browser.mjs';
import { account, origin, until } from './control.mjs';

export const desktop = { colorScheme: 'light', viewport: { width: 1280, height: 900 } };
export const phone = { colorScheme: 'light', viewport: { width: 360, height: 740 }, isMobile: true, hasTouch: true };
export const shots = process.env.TARN_SHOTS;

/** Opens the interface in a browser of its own. What goes wrong is collected in `troubles`. */
export async function open(browser, look = desktop) {
  const context = await newContext(browser, look);
  const page = await context.newPage();
  const troubles = watch(page, origin);
  await page.goto(origin + '/');
  return { context, page, troubles };
}

export async function logIn(page, { user, password } = account) {
  await page.getByLabel('User name').fill(user);
  await page.getByLabel('Password').fill(password);
  await page.getByRole('button', { name: 'Log in' }).click();
}

/** Opens the interface and logs in; the status page is there with its figures. */
export async function openStatus(browser, look = desktop) {
  const opened = await open(browser, look);
  await logIn(opened.page);
  await opened.page.waitForSelector('.status[data-state=live]');
  return opened;
}

/** Goes to a page of the interface by its tab. */
export async function goTo(page, title) {
  await page.getByRole('navigation').getByRole('link', { name: title, exact: true }).click();
  await page.getByRole('heading', { level: 1, name: title, exact: true }).waitFor();
}

/** Opens the interface, logs in, and goes to a page. */
export async function openOn(browser, title) {
  const opened = await openStatus(browser);
  await goTo(opened.page, title);
  return opened;
}

/** Waits until the files page says this. */
export const listed = (page, text) => page.getByRole('region', { name: 'Listing' }).getByText(text, { exact: true }).waitFor();

/** Makes a folder in the one that the files page shows. */
export async function makeFolder(page, name) {
  await page.getByRole('button', { name: 'New folder' }).click();
  const dialog = page.getByRole('dialog', { name: 'New folder' });
  await dialog.getByLabel('Name').fill(name);
  await dialog.getByRole('button', { name: 'Create' }).click();
  await dialog.waitFor({ state: 'hidden' });
}

export const sessionState = (page) => page.getAttribute('html', 'data-session');

/** Waits until a function in the page gives something true; the page's policy forbids what page.waitForFunction does. */
export const waitFor = (page, condition, ...args) => until(() => page.evaluate(condition, ...args), String(condition));

/** Waits until the figures move by themselves: the polls alone make traffic on the loopback. */
export async function figuresMove(page) {
  const rates = () => page.locator('[data-interface=lo] .rates').textContent();
  const before = await rates();
  await until(async () => (await rates()) !== before, 'the rates to change');
  assert.equal(await page.getAttribute('.status', 'data-state'), 'live');
}

/** Waits for a notice that says this. */
export const noticed = (page, text) => page.getByRole('status').getByText(text).waitFor();
export const unnoticed = (page, text) => page.getByRole('status').getByText(text).waitFor({ state: 'hidden' });

export { account, get, launch, newContext, origin };
