import { permissions } from '../client/index.js';
import { startStatus } from './status/page.js';

/**
 * The pages of the interface, in the order of their tabs.
 * @type {{name: string, title: string, needs?: number, start: (place: HTMLElement, context: object) => {stop: () => void}}[]}
 */
export const pages = [{ name: 'status', title: 'Status', needs: permissions.read, start: startStatus }];
