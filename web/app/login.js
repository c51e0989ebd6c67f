import { byId, setText } from './dom.js';

/** The form that asks for name and password. */
export class Login {
  #session;
  #page = byId('login');
  #form = byId('login-form');
  #message = byId('login-message');
  #button = byId('login-button');
  #refusals = 0;

  /** @param {import('../client/index.js').Session} session */
  constructor(session) {
    this.#session = session;
    // Behind the TLS service the server does not know which address was reached.
    if (document.body.dataset.port === '0') setText(byId('reached'), location.host);
    this.#form.addEventListener('submit', (event) => {
      event.preventDefault();
      this.#logIn();
    });
  }

  /** @param {string} [message]  Why the form is there (again). */
  show(message = '') {
    this.#page.hidden = false;
    setText(this.#message, message);
    const { user, password } = this.#form.elements;
    (user.value ? password : user).focus();
  }

  hide() {
    this.#page.hidden = true;
    this.#refusals = 0;
    setText(this.#message, '');
    this.#form.elements.password.value = '';
  }

  async #logIn() {
    const { user, password } = this.#form.elements;
    const missing = [user, password].find((field) => !field.value);
    if (missing) {
      setText(this.#message, `Give the ${missing === user ? 'user name' : 'password'}.`);
      missing.focus();
      return;
    }
    this.#busy(true);
    setText(this.#message, '');
    const { error } = await this.#session.login(user.value.trim(), password.value);
    this.#busy(false);
    if (!error) return;
    setText(this.#message, this.#reason(error));
    if (error.kind === 'refused') password.select();
    password.focus();
  }

  #busy(busy) {
    this.#button.disabled = busy;
    this.#form.setAttribute('aria-busy', String(busy));
    setText(this.#button, busy ? 'Connecting …' : 'Log in');
  }

  // The server tells nobody whether a name, a password or its user service was wrong.
  #reason(error) {
    switch (error.kind) {
      case 'refused':
        return ++this.#refusals < 3
          ? 'User name or password is wrong.'
          : 'Still refused. If name and password are right, the user service may be down, or wants a pause between attempts.';
      case 'invalid':
        return 'No user has such a name or password.';
      case 'timeout':
        return 'The server takes too long to answer. Try again.';
      case 'unreachable':
        return error.code === 404 ? 'This server offers no login at this address.' : 'The server does not answer. Try again.';
      default:
        return 'The server gave an answer that makes no sense. Try again.';
    }
  }
}
