import { milliseconds } from './format.js';

const probes = 5;

// Fills the list of facts with what this browser can tell of its connection.
export async function showConnection(list, version) {
  const fact = (name, text) => (list.querySelector(`[data-fact=${name}]`).textContent = text);
  fact('address', location.host);
  fact('protocol', protocolName());
  fact('version', version);
  fact('roundTrip', milliseconds(await roundTrip('/favicon.ico')));
}

function protocolName() {
  const name = performance.getEntriesByType('navigation')[0]?.nextHopProtocol ?? '';
  return name.toUpperCase() || location.protocol.replace(':', '').toUpperCase();
}

// The shortest of a few requests: what the machine needs when nothing else is in the way.
async function roundTrip(path) {
  let best = Infinity;
  for (let i = 0; i < probes; i++) {
    const began = performance.now();
    await (await fetch(path, { cache: 'no-store' })).arrayBuffer();
    best = Math.min(best, performance.now() - began);
  }
  return best;
}
