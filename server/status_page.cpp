#include "server/status_page.h"

namespace zerlan::server {

std::string_view statusPageHtml() {
  return R"html(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>zerlan serve</title>
<link rel="icon" href="data:,">
<style>
  :root { --fg: #1d2430; --muted: #667085; --line: #e4e7ec; --bg: #f3f4f7; --card: #fff;
          --accent: #2557d6; --bad: #c4320a; --good: #087443; }
  * { box-sizing: border-box; }
  body { font: 14px/1.45 system-ui, -apple-system, "Segoe UI", sans-serif; margin: 0; color: var(--fg);
         background: var(--bg); }
  header { display: flex; align-items: center; gap: 12px; padding: 12px 24px; background: #161b26;
           color: #fff; }
  header h1 { font-size: 16px; margin: 0; font-weight: 650; letter-spacing: .2px; }
  header .address { color: #a4adbd; font-family: ui-monospace, monospace; font-size: 13px; }
  header .spacer { flex: 1; }
  .pill { border-radius: 999px; padding: 2px 10px; font-size: 12px; font-weight: 600; background: #2b3342; }
  .pill.step { background: #7a5af8; }
  .pill.bad { background: var(--bad); }
  main { display: grid; grid-template-columns: minmax(320px, 700px) minmax(340px, 1fr); gap: 20px;
         padding: 20px 24px; align-items: start; max-width: 1280px; }
  @media (max-width: 900px) { main { grid-template-columns: 1fr; } }
  .card { background: var(--card); border: 1px solid var(--line); border-radius: 10px; padding: 16px;
          box-shadow: 0 1px 2px rgba(16, 24, 40, .05); }
  .side { display: grid; gap: 16px; }
  h2 { font-size: 13px; text-transform: uppercase; letter-spacing: .6px; color: var(--muted);
       margin: 0 0 12px; font-weight: 650; }
  #stage { position: relative; background: #0b0e14; border-radius: 8px; overflow: hidden;
           aspect-ratio: 4 / 3; display: flex; align-items: center; justify-content: center; }
  #feed { width: 100%; height: 100%; object-fit: contain; display: block; }
  #drop { position: absolute; inset: 0; display: none; align-items: center; justify-content: center;
          background: rgba(37, 87, 214, .78); color: #fff; font-size: 18px; font-weight: 600;
          border: 3px dashed #fff; border-radius: 8px; }
  #stage.dragging #drop { display: flex; }
  .caption { margin-top: 10px; font-family: ui-monospace, monospace; font-size: 12.5px;
             overflow-wrap: anywhere; }
  .meta { color: var(--muted); margin-top: 4px; }
  .meta b { color: var(--fg); font-weight: 600; }
  .row { display: flex; gap: 8px; align-items: center; flex-wrap: wrap; }
  #stepbar { margin-top: 12px; }
  button, .filebutton { font: inherit; border: 1px solid var(--accent); background: var(--accent); color: #fff;
           border-radius: 6px; padding: 6px 14px; cursor: pointer; font-weight: 600; }
  button.secondary { background: #fff; color: var(--accent); }
  button:disabled { opacity: .45; cursor: default; }
  input, select { font: inherit; border: 1px solid #cfd4dc; border-radius: 6px; padding: 5px 8px;
                  background: #fff; color: var(--fg); min-width: 0; }
  input[type=number] { width: 72px; }
  form { margin: 0; }
  .tabs { display: flex; flex-wrap: wrap; gap: 4px; margin-bottom: 12px; }
  .tabs button { background: #fff; color: var(--fg); border-color: var(--line); font-weight: 500;
                 padding: 4px 10px; }
  .tabs button[aria-selected=true] { background: #eef3ff; border-color: var(--accent);
                                     color: var(--accent); font-weight: 600; }
  .pane label { display: block; color: var(--muted); margin-bottom: 4px; font-size: 13px; }
  .pane .row input[type=text] { flex: 1; }
  .hint { color: var(--muted); font-size: 12.5px; margin: 8px 0 0; }
  .filebutton input { display: none; }
  table { border-collapse: collapse; width: 100%; }
  th { text-align: left; font-weight: 500; color: var(--muted); padding: 3px 12px 3px 0; vertical-align: top;
       white-space: nowrap; }
  td { font-family: ui-monospace, monospace; font-size: 12.5px; padding: 3px 0; overflow-wrap: anywhere; }
  #message { min-height: 1.45em; margin-top: 12px; font-weight: 500; }
  #message.bad { color: var(--bad); }
  #message.good { color: var(--good); }
  footer { color: var(--muted); padding: 0 24px 24px; font-size: 12.5px; }
  code { background: #e9ecf2; padding: 1px 4px; border-radius: 3px; }
  [hidden] { display: none !important; }
</style>
</head>
<body>
<header>
  <h1>zerlan serve</h1>
  <span class="address" id="address"></span>
  <span class="spacer"></span>
  <span class="pill bad" id="faultpill" hidden></span>
  <span class="pill" id="mode">…</span>
</header>
<main>
  <section class="card">
    <div id="stage">
      <img id="feed" alt="the frame that GET /frame serves">
      <div id="drop">Drop to serve this picture or video</div>
    </div>
    <div class="caption" id="source">…</div>
    <div class="meta">Frame <b id="frame">…</b> · index <b id="frame_index">…</b> ·
      <span id="size">…</span></div>
    <div class="row" id="stepbar" hidden>
      <button id="step1" title="POST /control {&quot;step&quot;: 1}">Step 1</button>
      <button id="step10" class="secondary">Step 10</button>
      <span class="meta" id="steps"></span>
    </div>
  </section>
  <div class="side">
    <section class="card">
      <h2>What the camera sees</h2>
      <div class="tabs" role="tablist">
        <button role="tab" data-pane="pattern">Test pattern</button>
        <button role="tab" data-pane="image">Picture</button>
        <button role="tab" data-pane="dir">Folder</button>
        <button role="tab" data-pane="video">Video</button>
        <button role="tab" data-pane="camera">Camera</button>
        <button role="tab" data-pane="upload">From this computer</button>
      </div>
      <form class="pane" id="pane-pattern">
        <label for="qrtext">QR code on the test pattern</label>
        <div class="row"><input type="text" id="qrtext" autocomplete="off"><button id="qrgo">Show</button></div>
      </form>
      <form class="pane" id="pane-path">
        <label for="path" id="pathlabel">Path</label>
        <div class="row"><input type="text" id="path" autocomplete="off"><button id="pathgo">Serve</button></div>
        <p class="hint">A path on the machine that runs zerlan serve, relative to the folder it
          was started in.</p>
      </form>
      <form class="pane" id="pane-camera">
        <label for="camname">Camera (<span id="caminput">…</span>), empty for the default one</label>
        <div class="row"><input type="text" id="camname" list="cameras" autocomplete="off">
          <datalist id="cameras"></datalist><button id="camgo">Use the camera</button></div>
        <p class="hint" id="camnote"></p>
      </form>
      <div class="pane" id="pane-upload">
        <div class="row"><label class="filebutton">Choose a file…
          <input type="file" id="file" accept="image/*,video/*"></label></div>
        <p class="hint">Or drop a picture or a video onto the live view. Pictures up to
          <span id="maxpicture">32 MiB</span>, videos up to <span id="maxvideo">64 MiB</span>;
          the server keeps them until it stops.</p>
      </div>
      <div id="message" role="status"></div>
    </section>
    <section class="card">
      <h2>Faults on GET /frame</h2>
      <form class="row" id="faultform">
        <select id="faultkind" title="what the app's next fetches get">
          <option value="refuse" title="the connection is reset">refuse</option>
          <option value="stall" title="no answer until the server's time-out">stall</option>
          <option value="slow" title="the frame trickles out over about 2 s">slow</option>
          <option value="garbage" title="a 200 whose body is no image">garbage</option>
          <option value="truncate" title="half a JPEG">truncate</option>
          <option value="http-error" title="a 503">http-error</option>
        </select>
        <label title="empty: until cleared">for <input type="number" id="faultsecs" min="0.1" step="0.1" value="5"> s</label>
        <button id="faultgo">Inject</button>
        <button type="button" class="secondary" id="faultclear">Clear</button>
      </form>
      <p class="meta">In force: <b id="fault">…</b> · injected so far: <span id="faults">…</span></p>
    </section>
    <section class="card">
      <h2>What the app fetched</h2>
      <table>
        <tr><th>Frames served</th><td id="frames_served">…</td></tr>
        <tr><th>Last fetch</th><td id="last_fetch">…</td></tr>
        <tr><th title="This page's own view, not counted above">Live view here</th><td id="panel_frames">…</td></tr>
        <tr><th>Requests</th><td id="requests">…</td></tr>
        <tr><th>Requests/s</th><td id="rps">…</td></tr>
        <tr><th title="Connections open right now">Open connections</th><td id="clients">…</td></tr>
        <tr><th>Errors</th><td id="errors">…</td></tr>
        <tr><th>Uptime</th><td id="uptime">…</td></tr>
      </table>
    </section>
  </div>
</main>
<footer>The same from a script: <code>GET /frame</code> · <code>GET /status</code> ·
  <code>POST /control</code> with JSON, for example <code>{"qr": "text"}</code>,
  <code>{"source": {"image": "/path/photo.jpg"}}</code>, <code>{"step": 1}</code>,
  <code>{"fault": "stall", "seconds": 2}</code> · or <code>zerlan ctl</code>.</footer>
<script>
"use strict";
const $ = (id) => document.getElementById(id);
let status = null;

// The live view fetches with view=panel: the server counts those apart from the app's fetches,
// and a fault on GET /frame leaves them alone. Loads are chained, so a slow connection never
// piles up requests, and stop while the page is hidden.
let n = 0;
const feed = $("feed");
function nextFrame() {
  if (document.hidden) return;
  feed.src = "/frame?view=panel&n=" + (n++);
}
feed.onload = () => setTimeout(nextFrame, 100);
feed.onerror = () => setTimeout(nextFrame, 1000);
document.addEventListener("visibilitychange", () => { if (!document.hidden) nextFrame(); });
nextFrame();

const gone = "the server does not answer: is zerlan serve still running?";
function say(text, bad) {
  const m = $("message");
  m.textContent = text;
  m.className = bad ? "bad" : "good";
}
const mib = (bytes) => Math.floor(bytes / 1048576) + " MiB";
function counted(n, noun) { return n + " " + noun + (n === 1 ? "" : "s"); }
function faultText(f) {
  if (!f) return "none";
  if (f.seconds_left !== null) return f.kind + ", " + f.seconds_left.toFixed(1) + " s left";
  if (f.requests_left !== null) return f.kind + ", " + counted(f.requests_left, "request") + " left";
  return f.kind + ", until cleared";
}
function show(s) {
  const first = status === null;
  status = s;
  $("address").textContent = s.address;
  $("mode").textContent = s.mode === "step" ? "step mode" : "live";
  $("mode").className = "pill" + (s.mode === "step" ? " step" : "");
  $("faultpill").hidden = !s.fault;
  $("faultpill").textContent = s.fault ? "fault: " + faultText(s.fault) : "";
  $("source").textContent = s.source;
  $("frame").textContent = s.frame;
  $("frame_index").textContent = s.frame_index;
  $("size").textContent = s.width + "×" + s.height + ", " + s.bytes.toLocaleString() + " bytes";
  $("stepbar").hidden = s.mode !== "step";
  $("steps").textContent = s.mode === "step" ? counted(s.steps, "step") + " so far" : "";
  $("fault").textContent = faultText(s.fault);
  $("faults").textContent = Object.entries(s.faults).filter(([, k]) => k > 0)
      .map(([kind, k]) => kind + " " + k).join(", ") || "none";
  $("frames_served").textContent = s.frames_served;
  $("last_fetch").textContent = s.last_fetch === null ? "none yet"
      : s.seconds_since_last_fetch.toFixed(1) + " s ago, frame index " + s.last_served_index;
  $("panel_frames").textContent = s.panel_frames;
  $("requests").textContent = s.requests;
  $("rps").textContent = s.requests_per_second.toFixed(1);
  $("clients").textContent = s.clients;
  $("errors").textContent = s.errors;
  $("uptime").textContent = s.uptime_seconds.toFixed(0) + " s";
  $("caminput").textContent = s.camera_input;
  $("maxpicture").textContent = mib(s.uploads.max_picture_bytes);
  $("maxvideo").textContent = mib(s.uploads.max_video_bytes);
  if (first) {
    $("qrtext").value = s.qr;
    const kind = { image: "image", dir: "dir", video: "video", camera: "camera" }[s.source_kind];
    choose(kind || "pattern");
  }
}
async function poll() {
  try {
    const r = await fetch("/status", { cache: "no-store" });
    show(await r.json());
  } catch (e) {
    say(gone, true);
  }
  setTimeout(poll, 1000);
}
poll();

// Every error comes as JSON, {"error": REASON}, from the control thread and the connection alike.
async function answer(r, done) {
  const text = await r.text();
  let body = null;
  try { body = JSON.parse(text); } catch (e) { /* text */ }
  if (r.ok && body) {
    show(body);
    if (done) say(done, false);
    return true;
  }
  say((body && body.error) || text.trim() || ("HTTP " + r.status), true);
  return false;
}
const send = (request) => fetch("/control", {
  method: "POST",
  headers: { "Content-Type": "application/json" },
  body: JSON.stringify(request),
});
async function control(request, done) {
  try {
    return await answer(await send(request), done);
  } catch (e) {
    say(gone, true);
    return false;
  }
}

const pathLabels = {
  image: "Path of a picture (JPEG, PNG, ...)",
  dir: "Path of a folder of pictures, served in name order",
  video: "Path of a video (MP4, MOV, MKV, ...)",
};
let pane = "pattern";
function choose(name) {
  pane = name;
  for (const tab of document.querySelectorAll(".tabs button")) {
    tab.setAttribute("aria-selected", tab.dataset.pane === name);
  }
  $("pane-pattern").hidden = name !== "pattern";
  $("pane-path").hidden = !(name in pathLabels);
  $("pane-camera").hidden = name !== "camera";
  $("pane-upload").hidden = name !== "upload";
  if (name in pathLabels) $("pathlabel").textContent = pathLabels[name];
  if (name === "camera") listCameras();
}
for (const tab of document.querySelectorAll(".tabs button")) {
  tab.onclick = () => choose(tab.dataset.pane);
}

$("pane-pattern").onsubmit = async (ev) => {
  ev.preventDefault();
  const qr = $("qrtext").value;
  const done = "Showing the QR code \"" + qr + "\"";
  try {
    let r = await send({ qr });
    // The code is drawn by the test pattern: when something else is served (409), switch to it
    // too. Not always: a switch starts the pattern's frames again.
    if (r.status === 409) r = await send({ qr, source: "pattern" });
    await answer(r, done);
  } catch (e) {
    say(gone, true);
  }
};
$("pane-path").onsubmit = async (ev) => {
  ev.preventDefault();
  const path = $("path").value.trim();
  if (!path) return say("type a path first", true);
  await control({ source: { [pane]: path } }, "Serving " + path);
};
async function listCameras() {
  try {
    const r = await fetch("/cameras", { cache: "no-store" });
    const c = await r.json();
    $("cameras").replaceChildren(...c.cameras.map((cam) => {
      const o = document.createElement("option");
      o.value = cam.name;
      o.label = cam.description;
      return o;
    }));
    $("camname").placeholder = c.default || "the default camera";
    $("camnote").textContent = c.note || c.cameras.map((cam) => cam.name).join(", ");
  } catch (e) {
    $("camnote").textContent = "cannot list the cameras: " + e;
  }
}
$("pane-camera").onsubmit = async (ev) => {
  ev.preventDefault();
  const name = $("camname").value.trim();
  await control({ source: name ? { camera: name } : "camera" },
                "Serving " + (name ? "camera " + name : "the default camera"));
};

function typeOf(file) {
  if (file.type) return file.type;
  const ext = file.name.toLowerCase().split(".").pop();
  return { jpg: "image/jpeg", jpeg: "image/jpeg", png: "image/png", gif: "image/gif",
           webp: "image/webp", bmp: "image/bmp", mp4: "video/mp4", m4v: "video/mp4",
           mov: "video/quicktime", webm: "video/webm", mkv: "video/x-matroska",
           avi: "video/x-msvideo" }[ext] || "";
}
async function upload(file) {
  const type = typeOf(file);
  const video = type.startsWith("video/");
  if (!video && !type.startsWith("image/")) {
    return say(file.name + " is neither a picture nor a video", true);
  }
  const limit = video ? status.uploads.max_video_bytes : status.uploads.max_picture_bytes;
  if (file.size > limit) {
    return say(file.name + " is larger than " + mib(limit) + ", the most this server takes for a " +
               (video ? "video" : "picture") + ": serve it by its path instead", true);
  }
  say("Sending " + file.name + "…", false);
  try {
    const r = await fetch("/upload?name=" + encodeURIComponent(file.name), {
      method: "POST", headers: { "Content-Type": type }, body: file,
    });
    await answer(r, "Serving " + file.name);
  } catch (e) {
    say("the upload of " + file.name + " failed: " + e, true);
  }
}
$("file").onchange = () => {
  if ($("file").files.length) upload($("file").files[0]);
  $("file").value = "";
};
const stage = $("stage");
let dragDepth = 0;
document.addEventListener("dragover", (ev) => ev.preventDefault());
document.addEventListener("drop", (ev) => ev.preventDefault());
// Entering a child of the stage fires dragleave on the stage: count, so the hint does not flicker.
stage.addEventListener("dragenter", (ev) => {
  ev.preventDefault();
  dragDepth++;
  stage.classList.add("dragging");
});
stage.addEventListener("dragleave", () => {
  if (--dragDepth > 0) return;
  dragDepth = 0;
  stage.classList.remove("dragging");
});
stage.addEventListener("drop", (ev) => {
  ev.preventDefault();
  dragDepth = 0;
  stage.classList.remove("dragging");
  const files = ev.dataTransfer && ev.dataTransfer.files;
  if (files && files.length) upload(files[0]);
});

$("step1").onclick = () => control({ step: 1 });
$("step10").onclick = () => control({ step: 10 });
$("faultform").onsubmit = async (ev) => {
  ev.preventDefault();
  const kind = $("faultkind").value;
  const secs = parseFloat($("faultsecs").value);
  const request = secs > 0 ? { fault: kind, seconds: secs } : { fault: kind };
  await control(request, "GET /frame now gets " + kind + (secs > 0 ? " for " + secs + " s" : ""));
};
$("faultclear").onclick = () => control({ fault: "none" }, "GET /frame serves frames again");
</script>
</body>
</html>
)html";
}

}  // namespace zerlan::server
