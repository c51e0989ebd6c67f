import { permissions } from '../client/index.js';
import { startFiles } from './files/page.js';
import { startServers } from './servers/page.js';
import { startStatus } from './status/page.js';
import { startAccount } from './users/password.js';
import { startUsers } from './users/page.js';

const { read, readFiles, changeSettings, manageUsers } = permissions;

/**
 * The pages of the interface, in the order of their tabs. `needs` are the rights without which a page is of no use.
 * @type {{name: string, title: string, needs: number, start: (place: HTMLElement, context: object) => {stop: () => void}}[]}
 */
export const pages = [
  { name: 'status', title: 'Status', needs: read, start: startStatus },
  { name: 'files', title: 'Files', needs: read | readFiles, start: startFiles },
  { name: 'servers', title: 'Servers', needs: changeSettings, start: startServers },
  { name: 'users', title: 'Users', needs: manageUsers, start: startUsers },
  { name: 'account', title: 'Account', needs: 0, start: startAccount },
];
