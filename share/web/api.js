// The service's REST calls the page makes: login, search jobs (create,
// status, control, events, results, timeline, summary) and the live tail's
// address. The session key lives in sessionStorage, so a tab stays logged in
// across reloads and forgets it when closed.

const KEY = 'velmor.session';
const USER = 'velmor.user';
const JOBS = '/services/search/jobs';

export class AuthError extends Error {}

export const session = {
  key: () => sessionStorage.getItem(KEY),
  user: () => sessionStorage.getItem(USER) || '',
  set(key, user) { sessionStorage.setItem(KEY, key); sessionStorage.setItem(USER, user); },
  clear() { sessionStorage.removeItem(KEY); sessionStorage.removeItem(USER); },
};

function xml(text) {
  return new DOMParser().parseFromString(text, 'application/xml');
}

// The text of the first <msg> of an error reply, else the status.
function messageOf(text, status) {
  const msg = text && xml(text).querySelector('msg');
  return msg ? msg.textContent : `HTTP ${status}`;
}

// Credentials are omitted: the key goes in a header, and a 401 with a digest
// challenge must come back to the page rather than open the browser's
// password dialog.
async function call(path, { method = 'GET', params = null, signal } = {}) {
  const headers = { Authorization: `Velmor ${session.key()}` };
  let url = path, body;
  if (params && method === 'GET') url += '?' + new URLSearchParams(params);
  else if (params) body = new URLSearchParams(params);
  const r = await fetch(url, { method, headers, body, signal, credentials: 'omit' });
  const text = r.status === 204 ? '' : await r.text();
  if (r.status === 401) throw new AuthError(messageOf(text, 401));
  if (!r.ok) throw new Error(messageOf(text, r.status));
  return text;
}

export async function login(username, password) {
  const r = await fetch('/services/auth/login',
    { method: 'POST', body: new URLSearchParams({ username, password }), credentials: 'omit' });
  const text = await r.text();
  const key = r.ok && xml(text).querySelector('sessionKey');
  if (!key) throw new Error(messageOf(text, r.status));
  session.set(key.textContent, username);
}

// Starts a job; the range is {et, lt} in epoch seconds, either may be null.
export async function createJob(search, range) {
  const params = { search, status_buckets: '300' };
  if (range.et != null) params.start_time = String(Math.floor(range.et));
  if (range.lt != null) params.end_time = String(Math.ceil(range.lt));
  const doc = xml(await call(JOBS, { method: 'POST', params }));
  const sid = doc.querySelector('sid');
  if (!sid) throw new Error('no job id in the reply');
  return sid.textContent;
}

// The job's status lines ("done=1", "count=12", ...) as an object; messages
// gathered in a list.
export async function jobStatus(sid) {
  const doc = xml(await call(`${JOBS}/${encodeURIComponent(sid)}`));
  const out = { messages: [] };
  const content = doc.querySelector('content');
  for (const line of (content ? content.textContent : '').split('\n')) {
    const eq = line.indexOf('=');
    if (eq < 0) continue;
    const k = line.slice(0, eq), v = line.slice(eq + 1);
    if (k === 'message') out.messages.push(v); else out[k] = v;
  }
  return out;
}

export function control(sid, action) {
  return call(`${JOBS}/${encodeURIComponent(sid)}/control`, { method: 'POST', params: { action } });
}

// Rows of events or results as objects of strings ([] when none yet).
export async function rows(sid, what, offset, count) {
  const text = await call(`${JOBS}/${encodeURIComponent(sid)}/${what}`,
    { params: { output_mode: what === 'results' ? 'csv' : 'json', offset, count } });
  if (!text.trim()) return { columns: [], rows: [] };
  if (what !== 'results') {
    const list = JSON.parse(text);
    return { columns: list.length ? Object.keys(list[0]) : [], rows: list };
  }
  return parseCsv(text);
}

// [{t, d, c}] in epoch seconds, oldest first.
export async function timeline(sid) {
  const doc = xml(await call(`${JOBS}/${encodeURIComponent(sid)}/timeline`));
  return [...doc.querySelectorAll('bucket')].map(b => ({
    t: Number(b.getAttribute('t')), d: Number(b.getAttribute('d')), c: Number(b.getAttribute('c')),
  })).filter(b => Number.isFinite(b.t)).sort((a, b) => a.t - b.t);
}

// [{name, count, distinct, values: [{value, count}]}]
export async function summary(sid, top) {
  const doc = xml(await call(`${JOBS}/${encodeURIComponent(sid)}/summary`, { params: { top_count: top } }));
  return [...doc.querySelectorAll('summary > field')].map(f => ({
    name: f.getAttribute('k'), count: Number(f.getAttribute('c')), distinct: Number(f.getAttribute('dc')),
    values: [...f.querySelectorAll('modes > value')].map(v => ({
      value: v.querySelector('text')?.textContent ?? '', count: Number(v.getAttribute('c')),
    })),
  }));
}

export function tailUrl(search) {
  return '/services/streams/tail?' + new URLSearchParams({ search, output_mode: 'sse', authtoken: session.key() });
}

// RFC 4180 CSV (quoted fields, doubled quotes, newlines inside quotes) into
// the header's columns and one object per row.
export function parseCsv(text) {
  const records = [];
  let rec = [], field = '', quoted = false, i = 0;
  while (i < text.length) {
    const ch = text[i];
    if (quoted) {
      if (ch === '"' && text[i + 1] === '"') { field += '"'; i += 2; continue; }
      if (ch === '"') { quoted = false; i++; continue; }
      field += ch; i++; continue;
    }
    if (ch === '"') quoted = true;
    else if (ch === ',') { rec.push(field); field = ''; }
    else if (ch === '\n' || ch === '\r') {
      if (ch === '\r' && text[i + 1] === '\n') i++;
      rec.push(field); field = ''; records.push(rec); rec = [];
    } else field += ch;
    i++;
  }
  if (field !== '' || rec.length) { rec.push(field); records.push(rec); }
  const columns = records.shift() || [];
  const rows = records.filter(r => r.length > 1 || r[0] !== '').map(r => {
    const o = {};
    columns.forEach((c, k) => { if (r[k] !== undefined && r[k] !== '') o[c] = r[k]; });
    return o;
  });
  return { columns, rows };
}
