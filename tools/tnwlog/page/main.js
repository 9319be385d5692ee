/* The page is put together, and listens. */
function durationText(micros) {
  const seconds = micros / 1e6;
  return seconds < 120 ? `${seconds.toLocaleString("en", { maximumFractionDigits: 1 })} s`
      : seconds < 7200 ? `${Math.round(seconds / 60)} minutes`
      : `${GROUPED.format(Math.round(seconds / 3600))} hours`;
}

function fillSummary() {
  const failed = answered.filter((r) => r.failed).length;
  const calls = answered.filter((r) => r.operation.isCall).length;
  const parts = [counted(answered.length - calls, "request")];
  if (calls > 0) {
    parts[0] += ` and ${counted(calls, "call")} as a whole`;
  }
  if (answered.length > 0) {
    parts[0] += ` in ${durationText(lastEnd)} from ${day()} ${clock(0, 0)}`;
  }
  parts.push(failed === 0 ? "no errors" : counted(failed, "error"));
  if (unanswered.length > 0) {
    parts.push(`${GROUPED.format(unanswered.length)} without an answer`);
  }
  document.getElementById("summary").textContent = parts.join("; ") + ".";
}

function fillNotes() {
  const notes = [];
  if (data.left_out > 0) {
    notes.push(`The picture and the slowest leave out the log's first ${counted(data.left_out, "request")}; ` +
        "the table counts all of them.");
  }
  if (answered.length > data.most_with_lines) {
    notes.push(`The page holds the lines of the ${GROUPED.format(data.most_with_lines)} that failed or ` +
        "were slowest; tnwlog --request shows those of any other.");
  }
  if (data.report.unreadable_lines > 0) {
    notes.push(`${GROUPED.format(data.report.unreadable_lines)} of the log's ` +
        `${counted(data.report.lines, "line")} could not be read.`);
  }
  if (answered.some((r) => r.connection === NOT_TOLD && !r.operation.isCall)) {
    notes.push("Of some requests the log does not tell the connection: only events do, which are there " +
        "when the service gives transaction ids.");
  }
  if (all.length === 0) {
    notes.push("The log has no requests. They are logged when the service gives transaction ids, or at " +
        "debug level 3 and above.");
  }
  document.getElementById("notes").append(...notes.map((note) => element("li", note)));
}

function fillLegend() {
  const legend = document.getElementById("legend");
  for (const operation of operations) {
    const count = all.filter((r) => r.operation === operation).length;
    if (count === 0) {
      continue;
    }
    const box = element("input");
    box.type = "checkbox";
    box.checked = true;
    box.addEventListener("change", () => {
      operation.isShown = box.checked;
      drawSoon();
    });
    const label = element("label");
    label.append(box, picture(22, 12, "", ...barShapes(operation, 0, 0, 22, 12)),
        `${operation.name} ${GROUPED.format(count)}`);
    legend.append(label);
  }
  const mark = element("span", "", "mark");
  mark.append(errorMark(), "failed");
  legend.append(mark);
}

function listenToPointer() {
  let from = null;
  let hasMoved = false;
  const place = (event) => {
    const box = canvas.getBoundingClientRect();
    return { x: event.clientX - box.left, y: event.clientY - box.top };
  };
  canvas.addEventListener("pointerdown", (event) => {
    from = place(event);
    hasMoved = false;
    canvas.setPointerCapture(event.pointerId);
  });
  canvas.addEventListener("pointermove", (event) => {
    const at = place(event);
    if (from === null) {
      showTip(itemAt(at.x, at.y), event.clientX, event.clientY);
    } else if (hasMoved || Math.abs(at.x - from.x) > 3) {
      hasMoved = true;
      canvas.classList.add("moving");
      showTip(null);
      move((from.x - at.x) / view.width);
      from = at;
    }
  });
  canvas.addEventListener("pointerup", (event) => {
    const at = place(event);
    if (!hasMoved) {
      keep(itemAt(at.x, at.y));
    }
    from = null;
    canvas.classList.remove("moving");
  });
  canvas.addEventListener("pointercancel", () => { from = null; });
  canvas.addEventListener("pointerleave", () => showTip(null));
  canvas.addEventListener("dblclick", (event) => zoom(.4, timeAt(place(event).x)));
  canvas.addEventListener("wheel", (event) => {
    if (event.ctrlKey) {
      event.preventDefault();
      zoom(Math.exp(event.deltaY / 400), timeAt(place(event).x));
    } else if (event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY)) {
      event.preventDefault();
      move((event.deltaX || event.deltaY) / view.width);
    }
  }, { passive: false });
}

const isFailed = (item) => item.failed;

const KEYS = {
  ArrowLeft: () => move(-.1),
  ArrowRight: () => move(.1),
  "+": () => zoom(.5),
  "=": () => zoom(.5),
  "-": () => zoom(2),
  0: () => look(whole.from, whole.to),
  n: () => keepNext(1),
  p: () => keepNext(-1),
  e: () => keepNext(1, isFailed),
  Escape: () => keep(null),
};

function listenToKeys() {
  canvas.addEventListener("keydown", (event) => {
    if (Object.hasOwn(KEYS, event.key) && !event.ctrlKey && !event.altKey && !event.metaKey) {
      event.preventDefault();
      KEYS[event.key]();
    }
  });
  for (const [id, key] of [["zoom-in", "+"], ["zoom-out", "-"], ["everything", "0"], ["next-error", "e"]]) {
    document.getElementById(id).addEventListener("click", KEYS[key]);
  }
}

readColours();
fillSummary();
fillNotes();
fillLegend();
fillLatency();
fillSlowest();
listenToPointer();
listenToKeys();
look(whole.from, whole.to);
draw();
new ResizeObserver(drawSoon).observe(canvas);
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => {
  readColours();
  drawSoon();
});
