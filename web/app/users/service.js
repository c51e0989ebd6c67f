// What the user service takes and tells, as docs/services.md has it, in names instead of numbers.
export const users = [13, 2];
export const groups = [13, 3];
export const setPassword = 0x20001;

export const readUser = (message) => ({
  id: message.ufe0001,
  name: message.s1,
  fullName: message.s11 ?? '',
  group: message.s12,
  hidden: message.b1c === true,
  disabled: message.bfe000a === true,
});

export const writeUser = ({ id, name, fullName, group, hidden, disabled }) => ({
  ufe0001: id,
  s1: name,
  s11: fullName,
  s12: group,
  b1c: hidden,
  bfe000a: disabled,
});

export const readGroup = (message) => ({
  id: message.ufe0001,
  name: message.s1,
  policies: message.ub ?? 0,
  skin: message.s18 ?? 'default',
  users: message.u2 ?? 0,
});

export const writeGroup = ({ id, name, policies, skin }) => ({ ufe0001: id, s1: name, ub: policies, s18: skin });
