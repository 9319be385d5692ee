/* Elements, colours and fills. */
const COLOURS = {};

function readColours() {
  const style = getComputedStyle(document.documentElement);
  for (const name of ["paper", "lane", "line", "ink", "soft", "error", ...Object.keys(FAMILIES)]) {
    COLOURS[name] = style.getPropertyValue(`--${name}`).trim();
  }
}

function element(name, text, className) {
  const made = document.createElement(name);
  made.textContent = text ?? "";
  made.className = className ?? "";
  return made;
}

function svg(name, attributes, ...children) {
  const made = document.createElementNS("http://www.w3.org/2000/svg", name);
  for (const [key, value] of Object.entries(attributes)) {
    made.setAttribute(key, value);
  }
  made.append(...children);
  return made;
}

/* A picture with a text for those who don't see it. */
function picture(width, height, label, ...children) {
  return svg("svg", { width, height, viewBox: `0 0 ${width} ${height}`, role: "img", "aria-label": label },
      ...children);
}

const STRIPE = 5;

/* A bar in the operation's look, as shapes. */
function barShapes(operation, x, y, width, height) {
  const colour = `var(--${operation.colour})`;
  const frame = { x: x + .5, y: y + .5, width: Math.max(width - 1, .5), height: height - 1, stroke: colour };
  if (operation.fill === "solid" || width < 3) {
    return [svg("rect", { x, y, width: Math.max(width, 1), height, fill: colour })];
  }
  const shapes = [svg("rect", { ...frame, fill: "none" })];
  for (let at = x + STRIPE; operation.fill === "striped" && at < x + width; at += STRIPE) {
    shapes.push(svg("line", { x1: at, y1: y, x2: at - 3, y2: y + height, stroke: colour, "stroke-width": 2 }));
  }
  return shapes;
}

function drawStripes(context, x, y, width, height) {
  context.save();
  context.beginPath();
  context.rect(x, y, width, height);
  context.clip();
  context.beginPath();
  for (let at = x + STRIPE; at < x + width + STRIPE; at += STRIPE) {
    context.moveTo(at, y);
    context.lineTo(at - 3, y + height);
  }
  context.lineWidth = 2;
  context.stroke();
  context.restore();
}

/* The same on a canvas. */
function drawBar(context, operation, x, y, width, height) {
  context.fillStyle = COLOURS[operation.colour];
  context.strokeStyle = COLOURS[operation.colour];
  if (operation.fill === "solid" || width < 3) {
    context.fillRect(x, y, Math.max(width, 1), height);
    return;
  }
  if (operation.fill === "striped") {
    drawStripes(context, x, y, width, height);
  }
  context.lineWidth = 1;
  context.strokeRect(x + .5, y + .5, width - 1, height - 1);
}

/* A triangle that points at the bar's end from above: a failed request. */
function drawErrorMark(context, x, y) {
  context.fillStyle = COLOURS.error;
  context.strokeStyle = COLOURS.paper;
  context.lineWidth = 1;
  context.beginPath();
  context.moveTo(x - 5, y - 5);
  context.lineTo(x + 5, y - 5);
  context.lineTo(x, y + 4);
  context.closePath();
  context.fill();
  context.stroke();
}

const errorMark = () => picture(12, 12, "failed", svg("path", { d: "M1 2H11L6 11Z", fill: "var(--error)" }));
