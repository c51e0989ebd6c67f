// What the page of sessions says of them.
import assert from 'node:assert/strict';
import { test } from 'node:test';

import { totalText } from '../../../web/app/sessions/page.js';

test('all sessions are counted, also those that the answer has no room for', () => {
  assert.equal(totalText(0, 0), '0 sessions');
  assert.equal(totalText(1, 1), '1 session');
  assert.equal(totalText(2, 2), '2 sessions');
  assert.equal(totalText(700, 2500), '700 of 2\u202f500 sessions');
});
