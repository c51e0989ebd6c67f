// A message as people read it: a line for each field, nested ones below.
import { addressText } from '../../client/index.js';
import { h } from '../dom.js';
import { writeLine } from './line_form.js';

const types = { b: 'bool', u: 'u32', q: 'u64', a: 'address', s: 'string', m: 'message', r: 'bytes' };

const hex = (bytes) => Array.from(bytes, (byte) => byte.toString(16).padStart(2, '0')).join(' ');

function valueText(type, value) {
  switch (type) {
    case 'b':
      return value ? 'true' : 'false';
    case 'a':
      return addressText(value);
    case 'r':
      return hex(value) || 'no bytes';
    case 's':
      return value === '' ? 'empty' : value;
    default:
      return String(value);
  }
}

function fieldRow(key, value) {
  const type = key[0].toLowerCase();
  const isList = type !== key[0];
  const kind = isList ? `${value.length} × ${types[type]}` : types[type];
  const head = [h('code', {}, key), ' ', h('span', { class: 'soft' }, kind), ' '];
  if (type === 'm') return h('li', {}, ...head, ...(isList ? value : [value]).map(tree));
  const text = isList ? value.map((element) => valueText(type, element)).join(', ') : valueText(type, value);
  return h('li', {}, ...head, h('span', { class: 'value' }, text));
}

function tree(message) {
  const fields = Object.entries(message);
  return fields.length
    ? h('ul', { class: 'tree' }, ...fields.map(([key, value]) => fieldRow(key, value)))
    : h('p', { class: 'soft' }, 'without fields');
}

// The bus's own fields say nothing here: who was asked stands above, and that it is a reply as well.
const isContent = ([key]) => !/ff00(01|02|07|0a|0b|20|21)$/.test(key);

/** @param {object} reply */
export function showMessage(reply) {
  const message = Object.fromEntries(Object.entries(reply).filter(isContent));
  return [tree(message), h('details', {}, h('summary', {}, 'As a line'), h('pre', { class: 'line-form', tabindex: 0 }, writeLine(message)))];
}
