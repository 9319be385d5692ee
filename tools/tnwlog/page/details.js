/* What the page tells of one request: beside the pointer, and below the picture when it is kept. */
const tip = document.getElementById("tip");
const keptPlace = document.getElementById("kept");

function connectionText(item) {
  return item.connection >= 0
      ? `connection ${item.connection + 1} (socket ${data.connections[item.connection].socket})`
      : item.connection === NOT_ANSWERED ? "no answer in the log" : "the log does not tell the connection";
}

function timesText(item) {
  if (item.connection === NOT_ANSWERED) {
    return `sent ${clock(item.start)}`;
  }
  const began = item.operation.isCall ? "began" : "sent";
  const ended = item.operation.isCall ? "ended" : "answered";
  return item.micros < 0 ? `${ended} ${clock(item.end)}`
      : `${began} ${clock(item.start)}, ${ended} ${clock(item.end)}`;
}

function linesOf(item) {
  if (item.lines.length > 0) {
    return element("pre", item.lines.join("\n"));
  }
  return element("p", item.id === "" ? "Its line is not in this page."
      : `Its lines are not in this page: tnwlog --request ${item.id}`, "soft");
}

function details(item) {
  const what = element("div", `${item.operation.name}  ${item.path}`, "what");
  const figures = element("div", item.micros < 0 ? "" : `${milliseconds(item.micros)} ms, `);
  if (item.failed) {
    figures.append(element("span", `error ${item.error}`, "failed"), ", ");
  }
  figures.append(timesText(item) + (item.operation.isCall ? "" : `, ${connectionText(item)}`));
  const made = [what, figures];
  const stages = stagesOf(item);
  if (item.operation.isCall && stages.length > 0) {
    made.push(element("div", stagesText(stages)));
  }
  if (item.id !== "") {
    made.push(element("div", `request ${item.id}`, "soft"));
  }
  return [...made, linesOf(item)];
}

function showTip(item, x, y) {
  tip.hidden = item === null;
  if (item === null) {
    return;
  }
  if (tip.item !== item) {
    tip.item = item;
    tip.replaceChildren(...details(item));
  }
  const box = tip.getBoundingClientRect();
  const isBelow = y + 18 + box.height < innerHeight;
  tip.style.left = `${Math.max(Math.min(x + 14, innerWidth - box.width - 8), 4)}px`;
  tip.style.top = `${isBelow ? y + 18 : Math.max(y - box.height - 12, 4)}px`;
}

function keep(item) {
  kept = item;
  keptPlace.replaceChildren(...(item === null ? [] : details(item)));
  drawSoon();
}

/* The next request in time behind the kept one, or before it; those of `wanted` alone. */
function keepNext(step, wanted = () => true) {
  const items = inTime.filter((item) => isVisible(item) && wanted(item));
  if (items.length === 0) {
    return;
  }
  const at = kept === null ? -1 : items.findIndex((item) => item.start > kept.start ||
      (item.start === kept.start && item.i >= kept.i));
  const isThere = at >= 0 && items[at] === kept;
  const next = kept === null ? (step > 0 ? 0 : items.length - 1)
      : at < 0 ? (step > 0 ? 0 : items.length - 1)
      : step > 0 ? at + (isThere ? 1 : 0) : at - 1;
  const item = items[(next + items.length) % items.length];
  if (item.end < view.from || item.start > view.to) {
    const half = (view.to - view.from) / 2;
    look(item.end - half, item.end + half);
  }
  keep(item);
}
const inTime = [...all].sort((a, b) => a.start - b.start || a.i - b.i);
