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

// Seconds since 1970 as local time; 0 means never.
export function time(seconds) {
  if (!seconds) return "";
  return new Date(seconds * 1000).toLocaleString();
}

// Calls `refresh` once now and again after each batch of the change stream that `wants`,
// at most every `gap` ms. A snapshot event (the page fell behind, or the server reconnected)
// refreshes at once.
export function live(refresh, wants = () => true, gap = 250) {
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
      setStatus("live");
    } catch (e) {
      setStatus("error: " + e.message);
    }
    running = false;
    if (due) schedule();
  };
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
  source.onerror = () => setStatus("reconnecting");
  run();
}

export function setStatus(text) {
  const s = document.getElementById("status");
  if (s) s.textContent = text;
}

// Whether a batch touches one of `kinds`.
export function touches(...kinds) {
  return (changes) => changes.some((c) => kinds.includes(c.kind));
}

// The whole record, pretty, as text.
export function showRecord(target, title, record) {
  fill(target, el("h3", {}, title), el("pre", { class: "record" }, JSON.stringify(record, null, 2)));
}
