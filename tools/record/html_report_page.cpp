// The HTML report's page: its style and its script, into which html_report.cpp puts the
// recording's data. Everything the page needs is here, so that it opens from a file with no
// network. The script writes recorded text with textContent only, never as markup: a payload can
// hold anything, a script element among it.
namespace talvex {

const char* htmlReportPage() {
  return R"PAGE(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>talvex-record report</title>
<style>
:root { --bad: #b3261e; --badbg: #fdecea; --warn: #8a5a00; --warnbg: #fff4d6; --line: #d9dde3; --muted: #5f6670; }
* { box-sizing: border-box; }
body { font: 14px/1.4 system-ui, sans-serif; margin: 0; color: #1c1f24; background: #fafbfc; }
header { padding: 12px 20px; background: #1f2a37; color: #fff; }
header h1 { font-size: 18px; margin: 0 0 4px; word-break: break-all; }
header p { margin: 0; color: #c9d1db; }
main { padding: 12px 20px; }
#processes { margin: 0 0 12px; }
.process { margin: 2px 0; font-family: ui-monospace, monospace; font-size: 12.5px; }
.process .cmd { color: var(--muted); word-break: break-all; }
.resolution { margin-left: 2em; color: var(--muted); font-size: 12.5px; }
.resolution.bad { color: var(--bad); }
#filters { display: flex; flex-wrap: wrap; gap: 12px; align-items: center; padding: 8px 0; border-bottom: 1px solid var(--line); position: sticky; top: 0; background: #fafbfc; z-index: 1; }
#filters input[type=text] { width: 14em; }
#shown { color: var(--muted); }
#axis { display: flex; justify-content: space-between; color: var(--muted); font-size: 12px; margin: 6px 0 2px 0; }
.conn { border: 1px solid var(--line); border-radius: 4px; margin: 4px 0; background: #fff; }
.conn.bad { border-color: var(--bad); background: var(--badbg); }
.conn > .head { display: grid; grid-template-columns: 5em minmax(16em, 2fr) 8em minmax(10em, 1fr); gap: 8px; align-items: center; padding: 5px 8px; cursor: pointer; }
.conn > .head:hover { background: #f0f3f7; }
.who { font-family: ui-monospace, monospace; font-size: 12px; color: var(--muted); }
.what { font-family: ui-monospace, monospace; font-size: 12.5px; word-break: break-all; }
.what .reqs { display: block; color: #2b4c7e; }
.size { font-size: 12px; color: var(--muted); text-align: right; }
.track { position: relative; height: 10px; background: #eef1f5; border-radius: 5px; }
.bar { position: absolute; top: 0; height: 10px; min-width: 3px; background: #4a7bd0; border-radius: 5px; }
.conn.bad .bar { background: var(--bad); }
.badge { display: inline-block; font-size: 11px; padding: 0 5px; border-radius: 3px; margin-left: 4px; background: #e3ecfa; color: #2b4c7e; }
.badge.enc { background: var(--warnbg); color: var(--warn); }
.badge.err { background: var(--bad); color: #fff; }
.body { padding: 6px 10px 10px; border-top: 1px solid var(--line); }
details.x { border-left: 3px solid #4a7bd0; margin: 6px 0; padding: 2px 8px; background: #f7f9fc; }
details.x.bad { border-left-color: var(--warn); background: var(--warnbg); }
details.x.fail { border-left-color: var(--bad); }
details.x summary { cursor: pointer; font-family: ui-monospace, monospace; font-size: 12.5px; word-break: break-all; }
.problem { color: var(--warn); font-weight: 600; }
h3 { font-size: 13px; margin: 8px 0 2px; }
table.headers { border-collapse: collapse; font-family: ui-monospace, monospace; font-size: 12px; }
table.headers td { padding: 0 10px 0 0; vertical-align: top; word-break: break-all; }
table.headers td:first-child { color: #2b4c7e; white-space: nowrap; }
pre { margin: 2px 0 6px; padding: 4px 6px; background: #f3f4f6; font-size: 12px; white-space: pre-wrap; word-break: break-all; max-height: 24em; overflow: auto; }
.event { font-family: ui-monospace, monospace; font-size: 12px; margin-top: 4px; }
.event.bad { color: var(--bad); font-weight: 600; }
.cut { color: var(--muted); font-style: italic; font-size: 12px; }
#more { margin: 10px 0; padding: 6px 14px; }
</style>
</head>
<body>
<header><h1 id="title">talvex-record report</h1><p id="summary"></p></header>
<main>
<section id="processes"></section>
<form id="filters" onsubmit="return false">
  <label>Host <input type="text" id="f-host" placeholder="address or name"></label>
  <label>Port <input type="text" id="f-port" size="6"></label>
  <label>Process <select id="f-process"><option value="">all</option></select></label>
  <label><input type="checkbox" id="f-errors"> errors only</label>
  <span id="shown"></span>
</form>
<div id="axis"><span>0 ms</span><span id="axis-end"></span></div>
<div id="list"></div>
<button id="more" type="button">Show more</button>
</main>
<script type="application/json" id="data">/*TALVEX_DATA*/</script>
<script>
(function () {
  'use strict';
  var data = JSON.parse(document.getElementById('data').textContent);
  var conns = data.connections;
  var PAGE = 200;
  var span = 1;
  var exchanges = 0, failures = 0;
  function exchangeFailed(x) { return x.bad || !x.s || x.s >= 400; }
  function hasErrors(c) { return c.bad || c.http.some(exchangeFailed); }
  conns.forEach(function (c) {
    if (c.t1 > span) span = c.t1;
    exchanges += c.http.length;
    if (hasErrors(c)) failures++;
  });

  function el(tag, cls, text) {
    var e = document.createElement(tag);
    if (cls) e.className = cls;
    if (text !== undefined) e.textContent = text;
    return e;
  }
  function size(n) {
    if (n < 1024) return n + ' B';
    if (n < 1048576) return (n / 1024).toFixed(1) + ' kB';
    return (n / 1048576).toFixed(1) + ' MB';
  }
  function ms(t) { return t < 1000 ? t.toFixed(1) + ' ms' : (t / 1000).toFixed(2) + ' s'; }
  function plural(n, one, many) { return n + ' ' + (n === 1 ? one : many); }

  var first = data.processes.length ? data.processes[0].cmd : '';
  document.getElementById('title').textContent = 'talvex-record: ' + (first || 'recording');
  document.title = 'talvex-record: ' + (first || 'recording');
  document.getElementById('summary').textContent =
    plural(data.processes.length, 'process', 'processes') + ', ' + plural(conns.length, 'connection', 'connections') +
    ', ' + plural(exchanges, 'HTTP exchange', 'HTTP exchanges') + ', ' + size(data.sent) + ' sent, ' +
    size(data.recv) + ' received' + (failures ? ', ' + plural(failures, 'connection with errors', 'connections with errors') : '') +
    (data.malformed ? ', ' + plural(data.malformed, 'malformed message', 'malformed messages') : '');
  document.getElementById('axis-end').textContent = ms(span);

  var processes = document.getElementById('processes');
  var select = document.getElementById('f-process');
  var perProcess = {};
  conns.forEach(function (c) { perProcess[c.p] = (perProcess[c.p] || 0) + 1; });
  data.processes.forEach(function (p, i) {
    var line = el('div', 'process');
    line.appendChild(el('span', '', 'process ' + p.pid + ' (' + plural(perProcess[i] || 0, 'connection', 'connections') + '): '));
    line.appendChild(el('span', 'cmd', p.cmd || '(command line not recorded)'));
    processes.appendChild(line);
    data.resolutions.forEach(function (r) {
      if (r.p === i) processes.appendChild(el('div', 'resolution' + (r.bad ? ' bad' : ''), r.text));
    });
    var option = el('option', '', p.pid + ' ' + (p.cmd || '').slice(0, 60));
    option.value = String(p.pid);
    if (!select.querySelector('option[value="' + p.pid + '"]')) select.appendChild(option);
  });

  function matches(c, f) {
    if (f.host && c.host.indexOf(f.host) < 0 && !c.http.some(function (x) { return x.u.indexOf(f.host) >= 0; })) return false;
    if (f.port && String(c.port) !== f.port && String(c.lport) !== f.port) return false;
    if (f.pid && String(c.pid) !== f.pid) return false;
    if (f.errors && !hasErrors(c)) return false;
    return true;
  }

  function payload(parent, p) {
    if (!p || !p.n) return;
    if (p.enc) { parent.appendChild(el('div', 'cut', size(p.n) + ' of TLS records, not readable')); return; }
    if (p.text !== undefined || p.hex !== undefined) parent.appendChild(el('pre', p.hex !== undefined ? 'hex' : 'text', p.text !== undefined ? p.text : p.hex));
    if (p.cut) parent.appendChild(el('div', 'cut', '\u2026 ' + size(p.cut) + ' more, not in the report'));
  }
  function headers(parent, list) {
    var t = el('table', 'headers');
    list.forEach(function (h) {
      var tr = el('tr');
      tr.appendChild(el('td', '', h[0] + ':'));
      tr.appendChild(el('td', '', h[1]));
      t.appendChild(tr);
    });
    parent.appendChild(t);
  }
  function exchangeLine(x) {
    return x.m + ' ' + x.u + ' \u2192 ' + (x.s ? x.s + ' ' + x.r : 'no response') + (x.bad ? ' (incomplete)' : '');
  }
  function exchange(x) {
    var d = el('details', 'x' + (x.bad ? ' bad' : '') + (exchangeFailed(x) ? ' fail' : ''));
    var s = el('summary', '', exchangeLine(x));
    if (x.bad) s.appendChild(el('span', 'problem', '  ' + x.bad));
    d.appendChild(s);
    d.appendChild(el('h3', '', 'Request' + (x.served ? ' (received)' : '') + ': ' + x.m + ' ' + x.u + ' ' + x.v));
    headers(d, x.qh);
    payload(d, x.qb);
    if (x.s !== undefined) {
      d.appendChild(el('h3', '', 'Response: ' + x.sv + ' ' + x.s + ' ' + x.r));
      headers(d, x.sh);
      if (x.coding) d.appendChild(el('div', 'problem', 'Content-Encoding not undone: ' + x.coding));
      payload(d, x.sb);
    }
    return d;
  }
  function event(e) {
    var text, bad = false;
    var at = '+' + ms(e.t) + '  ';
    if (e.k === 'close') text = 'close of ' + e.d;
    else if (e.k === 'eof') text = '< end of stream';
    else {
      text = (e.k === 'send' ? '> sent ' : '< received ') + size(e.n !== undefined ? e.n : e.p.n);
      if (e.err) { text += ' FAILED (' + e.err + ')'; bad = true; }
    }
    var div = el('div', 'event' + (bad ? ' bad' : ''), at + text);
    var box = el('div');
    box.appendChild(div);
    payload(box, e.p);
    return box;
  }
  function details(c, body) {
    if (c.http.length) {
      body.appendChild(el('h3', '', plural(c.http.length, 'HTTP exchange', 'HTTP exchanges')));
      c.http.forEach(function (x) { body.appendChild(exchange(x)); });
    }
    body.appendChild(el('h3', '', 'Conversation'));
    c.ev.forEach(function (e) { body.appendChild(event(e)); });
    if (!c.open) body.appendChild(el('div', 'event', '+' + ms(c.t1) + '  close'));
  }
  function row(c) {
    var r = el('div', 'conn' + (hasErrors(c) ? ' bad' : ''));
    r.id = 'connection-' + c.id;
    var head = el('div', 'head');
    head.appendChild(el('span', 'who', 'pid ' + c.pid + '\n#' + c.id));
    var what = el('span', 'what', 'socket ' + c.sock + ': ' + c.head);
    if (c.tls) what.appendChild(el('span', 'badge', 'TLS'));
    if (c.enc) what.appendChild(el('span', 'badge enc', 'encrypted'));
    if (c.bad) what.appendChild(el('span', 'badge err', 'error'));
    c.http.slice(0, 3).forEach(function (x) { what.appendChild(el('span', 'reqs', exchangeLine(x))); });
    if (c.http.length > 3) what.appendChild(el('span', 'reqs', '\u2026 ' + (c.http.length - 3) + ' more'));
    head.appendChild(what);
    head.appendChild(el('span', 'size', '\u2191 ' + size(c.sent) + '\n\u2193 ' + size(c.recv)));
    var track = el('span', 'track');
    var bar = el('span', 'bar');
    bar.style.left = (c.t0 / span * 100) + '%';
    bar.style.width = Math.max((c.t1 - c.t0) / span * 100, 0.2) + '%';
    bar.title = '+' + ms(c.t0) + ' to +' + ms(c.t1);
    track.appendChild(bar);
    head.appendChild(track);
    r.appendChild(head);
    var body = null;
    head.addEventListener('click', function () { toggle(); });
    function toggle(openAll) {
      if (body) { r.removeChild(body); body = null; return; }
      body = el('div', 'body');
      details(c, body);
      if (openAll) body.querySelectorAll('details').forEach(function (d) { d.open = true; });
      r.appendChild(body);
    }
    r.toggle = toggle;
    return r;
  }

  var list = document.getElementById('list');
  var more = document.getElementById('more');
  var shown = document.getElementById('shown');
  var filtered = conns, rendered = 0;
  function showMore() {
    var end = Math.min(filtered.length, rendered + PAGE);
    var part = document.createDocumentFragment();
    for (; rendered < end; rendered++) part.appendChild(row(filtered[rendered]));
    list.appendChild(part);
    more.style.display = rendered < filtered.length ? '' : 'none';
    more.textContent = 'Show ' + Math.min(PAGE, filtered.length - rendered) + ' more of ' + (filtered.length - rendered);
    shown.textContent = 'showing ' + rendered + ' of ' + plural(filtered.length, 'connection', 'connections') +
      (filtered.length !== conns.length ? ' (' + conns.length + ' in all)' : '');
  }
  function apply() {
    var f = {
      host: document.getElementById('f-host').value.trim(),
      port: document.getElementById('f-port').value.trim(),
      pid: select.value,
      errors: document.getElementById('f-errors').checked
    };
    filtered = conns.filter(function (c) { return matches(c, f); });
    rendered = 0;
    list.textContent = '';
    showMore();
  }
  ['f-host', 'f-port', 'f-process', 'f-errors'].forEach(function (id) {
    document.getElementById(id).addEventListener('input', apply);
    document.getElementById(id).addEventListener('change', apply);
  });
  more.addEventListener('click', showMore);
  if ('IntersectionObserver' in window) {
    new IntersectionObserver(function (seen) {
      if (seen[0].isIntersecting && rendered < filtered.length) showMore();
    }).observe(more);
  }
  apply();
  // #expand opens the first conversations with every exchange unfolded: a printable view.
  if (location.hash === '#expand') {
    Array.prototype.slice.call(list.children, 0, 20).forEach(function (r) { r.toggle(true); });
  }
})();
</script>
</body>
</html>
)PAGE";
}

}  // namespace talvex
