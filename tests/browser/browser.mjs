// What every browser test needs: Debian's Chromium, kept from talking to anyone but this machine.
import { chromium } from 'playwright-core';

import { patience } from './control.mjs';

export function launch(...more) {
  return chromium.launch({
    executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium',
    args: [
      '--no-sandbox',
      '--disable-gpu',
      '--disable-quic',
      '--no-first-run',
      '--disable-background-networking',
      '--disable-component-update',
      '--disable-sync',
      '--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1',
      ...more,
    ],
  });
}

/** A browser's window of its own: its cookies, its cache, its keep-alive connections. */
export async function newContext(browser, look) {
  const context = await browser.newContext(look);
  context.setDefaultTimeout(patience);
  return context;
}

/** Asks for a path beside the page. On a connection of its own: one that is kept may be closed by the server as it is used again. */
export const get = (context, url) => context.request.get(url, { headers: { connection: 'close' } });

// Collects what went wrong while a page loaded: errors of the console and of scripts, requests that failed or were
// answered with an error, and requests to anyone but the page's own server.
export function watch(page, origin) {
  const troubles = [];
  page.on('console', (line) => {
    if (line.type() === 'error' || line.type() === 'warning') troubles.push(`console: ${line.text()}`);
  });
  page.on('pageerror', (error) => troubles.push(`script: ${error.message}`));
  page.on('requestfailed', (request) => troubles.push(`failed: ${request.url()} ${request.failure().errorText}`));
  page.on('response', (response) => {
    const url = new URL(response.url());
    if (url.origin !== origin) troubles.push(`elsewhere: ${url}`);
    if (response.status() !== 200) troubles.push(`${response.status()}: ${url.pathname}`);
  });
  return troubles;
}
