// Looking for what keeps people out, with axe-core.
import assert from 'node:assert/strict';
import { readFile } from 'node:fs/promises';

const source = await readFile(new URL('node_modules/axe-core/axe.min.js', import.meta.url), 'utf8');

/** How a context has to be for `assertAccessible`: what axe does to measure a page is against the page's own policy. */
export const measurable = { bypassCSP: true };

/** Fails with what is wrong with the page as it is now. */
export async function assertAccessible(page, what) {
  if (!(await page.evaluate(() => 'axe' in globalThis))) await page.evaluate(source);
  const { passes, violations } = await page.evaluate(() => globalThis.axe.run({ preload: false, resultTypes: ['violations'] }));
  assert.ok(passes.length > 10, 'something was looked at');
  const told = violations.flatMap(({ id, nodes }) => nodes.map(({ html, failureSummary }) => `${id}: ${html.slice(0, 160)}\n  ${failureSummary}`));
  assert.deepEqual(told, [], what);
}
