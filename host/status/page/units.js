// Numbers as people read them: in a unit that fits their size, and round steps for axes.

// A unit's scales ascend; a value is written in the last one whose factor it reaches. `whole`: in
// the first scale there are no fractions.
const MILLISECONDS = {
  scales: [{label: 'ms', factor: 1}, {label: 's', factor: 1000}],
  whole: true,
};
const BYTES = {
  scales: [
    {label: 'B', factor: 1}, {label: 'kB', factor: 1e3},
    {label: 'MB', factor: 1e6}, {label: 'GB', factor: 1e9},
  ],
  whole: true,
};
const PERCENT = {scales: [{label: '%', factor: 1}], whole: true};
const COUNT = {scales: [{label: '', factor: 1}], whole: true};
const ELEMENTS = {...COUNT, axisLabel: 'elements'};
const PER_SECOND = {scales: [{label: '/s', factor: 1}], whole: false};

const NARROW_SPACE = '\u202f';

function scaleFor(value, unit) {
  return unit.scales.findLast((scale) => Math.abs(value) >= scale.factor) ?? unit.scales[0];
}

function digitsFor(scaled) {
  if (scaled === 0 || Math.abs(scaled) >= 100) return 0;
  return Math.abs(scaled) >= 10 ? 1 : 2;
}

function grouped(value, digits) {
  return value.toLocaleString('en', {minimumFractionDigits: digits, maximumFractionDigits: digits});
}

// "12 ms", "1.24 s", "3.50 /s", "1,024"; a dash where there is no value.
function withUnit(value, unit) {
  if (value === undefined) return '–';
  const scale = scaleFor(value, unit);
  const scaled = value / scale.factor;
  const digits = unit.whole && scale === unit.scales[0] ? 0 : digitsFor(scaled);
  return grouped(scaled, digits) + (scale.label && NARROW_SPACE + scale.label);
}

// 1, 2 or 5 times a power of ten, and at least `atLeast`.
function roundStep(roughly, atLeast) {
  if (roughly <= atLeast) return atLeast;
  const power = 10 ** Math.floor(Math.log10(roughly));
  return power * [1, 2, 5, 10].find((factor) => factor * power >= roughly * (1 - 1e-9));
}

// From 0 to a round top that is not below `highest`: its ticks as {value, text}, its unit's label.
function axisFor(highest, unit, fixedTop) {
  const reach = fixedTop ?? (highest || 4);
  const scale = scaleFor(reach, unit);
  const isWhole = unit.whole && scale === unit.scales[0];
  const step = roundStep(reach / scale.factor / 4, isWhole ? 1 : 0.05);
  const count = Math.max(2, Math.ceil(reach / scale.factor / step - 1e-9));
  const digits = Math.max(0, -Math.floor(Math.log10(step) + 1e-9));
  const ticks = Array.from({length: count + 1}, (unused, i) => ({
    value: i * step * scale.factor,
    text: grouped(i * step, digits),
  }));
  return {ticks, top: ticks.at(-1).value, label: unit.axisLabel ?? scale.label};
}

// "12:03:05", or "12:03".
function clock(time, withSeconds = true) {
  const date = new Date(time);
  const parts = [date.getHours(), date.getMinutes(), date.getSeconds()];
  return parts.slice(0, withSeconds ? 3 : 2).map((part) => String(part).padStart(2, '0')).join(':');
}

// A number, or undefined for any other text.
function numberIn(text) {
  return /^-?\d+(\.\d+)?(e[-+]?\d+)?$/i.test(text) ? Number(text) : undefined;
}

