// Plots that move: the newest sample enters at the right edge while everything else wanders to the left.
import { setText, svg } from '../dom.js';
import { niceCeiling, perSecond, rate } from '../format.js';

/** How much time a plot shows, in ms. */
export const span = 120000;

// Samples further apart than this have nothing between them: the connection was lost.
const longestStep = 6000;

/** @typedef {{time: number, values: number[]}} Sample */

/** Samples of the last two minutes. */
export class History {
  /** @type {Sample[]} */
  samples = [];

  /** @param {number} time  In ms; one that is not later than the last begins the history anew. */
  add(time, values) {
    const { samples } = this;
    if (samples.length && time <= samples.at(-1).time) samples.length = 0;
    samples.push({ time, values });
    while (samples[0].time < time - span - longestStep) samples.shift();
  }

  /** The largest value that is shown. */
  get largest() {
    return Math.max(0, ...this.samples.flatMap(({ values }) => values));
  }
}

// Runs of samples without a hole between them.
function* runs(samples) {
  let from = 0;
  for (let i = 1; i <= samples.length; i++) {
    if (i < samples.length && samples[i].time - samples[i - 1].time <= longestStep) continue;
    yield samples.slice(from, i);
    from = i;
  }
}

const point = (x, y) => `${x.toFixed(1)} ${y.toFixed(1)}`;

/** The path of one value, and that of the area between it and a base line. */
function paths(samples, index, xOf, yOf, base) {
  let line = '';
  let area = '';
  for (const run of runs(samples)) {
    const points = run.map(({ time, values }) => point(xOf(time), yOf(values[index]))).join('L');
    line += `M${points}`;
    area += `M${point(xOf(run[0].time), base)}L${points}L${point(xOf(run.at(-1).time), base)}Z`;
  }
  return { line, area };
}

const still = matchMedia('(prefers-reduced-motion: reduce)');
let plots = 0;

/** What the plots share: an element of the size of its place, and a layer in it that wanders. */
class Plot {
  width = 0;
  height = 0;
  history = new History();
  #observer;

  constructor(label, kind) {
    const id = `plot-${++plots}`;
    this.clip = svg('rect', { x: 0, y: 0 });
    this.layer = svg('g', {});
    this.element = svg(
      'svg',
      { class: `plot ${kind}`, role: 'img', 'aria-label': label },
      svg('defs', {}, svg('clipPath', { id }, this.clip)),
      svg('g', { 'clip-path': `url(#${id})` }, this.layer),
    );
    this.#observer = new ResizeObserver(([{ contentRect }]) => this.#resize(contentRect));
    this.#observer.observe(this.element);
  }

  #resize({ width, height }) {
    this.width = width;
    this.height = height;
    this.clip.setAttribute('width', width);
    this.clip.setAttribute('height', height);
    this.draw();
  }

  add(time, values) {
    const before = this.history.samples.at(-1)?.time;
    this.history.add(time, values);
    this.draw();
    if (before !== undefined && time > before && time - before < longestStep) this.#wander(time - before);
  }

  #wander(step) {
    if (still.matches || !this.width) return;
    const from = `translateX(${(step / span) * this.width}px)`;
    this.layer.getAnimations().forEach((animation) => animation.cancel());
    this.layer.animate([{ transform: from }, { transform: 'none' }], { duration: step, easing: 'linear' });
  }

  xOf() {
    const { samples } = this.history;
    const right = samples.length ? samples.at(-1).time : 0;
    return (time) => this.width - ((right - time) / span) * this.width;
  }

  end() {
    this.#observer.disconnect();
  }
}

// Room above the highest line, in pixels.
const gap = 8;

/** One value from 0 to 1, as an area. */
export class SharePlot extends Plot {
  #area = svg('path', { class: 'area first' });
  #line = svg('path', { class: 'line first' });

  constructor(label) {
    super(label, 'share');
    this.layer.append(this.#area, this.#line);
  }

  draw() {
    if (!this.width) return;
    const { line, area } = paths(this.history.samples, 0, this.xOf(), (value) => this.height - value * (this.height - 2) - 1, this.height);
    this.#line.setAttribute('d', line);
    this.#area.setAttribute('d', area);
  }
}

// Below this, in events per second, the scale of counts does not go.
const smallestCount = 5;

/** One value from 0 upwards, as an area with the largest one written at its scale. */
export class CountPlot extends Plot {
  #area = svg('path', { class: 'area first' });
  #line = svg('path', { class: 'line first' });
  #top = svg('line', { class: 'grid' });
  #label = svg('text', { class: 'scale', x: 4 });

  constructor(label) {
    super(label, 'count');
    this.element.append(this.#top, this.#label);
    this.layer.append(this.#area, this.#line);
  }

  draw() {
    if (!this.width) return;
    const scale = niceCeiling(Math.max(smallestCount, this.history.largest));
    const yOf = (value) => this.height - 1 - (value / scale) * (this.height - 1 - gap);
    const { line, area } = paths(this.history.samples, 0, this.xOf(), yOf, this.height);
    this.#line.setAttribute('d', line);
    this.#area.setAttribute('d', area);
    const y = Math.round(yOf(scale)) + 0.5;
    for (const [name, value] of Object.entries({ x1: 0, x2: this.width, y1: y, y2: y })) this.#top.setAttribute(name, value);
    this.#label.setAttribute('y', y + 12);
    setText(this.#label, `${perSecond(scale)}/s`);
  }
}

// Below this, in bytes per second, the scale does not go: an idle line shall look idle.
const smallestScale = 1250;

/** Traffic in both directions: what comes in above the base line, what goes out below it, on one scale. */
export class TrafficPlot extends Plot {
  #parts = [0, 1].map((index) => {
    const name = index ? 'second' : 'first';
    return { area: svg('path', { class: `area ${name}` }), line: svg('path', { class: `line ${name}` }) };
  });
  #grid = [-1, -0.5, 0, 0.5, 1].map((level) => ({
    level,
    line: svg('line', { class: level ? 'grid' : 'base' }),
    label: Math.abs(level) === 1 ? svg('text', { class: 'scale' }) : null,
  }));

  constructor(label) {
    super(label, 'traffic');
    for (const { line, label: text } of this.#grid) this.element.append(line, ...(text ? [text] : []));
    this.#parts.forEach(({ area, line }) => this.layer.append(area, line));
  }

  draw() {
    if (!this.width) return;
    const scale = niceCeiling(Math.max(smallestScale, this.history.largest) * 8) / 8;
    const middle = this.height / 2;
    const yOf = (value) => middle - (value / scale) * (middle - gap);
    this.#parts.forEach(({ area, line }, index) => {
      const path = paths(this.history.samples, index, this.xOf(), (value) => yOf(index ? -value : value), middle);
      area.setAttribute('d', path.area);
      line.setAttribute('d', path.line);
    });
    for (const { level, line, label } of this.#grid) {
      const y = Math.round(yOf(level * scale)) + 0.5;
      for (const [name, value] of Object.entries({ x1: 0, x2: this.width, y1: y, y2: y })) line.setAttribute(name, value);
      if (!label) continue;
      label.setAttribute('x', 4);
      label.setAttribute('y', level > 0 ? y + 12 : y - 4);
      setText(label, rate(scale));
    }
  }
}
