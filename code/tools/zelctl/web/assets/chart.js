// A line chart of counts over time in SVG, hand-written: one chart of a few hundred points
// needs no library. Lines are built as path data from numbers; labels are text nodes. Each
// series is a state, drawn in that state's colour.
"use strict";
import { stateColour } from "./states.js";

const NS = "http://www.w3.org/2000/svg";

function svg(tag, attrs) {
  const e = document.createElementNS(NS, tag);
  for (const [k, v] of Object.entries(attrs)) e.setAttribute(k, String(v));
  return e;
}

// series: [{name, points: [[timeMs, value], ...]}]
export function drawChart(target, series, width = 640, height = 200) {
  const pad = { left: 44, right: 8, top: 8, bottom: 22 };
  const root = svg("svg", { viewBox: `0 0 ${width} ${height}`, width: "100%", role: "img" });
  let t0 = Infinity, t1 = -Infinity, max = 1;
  for (const s of series) {
    for (const [t, v] of s.points) {
      t0 = Math.min(t0, t);
      t1 = Math.max(t1, t);
      max = Math.max(max, v);
    }
  }
  if (!isFinite(t0)) { t0 = 0; t1 = 1; }
  if (t1 === t0) t1 = t0 + 1;
  const x = (t) => pad.left + ((t - t0) / (t1 - t0)) * (width - pad.left - pad.right);
  const y = (v) => height - pad.bottom - (v / max) * (height - pad.top - pad.bottom);
  for (const frac of [0, 0.5, 1]) {
    const v = Math.round(max * frac);
    root.appendChild(svg("line", { x1: pad.left, x2: width - pad.right, y1: y(v), y2: y(v), stroke: "#e2e6ec" }));
    const label = svg("text", { x: pad.left - 4, y: y(v) + 4, "text-anchor": "end", fill: "#667" });
    label.textContent = String(v);
    root.appendChild(label);
  }
  const span = svg("text", { x: width - pad.right, y: height - 4, "text-anchor": "end", fill: "#667" });
  span.textContent = `last ${Math.round((t1 - t0) / 1000)} s`;
  root.appendChild(span);
  for (const s of series) {
    if (s.points.length === 0) continue;
    const d = s.points.map(([t, v], j) => `${j ? "L" : "M"}${x(t).toFixed(1)},${y(v).toFixed(1)}`).join("");
    root.appendChild(svg("path", { d, fill: "none", stroke: stateColour(s.name), "stroke-width": 1.5, "data-state": s.name }));
  }
  target.replaceChildren(root);
}
