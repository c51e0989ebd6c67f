// Every page on a desktop and a phone, light and dark: nothing is too wide, nobody is kept out, all of it works by keyboard.
// Contrast is a matter of light and dark, and the rest of the width: so three of the four are looked at closely.
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';

import { assertAccessible, measurable } from './accessibility.mjs';
import { desktop, goTo, launch, logIn, open, openStatus, phone, shots } from './interface.mjs';

let browser;
before(async () => (browser = await launch()));
after(() => browser.close());

const cell = (page, name) => page.getByRole('rowheader', { name });

// The pages, and when each is there.
const pages = {
  Status: (page) => page.locator('.programs[data-state=live]').getByText('sermgr').waitFor(),
  Files: (page) => page.getByRole('region', { name: 'Listing' }).getByText(/entr|Nothing/).waitFor(),
  Servers: async (page) => {
    await page.getByText('SHA-256 fingerprint').waitFor();
    await page.getByText('Counted since').waitFor();
  },
  Users: (page) => cell(page, 'guests').waitFor(),
  Sessions: (page) => page.locator('[data-own]').waitFor(),
  Log: (page) => page.getByRole('log').locator('.line').first().waitFor(),
  Console: (page) => page.getByRole('log').locator('.line').first().waitFor(),
  Account: (page) => page.getByRole('heading', { name: 'Manage users' }).waitFor(),
};

const looks = [
  ['desktop-light', desktop, assertAccessible],
  ['desktop-dark', { ...desktop, colorScheme: 'dark' }, assertAccessible],
  ['phone-light', phone, assertAccessible],
  ['phone-dark', { ...phone, colorScheme: 'dark' }, () => {}],
];

/** The panels that reach into the margin of the page. */
const tooWide = (page) =>
  page.evaluate(() => {
    const place = document.getElementById('page');
    const right = place.getBoundingClientRect().right - parseFloat(getComputedStyle(place).paddingRight);
    return [...place.querySelectorAll('.panel')].filter((panel) => panel.getBoundingClientRect().right > right + 1).map((panel) => panel.className);
  });

for (const [name, look, inspect] of looks) {
  test(`every page: ${name}`, async () => {
    const { context, page, troubles } = await open(browser, { ...look, ...measurable });
    await page.getByLabel('User name').waitFor();
    await inspect(page, 'login');
    await logIn(page);
    for (const [title, ready] of Object.entries(pages)) {
      await goTo(page, title);
      await ready(page);
      assert.equal(await page.evaluate(() => document.documentElement.scrollWidth - innerWidth), 0, `${title} is too wide`);
      assert.deepEqual(await tooWide(page), [], `${title} keeps its margin`);
      await inspect(page, title);
      await page.screenshot({ path: `${shots}/${title.toLowerCase()}-${name}.png`, fullPage: true });
    }
    assert.deepEqual(troubles, []);
    await context.close();
  });
}

const dialogs = [
  ['Servers', 'Change http', (page) => page.locator('[data-server=http]').getByRole('button', { name: 'Change' })],
  ['Servers', 'Replace the certificate', (page) => page.getByRole('button', { name: 'Replace' })],
  ['Users', 'Add a user', (page) => page.getByRole('button', { name: 'Add a user' })],
  ['Users', 'Change guests', (page) => page.getByRole('button', { name: 'Change guests' })],
  ['Sessions', 'End your own session?', (page) => page.locator('[data-own]').getByRole('button', { name: 'End' })],
];

test('dialogs: nobody is kept out, and Escape closes them', async () => {
  const { context, page } = await openStatus(browser, { ...desktop, colorScheme: 'dark', ...measurable });
  for (const [title, name, button] of dialogs) {
    await goTo(page, title);
    await button(page).click();
    await page.getByRole('dialog', { name }).waitFor();
    await assertAccessible(page, name);
    await page.screenshot({ path: `${shots}/dialog-${name.toLowerCase().replace(/\W+/g, '-')}.png` });
    await page.keyboard.press('Escape');
    await page.getByRole('dialog').waitFor({ state: 'detached' });
  }
  await context.close();
});

test('everything that can be used is reached by keyboard, and one sees where one is', async () => {
  const { context, page } = await openStatus(browser);
  for (const [title, ready] of Object.entries(pages)) {
    await goTo(page, title);
    await ready(page);
    const wanted = await page.evaluate(() => {
      document.activeElement.blur();
      const all = [...document.querySelectorAll('a, button, input, select, textarea, summary, [tabindex="0"]')];
      return all.filter((element) => element.checkVisibility() && !element.disabled && element.type !== 'file').length;
    });
    const reached = await page.evaluateHandle(() => new Set());
    const unseen = [];
    for (let i = 0; i < wanted + 40; i++) {
      await page.keyboard.press('Tab');
      const trouble = await page.evaluate((set) => {
        const element = document.activeElement;
        if (element === document.body) return null;
        set.add(element);
        return getComputedStyle(element).outlineStyle === 'none' ? element.outerHTML.slice(0, 100) : null;
      }, reached);
      if (trouble) unseen.push(trouble);
      if ((await reached.evaluate((set) => set.size)) >= wanted) break;
    }
    assert.deepEqual(unseen, [], title);
    assert.ok((await reached.evaluate((set) => set.size)) >= wanted, `${title}: ${wanted} can be used`);
  }
  await context.close();
});
