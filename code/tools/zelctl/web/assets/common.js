// Shared by every page of zelctl serve: the API, the live change stream, and the one way the
// pages put cluster data on screen. Every string from the cluster goes in as text
// (textContent or a text node), never as markup.
"use strict";

// GET /api/...; the cookie set from ?token= travels with it (same origin).
export async function api(path) {
  const res = await fetch(path, { credentials: "same-origin", cache: "no-store" });
  if (!res.ok) throw new Error(path + ": " + res.status);
  return res.json();
}

// An element with attributes and children; strings become text nodes.
export function el(tag, attrs = {}, ...children) {
  const e = document.createElement(tag);
  for (const [k, v] of Object.entries(attrs)) {
    if (k === "class") e.className = v;
    else if (k.startsWith("on")) e.addEventListener(k.slice(2), v);
    else e.setAttribute(k, String(v));
  }
  for (const c of children) append(e, c);
  return e;
}

function append(parent, child) {
  if (child === null || child === undefined) return;
  if (Array.isArray(child)) child.forEach((c) => append(parent, c));
  else if (child instanceof Node) parent.appendChild(child);
  else parent.appendChild(document.createTextNode(String(child)));
}

// Replaces an element's children.
export function fill(parent, ...children) {
  parent.replaceChildren();
  for (const c of children) append(parent, c);
}

// A value of a record as a short text for a table cell.
export function cell(value) {
  if (value === undefined || value === null) return "";
  if (typeof value === "object") return JSON.stringify(value);
  return String(value);
}

// Who owns a job or workflow, for a table cell: the login the master recorded, or a dash for
// work that has none (the simulated workload's workflows).
export function owner(value) {
  return typeof value === "string" && value !== "" ? value : "\u2014";
}

// Seconds since 1970 as local time; 0 means never.
export function time(seconds) {
  if (!seconds) return "";
  return new Date(seconds * 1000).toLocaleString();
}

// What the header's status says: the page's last refresh, its change stream, and the link of
// zelctl serve to its cluster (from the stream's cluster events).
const page = { error: null, stream: true, cluster: { connected: true } };

function showStatus() {
  const s = document.getElementById("status");
  if (!s) return;
  const lost = !page.cluster.connected;
  s.textContent = page.error ? "error: " + page.error
    : !page.stream ? "reconnecting"
    : lost ? "cluster lost"
    : "live";
  s.classList.toggle("lost", lost);
  showBanner();
}

function clock(iso) {
  return iso ? new Date(iso).toLocaleTimeString() : "";
}

// While the link to the cluster is lost, a banner under the header says since when, why, and
// what serve does about it; every text from the cluster or the network goes in as text.
function showBanner() {
  let banner = document.getElementById("banner");
  if (!banner) {
    const header = document.querySelector("header");
    if (!header) return;
    banner = el("div", { id: "banner", class: "banner", role: "status" });
    banner.hidden = true;
    header.after(banner);
  }
  const c = page.cluster;
  banner.hidden = c.connected;
  if (c.connected) return;
  const parts = [`The link to the cluster was lost at ${clock(c["lost-at"])}`,
                 c.lost ? ` (${c.lost})` : "", ". The pages show the state as it was then. "];
  if (!c.retrying) {
    parts.push(`Not reconnecting: ${c["last-error"]}. Restart zelctl serve to reconnect.`);
  } else if (c.attempts > 0) {
    parts.push(`Reconnecting: attempt ${c.attempts} failed (${c["last-error"]}); the next at ${clock(c["next-attempt"])}.`);
  } else {
    parts.push("Reconnecting.");
  }
  fill(banner, parts.join(""));
}

// Calls `refresh` once now and again after each batch of the change stream that `wants`,
// at most every `gap` ms, and (with `every`) at least every `every` ms, for what moves without
// a change (the overview's samples). A snapshot event (the page fell behind, or the server
// reloaded the cluster's state) refreshes at once.
export function live(refresh, wants = () => true, gap = 250, every = 0) {
  let due = false;
  let running = false;
  let last = 0;
  const run = async () => {
    if (running) {
      due = true;
      return;
    }
    running = true;
    due = false;
    last = Date.now();
    try {
      await refresh();
      page.error = null;
    } catch (e) {
      page.error = e.message;
    }
    showStatus();
    running = false;
    if (due) schedule();
  };
  if (every > 0) {
    setInterval(() => {
      if (!running && !due && Date.now() - last >= every) run();
    }, every);
  }
  const schedule = () => {
    const wait = Math.max(0, gap - (Date.now() - last));
    setTimeout(run, wait);
  };
  const source = new EventSource("/api/events?snapshot=none");
  source.addEventListener("batch", (e) => {
    const batch = JSON.parse(e.data);
    window.zelLastBatch = batch.seq;
    if (wants(batch.changes)) {
      if (!due && !running) {
        due = true;
        schedule();
      } else due = true;
    }
  });
  source.addEventListener("snapshot", () => run());
  source.addEventListener("cluster", (e) => {
    page.cluster = JSON.parse(e.data);
    showStatus();
    // Pages that show the link's state (the overview) show it now.
    run();
  });
  source.onopen = () => {
    page.stream = true;
    showStatus();
  };
  source.onerror = () => {
    page.stream = false;
    showStatus();
  };
  run();
}

// Whether a batch touches one of `kinds`.
export function touches(...kinds) {
  return (changes) => changes.some((c) => kinds.includes(c.kind));
}

// The whole record, pretty, as text.
export function showRecord(target, title, record) {
  fill(target, el("h3", {}, title), el("pre", { class: "record" }, JSON.stringify(record, null, 2)));
}
