#include "server/status_page.h"

namespace zerlan::server {

std::string_view statusPageHtml() {
  return R"html(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>zerlan serve</title>
<link rel="icon" href="data:,">
<style>
  body { font: 14px/1.4 system-ui, sans-serif; margin: 24px; color: #222; background: #fafafa; }
  h1 { font-size: 18px; margin: 0 0 16px; }
  main { display: flex; gap: 24px; flex-wrap: wrap; align-items: flex-start; }
  #feed { background: #000; max-width: 100%; border-radius: 4px; min-width: 320px; min-height: 240px; }
  table { border-collapse: collapse; }
  th { text-align: left; font-weight: 600; padding: 3px 16px 3px 0; vertical-align: top; }
  td { font-family: ui-monospace, monospace; padding: 3px 0; max-width: 420px; overflow-wrap: anywhere; }
  form { margin-top: 16px; }
  #message { color: #a00; margin-top: 8px; min-height: 1.4em; }
  code { background: #eee; padding: 1px 4px; border-radius: 3px; }
</style>
</head>
<body>
<h1>zerlan serve</h1>
<main>
  <img id="feed" alt="live feed from /frame">
  <section>
    <table>
      <tr><th>Mode</th><td id="mode">…</td></tr>
      <tr><th>Source</th><td id="source">…</td></tr>
      <tr><th>QR payload</th><td id="qr">…</td></tr>
      <tr><th>Frame</th><td id="frame">…</td></tr>
      <tr><th title="The source's own count: 0 for its first frame">Frame index</th><td id="frame_index">…</td></tr>
      <tr><th>Size</th><td id="size">…</td></tr>
      <tr><th>Frames served</th><td id="frames_served">…</td></tr>
      <tr><th>Last fetch</th><td id="last_fetch">…</td></tr>
      <tr><th title="Camera trouble on demand: POST /control {&quot;fault&quot;: KIND}">Fault on GET /frame</th><td id="fault">…</td></tr>
      <tr><th>Faults injected</th><td id="faults">…</td></tr>
      <tr><th>Requests</th><td id="requests">…</td></tr>
      <tr><th>Requests/s</th><td id="rps">…</td></tr>
      <tr><th title="Connections open right now: fetches in progress and clients still sending or reading">Open connections</th><td id="clients">…</td></tr>
      <tr><th>Errors</th><td id="errors">…</td></tr>
      <tr><th>Uptime</th><td id="uptime">…</td></tr>
    </table>
    <form id="qrform">
      <label>New QR payload <input id="qrtext" size="24"></label>
      <button>Set</button>
    </form>
    <form id="sourceform">
      <label>Source
        <select id="kind">
          <option value="pattern">test pattern</option>
          <option value="image">image file</option>
          <option value="dir">folder of images</option>
          <option value="video">video file</option>
        </select></label>
      <input id="path" size="28" placeholder="path on this machine">
      <button>Switch</button>
    </form>
    <div id="message"></div>
    <p>Frames: <code>GET /frame</code> · figures: <code>GET /status</code> ·
       switch: <code>POST /control</code> with <code>{"qr": "text"}</code> or
       <code>{"source": {"image": "/path/photo.jpg"}}</code>. Paths are read on the machine that runs
       zerlan serve, relative to the folder it was started in.</p>
  </section>
</main>
<script>
const $ = (id) => document.getElementById(id);
let n = 0;
const feed = $("feed");
function nextFrame() { feed.src = "/frame?n=" + (n++); }
// Chain loads instead of a timer, so a slow connection never piles up requests.
feed.onload = () => setTimeout(nextFrame, 100);
feed.onerror = () => setTimeout(nextFrame, 1000);
nextFrame();

function faultText(f) {
  if (!f) return "none";
  if (f.seconds_left !== null) return f.kind + ", " + f.seconds_left.toFixed(1) + " s left";
  if (f.requests_left !== null) return f.kind + ", " + f.requests_left + " requests left";
  return f.kind + ", until cleared";
}
function show(s) {
  $("mode").textContent = s.mode === "step"
      ? "step: frames advance only on POST /control {\"step\": N} (" + s.steps + " steps so far)"
      : "live";
  $("frame_index").textContent = s.frame_index;
  $("last_fetch").textContent = s.last_fetch === null ? "none yet"
      : s.seconds_since_last_fetch.toFixed(1) + " s ago, frame index " + s.last_served_index;
  $("fault").textContent = faultText(s.fault);
  $("faults").textContent = Object.entries(s.faults).filter(([, n]) => n > 0)
      .map(([k, n]) => k + " " + n).join(", ") || "none";
  $("source").textContent = s.source;
  // The QR payload is drawn by the test pattern only.
  $("qrform").hidden = s.source_kind !== "pattern";
  $("qr").textContent = s.qr;
  $("frame").textContent = s.frame;
  $("size").textContent = s.width + "×" + s.height + ", " + s.bytes + " bytes";
  $("frames_served").textContent = s.frames_served;
  $("requests").textContent = s.requests;
  $("rps").textContent = s.requests_per_second.toFixed(1);
  $("clients").textContent = s.clients;
  $("errors").textContent = s.errors;
  $("uptime").textContent = s.uptime_seconds.toFixed(0) + " s";
}
async function poll() {
  try {
    const r = await fetch("/status", { cache: "no-store" });
    show(await r.json());
    $("message").textContent = "";
  } catch (e) {
    $("message").textContent = "the server does not answer: is zerlan serve still running?";
  }
  setTimeout(poll, 1000);
}
poll();

async function control(request) {
  const r = await fetch("/control", {
    method: "POST",
    headers: { "Content-Type": "application/json" },
    body: JSON.stringify(request),
  });
  const body = await r.json();
  if (r.ok) show(body); else $("message").textContent = body.error;
}
$("qrform").onsubmit = (ev) => { ev.preventDefault(); control({ qr: $("qrtext").value }); };
$("kind").onchange = () => { $("path").hidden = $("kind").value === "pattern"; };
$("kind").onchange();
$("sourceform").onsubmit = (ev) => {
  ev.preventDefault();
  const kind = $("kind").value;
  control({ source: kind === "pattern" ? "pattern" : { [kind]: $("path").value } });
};
</script>
</body>
</html>
)html";
}

}  // namespace zerlan::server
