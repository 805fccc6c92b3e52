// The workflows: the list with each one's result, and the selected one's tasks as a graph in
// SVG, coloured by status, edges from each out-value to the in-nodes it feeds; below it the
// tasks' in-values and out-values. Redrawn after each batch that changes workflows.
"use strict";
import { api, el, fill, cell, owner, live, touches } from "./common.js";
import { stateColour, swatch } from "./states.js";

const NS = "http://www.w3.org/2000/svg";
const statuses = ["waiting", "runnable", "running", "finished", "failed", "killed"];
const results = ["created", "running", "finished", "failed", "killed"];
const $ = (id) => document.getElementById(id);
let selected = null;

function svg(tag, attrs) {
  const e = document.createElementNS(NS, tag);
  for (const [k, v] of Object.entries(attrs)) e.setAttribute(k, String(v));
  return e;
}

// The tasks a task feeds: "task>in" destinations of its out-values.
function successors(task) {
  const next = new Set();
  for (const out of Object.values(task["out-values"] || {})) {
    for (const d of out.destinations || []) next.add(String(d).split(">")[0]);
  }
  return [...next];
}

// Tasks in layers: a task sits one layer right of the deepest task that feeds it.
function layers(tasks) {
  const ids = Object.keys(tasks);
  const depth = Object.fromEntries(ids.map((id) => [id, 0]));
  for (let round = 0; round < ids.length; ++round) {
    let moved = false;
    for (const id of ids) {
      for (const n of successors(tasks[id])) {
        if (n in depth && depth[n] < depth[id] + 1) { depth[n] = depth[id] + 1; moved = true; }
      }
    }
    if (!moved) break;
  }
  return depth;
}

function drawGraph(workflow) {
  const tasks = workflow.tasks || {};
  const depth = layers(tasks);
  const columns = {};
  for (const id of Object.keys(tasks).sort()) (columns[depth[id]] ||= []).push(id);
  const w = 150, h = 44, gapX = 50, gapY = 20;
  const place = {};
  let width = 0, height = 0;
  for (const [d, ids] of Object.entries(columns)) {
    ids.forEach((id, i) => {
      place[id] = { x: 10 + Number(d) * (w + gapX), y: 10 + i * (h + gapY) };
      width = Math.max(width, place[id].x + w + 10);
      height = Math.max(height, place[id].y + h + 10);
    });
  }
  const root = svg("svg", { viewBox: `0 0 ${width} ${height}`, width: "100%", id: "workflow-graph" });
  for (const [id, task] of Object.entries(tasks)) {
    for (const n of successors(task)) {
      if (!place[n]) continue;
      const a = place[id], b = place[n];
      root.appendChild(svg("path", { d: `M${a.x + w},${a.y + h / 2} L${b.x},${b.y + h / 2}`, stroke: "#718096", fill: "none", "marker-end": "" }));
    }
  }
  for (const [id, task] of Object.entries(tasks)) {
    const p = place[id];
    const status = Number(task.status) || 0;
    const g = svg("g", { "data-task": id, "data-status": statuses[status] || String(status) });
    g.appendChild(svg("rect", { x: p.x, y: p.y, width: w, height: h, rx: 6, fill: stateColour(statuses[status] || String(status)), stroke: "#2d3748" }));
    const name = svg("text", { x: p.x + 8, y: p.y + 18, fill: status >= 2 ? "#fff" : "#1d2430" });
    name.textContent = id;
    const state = svg("text", { x: p.x + 8, y: p.y + 34, fill: status >= 2 ? "#fff" : "#1d2430" });
    state.textContent = statuses[status] || String(status);
    g.append(name, state);
    root.appendChild(g);
  }
  $("graph").replaceChildren(root);
  fill($("graph-legend"), statuses.map((s) => el("span", {}, swatch(s), s)));
}

function detail(id, workflow, result) {
  const rows = [];
  for (const [tid, task] of Object.entries(workflow.tasks || {}).sort()) {
    const ins = Object.entries(task["in-nodes"] || {}).map(([n, v]) => `${n} = ${v.value === undefined ? "(none)" : cell(v.value)}`).join(", ");
    const outs = Object.entries(task["out-values"] || {}).map(([n, v]) => `${n}${v.value === undefined ? "" : " = " + cell(v.value)}`).join(", ");
    rows.push(el("tr", { "data-task": tid }, el("td", {}, tid), el("td", {}, swatch(statuses[task.status] || cell(task.status)), statuses[task.status] || cell(task.status)),
                 el("td", {}, cell(task["status-message"])), el("td", {}, ins), el("td", {}, outs)));
  }
  fill($("workflow-detail"),
       el("h2", {}, "Tasks of ", id),
       el("p", {}, "result: ", result ? results[result.st] || cell(result.st) : "none yet",
          " · spawn value: ", cell(workflow["spawn-value"]), " · name: ", cell((workflow["meta-data"] || {}).name),
          " · owner: ", owner((workflow["meta-data"] || {}).user)),
       el("table", {}, el("thead", {}, el("tr", {}, ["task", "status", "message", "in-values", "out-values"].map((h) => el("th", {}, h)))),
          el("tbody", {}, rows)));
}

async function refresh() {
  const [workflows, outcomes] = await Promise.all([api("/api/state/workflows"), api("/api/state/workflow-results")]);
  const ids = Object.keys(workflows).sort();
  fill(document.querySelector("#workflows tbody"), ids.map((id) => {
    const wf = workflows[id];
    const r = outcomes[id];
    return el("tr", { class: "clickable", "data-id": id, onclick: () => { selected = id; show(workflows, outcomes); } },
              el("td", {}, id), el("td", {}, cell((wf["meta-data"] || {}).name)),
              el("td", { class: "owner" }, owner((wf["meta-data"] || {}).user)),
              el("td", {}, Object.keys(wf.tasks || {}).length), el("td", {}, r ? results[r.st] || cell(r.st) : ""));
  }));
  if (!selected && ids.length) selected = ids[ids.length - 1];
  show(workflows, outcomes);
}

function show(workflows, outcomes) {
  if (!selected || !workflows[selected]) return;
  $("workflow-title").textContent = selected;
  drawGraph(workflows[selected]);
  detail(selected, workflows[selected], outcomes[selected]);
}

live(refresh, touches("workflows", "workflow-results"), 500);
