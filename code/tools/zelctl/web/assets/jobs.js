// The jobs: one page of the table at a time, filtered, sorted and cut by the server
// (/api/table/jobs), so that 100,000 jobs cost the browser a hundred rows; a click shows the
// whole record. The page is fetched again after each batch that changes jobs.
"use strict";
import { api, el, fill, cell, owner, time, live, touches, showRecord } from "./common.js";
import { swatch } from "./states.js";

const columns = ["id", "name", "state", "user", "node", "queue", "priority", "cores", "submit-time", "start-time", "end-time", "exit-code"];
const times = new Set(["submit-time", "start-time", "end-time"]);
// A job's owner is its record's "user": the column sorts by that field and is headed "owner".
const headings = { user: "owner" };
const pageRows = 100;
const view = { sort: "id", order: "asc", offset: 0 };
let selected = null;

const $ = (id) => document.getElementById(id);

function query() {
  const p = new URLSearchParams({ sort: view.sort, order: view.order, offset: view.offset, limit: pageRows });
  for (const [name, id] of [["state", "filter-state"], ["user", "filter-user"], ["node", "filter-node"], ["q", "filter-text"]]) {
    const v = $(id).value.trim();
    if (v) p.set(name, v);
  }
  return "/api/table/jobs?" + p.toString();
}

function header() {
  fill(document.querySelector("#jobs thead"), el("tr", {}, columns.map((c) => {
    const cls = "sortable" + (view.sort === c ? " sorted" + (view.order === "desc" ? " desc" : "") : "");
    return el("th", { class: cls, "data-column": c, onclick: () => sortBy(c) }, headings[c] || c);
  })));
}

function sortBy(column) {
  if (view.sort === column) view.order = view.order === "asc" ? "desc" : "asc";
  else { view.sort = column; view.order = "asc"; }
  view.offset = 0;
  header();
  refresh();
}

let generation = 0;
async function refresh() {
  const mine = ++generation;
  const started = performance.now();
  const page = await api(query());
  if (mine !== generation) return;  // a newer request answers instead
  fill(document.querySelector("#jobs tbody"), page.rows.map(({ id, record }) =>
    el("tr", { class: "clickable", "data-id": id, onclick: () => select(id) },
       columns.map((c) => el("td", {}, c === "state" ? swatch(cell(record.state)) : null,
                             times.has(c) ? time(record[c]) : c === "user" ? owner(record.user) : cell(c === "id" ? id : record[c]))))));
  const last = Math.min(page.offset + page.rows.length, page.matched);
  $("range").textContent = ` ${page.matched ? page.offset + 1 : 0}–${last} of ${page.matched} (${page.total} jobs) `;
  document.body.dataset.rendered = String(mine);
  // For the benchmark: how long this answer took, and when the first rows were on the page.
  window.zelJobsTiming = { ms: performance.now() - started, matched: page.matched };
  if (window.zelFirstRows === undefined) window.zelFirstRows = performance.now();
  if (selected) {
    try { showRecord($("record"), selected, await api("/api/state/jobs/" + encodeURIComponent(selected))); }
    catch { /* the job has left the replica */ }
  }
}

async function select(id) {
  selected = id;
  showRecord($("record"), id, await api("/api/state/jobs/" + encodeURIComponent(id)));
}

function refilter() {
  view.offset = 0;
  refresh();
}

// The usual states, and any other that the cluster's jobs hold now.
const states = new Set(["queued", "running", "finished", "failed"]);
for (const st of states) $("filter-state").appendChild(el("option", { value: st }, st));
api("/api/summary").then((s) => {
  for (const st of Object.keys(s.counts.jobs).sort()) {
    if (st && !states.has(st)) $("filter-state").appendChild(el("option", { value: st }, st));
  }
}).catch(() => {});
$("filter-state").addEventListener("change", refilter);
for (const id of ["filter-user", "filter-node", "filter-text"]) $(id).addEventListener("input", refilter);
$("prev").addEventListener("click", () => { view.offset = Math.max(0, view.offset - pageRows); refresh(); });
$("next").addEventListener("click", () => { view.offset += pageRows; refresh(); });
header();
live(refresh, touches("jobs"), 500);
