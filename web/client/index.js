/**
 * The browser's side of the tunnel: log in to the system from a web page and talk to its services. docs/browser-client.md
 * tells how it is used.
 */
export { Session, permissions } from './session.js';
export { Subscription } from './subscription.js';
export { Overtaken, TooLong, Tunnel } from './tunnel.js';
export { Failure, errorCodes } from './failure.js';
export { InvalidMessage, MalformedMessage } from './fields.js';
export { flatten, unflatten } from './binary_form.js';
export { readJson, writeJson } from './json_form.js';
export { addressText, isIPv4, parseAddress } from './address.js';
export { commands } from './commands.js';
