// The skin of the user's group: which pages the interface has, and its colour.

/** @typedef {{pages?: string[], accent?: {light?: string, dark?: string}}} Skin */

const colour = /^#[0-9a-f]{6}$/i;

/**
 * Fetches the skin of who is logged in. One that is missing or makes no sense is as none.
 * @param {import('../client/index.js').Session} session
 * @param {string} name
 * @returns {Promise<Skin>}
 */
export async function loadSkin(session, name) {
  if (!name) return {};
  const { response } = await session.get(`/skins/${name}.json`);
  const skin = await response?.json().catch(() => null);
  return skin && typeof skin === 'object' ? skin : {};
}

/** Gives the document the skin's colour. @param {Skin} skin */
export function wear(skin) {
  const { style } = document.documentElement;
  for (const look of ['light', 'dark']) {
    const value = skin.accent?.[look];
    if (colour.test(value)) style.setProperty(`--skin-${look}`, value);
    else style.removeProperty(`--skin-${look}`);
  }
}

/** The pages that a skin leaves, in its order. */
export function pagesOf(skin, pages) {
  if (!Array.isArray(skin.pages)) return pages;
  return skin.pages.map((name) => pages.find((page) => page.name === name)).filter(Boolean);
}

/** The names of the skins that came with the system. */
export async function shippedSkins() {
  try {
    const { files } = await (await fetch('/system.json', { cache: 'no-store' })).json();
    return files.flatMap((path) => /^\/skins\/([\w-]+)\.json$/.exec(path)?.[1] ?? []);
  } catch {
    return [];
  }
}
