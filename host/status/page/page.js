// The page: asks the program once a second, and says what it knows and since when.

const POLL_MILLISECONDS = 1000;
const PATIENCE_MILLISECONDS = 5000;

const chains = new Map();
let minutes = 5;
let lastAnswer = null;  // the time of the latest answer
let isSilent = false;
let past = [];  // until the first answer with items: {time, groups}, the oldest first

function byId(id) {
  return document.getElementById(id);
}

// Heard by who listens to the page; nothing is seen.
function announce(texts) {
  const news = texts.filter((text) => text);
  if (news.length > 0) byId('news').textContent = news.join('. ') + '.';
}

function draw() {
  if (document.hidden) return;
  for (const chain of chains.values()) chain.draw(minutes);
}

// Many reasons to draw give one drawing.
let isDrawingDue = false;
function drawSoon() {
  if (isDrawingDue) return;
  isDrawingDue = true;
  requestAnimationFrame(() => {
    isDrawingDue = false;
    draw();
  });
}

// {"shop.orders.queueSize": "3"} as Map {"shop.orders" => {queueSize: "3"}}.
function groupedByChain(items) {
  const groups = new Map();
  for (const [key, text] of Object.entries(items)) {
    const dot = key.lastIndexOf('.');
    const name = key.slice(0, Math.max(0, dot));
    if (!groups.has(name)) groups.set(name, {});
    Object.defineProperty(groups.get(name), key.slice(dot + 1), {value: text, enumerable: true});
  }
  return groups;
}

function addChain(name) {
  const chain = new Chain(name, chains.size, drawSoon);
  chains.set(name, chain);
  byId('chains').append(chain.element);
  const entry = document.createElement('li');
  entry.append(chain.link());
  byId('overview').firstElementChild.append(entry);
  byId('overview').hidden = chains.size < 2;
  for (const {time, groups} of past) {
    if (groups.has(name)) chain.recall(time, groups.get(name));
  }
  return chain;
}

function showTitle() {
  const failed = [...chains.values()].filter(({state}) => state === 'FAILED').length;
  const sign = isSilent ? 'no answer · ' : failed > 0 ? `${failed} FAILED · ` : '';
  document.title = `${sign}Status · orrery`;
}

function accept(time, items) {
  const groups = groupedByChain(items);
  const news = isSilent ? ['The program answers again'] : [];
  isSilent = false;
  lastAnswer = time;
  for (const [name, group] of groups) {
    news.push((chains.get(name) ?? addChain(name)).accept(time, group));
  }
  if (groups.size > 0) past = [];
  for (const [name, chain] of chains) {
    if (!groups.has(name)) news.push(chain.vanish(time));
  }
  byId('empty').hidden = chains.size > 0;
  byId('silence').hidden = true;
  document.body.classList.remove('is-silent');
  setText(byId('freshness'), `As of ${clock(time)}`);
  showTitle();
  announce(news);
  draw();
}

function miss(time) {
  for (const chain of chains.values()) chain.history.addGap(time);
  if (isSilent) return;
  isSilent = true;
  const text = lastAnswer === null ? 'No answer from the program yet' :
    `No answer from the program since ${clock(lastAnswer)}; showing the last values`;
  byId('silence').textContent = text;
  byId('silence').hidden = false;
  document.body.classList.add('is-silent');
  showTitle();
  announce([text]);
}

// What a path of the program gives, or null where no answer comes.
async function ask(path) {
  try {
    const signal = AbortSignal.timeout(PATIENCE_MILLISECONDS);
    const response = await fetch(path, {cache: 'no-store', signal});
    return response.ok ? await response.json() : null;
  } catch {
    return null;
  }
}

async function askForThePast() {
  const samples = await ask('history.json') ?? [];
  const now = Date.now();
  past = samples.map(({age, items}) => ({time: now - age * 1000, groups: groupedByChain(items)}));
}

async function poll() {
  const items = await ask('status.json');
  if (items) accept(Date.now(), items);
  else miss(Date.now());
  setTimeout(poll, POLL_MILLISECONDS);
}

byId('window').addEventListener('change', (event) => {
  minutes = Number(event.target.value);
  draw();
});
document.addEventListener('visibilitychange', draw);
minutes = Number(new FormData(byId('window')).get('minutes'));
askForThePast().then(poll);
