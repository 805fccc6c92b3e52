// The history of a kind: the records that the replica has historized since it started (kept
// for --history-keep seconds), filtered by state and user; a click shows the whole record.
"use strict";
import { api, el, fill, cell, time, live, showRecord } from "./common.js";
import { swatch } from "./states.js";

const $ = (id) => document.getElementById(id);

async function refresh() {
  const p = new URLSearchParams();
  if ($("history-state").value.trim()) p.set("state", $("history-state").value.trim());
  if ($("history-user").value.trim()) p.set("user", $("history-user").value.trim());
  const kind = $("history-kind").value;
  const records = await api(`/api/history/${encodeURIComponent(kind)}?${p}`);
  const ids = Object.keys(records).sort().reverse().slice(0, 500);
  $("history-count").textContent = `${Object.keys(records).length} historized (newest 500 shown)`;
  fill(document.querySelector("#history tbody"), ids.map((id) => {
    const r = records[id];
    return el("tr", { class: "clickable", "data-id": id, onclick: () => showRecord($("record"), id, r) },
              el("td", {}, id), el("td", {}, cell(r.name)), el("td", {}, swatch(cell(r.state)), cell(r.state)),
              el("td", {}, cell(r.user)), el("td", {}, cell(r.node)), el("td", {}, time(r["end-time"])));
  }));
}

for (const id of ["history-kind", "history-state", "history-user"]) $(id).addEventListener("input", () => refresh());
live(refresh, (changes) => changes.some((c) => c.op === "historize"), 1000);
