// The page of `tamrik serve`: the fleet at a glance and one gateway's own view, kept live by the
// service's event stream. Plain JavaScript with no dependencies: the program serves this file
// itself and the page must work on a plant network without internet access.
'use strict';

const PLOT_WINDOW_MS = 60000;
const PLOT_MAX_LINES = 8;
const PLOT_MAX_SAMPLES = 3000;
// Distinguishable for the common colour-vision deficiencies; the legend names every line too.
const PLOT_COLOURS = ['#0072b2', '#d55e00', '#009e73', '#cc79a7', '#e69f00', '#56b4e9', '#000000', '#999933'];
const PLOT_DASHES = [[], [6, 3], [2, 2], [8, 3, 2, 3]];

const $ = (id) => document.getElementById(id);

function el(tag, attrs = {}, ...children) {
  const node = document.createElement(tag);
  for (const [key, value] of Object.entries(attrs)) {
    if (value === undefined || value === null || value === false) continue;
    if (key === 'class') node.className = value;
    else if (key === 'text') node.textContent = value;
    else if (key.startsWith('data-') || key.startsWith('aria-') || typeof value !== 'boolean') node.setAttribute(key, value);
    else node.setAttribute(key, '');
  }
  node.append(...children);
  return node;
}

// --- access --------------------------------------------------------------------------------
// A service that listens beyond loopback wants a token with every request. The page takes it
// from its own address (?token= or #token=) once and keeps it for the tab, so that following
// the page's own links (which rewrite the hash) does not lose it.
const token = readToken();

function readToken() {
  const fromQuery = new URLSearchParams(location.search).get('token');
  const inHash = /(?:^#|[&?])token=([^&]*)/.exec(location.hash);
  let value = fromQuery || (inHash ? decodeURIComponent(inHash[1]) : '');
  try {
    if (value) sessionStorage.setItem('tamrik-token', value);
    else value = sessionStorage.getItem('tamrik-token') || '';
  } catch (e) { /* storage may be disabled; the token then lives as long as the page */ }
  return value;
}

// Relative addresses, so that the page also works behind a proxy that mounts it under a path.
async function api(path, init = {}) {
  const headers = Object.assign({ Accept: 'application/json' }, init.headers);
  if (token) headers.Authorization = 'Bearer ' + token;
  let response;
  try {
    response = await fetch(path, Object.assign({}, init, { headers, cache: 'no-store' }));
  } catch (e) {
    return { ok: false, status: 0, body: { name: 'Unreachable', text: String(e.message || e) } };
  }
  let body = null;
  try { body = await response.json(); } catch (e) { body = null; }
  if (response.status === 401) {
    showNotice('The service asks for a token: open this page as ' + location.pathname + '?token=YOUR_TOKEN');
  }
  return { ok: response.ok, status: response.status, body };
}

function showNotice(text) {
  const notice = $('notice');
  notice.textContent = text;
  notice.hidden = !text;
}

// --- state ---------------------------------------------------------------------------------
const state = {
  gateways: new Map(),    // name -> the gateway's object of GET /api/gateways
  detail: null,           // GET /api/gateways/NAME of the gateway on screen
  viewSeq: 0,             // drops answers to requests of a view that was left meanwhile
  history: [],            // [{t, bytes}] of the inputs of the gateway on screen
  writes: Promise.resolve(),
  plotLines: -1,
};

// --- formatting ----------------------------------------------------------------------------
function timeOfDay(ts) {
  if (!ts) return '—';
  const d = new Date(ts);
  return Number.isNaN(d.getTime()) ? String(ts) : d.toLocaleTimeString([], { hour12: false });
}

function duration(ms) {
  const s = Math.floor(ms / 1000);
  const pad = (n) => String(n).padStart(2, '0');
  const days = Math.floor(s / 86400);
  const clock = `${pad(Math.floor(s / 3600) % 24)}:${pad(Math.floor(s / 60) % 60)}:${pad(s % 60)}.${String(ms % 1000).padStart(3, '0')}`;
  return days ? `${days} d ${clock}` : clock;
}

function plain(value) {
  if (value === null || value === undefined) return '—';
  if (typeof value === 'object') return JSON.stringify(value);
  return String(value);
}

function hex(byte) { return '0x' + byte.toString(16).toUpperCase().padStart(2, '0'); }

function failureText(failure) {
  return failure ? `${failure.name || 'code ' + failure.code} at ${timeOfDay(failure.ts)}` : '—';
}

function stateBadge(online) {
  return el('span', { class: 'state ' + (online ? 'online' : 'offline'), 'data-state': online ? 'online' : 'offline',
                      text: online ? 'online' : 'offline' });
}

// --- fleet view ----------------------------------------------------------------------------
const FLEET_FIELDS = ['name', 'state', 'link', 'rate', 'exchanges', 'failures', 'reconnects', 'last_good', 'last_failure'];
const fleetRows = new Map();

function fleetRow(name) {
  const row = el('tr', { 'data-gateway': name });
  for (const field of FLEET_FIELDS) {
    const cell = el(field === 'name' ? 'th' : 'td', { 'data-field': field });
    if (field === 'name') {
      cell.setAttribute('scope', 'row');
      cell.append(el('a', { href: '#/gw/' + encodeURIComponent(name), text: name }));
    }
    if (['rate', 'exchanges', 'failures', 'reconnects'].includes(field)) cell.className = 'num';
    row.append(cell);
  }
  return row;
}

function updateFleetRow(g) {
  const row = fleetRows.get(g.name);
  if (!row) return;
  const cell = (field) => row.querySelector(`[data-field="${field}"]`);
  cell('state').replaceChildren(stateBadge(g.online));
  cell('link').textContent = plain(g.link);
  cell('rate').textContent = typeof g.rate === 'number' ? g.rate.toFixed(1) + '/s' : '—';
  cell('exchanges').textContent = plain(g.exchanges);
  cell('failures').textContent = plain(g.failures);
  cell('reconnects').textContent = plain(g.reconnects);
  cell('last_good').textContent = timeOfDay(g.last_good);
  const failure = cell('last_failure');
  failure.textContent = failureText(g.last_failure);
  failure.title = g.last_failure ? g.last_failure.text || '' : '';
  row.dataset.online = g.online ? 'true' : 'false';
}

function renderFleet() {
  const body = $('fleet').tBodies[0];
  const names = [...state.gateways.keys()];
  if (names.length !== fleetRows.size || names.some((n) => !fleetRows.has(n))) {
    fleetRows.clear();
    body.replaceChildren(...names.map((name) => { const row = fleetRow(name); fleetRows.set(name, row); return row; }));
  }
  for (const g of state.gateways.values()) updateFleetRow(g);
  renderFleetSummary();
}

function renderFleetSummary() {
  const all = [...state.gateways.values()];
  const online = all.filter((g) => g.online).length;
  const rate = all.reduce((sum, g) => sum + (typeof g.rate === 'number' ? g.rate : 0), 0);
  $('fleet-summary').textContent = all.length
    ? `${all.length} gateways: ${online} online, ${all.length - online} offline, ${rate.toFixed(1)} exchanges/s in all`
    : 'No gateways.';
}

async function loadFleet() {
  const r = await api('api/gateways');
  if (!r.ok || !r.body || !Array.isArray(r.body.gateways)) return;
  state.gateways = new Map(r.body.gateways.map((g) => [g.name, g]));
  renderFleet();
}

// --- gateway view --------------------------------------------------------------------------
function renderHeader() {
  const d = state.detail;
  $('gw-name').textContent = d.name;
  $('gw-state').replaceChildren(stateBadge(d.online));
  const facts = [
    ['Link', plain(d.link)],
    ['Writable', d.writable ? 'yes' : 'no'],
    ['Rate', typeof d.rate === 'number' ? d.rate.toFixed(1) + ' exchanges/s' : '—'],
    ['Exchanges', plain(d.exchanges)],
    ['Failures', plain(d.failures)],
    ['Reconnects', plain(d.reconnects)],
    ['Last good answer', timeOfDay(d.last_good)],
    ['Last failure', failureText(d.last_failure) + (d.last_failure && d.last_failure.text ? ': ' + d.last_failure.text : '')],
  ];
  $('gw-facts').replaceChildren(...facts.flatMap(([k, v]) => [el('dt', { text: k }), el('dd', { text: v })]));
  $('gw-outputs-hint').textContent = d.writable
    ? 'Press a bit to write the outputs with that bit changed.'
    : 'This gateway is not writable: the outputs are shown, not changed.';
}

// A flat object as a two-column table: key, value.
function keyValueTable(object, caption) {
  if (!object || !Object.keys(object).length) return el('p', { class: 'empty', text: 'Nothing read yet.' });
  return el('table', { class: 'data kv' }, el('caption', { class: 'visually-hidden', text: caption }),
    el('tbody', {}, ...Object.entries(object).map(([k, v]) => el('tr', {}, el('th', { scope: 'row', text: k }), el('td', { text: plain(v) })))));
}

const LEADING_KEYS = ['name', 'entry', 'slot', 'id', 'type', 'code', 'status'];

// A list of flat objects as a table whose columns are the keys in the order they first appear.
function listTable(rows, caption, kind) {
  if (!Array.isArray(rows) || !rows.length) return el('p', { class: 'empty', text: rows ? 'None.' : 'Nothing read yet.' });
  // The service's objects come with their keys sorted; what names a row goes first.
  const keys = LEADING_KEYS.filter((k) => rows.some((row) => k in row));
  for (const row of rows) for (const k of Object.keys(row)) if (!keys.includes(k)) keys.push(k);
  return el('table', { class: 'data list', 'data-list': kind },
    el('caption', { class: 'visually-hidden', text: caption }),
    el('thead', {}, el('tr', {}, ...keys.map((k) => el('th', { scope: 'col', text: k })))),
    el('tbody', {}, ...rows.map((row, i) => el('tr', { 'data-index': i },
      ...keys.map((k, column) => el(column ? 'td' : 'th', { scope: column ? null : 'row', 'data-key': k, text: plain(row[k]) }))))));
}

// Inputs and outputs as a grid of bit buttons, one row a byte, bit 7 first as a byte is written.
// The grid is built once per size and updated in place, so that a live update never takes the
// keyboard focus away from a bit.
function renderBits(kind, value, editable) {
  const holder = $('gw-' + kind);
  $(`gw-${kind}-ts`).textContent = value && value.ts ? 'read ' + timeOfDay(value.ts) : '';
  const bytes = value && Array.isArray(value.bytes) ? value.bytes : null;
  if (!bytes || !bytes.length) {
    holder.replaceChildren(el('p', { class: 'empty', text: bytes ? 'No bytes.' : 'Not read yet.' }));
    return;
  }
  let table = holder.querySelector('table');
  if (!table || table.dataset.size !== String(bytes.length) || table.dataset.editable !== String(editable)) {
    table = bitTable(kind, bytes.length, editable);
    holder.replaceChildren(table);
  }
  bytes.forEach((byte, i) => {
    const row = table.tBodies[0].rows[i];
    row.dataset.value = byte;
    for (let bit = 0; bit < 8; bit++) {
      const on = (byte >> bit) & 1 ? 'true' : 'false';
      const button = row.querySelector(`[data-bit="${kind}:${i}:${bit}"]`);
      if (button.getAttribute('aria-pressed') !== on) button.setAttribute('aria-pressed', on);
    }
    row.querySelector('.hex').textContent = hex(byte);
    row.querySelector('.dec').textContent = String(byte);
  });
}

function bitTable(kind, size, editable) {
  const bits = [7, 6, 5, 4, 3, 2, 1, 0];
  return el('table', { class: 'bits', 'data-kind': kind, 'data-size': size, 'data-editable': String(editable) },
    el('caption', { class: 'visually-hidden', text: `${kind} bits, one row a byte` }),
    el('thead', {}, el('tr', {}, el('th', { scope: 'col', text: 'Byte' }),
      ...bits.map((b) => el('th', { scope: 'col', text: String(b) })),
      el('th', { scope: 'col', text: 'Hex' }), el('th', { scope: 'col', text: 'Dec' }))),
    el('tbody', {}, ...Array.from({ length: size }, (_, i) => el('tr', { 'data-byte': `${kind}:${i}` },
      el('th', { scope: 'row', text: String(i) }),
      ...bits.map((b) => el('td', {}, el('button', {
        type: 'button', class: 'bit', 'data-bit': `${kind}:${i}:${b}`, 'aria-pressed': 'false',
        'aria-label': `${kind} byte ${i} bit ${b}`, disabled: !editable, text: String(b),
      }))),
      el('td', { class: 'hex mono' }), el('td', { class: 'dec mono num' })))));
}

function renderClock() {
  const clock = state.detail.clock;
  $('gw-clock').textContent = clock && typeof clock.ms === 'number'
    ? `${duration(clock.ms)} since start (read ${timeOfDay(clock.ts)})` : 'Not read.';
}

function renderDiagnosis() {
  const diagnosis = state.detail.diagnosis;
  $('gw-diagnosis-ts').textContent = diagnosis && diagnosis.ts ? 'read ' + timeOfDay(diagnosis.ts) : '';
  $('gw-diagnosis').textContent = diagnosis && Array.isArray(diagnosis.bytes)
    ? (diagnosis.bytes.map(hex).join(' ') || 'No bytes.') : 'Not read.';
}

const PARTS = {
  identity: () => $('gw-identity').replaceChildren(keyValueTable(state.detail.identity, 'Identity of the gateway')),
  modules: () => $('gw-modules').replaceChildren(listTable(state.detail.modules, 'Modules of the gateway', 'modules')),
  errors: () => $('gw-errors').replaceChildren(listTable(state.detail.errors, 'Error list of the gateway', 'errors')),
  inputs: () => renderBits('inputs', state.detail.inputs, false),
  outputs: () => renderBits('outputs', state.detail.outputs, !!state.detail.writable),
  diagnosis: renderDiagnosis,
  clock: renderClock,
};

function renderGateway() {
  renderHeader();
  for (const render of Object.values(PARTS)) render();
}

async function loadGateway(name, seq) {
  const r = await api('api/gateways/' + encodeURIComponent(name));
  if (seq !== state.viewSeq) return;
  if (r.status === 404) {
    $('missing-name').textContent = name;
    showView('missing');
    return;
  }
  if (!r.ok || !r.body) return;
  state.detail = r.body;
  if (!state.history.length) pushSample(r.body.inputs);
  renderGateway();
}

// Writes go one after the other, each from the outputs as the last write left them, so that
// two quick presses change two bits rather than the second undoing the first.
function toggleOutputBit(byte, bit) {
  state.writes = state.writes.then(async () => {
    const d = state.detail;
    if (!d || !d.writable || !d.outputs || !Array.isArray(d.outputs.bytes) || byte >= d.outputs.bytes.length) return;
    const bytes = d.outputs.bytes.slice();
    bytes[byte] ^= 1 << bit;
    const result = $('gw-write-result');
    result.dataset.result = 'pending';
    result.textContent = `Writing ${bytes.map(hex).join(' ')} …`;
    const r = await api(`api/gateways/${encodeURIComponent(d.name)}/outputs`, {
      method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify({ bytes }),
    });
    if (r.ok) {
      if (state.detail === d) {
        d.outputs = Object.assign({}, d.outputs, { bytes });
        PARTS.outputs();
      }
      result.dataset.result = 'ok';
      result.textContent = `Written: ${bytes.map(hex).join(' ')} at ${timeOfDay(new Date().toISOString())}`;
    } else {
      const b = r.body || {};
      result.dataset.result = 'error';
      result.textContent = `Not written: ${b.name || 'HTTP ' + r.status}${b.text ? ' — ' + b.text : ''}`;
    }
  });
}

// --- plot ----------------------------------------------------------------------------------
function pushSample(value) {
  if (!value || !Array.isArray(value.bytes)) return;
  const now = Date.now();
  state.history.push({ t: now, bytes: value.bytes.slice(0, PLOT_MAX_LINES) });
  while (state.history.length > PLOT_MAX_SAMPLES || (state.history.length > 1 && state.history[1].t < now - PLOT_WINDOW_MS)) {
    state.history.shift();
  }
}

function renderLegend(lines) {
  state.plotLines = lines;
  $('plot-legend').replaceChildren(...Array.from({ length: lines }, (_, i) => el('li', {},
    el('span', { class: 'swatch', 'aria-hidden': 'true',
                 style: `border-color:${PLOT_COLOURS[i]};border-top-style:${['solid', 'dashed', 'dotted', 'dashed'][i % 4]}` }),
    `input byte ${i}`)));
}

// The bytes' values over the last minute, newest at the right; a sample's value holds until
// the next sample, as it did on the gateway.
function drawPlot() {
  const canvas = $('plot');
  const ratio = window.devicePixelRatio || 1;
  const width = Math.max(200, canvas.clientWidth);
  const height = Math.max(120, canvas.clientHeight);
  if (canvas.width !== Math.round(width * ratio) || canvas.height !== Math.round(height * ratio)) {
    canvas.width = Math.round(width * ratio);
    canvas.height = Math.round(height * ratio);
  }
  const ctx = canvas.getContext('2d');
  ctx.setTransform(ratio, 0, 0, ratio, 0, 0);
  ctx.clearRect(0, 0, width, height);
  const left = 34, right = 8, top = 8, bottom = 20;
  const now = Date.now();
  const x = (t) => left + (width - left - right) * (1 - (now - t) / PLOT_WINDOW_MS);
  const y = (v) => top + (height - top - bottom) * (1 - v / 255);

  const style = getComputedStyle(canvas);
  ctx.font = '11px system-ui, sans-serif';
  ctx.lineWidth = 1;
  ctx.strokeStyle = style.getPropertyValue('--grid').trim() || '#ddd';
  ctx.fillStyle = style.color;
  ctx.textAlign = 'right';
  ctx.textBaseline = 'middle';
  for (const v of [0, 64, 128, 192, 255]) {
    ctx.beginPath(); ctx.moveTo(left, y(v)); ctx.lineTo(width - right, y(v)); ctx.stroke();
    ctx.fillText(String(v), left - 4, y(v));
  }
  ctx.textAlign = 'center';
  ctx.textBaseline = 'top';
  for (let s = 60; s >= 0; s -= 15) ctx.fillText(s ? `−${s} s` : 'now', Math.min(x(now - s * 1000), width - right - 10), height - bottom + 4);

  const samples = state.history;
  const lines = samples.reduce((n, s) => Math.max(n, s.bytes.length), 0);
  if (lines !== state.plotLines) renderLegend(lines);
  ctx.lineWidth = 1.5;
  for (let i = 0; i < lines; i++) {
    ctx.strokeStyle = PLOT_COLOURS[i];
    ctx.setLineDash(PLOT_DASHES[i % PLOT_DASHES.length]);
    ctx.beginPath();
    let started = false;
    let previous = null;
    for (const s of samples) {
      if (s.bytes[i] === undefined) continue;
      const px = Math.max(left, x(s.t));
      if (!started) { ctx.moveTo(px, y(s.bytes[i])); started = true; } else { ctx.lineTo(px, y(previous)); ctx.lineTo(px, y(s.bytes[i])); }
      previous = s.bytes[i];
    }
    if (started) ctx.lineTo(width - right, y(previous));
    ctx.stroke();
  }
  ctx.setLineDash([]);
}

// --- live updates --------------------------------------------------------------------------
function applyChange(change) {
  if (!change || typeof change.gateway !== 'string') return;
  const { gateway: name, topic, value } = change;
  if (topic === 'status' || topic === 'counters') {
    const known = state.gateways.get(name);
    state.gateways.set(name, Object.assign(known || { name }, value));
    if (known) { updateFleetRow(known); renderFleetSummary(); } else renderFleet();
  }
  const d = state.detail;
  if (!d || d.name !== name) return;
  if (topic === 'status' || topic === 'counters') {
    Object.assign(d, value);
    renderHeader();
    PARTS.outputs();
  } else if (PARTS[topic]) {
    d[topic] = value;
    if (topic === 'inputs') pushSample(value);
    PARTS[topic]();
  }
}

function setConnection(mode, text) {
  const indicator = $('connection');
  indicator.dataset.state = mode;
  indicator.textContent = text;
}

// EventSource reconnects by itself after a dropped stream, but gives up on an answer that is
// not a stream (401, 404); then a new one is tried a little later. Whenever the stream opens,
// everything is read again, since changes made while there was no stream are not repeated.
// The stream carries only what the view shows: the fleet view the status and counters of every
// gateway, a gateway's view everything of that gateway. A view of another kind opens a new one.
let events = null;
let eventsQuery = null;

function viewQuery() {
  const match = /^#\/gw\/([^?&]+)/.exec(location.hash);
  const params = new URLSearchParams();
  if (match) params.set('gateway', decodeURIComponent(match[1]));
  else params.set('topics', 'status,counters');
  if (token) params.set('token', token);
  return params.toString();
}

function followView() {
  if (events && eventsQuery === viewQuery()) return;
  if (events) events.close();
  connectEvents();
}

function connectEvents() {
  eventsQuery = viewQuery();
  const stream = new EventSource('api/events?' + eventsQuery);
  events = stream;
  events.addEventListener('open', () => {
    setConnection('live', 'live');
    resync();
  });
  events.addEventListener('error', () => {
    if (stream !== events) return;
    if (events.readyState === EventSource.CLOSED) {
      setConnection('offline', 'no connection to the service, retrying');
      events.close();
      setTimeout(() => { if (stream === events) connectEvents(); }, 3000);
    } else {
      setConnection('reconnecting', 'reconnecting…');
    }
  });
  events.addEventListener('change', (e) => {
    if (!wanted(e.data)) return;
    let change;
    try { change = JSON.parse(e.data); } catch (err) { return; }
    applyChange(change);
  });
}

// A large fleet sends thousands of changes a second, most of them values of gateways that are
// not on screen; those are recognised from the head of the text and never parsed. Whatever does
// not look as expected is parsed, so that this only saves work and never loses a change.
const HEAD = /^\{"gateway":"([^"\\]*)","topic":"([a-z]+)"/;

function wanted(data) {
  const head = HEAD.exec(data);
  if (!head || head[2] === 'status' || head[2] === 'counters') return true;
  return state.detail !== null && state.detail.name === head[1];
}

function resync() {
  loadFleet();
  if (state.detail) loadGateway(state.detail.name, state.viewSeq);
}

// --- routing -------------------------------------------------------------------------------
function showView(name) {
  for (const view of document.querySelectorAll('main > [data-view]')) view.hidden = view.dataset.view !== name;
  document.body.dataset.page = name;
}

function route() {
  state.viewSeq++;
  const match = /^#\/gw\/([^?&]+)/.exec(location.hash);
  if (!match) {
    state.detail = null;
    showView('fleet');
    document.title = 'Gateways — tamrik serve';
    loadFleet();
    return;
  }
  const name = decodeURIComponent(match[1]);
  if (!state.detail || state.detail.name !== name) {
    state.detail = null;
    state.history = [];
    state.plotLines = -1;
    $('gw-name').textContent = name;
    $('gw-state').replaceChildren();
    $('gw-write-result').textContent = '';
  }
  showView('gateway');
  document.title = `${name} — tamrik serve`;
  loadGateway(name, state.viewSeq);
}

function start() {
  $('gw-outputs').addEventListener('click', (e) => {
    const button = e.target.closest('button[data-bit]');
    if (!button || button.disabled) return;
    const [, byte, bit] = button.dataset.bit.split(':').map(Number);
    toggleOutputBit(byte, bit);
  });
  window.addEventListener('hashchange', () => { route(); followView(); });
  setInterval(() => { if (state.detail && document.body.dataset.page === 'gateway') drawPlot(); }, 250);
  route();
  connectEvents();
}

start();
