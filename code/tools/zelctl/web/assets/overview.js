// The overview: master and nodes, jobs by state, their counts over the last minutes, the
// change rate and the time of the last change; refreshed after every batch of changes.
"use strict";
import { api, el, fill, cell, live } from "./common.js";
import { drawChart } from "./chart.js";
import { swatch } from "./states.js";

async function refresh() {
  const s = await api("/api/summary");
  document.getElementById("master").textContent = s.master + (s.connected ? "" : " (link lost)");
  document.getElementById("rate").textContent = s.rate.toFixed(0);
  document.getElementById("last-change").textContent =
    s["last-change"] ? new Date(s["last-change"]).toLocaleTimeString() : "none yet";
  const counts = s.counts.jobs;
  const states = Object.keys(counts).sort();
  fill(document.querySelector("#job-counts tbody"),
       states.map((st) => el("tr", { "data-state": st }, el("td", {}, swatch(st), st),
                             el("td", { class: "count" }, counts[st]))));
  fill(document.querySelector("#nodes tbody"),
       s.nodes.map((n) => el("tr", { "data-node": n.id },
                             el("td", {}, n.id),
                             el("td", {}, swatch(cell(n.state)), cell(n.state)),
                             el("td", {}, n.id === s.master ? "master" : ""),
                             el("td", {}, cell(n.host)),
                             el("td", {}, `${cell(n["cores-used"])} / ${cell(n.cores)}`),
                             el("td", {}, cell(n.load)),
                             el("td", {}, cell(n["memory-mb"])))));
  const seen = new Set();
  for (const sample of s.samples) Object.keys(sample.jobs).forEach((k) => seen.add(k));
  const names = [...seen].sort();
  drawChart(document.getElementById("chart"),
            names.map((name) => ({ name, points: s.samples.map((p) => [p.time, p.jobs[name] || 0]) })));
  fill(document.getElementById("legend"),
       names.map((name) => el("span", {}, swatch(name), name)));
}

// The samples and the rate move once a second, changes or not.
live(refresh, () => true, 500, 2000);
