/* The tables: latency by operation, and the slowest with their stages. */
const SLOWEST = 50;
const SCALE = { width: 300, height: 24, bins: 60 };

function rowOf(kind, cells) {
  const row = document.createElement("tr");
  for (const [content, className] of cells) {
    const cell = element(kind, "", className);
    cell.append(content);
    row.append(cell);
  }
  return row;
}

/* ------------------------------------------------------------------ latency */

/* Powers of ten of a millisecond around all response times. */
function decades() {
  const times = answered.filter((r) => r.micros > 0).map((r) => r.micros / 1000);
  const most = times.reduce((a, b) => Math.max(a, b), 1);
  const least = times.reduce((a, b) => Math.min(a, b), most);
  const low = Math.max(Math.floor(Math.log10(least)), -2);
  return { low, high: Math.max(Math.ceil(Math.log10(most)), low + 1) };
}

function placeOnScale(micros, scale) {
  const decade = Math.log10(Math.max(micros / 1000, 10 ** scale.low));
  return Math.min((decade - scale.low) / (scale.high - scale.low), 1);
}

function scaleMarks(scale) {
  const marks = [];
  for (let decade = scale.low; decade <= scale.high; decade++) {
    const x = (decade - scale.low) / (scale.high - scale.low) * SCALE.width;
    const anchor = decade === scale.low ? "start" : decade === scale.high ? "end" : "middle";
    const text = svg("text", { x, y: 10, "text-anchor": anchor });
    text.textContent = (10 ** decade).toLocaleString("en");
    marks.push(text);
  }
  return picture(SCALE.width, 14, "milliseconds", ...marks);
}

function histogram(operation, scale) {
  const bins = new Array(SCALE.bins).fill(0);
  for (const r of answered) {
    if (r.operation === operation && r.micros >= 0) {
      bins[Math.min(Math.floor(placeOnScale(r.micros, scale) * SCALE.bins), SCALE.bins - 1)]++;
    }
  }
  const most = Math.max(...bins, 1);
  const wide = SCALE.width / SCALE.bins;
  const shapes = [svg("line", { x1: 0, x2: SCALE.width, y1: 23.5, y2: 23.5, stroke: "var(--line)" })];
  bins.forEach((count, i) => {
    const tall = count === 0 ? 0 : Math.max(count / most * 21, 2);
    shapes.push(svg("rect", { x: i * wide, y: 23 - tall, width: wide - .5, height: tall,
      fill: `var(--${operation.colour})` }));
  });
  return picture(SCALE.width, SCALE.height, `how long ${operation.name} took`, ...shapes);
}

function fillLatency() {
  const table = document.getElementById("latency");
  const scale = decades();
  table.append(rowOf("th", [["operation"], ...["count", "errors", "no answer", "p50", "p90", "p99", "max"]
      .map((name) => [name, "number"]), [scaleMarks(scale)]]));
  for (const row of data.report.operations) {
    const operation = operations.find((o) => o.name === row.operation);
    const errors = element("span", GROUPED.format(row.errors), row.errors > 0 ? "failed" : "");
    const lost = element("span", GROUPED.format(row.no_answer), row.no_answer > 0 ? "failed" : "");
    table.append(rowOf("td", [[row.operation], [GROUPED.format(row.count), "number"],
      [errors, "number"], [lost, "number"],
      ...[row.p50_ms, row.p90_ms, row.p99_ms, row.max_ms].map(
          (ms) => [milliseconds(ms === null ? -1 : ms * 1000), "number"]),
      [histogram(operation, scale)]]));
  }
}

/* ------------------------------------------------------------------ the slowest */

/* The parts of a call's time: what its requests took, and what none of them explains. */
function stagesOf(item) {
  const stages = [];
  let at = item.start;
  const add = (what, operation, from, to) => {
    if (to - from > (operation ? 0 : CLOCK_STEP)) {
      stages.push({ what, operation, from, to });
    }
  };
  for (const r of requestsOfCall(item)) {
    add(stages.length === 0 ? "before its request" : "between", null, at, r.start);
    add(r.operation.name, r.operation, Math.max(r.start, item.start), Math.min(r.end, item.end));
    at = Math.max(at, r.end);
  }
  if (stages.length > 0) {
    add("afterwards", null, at, item.end);
  }
  return stages;
}

function stagesText(stages) {
  const shown = stages.slice(0, 6).map((s) => `${s.what} ${milliseconds(s.to - s.from)} ms`);
  return shown.join(", ") + (stages.length > 6 ? `, and ${stages.length - 6} more` : "");
}

function stagesPicture(item, stages, longest) {
  const width = 300;
  const scale = width / longest;
  const shapes = barShapes(item.operation, 0, 3, item.micros * scale, 12);
  for (const stage of stages.filter((s) => s.operation)) {
    shapes.push(...barShapes(stage.operation, (stage.from - item.start) * scale, 0,
        (stage.to - stage.from) * scale, 18));
  }
  return picture(width, 18, stages.length > 0 ? stagesText(stages) : `${milliseconds(item.micros)} ms`,
      ...shapes);
}

function fillSlowest() {
  const table = document.getElementById("slowest");
  const slowest = answered.filter((r) => r.micros >= 0).sort((a, b) => b.micros - a.micros).slice(0, SLOWEST);
  table.append(rowOf("th", [["answered"], ["ms", "number"], ["operation"], ["error", "number"],
    ["path"], ["stages"]]));
  for (const item of slowest) {
    const stages = stagesOf(item);
    const show = element("button", item.operation.name);
    show.type = "button";
    show.title = "Show it in the picture above";
    show.addEventListener("click", () => {
      lookAt(item);
      keep(item);
      canvas.scrollIntoView({ block: "center" });
    });
    const place = element("div");
    place.append(stagesPicture(item, stages, slowest[0].micros));
    if (stages.length > 0) {
      place.append(element("div", stagesText(stages), "soft"));
    }
    table.append(rowOf("td", [[clock(item.end)], [milliseconds(item.micros), "number"], [show],
      [element("span", String(item.error), item.failed ? "failed" : ""), "number"],
      [item.path, "path"], [place]]));
  }
}
