// Asking a service again and again, or once more.

/**
 * Asks at once, and again a while after each answer, as long as the page can be seen and the session is online.
 * @param {import('../client/index.js').Session} session
 * @param {number} pause  In ms.
 * @param {() => Promise<void>} ask
 * @returns {{now: () => void, stop: () => void}}  `now` asks without waiting.
 */
export function poll(session, pause, ask) {
  let timer;
  let busy = false;
  let again = false;
  let stopped = false;

  async function step() {
    clearTimeout(timer);
    if (stopped || document.hidden || session.state.name !== 'online') return;
    again = busy;
    if (busy) return;
    busy = true;
    try {
      await ask();
    } catch (fault) {
      // An answer that nobody had thought of must not be the last one.
      reportError(fault);
    }
    busy = false;
    if (!stopped) timer = setTimeout(step, again ? 0 : pause);
  }

  const forget = session.onState(step);
  document.addEventListener('visibilitychange', step);
  step();
  return {
    now: step,
    stop() {
      stopped = true;
      clearTimeout(timer);
      forget();
      document.removeEventListener('visibilitychange', step);
    },
  };
}

// A service that is away is asked again after so long, in ms.
const patience = 3000;

/**
 * Another try for what is asked once: a while later, and not while nobody can see it.
 * @param {() => void} ask
 * @returns {{later: () => void, cancel: () => void}}
 */
export function retry(ask) {
  let timer;
  const cancel = () => clearTimeout(timer);
  function later() {
    cancel();
    timer = setTimeout(() => (document.hidden ? later() : ask()), patience);
  }
  return { later, cancel };
}
