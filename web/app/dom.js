// Making elements: h('p', { class: 'soft' }, 'text', child).

/**
 * @param {string} tag
 * @param {Record<string, any>} [properties]  `on…` are listeners, `true` is an attribute without a value, `false`, null and
 *     undefined are left out.
 * @param {...(Node|string|null|undefined)} children
 */
export function h(tag, properties = {}, ...children) {
  const element = document.createElement(tag);
  return fill(element, properties, children);
}

/** The same for the elements of a drawing. */
export function svg(tag, properties = {}, ...children) {
  return fill(document.createElementNS('http://www.w3.org/2000/svg', tag), properties, children);
}

function fill(element, properties, children) {
  for (const [name, value] of Object.entries(properties)) {
    if (value === undefined || value === null || value === false) continue;
    if (name.startsWith('on')) element.addEventListener(name.slice(2), value);
    else element.setAttribute(name, value === true ? '' : value);
  }
  element.append(...children.filter((child) => child !== null && child !== undefined));
  return element;
}

export const byId = (id) => document.getElementById(id);

/** Writes a text where another stands; the document is left alone when it is the same. */
export function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

const nameOf = (element) => element.getAttribute('aria-label') ?? element.textContent;

/**
 * Changes what is in a place. Who had the keyboard on something that is made anew gets it on what bears the same name now;
 * where nothing does any more, on the place itself.
 * @param {HTMLElement} place
 * @param {() => void} change
 */
export function keepFocus(place, change) {
  const before = place.contains(document.activeElement) ? document.activeElement : null;
  change();
  if (!before || before.isConnected) return;
  const name = nameOf(before);
  const same = [...place.querySelectorAll('a, button')].find((element) => nameOf(element) === name);
  if (!same) place.tabIndex = -1;
  (same ?? place).focus();
}

/**
 * Keeps the children of an element in step with a list: those that stay are kept, in the list's order.
 * @template T
 * @param {Element} parent
 * @param {T[]} list
 * @param {(item: T) => string} keyOf
 * @param {(item: T) => {element: Element, update: (item: T) => void}} make
 * @param {Map<string, {element: Element, update: (item: T) => void}>} made  What is there, kept by the caller.
 */
export function reconcile(parent, list, keyOf, make, made) {
  const keys = new Set(list.map(keyOf));
  for (const [key, part] of made) {
    if (keys.has(key)) continue;
    part.element.remove();
    part.end?.();
    made.delete(key);
  }
  list.forEach((item, index) => {
    const key = keyOf(item);
    if (!made.has(key)) made.set(key, make(item));
    const part = made.get(key);
    part.update(item);
    if (parent.children[index] !== part.element) parent.insertBefore(part.element, parent.children[index] ?? null);
  });
}
