// What a chain has published over the last minutes, kept in the page: every second since it was
// opened, and before that what the program has kept.

const KEPT_MILLISECONDS = 15.5 * 60 * 1000;
// Readings further apart are not joined by a line: nobody looked in between.
const LONGEST_STEP_MILLISECONDS = 12000;

// The name under which a counter's increase per second is kept.
function rateOf(item) {
  return item + ' per second';
}

class History {
  // Each {time, numbers}; numbers is null where the program gave no answer.
  #samples = [];

  get samples() {
    return this.#samples;
  }

  get latest() {
    return this.#samples.at(-1);
  }

  add(time, numbers, counters) {
    const before = this.latest;
    const rates = before?.numbers ? ratesSince(before, time, numbers, counters) : {};
    this.#push({time, numbers: {...numbers, ...rates}});
  }

  addGap(time) {
    if (this.latest?.numbers) this.#push({time, numbers: null});
  }

  #push(sample) {
    this.#samples.push(sample);
    const tooOld = this.#samples.findIndex((each) => each.time >= sample.time - KEPT_MILLISECONDS);
    if (tooOld > 0) this.#samples.splice(0, tooOld);
  }
}

// A counter that went down has started anew: nothing is known of that second.
function ratesSince(before, time, numbers, counters) {
  const seconds = (time - before.time) / 1000;
  const rates = {};
  for (const item of counters) {
    const increase = numbers[item] - before.numbers[item];
    if (seconds > 0 && increase >= 0) rates[rateOf(item)] = increase / seconds;
  }
  return rates;
}

// The runs of points {time, value} that a line joins.
function runsOf(samples, item) {
  const runs = [];
  let last = null;
  for (const {time, numbers} of samples) {
    const value = numbers?.[item];
    if (value === undefined) {
      last = null;
      continue;
    }
    if (last === null || time - last > LONGEST_STEP_MILLISECONDS) runs.push([]);
    runs.at(-1).push({time, value});
    last = time;
  }
  return runs;
}

