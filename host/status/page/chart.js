// One chart: its curves as SVG, a legend with the current values, the readings as a table.

const SVG = 'http://www.w3.org/2000/svg';
const MINUTE = 60 * 1000;
const HEIGHT = 172;
const MARGIN = {left: 46, right: 2, top: 20, bottom: 22};
// A reference more than this many times above the curves is named instead of drawn.
const FAR_ABOVE = 5;
// By window in minutes: the step of the time axis, and of the table.
const TIME_STEPS = {
  1: {axis: 15e3, table: 5e3},
  5: {axis: MINUTE, table: 30e3},
  15: {axis: 3 * MINUTE, table: MINUTE},
};

function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

function svg(name, attributes = {}, text = '') {
  const element = document.createElementNS(SVG, name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  element.textContent = text;
  return element;
}

function cell(name, text) {
  const element = document.createElement(name);
  element.textContent = text;
  return element;
}

function fromTemplate(id) {
  return document.getElementById(id).content.firstElementChild.cloneNode(true);
}

// The part of the history that a window shows, and one sample before it, where lines come from.
function within(samples, from) {
  const first = samples.findIndex((sample) => sample.time >= from);
  return first < 0 ? [] : samples.slice(Math.max(0, first - 1));
}

class Chart {
  // definition: {title, unit, top (optional, fixed), series: [{item, name, reference}]}
  constructor(definition, onNeeded) {
    this.definition = definition;
    this.element = fromTemplate('chart-template');
    this.element.querySelector('h3').textContent = definition.title;
    this.moment = this.element.querySelector('.moment');
    this.#makeLegend();
    this.#makePlot();
    this.#makeTable(onNeeded);
    this.#followPointer(onNeeded);
    this.isInView = true;
    new ResizeObserver(onNeeded).observe(this.plot);
    new IntersectionObserver((entries) => {
      this.isInView = entries.at(-1).isIntersecting;
      if (this.isInView) onNeeded();
    }, {rootMargin: '200px'}).observe(this.element);
  }

  update(samples, minutes) {
    const end = samples.findLast((sample) => sample.numbers)?.time;
    if (end === undefined) return;
    const shown = within(samples, end - minutes * MINUTE);
    this.curves = this.definition.series.map(({item}) => runsOf(shown, item));
    this.#updateLegend(samples, end, minutes);
    const axis = this.#axis();
    this.root.setAttribute('aria-label', this.#summary(minutes));
    if (this.isInView) this.#draw(axis, end, minutes);
    if (this.details.open) this.#fillTable(samples, end, minutes);
  }

  #makeLegend() {
    const legend = this.element.querySelector('.legend');
    this.values = this.definition.series.map(({item, name}, index) => {
      const entry = document.createElement('li');
      const swatch = svg('svg', {class: 'swatch', viewBox: '0 0 24 8', 'aria-hidden': 'true'});
      swatch.append(svg('path', {class: `line line-${index}`, d: 'M2 4H22'}));
      const value = cell('span', '–');
      value.className = 'value';
      value.dataset.item = item;
      entry.append(swatch, cell('span', name), value);
      legend.append(entry);
      return value;
    });
  }

  #makePlot() {
    this.plot = this.element.querySelector('.plot');
    this.root = svg('svg', {role: 'img', height: HEIGHT});
    this.grid = svg('g', {class: 'grid'});
    this.inside = svg('svg', {x: MARGIN.left, y: 0, overflow: 'hidden'});
    this.lines = this.definition.series.map(({item}, index) =>
      svg('path', {class: `line line-${index}`, 'data-item': item}));
    // The first series is drawn last, above the others.
    this.inside.append(...this.lines.toReversed());
    this.root.append(this.grid, this.inside);
    this.plot.append(this.root);
  }

  #makeTable(onNeeded) {
    this.details = this.element.querySelector('details');
    this.details.addEventListener('toggle', onNeeded);
    this.details.querySelector('.only-heard').textContent = `: ${this.definition.title}`;
    this.details.querySelector('.scroll').setAttribute('aria-label', this.definition.title);
    const head = this.details.querySelector('thead tr');
    for (const title of ['Time', ...this.definition.series.map(({name}) => name)]) {
      head.append(cell('th', title));
      head.lastChild.scope = 'col';
    }
  }

  // Under the pointer the legend tells what was then; elsewhere what is now.
  #followPointer(onNeeded) {
    this.pointer = null;  // how far from the left, in pixels
    const follow = (event) => {
      this.pointer = event.clientX - this.plot.getBoundingClientRect().left;
      onNeeded();
    };
    this.plot.addEventListener('pointerdown', follow);
    this.plot.addEventListener('pointermove', follow);
    this.plot.addEventListener('pointerleave', () => {
      this.pointer = null;
      onNeeded();
    });
  }

  // The time under the pointer, or null.
  #pointedTime(end, minutes) {
    const inner = this.plot.clientWidth - MARGIN.left - MARGIN.right;
    const share = (this.pointer - MARGIN.left) / inner;
    if (this.pointer === null || share < 0 || share > 1) return null;
    return end - (1 - share) * minutes * MINUTE;
  }

  #updateLegend(samples, end, minutes) {
    const pointed = this.#pointedTime(end, minutes);
    const sample = samples.findLast(({time, numbers}) =>
      numbers && (pointed === null || time <= pointed));
    this.pointed = pointed === null ? null : sample?.time;
    setText(this.moment, this.pointed ? `at ${clock(this.pointed)}` : '');
    this.definition.series.forEach(({item}, index) => {
      setText(this.values[index], withUnit(sample?.numbers[item], this.definition.unit));
    });
  }

  #highest(isReference) {
    const {series} = this.definition;
    const values = this.curves.flatMap((runs, index) =>
      Boolean(series[index].reference) === isReference ? runs.flat().map(({value}) => value) : []);
    return values.reduce((highest, value) => Math.max(highest, value), 0);
  }

  #axis() {
    const curves = this.#highest(false);
    const reference = this.#highest(true);
    this.isFarAbove = curves > 0 && reference > curves * FAR_ABOVE;
    const highest = this.isFarAbove ? curves : Math.max(curves, reference);
    return axisFor(highest, this.definition.unit, this.definition.top);
  }

  // What the curves show, in words.
  #summary(minutes) {
    const {title, unit, series} = this.definition;
    const parts = series.map(({name}, index) => {
      const values = this.curves[index].flat().map(({value}) => value);
      if (values.length === 0) return `${name}: no values yet`;
      const lowest = values.reduce((low, value) => Math.min(low, value));
      const highest = values.reduce((high, value) => Math.max(high, value));
      return `${name} ${withUnit(values.at(-1), unit)}, ` +
        `between ${withUnit(lowest, unit)} and ${withUnit(highest, unit)}`;
    });
    const span = minutes === 1 ? 'minute' : `${minutes} minutes`;
    return `${title}, last ${span}. ${parts.join('; ')}.`;
  }

  #draw(axis, end, minutes) {
    const width = this.plot.clientWidth;
    if (width === 0) return;
    const inner = {width: width - MARGIN.left - MARGIN.right, bottom: HEIGHT - MARGIN.bottom};
    const from = end - minutes * MINUTE;
    const x = (time) => (time - from) / (minutes * MINUTE) * inner.width;
    const y = (value) => inner.bottom - value / axis.top * (inner.bottom - MARGIN.top);
    this.root.setAttribute('width', width);
    this.inside.setAttribute('width', inner.width + MARGIN.right);
    this.inside.setAttribute('height', inner.bottom + 2);
    this.grid.replaceChildren(
      ...this.#valueTicks(axis, y, width), ...this.#timeTicks(from, end, minutes, x, inner));
    if (this.pointed >= from) {
      const at = MARGIN.left + x(this.pointed);
      const ends = {x1: at, x2: at, y1: MARGIN.top, y2: inner.bottom};
      this.grid.append(svg('line', {class: 'cursor', ...ends}));
    }
    this.curves.forEach((runs, index) => {
      this.lines[index].setAttribute('d', runs.map((run) => pathOf(run, x, y)).join(''));
    });
  }

  #valueTicks(axis, y, width) {
    const right = width - MARGIN.right;
    const ticks = axis.ticks.flatMap(({value, text}) => [
      svg('line', {x1: MARGIN.left, x2: right, y1: y(value), y2: y(value)}),
      svg('text', {x: MARGIN.left - 8, y: y(value) + 4, 'text-anchor': 'end'}, text),
    ]);
    ticks.push(svg('text', {x: MARGIN.left, y: 10, class: 'unit'}, axis.label));
    if (this.isFarAbove) {
      const {unit, series} = this.definition;
      const {name} = series.find(({reference}) => reference);
      const text = `↑ ${name}: ${withUnit(this.#highest(true), unit)}`;
      ticks.push(svg('text', {x: right, y: 10, 'text-anchor': 'end'}, text));
    }
    return ticks;
  }

  #timeTicks(from, end, minutes, x, inner) {
    const step = TIME_STEPS[minutes].axis;
    const ticks = [];
    for (let time = Math.ceil(from / step) * step; time <= end; time += step) {
      const at = MARGIN.left + x(time);
      ticks.push(svg('line', {x1: at, x2: at, y1: MARGIN.top, y2: inner.bottom + 4}));
      const room = Math.min(x(time), inner.width - x(time) + MARGIN.right);
      if (room < 20) continue;
      const text = clock(time, minutes === 1);
      ticks.push(svg('text', {x: at, y: HEIGHT - 5, 'text-anchor': 'middle'}, text));
    }
    return ticks;
  }

  // The latest reading of each step, the newest first.
  #fillTable(samples, end, minutes) {
    const {unit, series} = this.definition;
    const step = TIME_STEPS[minutes].table;
    const rows = new Map();
    for (const sample of within(samples, end - minutes * MINUTE)) {
      if (sample.numbers) rows.set(Math.ceil(sample.time / step), sample);
    }
    const filled = [...rows.values()].reverse().map(({time, numbers}) => {
      const row = document.createElement('tr');
      row.append(cell('th', clock(time)));
      row.firstChild.scope = 'row';
      row.append(...series.map(({item}) => cell('td', withUnit(numbers[item], unit))));
      return row;
    });
    this.details.querySelector('tbody').replaceChildren(...filled);
  }
}

// A single point is a line without length, which round ends make a dot.
function pathOf(run, x, y) {
  const points = run.map(({time, value}) => `${x(time).toFixed(1)} ${y(value).toFixed(1)}`);
  return 'M' + points.join('L') + (points.length === 1 ? 'h0' : '');
}

