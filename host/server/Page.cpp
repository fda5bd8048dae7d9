#include "host/server/Page.h"

namespace orv::host {

const char kPage[] = R"html(<!doctype html>
<html lang="en"><head><meta charset="utf-8"><title>flvhost</title>
<link rel="icon" href="data:,">
<meta name="viewport" content="width=device-width, initial-scale=1">
<style>
:root { color-scheme: light dark; --line: #8884; --accent: #d33; }
body { font: 15px/1.45 system-ui, sans-serif; margin: 0 auto; max-width: 60rem; padding: 1rem; }
h1 { font-size: 1.2rem; margin: 0 0 .8rem; }
video { width: 100%; max-height: 60vh; background: #000; display: block; border-radius: 6px; }
#player { display: none; margin-bottom: 1.2rem; }
#bar { display: flex; gap: .6rem; align-items: center; margin-top: .5rem; font-variant-numeric: tabular-nums; }
#seek { flex: 1; }
table { border-collapse: collapse; width: 100%; }
td, th { text-align: left; padding: .35rem .6rem .35rem 0; border-bottom: 1px solid var(--line); }
td.n, th.n { text-align: right; font-variant-numeric: tabular-nums; }
tr.file { cursor: pointer; }
tr.file:hover { background: #8881; }
.live { color: #fff; background: var(--accent); border-radius: 3px; font-size: .75rem; padding: 0 .35rem; }
.note { opacity: .7; }
button { font: inherit; }
@media (max-width: 40rem) { .wide { display: none; } }
</style></head><body>
<h1>flvhost</h1>
<div id="player"><video id="video" controls muted playsinline></video>
<div id="bar"><span id="at">0:00</span><input id="seek" type="range" min="0" max="1000" value="0" step="any">
<span id="length">0:00</span><button id="live" hidden>live</button></div><p class="note" id="what"></p></div>
<table><thead><tr><th>name<th class="n">duration<th class="wide">video<th class="wide">audio<th class="n wide">kbit/s
</tr></thead><tbody id="files"></tbody></table>
<p class="note" id="note">Loading the list.</p>
<script src="/mpegts.js"></script><script src="/page.js"></script>
</body></html>
)html";

// The seek bar asks for the stream anew from the time wanted, so it needs no index in the file.
const char kPageScript[] = R"js('use strict';
const $ = id => document.getElementById(id);
const video = $('video'), seek = $('seek');
let player = null, current = null, base = 0, dragging = false;

const text = s => {
  const t = Math.max(0, Math.floor(s)), h = Math.floor(t / 3600), m = Math.floor(t / 60) % 60, two = n => String(n).padStart(2, '0');
  return (h ? h + ':' + two(m) : m) + ':' + two(t % 60);
};
const address = name => '/' + name.split('/').map(encodeURIComponent).join('/');

function stop() {
  if (player) { player.destroy(); player = null; }
}

function start(file, from) {
  stop();
  current = file;
  $('player').style.display = 'block';
  $('what').textContent = file.name;
  $('live').hidden = !file.live;
  const atLive = file.live && from === null;
  base = atLive ? Math.max(0, file.duration.ms / 1000 - 2) : from || 0;
  const query = atLive ? '?from=-2s' : base > 0 ? '?from=' + base.toFixed(3) : '';
  if (!window.mpegts || !mpegts.isSupported()) { location.href = address(file.name) + query; return; }
  player = mpegts.createPlayer({ type: 'flv', isLive: true, url: address(file.name) + query },
                               { enableStashBuffer: !atLive, lazyLoad: false, autoCleanupSourceBuffer: true });
  player.on(mpegts.Events.ERROR, (kind, detail) => { $('what').textContent = file.name + ': ' + kind + ', ' + detail; });
  player.attachMediaElement(video);
  player.load();
  video.play().catch(() => {});
}

function show() {
  if (!current) return;
  const length = current.duration.ms / 1000, at = base + video.currentTime;
  seek.max = Math.max(length, at);
  if (!dragging) seek.value = at;
  $('at').textContent = text(dragging ? +seek.value : at);
  $('length').textContent = text(Math.max(length, at));
}

seek.addEventListener('input', () => { dragging = true; show(); });
seek.addEventListener('change', () => { dragging = false; start(current, +seek.value); });
$('live').addEventListener('click', () => start(current, null));
setInterval(show, 250);

async function list() {
  const { files } = await (await fetch('/list.json')).json();
  const rows = files.map(file => {
    const row = document.createElement('tr');
    const cell = (value, kind) => { const td = row.insertCell(); td.textContent = value; td.className = kind || ''; return td; };
    row.className = 'file';
    const name = cell(file.name + ' ');
    if (file.live) { const mark = document.createElement('span'); mark.className = 'live'; mark.textContent = 'live'; name.append(mark); }
    cell(text(file.duration.ms / 1000), 'n');
    cell(file.video || '', 'wide');
    cell(file.audio || '', 'wide');
    cell(Math.round(file.bitsPerSecond / 1000), 'n wide');
    row.addEventListener('click', () => start(file, file.live ? null : 0));
    if (current && current.name === file.name) current.duration = file.duration;
    return row;
  });
  $('files').replaceChildren(...rows);
  $('note').textContent = !files.length ? 'There is no FLV file here yet.'
    : window.mpegts ? '' : 'No player was given to the server (--player); a click downloads the file.';
}
const refresh = () => list().catch(() => { $('note').textContent = 'The server does not answer.'; });
refresh();
setInterval(refresh, 2000);
)js";

}  // namespace orv::host
