/** The RC4 keystream of one direction. */
export class RC4 {
  #state = new Uint8Array(256);
  #i = 0;
  #j = 0;

  /** @param {Uint8Array} key */
  constructor(key) {
    const state = this.#state;
    for (let i = 0; i < 256; i++) state[i] = i;
    for (let i = 0, j = 0; i < 256; i++) {
      j = (j + state[i] + key[i % key.length]) & 0xff;
      [state[i], state[j]] = [state[j], state[i]];
    }
  }

  /**
   * The next bytes of the keystream.
   * @param {number} length
   * @returns {Uint8Array}
   */
  take(length) {
    const stream = new Uint8Array(length);
    const state = this.#state;
    let i = this.#i;
    let j = this.#j;
    for (let k = 0; k < length; k++) {
      i = (i + 1) & 0xff;
      const a = state[i];
      j = (j + a) & 0xff;
      const b = state[j];
      state[i] = b;
      state[j] = a;
      stream[k] = state[(a + b) & 0xff];
    }
    this.#i = i;
    this.#j = j;
    return stream;
  }
}
