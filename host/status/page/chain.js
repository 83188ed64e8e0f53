// One chain: everything whose key starts with its name and id.

const CHARTS = [
  {
    title: 'Latency',
    unit: MILLISECONDS,
    series: [
      {item: 'requestLatencyEWMAShortMillis', name: 'short average'},
      {item: 'requestLatencyEWMALongMillis', name: 'long average'},
    ],
  },
  {
    title: 'Answers per second',
    unit: PER_SECOND,
    series: [
      {item: rateOf('responsesTowardsHost'), name: 'status 200 to 399'},
      {item: rateOf('errorsTowardsHost'), name: 'errors'},
    ],
  },
  {
    title: 'Queue length',
    unit: ELEMENTS,
    series: [{item: 'queueSize', name: 'waiting'}],
  },
  {
    title: 'Request size',
    unit: BYTES,
    series: [
      {item: 'requestSizeEWMAShortBytes', name: 'short average'},
      {item: 'requestSizeEWMALongBytes', name: 'long average'},
      {item: 'requestSizeMaxInLastHourBytes', name: 'largest of the hour', reference: true},
    ],
  },
  {
    title: 'Response size',
    unit: BYTES,
    series: [
      {item: 'responseSizeEWMAShortBytes', name: 'short average'},
      {item: 'responseSizeEWMALongBytes', name: 'long average'},
      {item: 'responseSizeMaxInLastHourBytes', name: 'largest of the hour', reference: true},
    ],
  },
  {
    title: 'Utilisation of the workers',
    unit: PERCENT,
    top: 100,
    series: [{item: 'concurrencyUtilizationPercent', name: 'evenly busy'}],
  },
];
const COUNTERS = [
  {item: 'responsesTowardsHost', name: 'Answers 200 to 399', rises: true},
  {item: 'errorsTowardsHost', name: 'Errors', rises: true},
  {item: 'serializedRequests', name: 'Barriers', rises: true},
  {item: 'numClients', name: 'Workers'},
];
const RISING = COUNTERS.filter(({rises}) => rises).map(({item}) => item);
const KNOWN = new Set([
  'status', 'KPIs', ...COUNTERS.map(({item}) => item),
  ...CHARTS.flatMap(({series}) => series.map(({item}) => item)),
]);

// A state is told by its text, a shape and a colour.
const STATES = {
  ONLINE: {
    back: 'M8 .8a7.2 7.2 0 1 1 0 14.4A7.2 7.2 0 1 1 8 .8z',
    mark: 'M4.7 8.3l2.3 2.3 4.4-4.8',
  },
  FAILED: {back: 'M8 .9 15.6 14.6H.4z', mark: 'M8 5.8v4M8 12.2v.1'},
  STARTING: {back: 'M2 1h12v14H2z', mark: 'M4.9 8v.1M8 8v.1M11.1 8v.1'},
  other: {back: 'M8 .4 15.6 8 8 15.6.4 8z', mark: 'M5.4 8h5.2'},
};

class State {
  constructor() {
    this.element = fromTemplate('state-template');
    this.show('');
  }

  show(text) {
    const known = Object.hasOwn(STATES, text) ? text : 'other';
    this.element.dataset.state = known;
    this.element.querySelector('.shape-back').setAttribute('d', STATES[known].back);
    this.element.querySelector('.shape-mark').setAttribute('d', STATES[known].mark);
    setText(this.element.querySelector('.state-text'), text || 'no state');
  }
}

function numbersIn(items) {
  const numbers = Object.entries(items).map(([item, text]) => [item, numberIn(text)]);
  return Object.fromEntries(numbers.filter(([, number]) => number !== undefined));
}

// Rows of item and text; rows are made anew only where the items are others than before.
function fillItems(table, items) {
  const body = table.tBodies[0];
  const names = Object.keys(items);
  if (names.join('\n') !== [...body.rows].map((row) => row.cells[0].textContent).join('\n')) {
    body.replaceChildren(...names.map((name) => {
      const row = document.createElement('tr');
      row.append(cell('th', name), cell('td', ''));
      row.firstChild.scope = 'row';
      return row;
    }));
  }
  names.forEach((name, index) => setText(body.rows[index].cells[1], items[name]));
}

class Chain {
  constructor(name, index, onNeeded) {
    this.history = new History();
    this.state = undefined;
    this.isPublished = true;
    this.element = fromTemplate('chain-template');
    this.element.id = `chain-${index}`;
    this.heading = this.element.querySelector('h2');
    this.heading.id = `chain-${index}-name`;
    this.heading.textContent = name || 'Items without a chain';
    this.element.setAttribute('aria-labelledby', this.heading.id);
    this.badges = [new State(), new State()];
    this.element.querySelector('.chain-state').append(this.badges[0].element);
    this.onNeeded = onNeeded;
    this.charts = new Map();
    this.counters = new Map();
  }

  // The link to the chain, with its state, for the overview.
  link() {
    const link = document.createElement('a');
    link.href = `#${this.element.id}`;
    link.append(this.badges[1].element, ' ', cell('span', this.heading.textContent));
    return link;
  }

  // What the items were before the page was opened.
  recall(time, items) {
    this.history.add(time, numbersIn(items), RISING);
  }

  // Items are texts by the end of their key. What to say of a change of state, or nothing.
  accept(time, items) {
    const numbers = numbersIn(items);
    this.history.add(time, numbers, RISING);
    this.#addParts(items);
    this.#showItems(items, numbers);
    return this.#showState(time, items.status ?? '', true);
  }

  // The program answers, but has nothing of this chain any more.
  vanish(time) {
    this.history.addGap(time);
    return this.#showState(time, this.state, false);
  }

  draw(minutes) {
    for (const chart of this.charts.values()) chart.update(this.history.samples, minutes);
  }

  #showState(time, state, isPublished) {
    const isFirst = this.state === undefined;
    if (state === this.state && isPublished === this.isPublished) return null;
    this.state = state;
    this.isPublished = isPublished;
    this.element.classList.toggle('is-gone', !isPublished);
    for (const badge of this.badges) badge.show(state);
    const since = this.element.querySelector('.chain-since');
    if (!isPublished) {
      since.textContent = `not published since ${clock(time)}; these are its last values`;
      return `${this.heading.textContent} is not published any more`;
    }
    since.textContent = isFirst ? '' : `since ${clock(time)}`;
    return isFirst || !state ? null : `${this.heading.textContent} is ${state}`;
  }

  // A transport shows what it publishes, from when it publishes it.
  #addParts(items) {
    for (const definition of CHARTS) {
      const isThere = definition.series.some(({item}) => item.replace(/ per second$/, '') in items);
      if (!isThere || this.charts.has(definition)) continue;
      const chart = new Chart(definition, this.onNeeded);
      this.charts.set(definition, chart);
      const ordered = CHARTS.filter((each) => this.charts.has(each));
      this.element.querySelector('.charts').replaceChildren(
        ...ordered.map((each) => this.charts.get(each).element));
    }
    for (const {item, name} of COUNTERS) {
      if (!(item in items) || this.counters.has(item)) continue;
      const entry = document.createElement('div');
      entry.append(cell('dt', name), cell('dd', ''));
      entry.lastChild.dataset.item = item;
      this.counters.set(item, entry.lastChild);
      this.element.querySelector('.counters').append(entry);
    }
  }

  #showItems(items, numbers) {
    for (const [item, element] of this.counters) {
      setText(element, withUnit(numbers[item], COUNT));
    }
    const further = Object.fromEntries(Object.entries(items).filter(([item]) => !KNOWN.has(item)));
    this.element.querySelector('.further').hidden = Object.keys(further).length === 0;
    fillItems(this.element.querySelector('.further table'), further);
    fillItems(this.element.querySelector('.all-items table'), items);
  }
}

