/*
 * The data of the page, as the rest of the script uses it. Times are microseconds since the first
 * request. What the log says gets into the page as text alone, never as HTML.
 */
const data = JSON.parse(document.getElementById("data").textContent);
const requests = data.requests;
const lineTexts = new Map(data.lines);
const NOT_ANSWERED = -2;
const NOT_TOLD = -1;
const CLOCK_STEP = 2000; /* the log tells times in milliseconds, so neighbours may seem to overlap */

/* How an operation is drawn: by a colour for its family, and within it by a fill. */
const FAMILIES = {
  blue: ["OPEN", "CLOSE", "CLEANUP"],
  cyan: ["STAT", "BRL"],
  green: ["DENUM", "FINDNEXT", "FOLDEREMPTY"],
  yellow: ["CACHE_REGION", "READ"],
  purple: ["DIRTY_REGION", "WRITE", "FTRUNCATE", "SETFSIZE"],
  orange: ["DELETE", "RENAME", "CANDELETE"],
  grey: ["CONNECT", "GET_VERSION", "SHUTDOWN"],
};
const FILLS = ["solid", "striped", "hollow"];

function lookOf(name) {
  for (const [colour, names] of Object.entries(FAMILIES)) {
    if (names.includes(name)) {
      return { colour, fill: FILLS[Math.min(names.indexOf(name), FILLS.length - 1)] };
    }
  }
  return { colour: "grey", fill: "solid" };
}

const operations = data.operations.map((name, code) => {
  return { name, code, isCall: code >= data.first_call, isShown: true, ...lookOf(name) };
});

/* A request by its number: all that the log tells of it. */
function request(i) {
  const micros = requests.micros[i];
  const end = requests.end[i] * 1000;
  return {
    i, end, micros,
    start: end - Math.max(micros, 0),
    operation: operations[requests.operation[i]],
    error: requests.error[i],
    failed: requests.failed[i] !== 0,
    connection: requests.connection[i],
    path: data.paths[requests.path[i]],
    id: requests.id[i],
    lines: [requests.sent_line[i], requests.header_line[i], requests.event_line[i]]
        .map((number) => lineTexts.get(number)).filter((line) => line !== undefined),
  };
}

const answered = requests.end.map((_, i) => request(i));
const lastEnd = answered.reduce((last, r) => Math.max(last, r.end), 1);

/* Requests without an answer last until the log's end. */
const unanswered = data.report.no_answer.map((sent, i) => {
  return {
    i: answered.length + i,
    start: Math.max((sent.time - data.first) * 1000, 0),
    end: Math.max((sent.time - data.first) * 1000, lastEnd),
    micros: -1,
    operation: operations.find((operation) => operation.name === sent.operation),
    error: 0,
    failed: false,
    connection: NOT_ANSWERED,
    path: sent.path,
    id: sent.request,
    lines: [],
  };
});

const all = answered.concat(unanswered);

/* The requests that a call made, as far as the log tells: those about its file meanwhile. */
function requestsOfCall(call) {
  if (!call.operation.isCall || call.path === "") {
    return [];
  }
  return answered.filter((r) => !r.operation.isCall && r.path === call.path && r.micros >= 0 &&
      r.start >= call.start - CLOCK_STEP && r.end <= call.end + CLOCK_STEP)
      .sort((a, b) => a.start - b.start);
}

/* ------------------------------------------------------------------ lanes */

const CALLS = -3;
const MOST_LANES = 40;
const MOST_ROWS = 8;

/* Puts items that overlap into rows of their own, as far as there are rows. */
function rowsOf(items) {
  const rows = [];
  for (const item of items) {
    let row = rows.find((r) => r.end <= item.start + CLOCK_STEP);
    if (row === undefined && rows.length < MOST_ROWS) {
      row = { items: [], end: 0, longest: 0 };
      rows.push(row);
    }
    row = row ?? rows[rows.length - 1];
    row.items.push(item);
    row.end = Math.max(row.end, item.end);
    row.longest = Math.max(row.longest, item.end - item.start);
  }
  return rows;
}

function laneOf(name, detail, items) {
  items.sort((a, b) => a.start - b.start || a.i - b.i);
  return { name, detail, rows: rowsOf(items) };
}

/*
 * A lane for each connection; of very many connections those with few requests share one. Calls have
 * a lane of their own: their requests go over whichever connection is free.
 */
function makeLanes() {
  const items = new Map();
  for (const r of all) {
    const lane = r.operation.isCall ? CALLS : r.connection;
    items.set(lane, items.get(lane) ?? []);
    items.get(lane).push(r);
  }
  const busiest = [...items.keys()].filter((c) => c >= 0)
      .sort((a, b) => items.get(b).length - items.get(a).length);
  const others = busiest.splice(MOST_LANES);
  const lanes = busiest.sort((a, b) => a - b).map((c) => laneOf(
      `connection ${c + 1}`, `socket ${data.connections[c].socket}`, items.get(c)));
  if (others.length > 0) {
    lanes.push(laneOf(`${others.length} others`, "with few requests",
        others.flatMap((c) => items.get(c))));
  }
  if (items.has(CALLS)) {
    lanes.unshift(laneOf("calls", "as a whole", items.get(CALLS)));
  }
  if (items.has(NOT_TOLD)) {
    lanes.push(laneOf("connection", "not told", items.get(NOT_TOLD)));
  }
  if (items.has(NOT_ANSWERED)) {
    lanes.push(laneOf("no answer", "until the end", items.get(NOT_ANSWERED)));
  }
  return lanes;
}

/* ------------------------------------------------------------------ texts */

const GROUPED = new Intl.NumberFormat("en");

function milliseconds(micros, digits = 1) {
  return micros < 0 ? "-" : (micros / 1000).toLocaleString("en",
      { minimumFractionDigits: digits, maximumFractionDigits: digits });
}

/* "14:21:52.589": the time of day on the log's clock, which tells no zone. */
function clock(micros, digits = 3) {
  const text = new Date(data.first + micros / 1000).toISOString().slice(11, 23);
  if (digits <= 3) {
    return digits === 0 ? text.slice(0, 8) : text.slice(0, 9 + digits);
  }
  return text + String(Math.floor(((micros % 1000) + 1000) % 1000)).padStart(3, "0");
}

const day = () => new Date(data.first).toISOString().slice(0, 10);

function counted(count, noun) {
  return `${GROUPED.format(count)} ${noun}${count === 1 ? "" : "s"}`;
}
