/* The picture of requests over time: which part of it is seen, and how it is drawn. */
const canvas = document.getElementById("timeline");
const context = canvas.getContext("2d");
const lanes = makeLanes();
const view = { from: 0, to: 1, width: 0 }; /* microseconds; pixels */
const MARGIN = { left: 104, right: 14, top: 26 };
const ROW = 15;
const LANE_GAP = 13;
const SHORTEST_VIEW = 20;
let kept = null;

const whole = (() => {
  const end = all.reduce((last, r) => Math.max(last, r.end), 1);
  const start = all.reduce((first, r) => Math.min(first, r.start), end);
  const margin = Math.max((end - start) * .01, 100);
  return { from: start - margin, to: end + margin };
})();

const isVisible = (item) => item.operation.isShown;
const xOf = (micros) => MARGIN.left + (micros - view.from) / (view.to - view.from) * view.width;
const timeAt = (x) => view.from + (x - MARGIN.left) / view.width * (view.to - view.from);

/* Where each row is drawn. */
function placeRows() {
  let y = MARGIN.top + 8;
  for (const lane of lanes) {
    lane.y = y;
    lane.rows.forEach((row, i) => { row.y = y + i * (ROW + 2); });
    lane.height = Math.max(lane.rows.length, 2) * (ROW + 2) - 2;
    y += lane.height + LANE_GAP;
  }
  return y;
}
const height = placeRows();

/* The items of a row that lie in this part of the time, or begin a little before it. */
function firstIn(row, from) {
  let low = 0;
  let high = row.items.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (row.items[middle].start < from - row.longest) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

function* itemsIn(row, from, to) {
  for (let i = firstIn(row, from); i < row.items.length && row.items[i].start <= to; i++) {
    if (row.items[i].end >= from && isVisible(row.items[i])) {
      yield row.items[i];
    }
  }
}

/* Draws a row, and each pixel's first bar alone where there are several; errors stay. */
function drawRow(row) {
  let drawn = 0;
  let last = -1;
  const failed = [];
  for (const item of itemsIn(row, view.from, view.to)) {
    drawn++;
    const left = Math.max(xOf(item.start), MARGIN.left);
    const right = Math.min(xOf(item.end), MARGIN.left + view.width);
    if (item.failed) {
      failed.push(right);
    }
    if (right - left >= 1 || Math.floor(left) !== last) {
      last = Math.floor(left);
      const gap = right - left >= 4 ? 1 : 0; /* tells it from its neighbour */
      drawBar(context, item.operation, left, row.y, right - left - gap, ROW);
    }
  }
  let lastMark = -9;
  for (const x of failed.sort((a, b) => a - b)) {
    if (x - lastMark >= 4) {
      drawErrorMark(context, x, row.y);
      lastMark = x;
    }
  }
  return drawn;
}

function drawLanes() {
  context.textBaseline = "alphabetic";
  context.textAlign = "left";
  let drawn = 0;
  for (const lane of lanes) {
    context.fillStyle = COLOURS.lane;
    context.fillRect(MARGIN.left, lane.y - 4, view.width, lane.height + 8);
    context.fillStyle = COLOURS.ink;
    context.font = "12px system-ui, sans-serif";
    context.fillText(lane.name, 0, lane.y + 11);
    context.fillStyle = COLOURS.soft;
    context.font = "11px system-ui, sans-serif";
    context.fillText(lane.detail, 0, lane.y + 25);
  }
  drawAxis();
  for (const row of lanes.flatMap((lane) => lane.rows)) {
    drawn += drawRow(row);
  }
  return drawn;
}

/* 1, 2 or 5 times a power of ten, in seconds; beyond that whole minutes and hours. */
function stepOfAxis() {
  const wanted = (view.to - view.from) / Math.max(view.width / 110, 1);
  for (const step of [6e7, 12e7, 3e8, 6e8, 18e8, 36e8, 72e8, 216e8, 864e8]) {
    if (wanted > 3e7 && step >= wanted) {
      return step;
    }
  }
  const power = 10 ** Math.floor(Math.log10(wanted));
  return power * [1, 2, 5, 10].find((factor) => factor * power >= wanted);
}

function drawAxis() {
  const step = stepOfAxis();
  const digits = step >= 1e6 ? 0 : step >= 1000 ? 3 : 6;
  const zero = data.first * 1000 % 864e8; /* so that marks are whole on the clock */
  context.font = "11px system-ui, sans-serif";
  context.textAlign = "center";
  for (let t = Math.ceil((view.from + zero) / step) * step - zero; t <= view.to; t += step) {
    const x = Math.round(xOf(t)) + .5;
    context.strokeStyle = COLOURS.line;
    context.lineWidth = 1;
    context.beginPath();
    context.moveTo(x, MARGIN.top - 6);
    context.lineTo(x, height - LANE_GAP + 4);
    context.stroke();
    context.fillStyle = COLOURS.soft;
    context.fillText(clock(Math.round(t), digits), x, MARGIN.top - 11);
  }
}

function drawKept() {
  const row = kept && lanes.flatMap((lane) => lane.rows).find((r) => r.items.includes(kept));
  if (!row) {
    return;
  }
  const left = xOf(kept.start);
  context.strokeStyle = COLOURS.ink;
  context.lineWidth = 2;
  context.strokeRect(left - 2, row.y - 2, Math.max(xOf(kept.end) - left, 1) + 4, ROW + 4);
}

function draw() {
  const ratio = window.devicePixelRatio || 1;
  const width = canvas.clientWidth;
  view.width = Math.max(width - MARGIN.left - MARGIN.right, 50);
  canvas.width = Math.round(width * ratio);
  canvas.height = Math.round(height * ratio);
  canvas.style.height = `${height}px`;
  context.setTransform(ratio, 0, 0, ratio, 0, 0);
  canvas.dataset.drawn = drawLanes(); /* requests in this part of the time */
  context.save();
  context.beginPath();
  context.rect(MARGIN.left, 0, view.width + MARGIN.right, height);
  context.clip();
  drawKept();
  context.restore();
}

let isDue = false;
function drawSoon() {
  if (!isDue) {
    isDue = true;
    requestAnimationFrame(() => { isDue = false; draw(); });
  }
}

/* ------------------------------------------------------------------ which part is seen */

function look(from, to) {
  const span = Math.min(Math.max(to - from, SHORTEST_VIEW), whole.to - whole.from);
  const middle = (from + to) / 2;
  view.from = Math.min(Math.max(middle - span / 2, whole.from), whole.to - span);
  view.to = view.from + span;
  drawSoon();
}

function zoom(factor, at = (view.from + view.to) / 2) {
  look(at - (at - view.from) * factor, at + (view.to - at) * factor);
}

function move(part) {
  const by = (view.to - view.from) * part;
  const shift = Math.min(Math.max(by, whole.from - view.from), whole.to - view.to);
  look(view.from + shift, view.to + shift);
}

/* So that the item is seen, with what is around it. */
function lookAt(item) {
  const span = Math.max((item.end - item.start) * 3, 2000);
  const middle = (item.start + item.end) / 2;
  look(middle - span / 2, middle + span / 2);
}

/* The item at a place of the canvas, or the nearest one in its row; null when there is none. */
function itemAt(x, y) {
  const row = lanes.flatMap((lane) => lane.rows).find((r) => y >= r.y - 4 && y < r.y + ROW);
  if (row === undefined || x < MARGIN.left) {
    return null;
  }
  const near = 4 * (view.to - view.from) / view.width;
  const at = timeAt(x);
  let best = null;
  let least = Infinity;
  for (const item of itemsIn(row, at - near, at + near)) {
    const distance = Math.max(item.start - at, at - item.end, 0) - (item.failed ? near / 2 : 0);
    if (distance < least) {
      best = item;
      least = distance;
    }
  }
  return best;
}
