// Files of the user's store: requests beside the tunnel, each with a frame of the session in its query.

import { Failure } from './failure.js';

/**
 * @typedef {object} SendOptions
 * @property {(sent: number, all: number) => void} [onProgress]  In bytes.
 * @property {AbortSignal} [signal]
 */

const reasons = {
  400: 'the upload is not well-formed',
  403: 'not allowed, or no name that a file can have',
  404: 'no such file',
  413: 'too large',
  507: 'no room left',
};

function refusal(status) {
  return new Failure('service', reasons[status] ?? `the server answered ${status}`, status);
}

/** @returns {Promise<{response: Response}>} @throws {Failure} */
export async function fetchFile(href, { signal } = {}) {
  let response;
  try {
    response = await fetch(href, { signal, cache: 'no-store' });
  } catch {
    throw unreachable(signal);
  }
  if (!response.ok) throw refusal(response.status);
  return { response };
}

/**
 * Sends a body. Where the browser has it, by XMLHttpRequest, which alone tells how far it is.
 * @param {string} href
 * @param {Blob|FormData} body
 * @param {SendOptions} options
 * @returns {Promise<{}>}
 * @throws {Failure}
 */
export async function sendFile(href, body, options) {
  const status = await (globalThis.XMLHttpRequest ? sendByRequest(href, body, options) : sendByFetch(href, body, options));
  if (status >= 400) throw refusal(status);
  return {};
}

// A form upload is answered with the address of another page, which need not be asked for.
async function sendByFetch(href, body, { signal }) {
  try {
    return (await fetch(href, { method: 'POST', body, signal, redirect: 'manual' })).status;
  } catch {
    throw unreachable(signal);
  }
}

function sendByRequest(href, body, { onProgress, signal }) {
  return new Promise((resolve, reject) => {
    const request = new XMLHttpRequest();
    const abort = () => request.abort();
    const end = (settle, value) => {
      signal?.removeEventListener('abort', abort);
      settle(value);
    };
    request.open('POST', href);
    request.upload.onprogress = ({ loaded, total }) => onProgress?.(loaded, total);
    request.onload = () => end(resolve, request.status);
    request.onerror = request.onabort = () => end(reject, unreachable(signal));
    signal?.addEventListener('abort', abort);
    if (signal?.aborted) return end(reject, unreachable(signal));
    request.send(body);
  });
}

function unreachable(signal) {
  return new Failure('unreachable', signal?.aborted ? 'broken off' : 'the server does not answer');
}
