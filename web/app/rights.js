// What the bits of a user's policies permit, in words.
import { permissions } from '../client/index.js';

/** @type {{bit: number, title: string, short: string, meaning: string}[]} */
export const rights = [
  {
    bit: permissions.read,
    title: 'See status and settings',
    short: 'see status',
    meaning: 'How the machine is, its servers, and your own sessions. Every right to files needs this one.',
  },
  { bit: permissions.readFiles, title: 'Read files', short: 'read files', meaning: 'List and download what lies in the user store.' },
  {
    bit: permissions.writeFiles,
    title: 'Write files',
    short: 'write files',
    meaning: 'Upload, rename and remove files of the user store.',
  },
  {
    bit: permissions.sensitiveFiles,
    title: 'Files with secrets too',
    short: 'secret files',
    meaning: 'Keys, certificates, databases, backups and private folders, where the rights above permit the file.',
  },
  {
    bit: permissions.changeSettings,
    title: 'Change settings',
    short: 'change settings',
    meaning: 'Change servers and the certificate, and read the log.',
  },
  {
    bit: permissions.manageUsers,
    title: 'Manage users',
    short: 'manage users',
    meaning: 'Add, change and remove users and groups, and end the sessions of others. Whoever may do this can get every other right.',
  },
];

/** The rights in a word of policies. */
export const rightsOf = (policies) => rights.filter(({ bit }) => policies & bit);

export const rightsText = (policies) =>
  rightsOf(policies)
    .map(({ short }) => short)
    .join(', ') || 'nothing';
