// The launcher preview page. Everything from the database is put into the
// page with textContent or as attribute values, never as markup.
"use strict";

const state = {
  entries: [],      // from /api/entries
  sections: [],     // sections of the selected entry, each with .tiles
  entryIndex: 0,    // the selected entry
  row: -1,          // -1: the launcher row has the focus; else the section index
  tileIndex: 0,     // the focused tile within its section
  showHidden: false,
  renders: 0,
  loading: null,    // the running load
  pending: null,    // the load that follows it, shared by every change meanwhile
  navigation: 0,    // counts moves to another entry
  signature: "",    // the data of the last render
};

function element(tag, className, text) {
  const node = document.createElement(tag);
  if (className) node.className = className;
  if (text !== undefined && text !== null) node.textContent = String(text);
  return node;
}

async function getJson(path) {
  const response = await fetch(path, { cache: "no-store" });
  const body = await response.json();
  if (!response.ok) throw new Error(body.error || ("HTTP " + response.status));
  return body;
}

// Every address of the preview is relative to the page's own, whose path
// holds the secret the preview printed. A file the row names is asked for by
// the row, so that the preview reads it as the package that owns the row.
function imageSource(rowImage, path, url) {
  if (path) return rowImage;
  if (url && /^https?:\/\//i.test(url)) return url;
  return null;
}

// "16:9" -> "16 / 9"; anything unreadable is square.
function aspectRatio(ratio) {
  const match = /^\s*(\d+(?:\.\d+)?)\s*:\s*(\d+(?:\.\d+)?)\s*$/.exec(ratio || "");
  if (!match || Number(match[1]) <= 0 || Number(match[2]) <= 0) return "1 / 1";
  return match[1] + " / " + match[2];
}

function placeholder(className, text) {
  return element("div", className + " placeholder", text);
}

// An image that turns into the placeholder when it cannot be loaded.
function imageOrPlaceholder(source, className, placeholderText) {
  if (!source) return placeholder(className, placeholderText);
  const image = element("img", className);
  image.alt = "";
  image.src = source;
  image.addEventListener("error", () => image.replaceWith(placeholder(className, placeholderText)), { once: true });
  return image;
}

function entryTitle(entry) {
  return entry.accelerator_title || entry.accelerator_app_pkg_name || ("entry " + entry._id);
}

function shownTiles(section) {
  return section.tiles.filter((tile) => tile.visible || state.showHidden);
}

// Loading ------------------------------------------------------------------

async function loadEverything() {
  const navigation = state.navigation;
  const wanted = state.entries[state.entryIndex];
  const entries = (await getJson("api/entries")).entries;
  let entryIndex = wanted ? entries.findIndex((entry) => entry._id === wanted._id) : -1;
  if (entryIndex < 0) entryIndex = Math.min(state.entryIndex, Math.max(entries.length - 1, 0));
  let sections = [];
  if (entries.length > 0) {
    sections = (await getJson("api/entries/" + entries[entryIndex]._id + "/sections")).sections;
    const tiles = await Promise.all(sections.map((section) => getJson("api/sections/" + section._id + "/tiles")));
    sections.forEach((section, index) => { section.tiles = tiles[index].tiles; });
  }
  // The user went to another entry meanwhile: the load that move asked for follows.
  if (navigation !== state.navigation) return;
  // Nothing changed: the page stays as it is.
  const signature = JSON.stringify([entryIndex, entries, sections]);
  if (signature === state.signature) return;
  state.signature = signature;
  const focus = rememberFocus();
  state.entries = entries;
  state.entryIndex = entryIndex;
  state.sections = sections;
  restoreFocus(focus);
  render();
}

// Runs a load now, or once after the running one when asked meanwhile; the
// promise settles when a load that started after the call has rendered.
function reload() {
  if (state.loading) {
    if (!state.pending) {
      state.pending = state.loading.then(() => {
        state.pending = null;
        return runLoad();
      });
    }
    return state.pending;
  }
  return runLoad();
}

function runLoad() {
  document.body.dataset.loading = "1";
  state.loading = loadEverything()
    .catch((error) => showProblem(error.message))
    .finally(() => {
      state.loading = null;
      if (!state.pending) document.body.dataset.loading = "0";
    });
  return state.loading;
}

function showProblem(text) {
  const empty = document.getElementById("empty");
  empty.hidden = false;
  empty.textContent = "The launcher content could not be read: " + text;
}

// Focus --------------------------------------------------------------------

function rememberFocus() {
  const entry = state.entries[state.entryIndex];
  const section = state.row >= 0 ? state.sections[state.row] : null;
  const tile = section ? shownTiles(section)[state.tileIndex] : null;
  return { entryId: entry ? entry._id : null, sectionId: section ? section._id : null, tileId: tile ? tile._id : null,
           row: state.row, tileIndex: state.tileIndex };
}

function restoreFocus(focus) {
  if (focus.row < 0 || state.sections.length === 0) {
    state.row = -1;
    return;
  }
  let row = state.sections.findIndex((section) => section._id === focus.sectionId);
  if (row < 0) row = Math.min(focus.row, state.sections.length - 1);
  state.row = row;
  const tiles = shownTiles(state.sections[row]);
  const tileIndex = tiles.findIndex((tile) => tile._id === focus.tileId);
  state.tileIndex = tileIndex >= 0 ? tileIndex : Math.max(Math.min(focus.tileIndex, tiles.length - 1), 0);
}

function moveEntry(step) {
  const next = state.entryIndex + step;
  if (next < 0 || next >= state.entries.length) return;
  state.entryIndex = next;
  state.navigation += 1;
  state.signature = "";
  state.sections = [];
  state.tileIndex = 0;
  render();
  reload();
}

function moveRow(step) {
  let row = state.row + step;
  // Skip sections that have nothing to focus.
  while (row >= 0 && row < state.sections.length && shownTiles(state.sections[row]).length === 0) row += step;
  if (row >= state.sections.length) return;
  if (row < 0) {
    state.row = -1;
  } else {
    state.row = row;
    state.tileIndex = Math.min(state.tileIndex, shownTiles(state.sections[row]).length - 1);
  }
  render();
}

function moveTile(step) {
  const count = shownTiles(state.sections[state.row]).length;
  const next = state.tileIndex + step;
  if (next < 0 || next >= count) return;
  state.tileIndex = next;
  render();
}

function onKey(event) {
  const actionsOpen = !document.getElementById("actions").hidden;
  if (actionsOpen && (event.key === "Escape" || event.key === "Enter" || event.key === "Backspace")) {
    closeActions();
    event.preventDefault();
    return;
  }
  const handlers = {
    ArrowLeft: () => (state.row < 0 ? moveEntry(-1) : moveTile(-1)),
    ArrowRight: () => (state.row < 0 ? moveEntry(1) : moveTile(1)),
    ArrowUp: () => moveRow(-1),
    ArrowDown: () => moveRow(1),
    Enter: () => (state.row < 0 ? moveRow(1) : openActions()),
  };
  const handler = handlers[event.key];
  if (!handler) return;
  event.preventDefault();
  if (actionsOpen) closeActions();
  handler();
}

// Actions ------------------------------------------------------------------

const ACTION_ROWS = [
  ["click", "tile_action_click"], ["play", "tile_action_play"], ["pre-play", "tile_action_pre_play"],
  ["post-play", "tile_action_post_play"], ["action type", "tile_action_type"],
  ["details", "tile_action_details"], ["extra app id", "tile_extra_app_id"], ["tile id", "tile_id"],
];

function focusedTile() {
  if (state.row < 0) return null;
  return shownTiles(state.sections[state.row])[state.tileIndex] || null;
}

function openActions() {
  const tile = focusedTile();
  if (!tile) return;
  document.getElementById("actions-title").textContent = tile.tile_title || tile.tile_id || "tile " + tile._id;
  const list = document.getElementById("actions-list");
  list.replaceChildren();
  for (const [label, column] of ACTION_ROWS) {
    const value = tile[column];
    list.append(element("dt", null, label), element("dd", "action-" + label.replace(/ /g, "-"),
      value === null || value === undefined || value === "" ? "(none)" : value));
  }
  document.getElementById("actions").hidden = false;
}

function closeActions() {
  document.getElementById("actions").hidden = true;
}

// Rendering ----------------------------------------------------------------

function renderEntry(entry, index) {
  const node = element("button", "entry");
  node.type = "button";
  node.tabIndex = -1;
  node.dataset.entryId = entry._id;
  node.dataset.package = entry.accelerator_app_pkg_name || "";
  const title = entryTitle(entry);
  const icon = entry.accelerator_icon || "";
  node.append(imageOrPlaceholder(imageSource("api/entries/" + entry._id + "/icon", icon.startsWith("/") ? icon : null, icon), "entry-icon",
    title.charAt(0).toUpperCase()));
  node.append(element("span", "entry-title", title));
  if (!entry.enabled) {
    node.classList.add("disabled");
    node.append(element("span", "entry-badge", "disabled"));
  }
  if (index === state.entryIndex) node.classList.add("selected");
  if (index === state.entryIndex && state.row < 0) node.classList.add("focused");
  node.addEventListener("click", () => {
    state.row = -1;
    moveEntry(index - state.entryIndex);
  });
  return node;
}

function renderTile(tile, sectionIndex, tileIndex) {
  const node = element("div", "tile");
  node.dataset.tileId = tile._id;
  if (!tile.visible) {
    node.classList.add("out-of-period");
    node.title = "Outside its display period: " + tile.hidden_reason;
  }
  if (sectionIndex === state.row && tileIndex === state.tileIndex) node.classList.add("focused");
  const title = tile.tile_title || tile.tile_id || "";

  const frame = element("div", "tile-image");
  frame.style.aspectRatio = aspectRatio(tile.tile_image_ratio);
  frame.dataset.ratio = tile.tile_image_ratio || "";
  frame.append(imageOrPlaceholder(imageSource("api/tiles/" + tile._id + "/image", tile.tile_image_path, tile.tile_image_url), "tile-picture", title));
  node.append(frame);

  const progress = Number(tile.tile_progress) || 0;
  if (progress > 0) {
    const track = element("div", "progress");
    const bar = element("div", "progress-bar");
    bar.style.width = Math.min(progress, 100) + "%";
    bar.dataset.progress = progress;
    track.append(bar);
    node.append(track);
  }
  const marks = element("div", "marks");
  if (Number(tile.tile_favorite) === 1) marks.append(Object.assign(element("span", "mark favorite", "\u2605"), { title: "favourite" }));
  if (Number(tile.tile_playable) === 1) marks.append(Object.assign(element("span", "mark playable", "\u25B6"), { title: "playable" }));
  node.append(marks);

  const text = element("div", "tile-text");
  text.append(element("div", "tile-title", title));
  if (tile.tile_subtitle) text.append(element("div", "tile-subtitle", tile.tile_subtitle));
  if (!tile.visible) text.append(element("div", "tile-reason", tile.hidden_reason));
  node.append(text);
  node.addEventListener("click", () => {
    state.row = sectionIndex;
    state.tileIndex = tileIndex;
    render();
    openActions();
  });
  return node;
}

function renderSection(section, sectionIndex) {
  const node = element("section", "section");
  node.dataset.sectionId = section._id;
  const mode = (section.section_title_display_mode || "HIGHLIGHTED_ONLY").toLowerCase().replace(/_/g, "-");
  node.classList.add("title-" + mode);
  if (sectionIndex === state.row) node.classList.add("highlighted");
  node.append(element("h2", "section-title", section.section_title || section.section_id || ""));
  const row = element("div", "tiles");
  const tiles = shownTiles(section);
  tiles.forEach((tile, tileIndex) => row.append(renderTile(tile, sectionIndex, tileIndex)));
  if (tiles.length === 0) row.append(element("span", "section-empty", "no tile to show now"));
  node.append(row);
  return node;
}

function render() {
  const entries = document.getElementById("entries");
  entries.replaceChildren(...state.entries.map(renderEntry));
  const sections = document.getElementById("sections");
  sections.replaceChildren(...state.sections.map(renderSection));
  const empty = document.getElementById("empty");
  empty.hidden = state.entries.length > 0 && state.sections.length > 0;
  empty.textContent = state.entries.length === 0 ? "No launcher entry yet." :
    (state.signature === "" ? "Reading the sections\u2026" : "This entry has no section.");
  const focused = document.querySelector(".tile.focused, .entry.focused");
  if (focused) focused.scrollIntoView({ block: "nearest", inline: "nearest" });
  state.renders += 1;
  document.body.dataset.renders = String(state.renders);
  if (state.renders === 1) window.previewFirstRenderAt = performance.now();
  window.previewLastRenderAt = Date.now();
}

// Live updates -------------------------------------------------------------

function describeChange(change) {
  const what = change.operation === "DELETE" ? "deleted content" : "published content";
  const section = change.section && change.section !== "delete" ? ", section " + change.section : "";
  return (change.package || "an application") + " " + what + section + " at " + new Date().toLocaleTimeString();
}

function listen() {
  const live = document.getElementById("live");
  const source = new EventSource("api/events");
  source.addEventListener("hello", () => {
    live.className = "live-on";
    live.textContent = "live";
    reload();  // whatever changed while the stream was down
  });
  source.addEventListener("change", (message) => {
    const change = JSON.parse(message.data);
    document.getElementById("change").textContent = describeChange(change);
    document.body.dataset.lastChange = String(change.sequence);
    document.body.dataset.lastChangePackage = change.package || "";
    window.previewLastChange = change;
    reload().then(() => { document.body.dataset.appliedChange = String(change.sequence); });
  });
  source.addEventListener("error", () => {
    live.className = "live-off";
    live.textContent = "reconnecting";
  });
}

document.addEventListener("keydown", onKey);
document.getElementById("show-hidden").addEventListener("change", (event) => {
  const focus = rememberFocus();
  state.showHidden = event.target.checked;
  restoreFocus(focus);
  render();
});
reload();
listen();
