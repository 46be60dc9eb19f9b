// The search page: login, the search box with its time range, the job's
// progress, the timeline, events and fields, tables and charts of reports,
// paging and the live tail. The URL holds the search, range, page and tab
// (replaceState), so a reload or a shared link shows the same view.
// Server text only ever enters the page as text nodes (textContent).

import * as api from './api.js';
import { timelineChart, barChart, lineChart, formatTime } from './chart.js';

const PAGE = 20;            // events or rows per page
const POLL_MS = 250;        // status polling while a job runs
const MAX_POLLS = 4 * 60 * 30;  // half an hour of polling at most
const LIVE_CAP = 200;       // live events kept on screen
const CHART_ROWS = 500;     // rows of a report that are charted
const SPANS = { '15m': 900, '60m': 3600, '4h': 14400, '24h': 86400, '7d': 604800 };

const $ = id => document.getElementById(id);
const state = { sid: null, gen: 0, mode: 'events', page: 0, tab: 'events', status: null, live: null, range: null };

function make(tag, attrs = {}, ...children) {
  const e = document.createElement(tag);
  for (const [k, v] of Object.entries(attrs)) {
    if (k === 'class') e.className = v;
    else if (k.startsWith('on')) e.addEventListener(k.slice(2), v);
    else e.setAttribute(k, v);
  }
  for (const c of children) e.append(c instanceof Node ? c : document.createTextNode(String(c)));
  return e;
}

function setStatus(text, kind = '') {
  $('status-text').textContent = text;
  $('status').className = kind;
}

// ---- the URL -------------------------------------------------------------

function readUrl() {
  const p = new URLSearchParams(location.search);
  $('q').value = p.get('q') || '';
  const range = p.get('range') || 'all';
  $('range').value = range in SPANS || range === 'all' || range === 'custom' ? range : 'all';
  if (p.get('et')) $('from').value = toLocalInput(Number(p.get('et')));
  if (p.get('lt')) $('to').value = toLocalInput(Number(p.get('lt')));
  state.page = Math.max(0, parseInt(p.get('page') || '0', 10) || 0);
  state.tab = p.get('tab') || 'events';
  $('custom-range').hidden = $('range').value !== 'custom';
}

function writeUrl() {
  const p = new URLSearchParams();
  if ($('q').value) p.set('q', $('q').value);
  p.set('range', $('range').value);
  if ($('range').value === 'custom') {
    const r = rangeOf();
    if (r.et != null) p.set('et', String(r.et));
    if (r.lt != null) p.set('lt', String(r.lt));
  }
  if (state.page) p.set('page', String(state.page));
  p.set('tab', state.tab);
  history.replaceState(null, '', '?' + p);
}

function toLocalInput(epoch) {
  if (!Number.isFinite(epoch)) return '';
  const d = new Date(epoch * 1000), pad = n => String(n).padStart(2, '0');
  return `${d.getFullYear()}-${pad(d.getMonth() + 1)}-${pad(d.getDate())}T${pad(d.getHours())}:${pad(d.getMinutes())}:${pad(d.getSeconds())}`;
}

function fromLocalInput(v) {
  const t = v ? new Date(v).getTime() : NaN;
  return Number.isFinite(t) ? Math.floor(t / 1000) : null;
}

// {et, lt} in epoch seconds for the picker's choice (null: unbounded).
function rangeOf() {
  const v = $('range').value, now = Math.floor(Date.now() / 1000);
  if (v in SPANS) return { et: now - SPANS[v], lt: null };
  if (v === 'custom') return { et: fromLocalInput($('from').value), lt: fromLocalInput($('to').value) };
  return { et: null, lt: null };
}

// ---- the search text -----------------------------------------------------

// A search that does not begin with a command reads the indexes.
export function fullSearch(text) {
  const t = text.trim();
  if (!t) return 'search *';
  if (t.startsWith('|')) return t.slice(1).trim();
  return /^search(\s|$)/i.test(t) ? t : 'search ' + t;
}

// The part before the first pipe that is not inside quotes.
function firstSegment(text) {
  let quoted = false;
  for (let i = 0; i < text.length; i++) {
    if (text[i] === '"' && text[i - 1] !== '\\') quoted = !quoted;
    else if (text[i] === '|' && !quoted) return [text.slice(0, i), text.slice(i)];
  }
  return [text, ''];
}

// Words and phrases of the first command worth highlighting in events.
export function searchTerms(text) {
  const [first] = firstSegment(fullSearch(text));
  const terms = [];
  const re = /"((?:[^"\\]|\\.)*)"|(\S+)/g;
  let m, negated = false;
  while ((m = re.exec(first.replace(/^search\s*/i, '')))) {
    let t = m[1] !== undefined ? m[1].replace(/\\(.)/g, '$1') : m[2].replace(/^[(]+|[)]+$/g, '');
    const skip = negated;
    negated = m[1] === undefined && t === 'NOT';
    if (skip || !t || /^(AND|OR|NOT)$/.test(t) || t.includes('::') || t === '*') continue;
    const eq = t.match(/^[\w.]+(?:!=|<=|>=|=|<|>)(.*)$/);
    if (eq) t = eq[1].replace(/^"|"$/g, '');
    if (t && t !== '*') terms.push(t);
  }
  return terms;
}

function termRegex(terms) {
  if (!terms.length) return null;
  const parts = terms.map(t => t.split('*').map(s => s.replace(/[.*+?^${}()|[\]\\]/g, '\\$&')).join('[^\\s]*'));
  return new RegExp(parts.join('|'), 'gi');
}

// The text as text nodes with <mark> around every match.
function highlighted(text, re) {
  const frag = document.createDocumentFragment();
  if (!re) { frag.append(text); return frag; }
  let last = 0, m;
  re.lastIndex = 0;
  while ((m = re.exec(text))) {
    if (!m[0]) { re.lastIndex++; continue; }
    frag.append(text.slice(last, m.index), make('mark', {}, m[0]));
    last = m.index + m[0].length;
  }
  frag.append(text.slice(last));
  return frag;
}

// field="value" added to the first command of the search.
export function addFieldValue(text, field, value) {
  const [first, rest] = firstSegment(text.trim() || 'search *');
  const quoted = '"' + value.replace(/\\/g, '\\\\').replace(/"/g, '\\"') + '"';
  return `${first.trimEnd()} ${field}=${quoted}${rest ? ' ' + rest : ''}`;
}

// ---- login ----------------------------------------------------------------

function showLogin(message = '') {
  stopLive();
  state.gen++;
  $('app').hidden = true;
  $('login').hidden = false;
  $('login-error').textContent = message;
  $('login-user').focus();
}

function showApp() {
  $('login').hidden = true;
  $('app').hidden = false;
  $('who').textContent = api.session.user();
  selectTab(state.tab, false);
}

function failed(err) {
  if (err instanceof api.AuthError) {
    api.session.clear();
    showLogin('Your session has ended; please log in again.');
  } else {
    setStatus(err.message || String(err), 'error');
  }
}

// ---- jobs ----------------------------------------------------------------

async function run({ keepPage = false } = {}) {
  const gen = ++state.gen;
  if (!keepPage) state.page = 0;
  writeUrl();
  const search = fullSearch($('q').value);
  state.range = rangeOf();
  state.sid = null;
  state.status = null;
  setStatus('Starting…');
  $('progress').hidden = false;
  $('progress').value = 0;
  try {
    const sid = await api.createJob(search, state.range);
    if (gen !== state.gen) return;
    state.sid = sid;
    $('cancel').hidden = false;
    await poll(gen, sid);
  } catch (e) {
    if (gen === state.gen) { failed(e); $('cancel').hidden = true; $('progress').hidden = true; }
  }
}

const sleep = ms => new Promise(r => setTimeout(r, ms));

async function poll(gen, sid) {
  let lastCount = -1, lastDraw = 0;
  for (let i = 0; i < MAX_POLLS && gen === state.gen; i++) {
    const st = await api.jobStatus(sid);
    if (gen !== state.gen) return;
    state.status = st;
    const done = st.done === '1', count = Number(st.count) || 0;
    const p = done ? 1 : progressOf(st);
    $('progress').value = p;
    setStatus(`${done ? 'Done' : 'Running'}: ${count} event${count === 1 ? '' : 's'}` +
      (done ? '' : ` (${Math.round(p * 100)}%)`) + (st.messages.length ? ' — ' + st.messages.join('; ') : ''),
      st.error ? 'error' : '');
    if (st.error) { setStatus(st.error, 'error'); break; }
    if (done) { await draw(gen, sid); break; }
    if (count !== lastCount && Date.now() - lastDraw > 1000) {
      lastCount = count; lastDraw = Date.now();
      await draw(gen, sid);
    }
    await sleep(POLL_MS);
  }
  if (gen === state.gen) { $('cancel').hidden = true; $('progress').hidden = true; }
}

// How far the search has read back through its range (it reads newest first).
function progressOf(st) {
  const cursor = Number(st.cursor), r = state.range || {};
  const lt = r.lt ?? Date.now() / 1000, et = r.et;
  if (!st.cursor || !Number.isFinite(cursor) || et == null || lt <= et) return 0;
  return Math.min(1, Math.max(0, (lt - cursor) / (lt - et)));
}

async function cancel() {
  const sid = state.sid;
  state.gen++;
  $('cancel').hidden = true;
  $('progress').hidden = true;
  if (!sid) return;
  try {
    await api.control(sid, 'cancel');
    setStatus('Cancelled.');
  } catch (e) { failed(e); }
}

// Everything the job shows: timeline, fields, then events or the report.
async function draw(gen, sid) {
  const [tl, fields, probe] = await Promise.all([
    api.timeline(sid).catch(() => []), api.summary(sid, 5).catch(() => []), api.rows(sid, 'results', 0, 1),
  ]);
  if (gen !== state.gen) return;
  const report = probe.rows.length > 0 && !probe.columns.includes('_raw');
  if (tl.some(b => b.c > 0)) timelineChart($('timeline'), tl, zoomTo); else $('timeline').replaceChildren();
  drawFields(fields);
  if (report && state.status?.done === '1') setStatus('Done: report ready.');
  document.body.classList.toggle('report', report);
  state.mode = report ? 'report' : 'events';
  if (report && state.tab === 'events') selectTab('table');
  if (!report && (state.tab === 'table' || state.tab === 'chart')) selectTab('events');
  await drawPage(gen, sid);
  if (report) await drawChart(gen, sid);
}

async function drawPage(gen, sid) {
  const what = state.mode === 'report' ? 'results' : 'events';
  const got = await api.rows(sid, what, state.page * PAGE, PAGE + 1);
  if (gen !== state.gen) return;
  const more = got.rows.length > PAGE;
  const rows = got.rows.slice(0, PAGE);
  if (what === 'events') drawEvents(rows); else drawTable(got.columns, rows);
  drawPager(more);
}

function drawEvents(rows) {
  const re = termRegex(searchTerms($('q').value));
  const list = $('events');
  list.replaceChildren(...rows.map(r => eventItem(r, re)));
  if (!rows.length) list.append(make('li', { class: 'empty' }, 'No events.'));
}

function eventItem(r, re) {
  const t = Number(r._time);
  const meta = make('div', { class: 'meta' },
    make('time', {}, Number.isFinite(t) ? formatTime(t, 1) : ''),
    make('span', { class: 'host' }, r.host || ''), make('span', { class: 'source' }, r.source || ''),
    make('span', { class: 'sourcetype' }, r.sourcetype || ''));
  const fields = make('table', { class: 'event-fields' });
  for (const k of Object.keys(r).sort()) {
    if (k === '_raw' || k.startsWith('__')) continue;
    fields.append(make('tr', {}, make('th', {}, k), make('td', {}, r[k])));
  }
  const details = make('details', {}, make('summary', { class: 'raw' }, highlighted(r._raw || '', re)), fields);
  return make('li', { class: 'event' }, meta, details);
}

// Columns in the order a reader wants: _time, then labels, then numbers.
function isNumeric(rows, c) {
  let seen = false;
  for (const r of rows) {
    if (r[c] === undefined || r[c] === '') continue;
    if (!Number.isFinite(Number(r[c]))) return false;
    seen = true;
  }
  return seen;
}

export function orderColumns(columns, rows) {
  const shown = columns.filter(c => c === '_time' || !c.startsWith('_'));
  const time = shown.filter(c => c === '_time');
  const labels = shown.filter(c => c !== '_time' && !isNumeric(rows, c));
  const numbers = shown.filter(c => c !== '_time' && isNumeric(rows, c));
  return [...time, ...labels, ...numbers];
}

function drawTable(columns, rows) {
  const cols = orderColumns(columns, rows);
  const head = make('tr', {}, ...cols.map(c => make('th', {}, c)));
  const body = rows.map(r => make('tr', {}, ...cols.map(c => {
    const v = r[c] ?? '';
    const shown = c === '_time' && Number.isFinite(Number(v)) ? formatTime(Number(v), 1) : v;
    return make('td', isNumeric([r], c) && c !== '_time' ? { class: 'num' } : {}, shown);
  })));
  $('table').replaceChildren(make('thead', {}, head), make('tbody', {}, ...body));
}

async function drawChart(gen, sid) {
  const got = await api.rows(sid, 'results', 0, CHART_ROWS);
  if (gen !== state.gen) return;
  const cols = orderColumns(got.columns, got.rows);
  const numbers = cols.filter(c => c !== '_time' && isNumeric(got.rows, c)).slice(0, 8);
  const series = numbers.map(c => ({ name: c, values: got.rows.map(r => Number(r[c])) }));
  if (!series.length) { $('chart').replaceChildren(make('p', {}, 'Nothing numeric to chart.')); return; }
  if (cols[0] === '_time') {
    lineChart($('chart'), got.rows.map(r => Number(r._time)), series);
  } else {
    const label = cols.find(c => !numbers.includes(c)) || cols[0];
    barChart($('chart'), got.rows.map(r => String(r[label] ?? '')), series);
  }
}

function drawPager(more) {
  const prev = make('button', { class: 'prev', onclick: () => turn(-1) }, '‹ Previous');
  const next = make('button', { class: 'next', onclick: () => turn(1) }, 'Next ›');
  prev.disabled = state.page === 0;
  next.disabled = !more;
  $('pager').replaceChildren(prev, make('span', { class: 'page' }, `Page ${state.page + 1}`), next);
}

async function turn(step) {
  if (!state.sid) return;
  state.page = Math.max(0, state.page + step);
  writeUrl();
  try { await drawPage(state.gen, state.sid); } catch (e) { failed(e); }
}

function drawFields(fields) {
  const shown = fields.filter(f => !f.name.startsWith('_')).sort((a, b) => b.count - a.count || a.name.localeCompare(b.name));
  document.body.classList.toggle('nofields', !shown.length);
  $('field-list').replaceChildren(...shown.map((f, i) => make('details', { class: 'field', ...(i < 8 ? { open: '' } : {}) },
    make('summary', {}, make('span', { class: 'name' }, f.name), make('span', { class: 'count' }, `${f.distinct}`)),
    make('ul', {}, ...f.values.map(v => make('li', {},
      make('button', { class: 'value', title: `Add ${f.name}="${v.value}" to the search`,
        onclick: () => { $('q').value = addFieldValue($('q').value, f.name, v.value); run(); } }, v.value),
      make('span', { class: 'count' }, v.count)))))));
}

function zoomTo(bucket) {
  $('range').value = 'custom';
  $('custom-range').hidden = false;
  $('from').value = toLocalInput(bucket.t);
  $('to').value = toLocalInput(bucket.t + bucket.d);
  run();
}

// ---- tabs and the live tail ------------------------------------------------

function selectTab(tab, save = true) {
  if (!['events', 'table', 'chart', 'live'].includes(tab)) tab = 'events';
  state.tab = tab;
  for (const b of document.querySelectorAll('#tabs .tab')) b.classList.toggle('active', b.dataset.tab === tab);
  for (const p of document.querySelectorAll('.pane')) p.hidden = p.id !== 'pane-' + tab;
  $('pager').hidden = tab === 'chart' || tab === 'live';
  if (save) writeUrl();
}

function startLive() {
  stopLive();
  const [first] = firstSegment(fullSearch($('q').value));
  const es = new EventSource(api.tailUrl(first.trim()));
  state.live = es;
  const re = termRegex(searchTerms($('q').value));
  $('live-state').textContent = 'Connecting…';
  es.onopen = () => { $('live-state').textContent = `Following: ${first.trim()}`; };
  es.addEventListener('result', e => {
    let r;
    try { r = JSON.parse(e.data); } catch { return; }
    const list = $('live-events');
    list.prepend(eventItem(r, re));
    while (list.children.length > LIVE_CAP) list.lastChild.remove();
  });
  es.onerror = () => {
    $('live-state').textContent = es.readyState === EventSource.CLOSED ? 'The live tail is not available.' : 'Reconnecting…';
  };
  selectTab('live');
}

function stopLive() {
  if (state.live) { state.live.close(); state.live = null; }
  $('live').checked = false;
  $('live-state').textContent = 'Live tail is off.';
}

// ---- wiring ------------------------------------------------------------------

function wire() {
  $('login-form').addEventListener('submit', async e => {
    e.preventDefault();
    $('login-error').textContent = '';
    try {
      await api.login($('login-user').value, $('login-password').value);
      $('login-password').value = '';
      showApp();
      if ($('q').value) run({ keepPage: true });
    } catch (err) { $('login-error').textContent = err.message; }
  });
  $('logout').addEventListener('click', () => { api.session.clear(); showLogin(); });
  $('search-form').addEventListener('submit', e => { e.preventDefault(); run(); });
  $('cancel').addEventListener('click', cancel);
  $('range').addEventListener('change', () => {
    $('custom-range').hidden = $('range').value !== 'custom';
    if ($('range').value === 'custom' && !$('from').value) $('from').value = toLocalInput(Date.now() / 1000 - 3600);
    if ($('range').value !== 'custom') run();
  });
  $('live').addEventListener('change', () => { if ($('live').checked) startLive(); else stopLive(); });
  for (const b of document.querySelectorAll('#tabs .tab')) b.addEventListener('click', () => selectTab(b.dataset.tab));
}

wire();
readUrl();
if (api.session.key()) {
  showApp();
  if ($('q').value) run({ keepPage: true });
} else {
  showLogin();
}
