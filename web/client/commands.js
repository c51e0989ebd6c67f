/** Commands that have a meaning in every handler (docs/bus-protocol.md). */
export const commands = Object.freeze({
  getObj: 0xfe0002,
  get: 0xfe0102,
  set: 0xfe0103,
  reset: 0xfe0104,
  setObj: 0xfe0106,
  getAll: 0xfe0107,
  stopGetAll: 0xfe0108,
  addObj: 0xfe0109,
  removeObj: 0xfe010a,
  moveObj: 0xfe010b,
  getCount: 0xfe010c,
});
