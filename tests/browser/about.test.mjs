// The page about the system in a real browser. TARN_URL is the address of a running server, TARN_SHOTS a folder for pictures.
import assert from 'node:assert/strict';
import { after, before, test } from 'node:test';

import { get, launch, newContext, watch } from './browser.mjs';

const origin = new URL(process.env.TARN_URL).origin;
const shots = process.env.TARN_SHOTS;
const looks = [
  { name: 'desktop-light', colorScheme: 'light', viewport: { width: 1280, height: 900 } },
  { name: 'desktop-dark', colorScheme: 'dark', viewport: { width: 1280, height: 900 } },
  { name: 'phone-light', colorScheme: 'light', viewport: { width: 390, height: 844 }, isMobile: true },
  { name: 'phone-dark', colorScheme: 'dark', viewport: { width: 390, height: 844 }, isMobile: true },
];

let browser;
before(async () => (browser = await launch()));
after(() => browser.close());

async function open(look) {
  const context = await newContext(browser, look);
  const page = await context.newPage();
  const troubles = watch(page, origin);
  await page.goto(origin + '/about.html');
  await page.waitForSelector('html[data-state]');
  return { context, page, troubles };
}

for (const look of looks) {
  test(`the page shows whole: ${look.name}`, async () => {
    const { context, page, troubles } = await open(look);
    assert.equal(await page.getAttribute('html', 'data-state'), 'shown');
    assert.deepEqual(troubles, []);
    const pictures = await page.$$eval('img', (list) => list.map((img) => [img.getAttribute('src'), img.naturalWidth]));
    for (const [source, width] of pictures) assert.ok(width > 0, `${source} has no picture`);
    const overflow = await page.evaluate(() => document.documentElement.scrollWidth - innerWidth);
    assert.ok(overflow <= 0, `the page is ${overflow} pixels wider than the window`);
    const height = await page.evaluate(() => document.documentElement.scrollHeight);
    await page.setViewportSize({ width: look.viewport.width, height });
    await page.screenshot({ path: `${shots}/about-${look.name}.png` });
    await context.close();
  });
}

test('every file of the web tree is asked for and listed', async () => {
  const { context, page } = await open(looks[0]);
  const { files } = await (await get(context, origin + '/system.json')).json();
  assert.ok(files.length > 5);
  const asked = await page.evaluate(() => performance.getEntriesByType('resource').map((e) => new URL(e.name).pathname));
  for (const path of files) assert.ok(asked.includes(path), `${path} was not asked for`);
  const rows = await page.$$eval('#file-rows tr', (list) => list.map((row) => row.cells[0].textContent));
  assert.deepEqual(rows, files);
  await context.close();
});

test('files that are stored compressed arrive unpacked and working', async () => {
  const { context, page } = await open(looks[0]);
  const rows = await page.$$eval('#file-rows tr', (list) => list.map((row) => [row.cells[0].textContent, row.cells[2].textContent]));
  const form = (name) => rows.find(([path]) => path.endsWith('/' + name))[1];
  assert.equal(form('about-style.css'), 'gzip');
  assert.equal(form('about.js'), 'gzip');
  assert.equal(form('about.html'), 'plain');
  assert.equal(form('lake.png'), 'plain');
  assert.equal(await page.evaluate(() => getComputedStyle(document.querySelector('.bar')).position), 'sticky');
  await context.close();
});

test('what may be kept is named after its content, and the page itself is asked for anew', async () => {
  const { context, page } = await open(looks[0]);
  const kept = await page.getAttribute('link[rel=stylesheet]', 'href');
  assert.match(kept, /^\/assets\/[0-9a-f]{12}\/about-style\.css$/);
  const style = await get(context, origin + kept);
  assert.equal(style.headers()['cache-control'], 'max-age=31536000');
  const document = await get(context, origin + '/about.html');
  assert.equal(document.headers()['cache-control'], 'no-store');
  await context.close();
});

test('the facts of the connection are the real ones', async () => {
  const { context, page } = await open(looks[0]);
  assert.equal(await page.textContent('[data-fact=address]'), new URL(origin).host);
  assert.equal(await page.textContent('[data-fact=protocol]'), 'HTTP/1.1');
  assert.match(await page.textContent('[data-fact=roundTrip]'), /^\d+(\.\d)? ms$/);
  const { version } = await (await get(context, origin + '/system.json')).json();
  assert.equal(await page.textContent('[data-fact=version]'), version);
  await context.close();
});

test('the page can be read without script', async () => {
  const context = await newContext(browser, { ...looks[0], javaScriptEnabled: false });
  const page = await context.newPage();
  await page.goto(origin + '/about.html');
  assert.equal(await page.textContent('h1'), 'The server is up.');
  assert.ok(await page.isVisible('noscript p'));
  await context.close();
});

test('a start page of another version is fetched again', async () => {
  const context = await newContext(browser, looks[0]);
  const page = await context.newPage();
  let fetched = 0;
  await page.route(`${origin}/`, async (route) => {
    const response = await route.fetch();
    fetched += 1;
    const text = await response.text();
    const body = fetched === 1 ? text.replace(/data-assets="[^"]*"/, 'data-assets="/assets/0123456789ab/"') : text;
    await route.fulfill({ response, body });
  });
  await page.goto(origin + '/');
  await page.getByLabel('User name').waitFor();
  assert.equal(fetched, 2);
  assert.equal(await page.evaluate(() => performance.getEntriesByType('navigation')[0].type), 'reload');
  await context.close();
});

test('the page of the desktop client leads to it', async () => {
  const context = await newContext(browser, looks[0]);
  const page = await context.newPage();
  const troubles = watch(page, origin);
  await page.goto(origin + '/');
  await page.getByText('Desktop client').click();
  await page.waitForURL(`${origin}/varnox/`);
  await page.screenshot({ path: `${shots}/desktop-client.png` });
  const [download] = await Promise.all([page.waitForEvent('download'), page.getByText('tn-remote.tgz', { exact: true }).click()]);
  assert.equal(download.suggestedFilename(), 'tn-remote.tgz');
  assert.equal(await download.failure(), null);
  assert.deepEqual(troubles, []);
  await context.close();
});
