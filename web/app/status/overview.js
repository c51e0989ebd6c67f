// The row of figures at the top: processor, load, memory, uptime.
import { h, setText } from '../dom.js';
import { bytes, duration, percent } from '../format.js';
import { SharePlot } from './plot.js';

function tile(title, ...content) {
  return h('section', { class: 'panel tile', 'aria-label': title }, h('h2', {}, title), ...content);
}

/** A bar that shows a share. */
export class Meter {
  constructor(label) {
    this.bar = h('span', {});
    this.element = h('div', { class: 'meter', role: 'meter', 'aria-label': label, 'aria-valuemin': 0, 'aria-valuemax': 100 }, this.bar);
  }

  /** @param {number} share @param {string} text @param {boolean} [worries]  Whether being nearly full is worth a colour. */
  show(share, text, worries = true) {
    this.bar.style.width = `${Math.min(100, share * 100).toFixed(1)}%`;
    this.element.dataset.level = worries && share > 0.9 ? 'high' : 'normal';
    this.element.setAttribute('aria-valuenow', Math.round(share * 100));
    this.element.setAttribute('aria-valuetext', text);
  }
}

export class Overview {
  #busy = h('p', { class: 'figure', 'data-figure': 'processor' }, '–');
  #plot = new SharePlot('Share of the processors that was busy during the last two minutes');
  #load = h('p', { class: 'figure', 'data-figure': 'load' }, '–');
  #loads = h('p', { class: 'detail', 'data-figure': 'loads' }, '\u00a0');
  #tasks = h('p', { class: 'detail', 'data-figure': 'tasks' }, '\u00a0');
  #memory = h('p', { class: 'figure', 'data-figure': 'memory' }, '–');
  #memoryMeter = new Meter('Memory in use');
  #memoryDetail = h('p', { class: 'detail' }, '\u00a0');
  #uptime = h('p', { class: 'figure', 'data-figure': 'uptime' }, '–');
  #version = h('p', { class: 'detail' }, '\u00a0');
  #kernel = h('p', { class: 'detail' }, '\u00a0');
  #before = null;

  constructor() {
    this.element = h(
      'div',
      { class: 'tiles' },
      tile('Processor', this.#busy, this.#plot.element),
      tile('Load', this.#load, this.#loads, this.#tasks),
      tile('Memory', this.#memory, this.#memoryMeter.element, this.#memoryDetail),
      tile('Uptime', this.#uptime, this.#version, this.#kernel),
    );
  }

  showSystem(system) {
    this.#showBusy(system);
    const [one, five, fifteen] = system.load.map((value) => value.toFixed(2));
    setText(this.#load, one);
    setText(this.#loads, `${five} over 5 min, ${fifteen} over 15 min`);
    const processors = system.processors === 1 ? '1 processor' : `${system.processors} processors`;
    setText(this.#tasks, `${processors}, ${system.running} of ${system.tasks} tasks run`);
    setText(this.#uptime, duration(system.uptime));
    setText(this.#version, `tarn ${system.version}`);
    setText(this.#kernel, `${system.kernel}, ${system.architecture}`);
  }

  #showBusy({ uptime, busy, total }) {
    const before = this.#before;
    this.#before = { busy, total };
    if (!before || total <= before.total) return;
    const share = Math.min(1, Math.max(0, (busy - before.busy) / (total - before.total)));
    setText(this.#busy, percent(share));
    this.#plot.add(uptime, [share]);
  }

  showMemory(memory) {
    const used = memory.total - memory.available;
    const text = `${bytes(used)} of ${bytes(memory.total)}`;
    setText(this.#memory, percent(used / memory.total));
    this.#memoryMeter.show(used / memory.total, text);
    const swap = memory.swap ? `, swap ${bytes(memory.swap - memory.swapUnused)} of ${bytes(memory.swap)}` : '';
    setText(this.#memoryDetail, text + swap);
  }

  end() {
    this.#plot.end();
  }
}
