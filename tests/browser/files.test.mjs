// The files page.
import assert from 'node:assert/strict';
import { createHash } from 'node:crypto';
import { after, before, test } from 'node:test';

import { control, until } from './control.mjs';
import { launch, listed, logIn, makeFolder, newContext, noticed, open, openOn, phone, sessionState, shots } from './interface.mjs';

let browser;
before(async () => (browser = await launch()));
after(() => browser.close());

/** The row of a file. */
const file = (page, name) => page.getByRole('rowheader', { name: `Download ${name}`, exact: true });

/** Downloads a file of the listing. */
async function fetched(page, name) {
  const button = page.getByRole('button', { name: `Download ${name}`, exact: true });
  const [download] = await Promise.all([page.waitForEvent('download'), button.click()]);
  const chunks = [];
  for await (const chunk of await download.createReadStream()) chunks.push(chunk);
  return { name: download.suggestedFilename(), content: Buffer.concat(chunks) };
}

test('files are stored in the folder that is shown, with their progress, and fetched again', async () => {
  const { context, page } = await openOn(browser, 'Files');
  const content = Buffer.alloc(5_000_000, 'some bytes of a file\r\n');
  await makeFolder(page, 'backup');
  await page.getByRole('link', { name: 'backup', exact: true }).click();
  await listed(page, 'Nothing is here.');
  await page.setInputFiles('input[type=file]', [
    { name: 'large.bin', mimeType: 'application/octet-stream', buffer: content },
    { name: 'small.txt', mimeType: 'text/plain', buffer: Buffer.from('small') },
  ]);
  await page.locator('[data-transfer="backup/large.bin"]').getByText('4.77 MiB, stored').waitFor();
  await page.locator('[data-transfer="backup/small.txt"]').getByText('5 B, stored').waitFor();
  assert.equal(await page.getByRole('progressbar', { name: 'backup/large.bin' }).getAttribute('value'), '1');
  assert.equal(await control.file_sum('/rw/disk/backup/large.bin'), createHash('sha256').update(content).digest('hex'));
  await listed(page, '2 entries');
  const row = page.getByRole('row').filter({ has: page.getByRole('rowheader', { name: 'large.bin' }) });
  assert.equal(await row.getByRole('cell').first().textContent(), '4.77 MiB');
  const changed = Date.parse(await row.locator('time').getAttribute('datetime'));
  assert.ok(Math.abs(changed - Date.now()) < 3600_000, `changed at ${changed}`);
  await page.getByText(/^[\d.]+ \w+ free of [\d.]+ \w+$/).waitFor();
  await page.screenshot({ path: `${shots}/files-stored.png`, fullPage: true });
  await page.setViewportSize(phone.viewport);
  assert.equal(await page.evaluate(() => document.documentElement.scrollWidth - innerWidth), 0, 'too wide for a phone');
  await page.screenshot({ path: `${shots}/files-stored-phone.png`, fullPage: true });
  assert.deepEqual(await fetched(page, 'small.txt'), { name: 'small.txt', content: Buffer.from('small') });

  // What is there already is replaced only when that is wanted.
  const again = { name: 'small.txt', mimeType: 'text/plain', buffer: Buffer.from('other') };
  const dialog = page.getByRole('dialog', { name: 'Replace small.txt?' });
  await page.setInputFiles('input[type=file]', [again]);
  await dialog.getByRole('button', { name: 'Cancel' }).click();
  assert.equal(await control.read_file('/rw/disk/backup/small.txt'), 'small');
  await page.setInputFiles('input[type=file]', [again]);
  await dialog.getByRole('button', { name: 'Replace' }).click();
  await until(async () => (await control.read_file('/rw/disk/backup/small.txt')) === 'other', 'the file to be replaced');
  assert.equal(await sessionState(page), 'online');
  await context.close();
});

test('folders are entered and left, by keyboard, by address and by the browser\'s own buttons', async () => {
  await control.make_files('/rw/disk/inner/100 % #1/deep', 1);
  const { context, page, troubles } = await openOn(browser, 'Files');
  const path = page.getByRole('navigation', { name: 'Path' });
  const steps = () => path.getByRole('listitem').allTextContents();
  await page.getByRole('link', { name: 'inner', exact: true }).press('Enter');
  await page.getByRole('link', { name: '100 % #1', exact: true }).press('Enter');
  await page.getByRole('link', { name: 'deep', exact: true }).press('Enter');
  await file(page, '0000').waitFor();
  assert.deepEqual(await steps(), ['User store', 'inner', '100 % #1', 'deep']);
  assert.equal(await page.evaluate(() => document.activeElement.textContent), 'deep', 'the keyboard is where the folder is named');

  await page.goBack();
  await page.getByRole('link', { name: 'deep', exact: true }).waitFor();
  await path.getByRole('link', { name: 'User store' }).click();
  await page.getByRole('link', { name: 'inner', exact: true }).waitFor();
  await page.evaluate(() => (location.hash = '#/files/inner/100%20%25%20%231/deep/'));
  await file(page, '0000').waitFor();
  assert.deepEqual(await steps(), ['User store', 'inner', '100 % #1', 'deep']);

  await page.getByRole('navigation', { name: 'Places' }).getByRole('link', { name: 'Flash' }).click();
  await until(async () => (await steps()).join() === 'Flash', 'the flash to be shown');
  await makeFolder(page, 'kept');
  await page.getByRole('link', { name: 'kept', exact: true }).click();
  await listed(page, 'Nothing is here.');
  await page.setInputFiles('input[type=file]', [{ name: 'f.txt', mimeType: 'text/plain', buffer: Buffer.from('f') }]);
  await file(page, 'f.txt').waitFor();
  assert.equal(await control.read_file('/flash/kept/f.txt'), 'f');
  assert.deepEqual(await steps(), ['Flash', 'kept']);
  assert.deepEqual((await fetched(page, 'f.txt')).content, Buffer.from('f'));
  assert.deepEqual(troubles.filter((trouble) => !/^failed: .*ERR_ABORTED/.test(trouble)), []);
  await context.close();
});

test('what is in the store is renamed, moved and removed, and what the service says no to is shown', async () => {
  await control.make_files('/rw/disk/order/sub', 2);
  const { context, page } = await openOn(browser, 'Files');
  const dialog = page.getByRole('dialog');
  const renameTo = async (name, fresh) => {
    await page.getByRole('button', { name: `Rename ${name}`, exact: true }).click();
    await dialog.getByLabel('New name').fill(fresh);
    await dialog.getByRole('button', { name: 'Rename' }).click();
  };
  await page.getByRole('link', { name: 'order', exact: true }).click();
  await page.getByRole('button', { name: 'Remove sub', exact: true }).click();
  await dialog.getByRole('button', { name: 'Remove' }).click();
  await dialog.getByRole('alert').getByText('The directory is not empty.').waitFor();
  await dialog.getByRole('button', { name: 'Cancel' }).click();

  await page.getByRole('link', { name: 'sub', exact: true }).click();
  await renameTo('0000', 'order/sub/0001');
  await dialog.getByRole('alert').getByText('There is a file of that name.').waitFor();
  await dialog.getByLabel('New name').fill('../../tarn/x');
  await dialog.getByRole('button', { name: 'Rename' }).click();
  await until(async () => !(await dialog.getByRole('alert').textContent()).includes('There is a file'), 'another answer');
  assert.notEqual(await dialog.getByRole('alert').textContent(), '');
  await dialog.getByRole('button', { name: 'Cancel' }).click();

  // The part that is the file's own name is chosen, ready to be typed over.
  await page.getByRole('button', { name: 'Rename 0000', exact: true }).press('Enter');
  await page.keyboard.type('first');
  await page.keyboard.press('Enter');
  await file(page, 'first').waitFor();
  await file(page, '0000').waitFor({ state: 'detached' });
  await renameTo('first', 'order/moved');
  await file(page, 'first').waitFor({ state: 'detached' });
  assert.equal(await control.read_file('/rw/disk/order/moved'), '');

  await page.getByRole('button', { name: 'Remove 0001', exact: true }).press('Enter');
  await dialog.getByRole('button', { name: 'Cancel' }).click();
  assert.equal(await control.read_file('/rw/disk/order/sub/0001'), '');
  await page.getByRole('button', { name: 'Remove 0001', exact: true }).press('Enter');
  await dialog.getByRole('button', { name: 'Remove' }).press('Enter');
  await listed(page, 'Nothing is here.');
  assert.equal(await control.read_file('/rw/disk/order/sub/0001'), null);
  assert.equal(await page.evaluate(() => document.activeElement.textContent), 'sub', 'the keyboard is not lost');
  await context.close();
});

test('a large folder is shown a page at a time', async () => {
  await control.make_files('/rw/disk/many', 450);
  const { context, page } = await openOn(browser, 'Files');
  await page.getByRole('link', { name: 'many', exact: true }).click();
  await listed(page, '200 of 450 entries');
  const more = page.getByRole('button', { name: 'Show more' });
  await more.click();
  await listed(page, '400 of 450 entries');
  assert.equal(await page.evaluate(() => document.activeElement.textContent), '0200', 'the keyboard is at the first new entry');
  await page.getByRole('button', { name: 'Remove 0000', exact: true }).click();
  await page.getByRole('dialog').getByRole('button', { name: 'Remove' }).click();
  await listed(page, '400 of 449 entries');
  await more.click();
  await listed(page, '449 entries');
  assert.equal(await more.count(), 0);
  const names = await page.getByRole('rowheader').allTextContents();
  assert.deepEqual(names, Array.from({ length: 449 }, (_, index) => String(index + 1).padStart(4, '0')));
  await context.close();
});

test('only what a group may do with files is offered, and secrets only to whom they are for', async () => {
  await control.make_files('/rw/disk/shared/private', 1);
  await control.tn('call', '13/3', 'addObj', "{s1:'readers',ub:0x50}");
  await control.tn('call', '13/2', 'addObj', "{s1:'rita',s3:'some password',s12:'readers'}");
  const manager = await openOn(browser, 'Files');
  await manager.page.getByRole('link', { name: 'shared', exact: true }).click();
  await manager.page.getByRole('rowheader', { name: 'private' }).getByText('secret').waitFor();
  await manager.page.setInputFiles('input[type=file]', [{ name: 'open.txt', mimeType: 'text/plain', buffer: Buffer.from('open') }]);
  await file(manager.page, 'open.txt').waitFor();
  await manager.context.close();

  const { context, page } = await open(browser, phone);
  await logIn(page, { user: 'rita', password: 'some password' });
  await page.getByRole('navigation').getByRole('link', { name: 'Files' }).click();
  await page.getByRole('link', { name: 'shared', exact: true }).click();
  await listed(page, '1 entry');
  assert.deepEqual((await fetched(page, 'open.txt')).content, Buffer.from('open'));
  assert.equal(await page.getByRole('button', { name: /Rename|Remove|New folder|Choose/ }).count(), 0);
  assert.equal(await page.locator('input[type=file]').count(), 0);
  await page.evaluate(() => (location.hash = '#/files/shared/private'));
  await listed(page, 'Not allowed.');
  await context.close();
});

test('a folder that is not there and a service that is away are told, and the listing comes back by itself', async () => {
  const { context, page } = await openOn(browser, 'Files');
  await page.evaluate(() => (location.hash = '#/files/no/where'));
  await listed(page, 'No such directory.');
  assert.ok(await page.getByRole('button', { name: 'New folder' }).isDisabled());
  assert.ok(await page.getByRole('button', { name: 'Choose files' }).isDisabled());
  await control.make_files('/rw/disk/no/where', 1);
  await page.getByRole('button', { name: 'Try again' }).click();
  await file(page, '0000').waitFor();
  await control.tn('call', '24/2', 'removeObj', "{s1:'no/where/0000'}");
  await file(page, '0000').getByRole('button').click();
  await noticed(page, 'There is no such file.');

  await control.kill('sysd');
  await page.getByRole('navigation', { name: 'Path' }).getByRole('link', { name: 'no' }).click();
  await listed(page, 'The service does not answer. Try again in a moment.');
  await control.start('sysd');
  await page.getByRole('link', { name: 'where', exact: true }).waitFor();
  assert.equal(await sessionState(page), 'online');
  await context.close();
});

test('over https everything works as well, files too', async () => {
  // The certificate is one that the system made for itself. Downloads want to be told so for the whole browser.
  const trusting = await launch('--ignore-certificate-errors');
  const page = await (await newContext(trusting)).newPage();
  await page.goto(process.env.TARN_TLS_URL);
  await page.getByText(`at ${new URL(process.env.TARN_TLS_URL).host}`).waitFor();
  await logIn(page);
  await page.waitForSelector('.status[data-state=live]');
  await page.getByRole('navigation').getByRole('link', { name: 'Files' }).click();
  const content = Buffer.alloc(8_000_000, 'enciphered on its way\n');
  await page.setInputFiles('input[type=file]', [{ name: 'tls.bin', mimeType: 'application/octet-stream', buffer: content }]);
  await page.locator('[data-transfer="tls.bin"]').getByText('7.63 MiB, stored').waitFor();
  assert.equal(await control.file_sum('/rw/disk/tls.bin'), createHash('sha256').update(content).digest('hex'));
  assert.ok((await fetched(page, 'tls.bin')).content.equals(content));
  await page.getByRole('navigation').getByRole('link', { name: 'Servers' }).click();
  await page.locator('[data-server=https]').getByText('this page').waitFor();
  await trusting.close();
});

test('a name that leaves the store is refused', async () => {
  const { context, page } = await openOn(browser, 'Files');
  await listed(page, /entr/);
  for (const folder of ['../../tarn', '%2e%2e/tarn', '/flash/../tarn']) {
    await page.evaluate((name) => (location.hash = `#/files/${name}`), folder);
    await page.getByRole('button', { name: 'Try again' }).waitFor();
    assert.equal(await page.getByRole('rowheader').count(), 0);
    await page.evaluate(() => (location.hash = '#/files'));
    await page.getByRole('rowheader').first().waitFor();
  }
  await context.close();
});
