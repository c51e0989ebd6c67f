import { permissions } from '../client/index.js';

const { read, readFiles, changeSettings, manageUsers } = permissions;

/** Every right that has a name. */
const everything = Object.values(permissions).reduce((sum, bit) => sum | bit, 0);

/**
 * The pages of the interface, in the order of their tabs. `needs` are the rights without which a page is of no use; `load`
 * fetches its script, which the first page shall not wait for, and gives the function that starts it.
 * @type {{name: string, title: string, needs: number, load: () => Promise<(place: HTMLElement, context: object) => {stop: () => void}>}[]}
 */
export const pages = [
  { name: 'status', title: 'Status', needs: read, load: async () => (await import('./status/page.js')).startStatus },
  { name: 'files', title: 'Files', needs: read | readFiles, load: async () => (await import('./files/page.js')).startFiles },
  { name: 'servers', title: 'Servers', needs: read, load: async () => (await import('./servers/page.js')).startServers },
  { name: 'users', title: 'Users', needs: manageUsers, load: async () => (await import('./users/page.js')).startUsers },
  { name: 'sessions', title: 'Sessions', needs: read, load: async () => (await import('./sessions/page.js')).startSessions },
  { name: 'log', title: 'Log', needs: changeSettings, load: async () => (await import('./log/page.js')).startLog },
  { name: 'console', title: 'Console', needs: everything, load: async () => (await import('./console/page.js')).startConsole },
  { name: 'account', title: 'Account', needs: 0, load: async () => (await import('./users/password.js')).startAccount },
];
