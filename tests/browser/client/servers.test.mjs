// What the page of servers makes of records, and of who may connect.
import assert from 'node:assert/strict';
import { test } from 'node:test';

import { randomness, unhex } from './support.mjs';
import { addressText, parseAddress } from '../../../web/client/index.js';
import { admits, isSame, parsePrefix, readRecord, writeRecord } from '../../../web/app/servers/record.js';

const record = (allowed) => ({ name: 'http', enabled: true, port: 80, certificate: 1, allowed });

/** A list of prefixes as the service manager gives it back. */
const kept = (allowed) => readRecord(writeRecord(record(allowed))).allowed;
const letsIn = (allowed, address) => admits(allowed, parseAddress(address));

test('prefixes are read as people write them', () => {
  for (const text of ['10.0.0.0/8', '0.0.0.0/0', '192.168.1.5/32', 'fe80::/10', '::/0', '2001:db8::1/128']) assert.deepEqual(kept([text]), [text]);
  assert.deepEqual(kept(['10.1.2.3', 'fd00::1']), ['10.1.2.3/32', 'fd00::1/128']);
  for (const text of ['', '10.0.0/8', '10.0.0.0/33', 'fe80::/129', '10.0.0.0/', '10.0.0.0/8/8', '10.0.0.0/-1', 'fe80::/x', 'localhost']) {
    assert.equal(parsePrefix(text), null, text);
  }
});

test('IPv6 prefixes of IPv4 addresses alone are prefixes of IPv4', () => {
  assert.deepEqual(writeRecord(record(['::ffff:10.0.0.0/104'])), writeRecord(record(['10.0.0.0/8'])));
  assert.deepEqual(kept(['::ffff:a00:0/104', '::ffff:0:0/96', '::ffff:10.1.2.3']), ['10.0.0.0/8', '0.0.0.0/0', '10.1.2.3/32']);
  assert.deepEqual(kept(['::ffff:10.0.0.0/95', '::ffff:0:0/40']), ['::fffe:0:0/95', '::/40']);
  assert.deepEqual(readRecord({ s1: 'http', M6: [{ a3: parseAddress('10.1.2.0'), u4: 120 }] }).allowed, ['10.1.2.0/24']);
});

test('records are the same whatever their writing and their state', () => {
  assert.equal(isSame(record(['10.1.2.3']), { ...record(['10.1.2.3/32']), problem: 'timeout', taken: true, trial: 5 }), true);
  for (const other of [record([]), record(['10.1.2.3/31']), { ...record(['10.1.2.3']), port: 81 }, { ...record(['10.1.2.3']), certificate: 2 }]) {
    assert.equal(isSame(record(['10.1.2.3']), other), false);
  }
});

test('a trial is read, and not written', () => {
  assert.equal(readRecord({ s1: 'http', u12: 7 }).trial, 7);
  assert.equal(readRecord({ s1: 'http' }).trial, 0);
  assert.equal('u12' in writeRecord(readRecord({ s1: 'http', u12: 7 })), false);
});

test('a server lets in whom one of its prefixes holds', () => {
  assert.equal(letsIn([], '192.0.2.1'), true);
  assert.equal(letsIn(['10.0.0.0/8'], '10.255.255.255'), true);
  assert.equal(letsIn(['10.0.0.0/8'], '11.0.0.0'), false);
  assert.equal(letsIn(['10.0.0.0/8', '127.0.0.1'], '127.0.0.1'), true);
  assert.equal(letsIn(['10.0.0.0/8', '127.0.0.1'], '127.0.0.2'), false);
  assert.equal(letsIn(['192.168.1.129/25'], '192.168.1.200'), true, 'bits outside the mask do not count');
  assert.equal(letsIn(['192.168.1.129/25'], '192.168.1.100'), false);
  assert.equal(letsIn(['fe80::/10'], 'febf::1'), true);
  assert.equal(letsIn(['fe80::/10'], 'fec0::1'), false);
  assert.equal(letsIn(['::1'], '::1'), true);
  assert.equal(letsIn(['::1'], '127.0.0.1'), false);
});

test('IPv4 addresses have an IPv6 form, and no other address is one of IPv4', () => {
  assert.equal(letsIn(['0.0.0.0/0'], '192.0.2.1'), true);
  assert.equal(letsIn(['0.0.0.0/0'], '2001:db8::1'), false);
  assert.equal(letsIn(['0.0.0.0/0'], '::1'), false);
  assert.equal(letsIn(['::/0'], '192.0.2.1'), true);
  assert.equal(letsIn(['::/80'], '192.0.2.1'), true);
  assert.equal(letsIn(['::/81'], '192.0.2.1'), false);
  assert.equal(letsIn(['::ffff:0:0/96'], '192.0.2.1'), true);
  assert.equal(letsIn(['::ffff:192.0.2.0/120'], '192.0.2.1'), true);
  assert.equal(letsIn(['::ffff:192.0.2.0/120'], '192.0.3.1'), false);
});

test('random prefixes hold exactly the addresses that begin as they do', () => {
  const random = randomness(7);
  const bitsOf = (bytes) => [...bytes].map((byte) => byte.toString(2).padStart(8, '0')).join('');
  for (let i = 0; i < 2000; i++) {
    const isShort = random.below(2) === 0;
    const address = isShort ? unhex(`00000000000000000000ffff${random.u32().toString(16).padStart(8, '0')}`) : random.bytes(16);
    const other = address.slice();
    other[random.below(16)] ^= 1 << random.below(8);
    const bits = random.below(isShort ? 33 : 129);
    const prefix = `${addressText(address)}/${bits}`;
    const significant = bits + (isShort ? 96 : 0);
    const expected = bitsOf(address).slice(0, significant) === bitsOf(other).slice(0, significant);
    assert.equal(admits([prefix], address), true, prefix);
    assert.equal(admits([prefix], other), expected, `${prefix} ${addressText(other)}`);
  }
});
