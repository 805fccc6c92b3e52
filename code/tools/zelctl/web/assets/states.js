// One colour per state, the same everywhere: in the tables, the chart and its legend, the
// workflow graph. The states a cluster knows have theirs fixed; any other state takes one from
// its name, so no state's colour depends on which other states exist. Colours reach the page as
// SVG attributes (the pages' policy allows no inline style).
"use strict";

const NS = "http://www.w3.org/2000/svg";

const fixed = {
  queued: "#2b6cb0",
  waiting: "#a0aec0",
  runnable: "#90cdf4",
  running: "#1f7a3a",
  finished: "#4a5568",
  failed: "#b3261e",
  killed: "#744210",
  up: "#1f7a3a",
  down: "#b3261e",
  "": "#cbd5e0",
};
const spare = ["#6b46c1", "#2c7a7b", "#b7791f", "#b83280", "#00a3c4", "#dd6b20", "#97266d", "#805ad5"];

export function stateColour(state) {
  const name = String(state ?? "");
  if (Object.prototype.hasOwnProperty.call(fixed, name)) return fixed[name];
  let hash = 2166136261;
  for (let i = 0; i < name.length; ++i) hash = Math.imul(hash ^ name.charCodeAt(i), 16777619) >>> 0;
  return spare[hash % spare.length];
}

// A small square of the state's colour, to stand before its name.
export function swatch(state) {
  const box = document.createElementNS(NS, "svg");
  box.setAttribute("class", "swatch");
  box.setAttribute("viewBox", "0 0 10 10");
  box.setAttribute("data-state", String(state ?? ""));
  const square = document.createElementNS(NS, "rect");
  for (const [k, v] of Object.entries({ width: 10, height: 10, rx: 2, fill: stateColour(state) })) {
    square.setAttribute(k, String(v));
  }
  box.appendChild(square);
  return box;
}
