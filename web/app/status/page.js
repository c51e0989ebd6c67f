// The status page: what the machine does, as the status service pushes it.
import { commands } from '../../client/index.js';
import { countersHandler, readCounters } from '../counters.js';
import { h } from '../dom.js';
import { poll } from '../poll.js';
import { WebServer, askPrograms, troubleText } from '../programs.js';
import { Interfaces } from './interfaces.js';
import { Overview } from './overview.js';
import { Processes } from './processes.js';
import { ProgramsPanel } from './programs.js';
import { Storage } from './storage.js';
import * as service from './service.js';
import { WebServerPanel } from './web_server.js';

const { system, memory, storage, interfaces, processes } = service.objects;

// What moves is asked for every second, the rest less often. A service that was silent for three intervals is asked again.
const groups = [
  { key: 'fast', objects: [system, memory, interfaces], interval: 1000 },
  { key: 'slow', objects: [system, storage, processes], interval: 2000 },
];

// Programs and the server's counters are not pushed: they are asked for so often, in ms.
const interval = 2000;

/**
 * Starts the page in a place.
 * @param {HTMLElement} place
 * @param {{session: import('../../client/index.js').Session, notices: import('../notices.js').Notices}} context
 */
export function startStatus(place, { session, notices }) {
  const parts = { overview: new Overview(), interfaces: new Interfaces(), storage: new Storage(), processes: new Processes() };
  const programs = new ProgramsPanel();
  const webServer = new WebServerPanel();
  const element = h(
    'div',
    { class: 'status', 'data-state': 'waiting' },
    h('h1', { class: 'hidden' }, 'Status'),
    parts.overview.element,
    h('div', { class: 'pair even' }, webServer.element, programs.element),
    parts.interfaces.element,
    h('div', { class: 'pair' }, parts.processes.element, parts.storage.element),
  );
  place.append(element);

  const subscriptions = groups.map(({ key, objects, interval }) => {
    let uptime = 0;
    const take = (message) => {
      const changed = service.objectsOf(message);
      const read = (number, reader, show) => {
        const object = changed.get(number);
        if (object && service.reasonOf(object) === undefined) show(reader(object));
      };
      read(system, service.readSystem, (value) => (uptime = value.uptime));
      if (key === 'fast') {
        read(system, service.readSystem, (value) => parts.overview.showSystem(value));
        read(memory, service.readMemory, (value) => parts.overview.showMemory(value));
        read(interfaces, service.readInterfaces, (value) => parts.interfaces.show(value));
        parts.interfaces.sample(uptime);
      }
      read(storage, service.readStorage, (value) => parts.storage.show(value));
      read(processes, service.readProcesses, (value) => parts.processes.show(value, uptime));
      element.dataset.state = 'live';
    };
    return session.subscribe({
      path: service.path,
      command: service.subscribe,
      fields: { U1: objects, u2: interval },
      stop: service.unsubscribe,
      within: interval * 3,
      onReply: take,
      onPush: take,
      onTrouble: (failure) => showTrouble(failure),
    });
  });

  function showTrouble(failure) {
    const worst = subscriptions.map((subscription) => subscription.trouble).find(Boolean) ?? failure;
    element.dataset.state = worst ? 'stale' : 'live';
    // That the whole server is away, or the session, is told elsewhere.
    if (worst?.kind === 'service') notices.show('status', staleText(worst), { tone: 'bad', stays: true });
    else notices.clear('status');
  }

  const server = new WebServer(session);
  const asking = poll(session, interval, async () => {
    // One after the other: a connection is enough.
    const list = await askPrograms(session);
    const counters = await server.call(countersHandler, commands.get);
    if (list.error) programs.miss(troubleText(list.error, 'The supervisor'));
    else programs.show(list.programs);
    if (counters.error) webServer.miss(troubleText(counters.error, counters.supervisorAway ? 'The supervisor' : 'The server'));
    else webServer.show(readCounters(counters.reply));
  });

  return {
    stop() {
      asking.stop();
      webServer.end();
      for (const subscription of subscriptions) subscription.stop();
      for (const part of Object.values(parts)) part.end?.();
      notices.clear('status');
    },
  };
}

function staleText(failure) {
  if (failure.serviceAway) return 'The status service does not answer. The figures stand still until it is back.';
  return `The status service refuses: ${failure.text || 'no reason given'}.`;
}
