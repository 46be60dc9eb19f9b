// The web search page in a real browser (headless chromium through
// puppeteer-core) against a velmord of its own: a scratch home with a few
// thousand generated lines and a seeded user, on a free loopback port. Each
// case drives the page as a user would and checks what it shows; every
// wait is bounded, and velmord and the browser are always stopped.
//
// usage: node page_test.mjs <build dir> <source dir> <artefact dir>
// Exit 0 when every case passed, 1 when one failed, 77 when it cannot run
// here (no chromium, no node modules, no velmord).

import { spawn, spawnSync } from 'node:child_process';
import fs from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';
import { createRequire } from 'node:module';

const SKIP = 77;
const [buildDir, sourceDir, artefacts] = process.argv.slice(2).map(p => p && path.resolve(p));
const CHROMIUM = process.env.CHROMIUM || '/usr/bin/chromium';
const WAIT_MS = 30000;            // the longest any one wait may take
const USER = 'admin', PASSWORD = 'page-test-Pw-42';

function skip(why) {
  console.log(`SKIPPED: ${why}`);
  process.exit(SKIP);
}

if (!buildDir || !sourceDir || !artefacts) { console.error('usage: node page_test.mjs <build> <source> <artefacts>'); process.exit(2); }
if (!fs.existsSync(CHROMIUM)) skip(`no chromium at ${CHROMIUM} (bash scripts/bootstrap.sh installs it)`);
const velmord = path.join(buildDir, 'bin/velmord');
for (const tool of ['velmord', 'velmor-index', 'velmor-genlogs'])
  if (!fs.existsSync(path.join(buildDir, 'bin', tool))) skip(`${tool} is not built`);
let puppeteer;
try {
  // The modules live beside this file or in the build tree (scripts/web_test_setup.sh).
  const where = [path.join(sourceDir, 'tests/web/'), path.join(buildDir, 'tests/web/')];
  for (const dir of where) {
    try { puppeteer = createRequire(dir)('puppeteer-core'); break; } catch { /* next */ }
  }
  if (!puppeteer) throw new Error('not found');
} catch {
  skip('puppeteer-core is not installed (run: bash scripts/web_test_setup.sh)');
}

const sleep = ms => new Promise(r => setTimeout(r, ms));

function run(cmd, args, env) {
  const r = spawnSync(cmd, args, { env: { ...process.env, ...env }, encoding: 'utf8', timeout: 120000 });
  if (r.status !== 0) throw new Error(`${cmd} ${args.join(' ')}: ${r.stderr || r.error}`);
  return r.stdout;
}

function freePort() {
  return new Promise((resolve, reject) => {
    const s = net.createServer();
    s.once('error', reject);
    s.listen(0, '127.0.0.1', () => { const { port } = s.address(); s.close(() => resolve(port)); });
  });
}

// ---- the scratch installation ----------------------------------------------

const home = fs.mkdtempSync(path.join(os.tmpdir(), 'velmor-web-'));
const env = { VELMOR_HOME: home, VELMOR_DB: path.join(home, 'var/lib/velmor/db') };
const followed = path.join(home, 'logs/live.log');
let server = null, browser = null;

function layOut() {
  run('bash', [path.join(sourceDir, 'scripts/mkhome.sh'), home], env);
  const day = new Date(Date.now() - 86400000).toISOString().slice(0, 10);
  const manifest = run(path.join(buildDir, 'bin/velmor-genlogs'),
    ['--seed', '11', '--out', path.join(home, 'samples'), '--lines', '3000', '--days', '1', '--start', day, '--hosts', '3'], env);
  for (const line of manifest.trim().split('\n')) {
    const [file, , , sourcetype] = line.split('\t');
    run(path.join(buildDir, 'bin/velmor-index'),
      ['add', 'main', file, '--host', path.basename(path.dirname(file)), '--sourcetype', sourcetype], env);
  }
  // Markup in an event: the page must show it as text.
  const markup = path.join(home, 'samples/markup.log');
  fs.writeFileSync(markup, `${day}T12:00:00Z level=ERROR msg="<img src=x onerror=window.__pwned=1> <b>boom</b>"\n`);
  run(path.join(buildDir, 'bin/velmor-index'), ['add', 'main', markup, '--host', 'web-01', '--sourcetype', 'app_kv'], env);
  const local = path.join(home, 'etc/bundles/local');
  fs.writeFileSync(path.join(local, 'server.conf'), '[sslConfig]\nenableSsl = false\n');
  fs.writeFileSync(path.join(local, 'user-seed.conf'), `[seed]\nname = ${USER}\npassword = ${PASSWORD}\n`);
  fs.mkdirSync(path.dirname(followed), { recursive: true });
  fs.writeFileSync(followed, `${new Date().toISOString()} level=INFO msg="tail file ready"\n`);
  fs.writeFileSync(path.join(local, 'inputs.conf'), `[tail:${path.dirname(followed)}]\nsourcetype = live\nhost = live-01\nindex = main\n`);
}

async function startServer(port) {
  server = spawn(velmord, ['--nodaemon', '-p', String(port)], { env: { ...process.env, ...env }, stdio: 'ignore' });
  let failure = null;
  server.on('error', e => { failure = e; });
  const deadline = Date.now() + WAIT_MS;
  while (Date.now() < deadline) {
    if (failure) throw new Error(`velmord could not start: ${failure.message}`);
    if (server.exitCode !== null) throw new Error(`velmord exited with ${server.exitCode}`);
    try {
      const r = await fetch(`http://127.0.0.1:${port}/`);
      if (r.ok) return;
    } catch { /* not listening yet */ }
    await sleep(100);
  }
  throw new Error('velmord did not answer within 30 s');
}

async function stopServer() {
  if (!server || server.exitCode !== null) return;
  server.kill('SIGTERM');
  for (let i = 0; i < 300 && server.exitCode === null; i++) await sleep(100);
  if (server.exitCode === null) server.kill('SIGKILL');
}

// ---- page helpers --------------------------------------------------------------

async function shot(page, name) {
  await page.screenshot({ path: path.join(artefacts, `${name}.png`), fullPage: true }).catch(() => {});
}

const statusText = page => page.$eval('#status-text', e => e.textContent);

// Waits until the job the page runs says it is done (or fails).
async function waitDone(page) {
  await page.waitForFunction(() => document.getElementById('status').className === 'error' ||
    (/^Done/.test(document.getElementById('status-text').textContent) && document.getElementById('cancel').hidden),
  { timeout: WAIT_MS });
  const cls = await page.$eval('#status', e => e.className);
  if (cls === 'error') throw new Error(`the search failed: ${await statusText(page)}`);
}

async function search(page, text) {
  await page.$eval('#q', (e, v) => { e.value = v; }, text);
  await page.$eval('#status-text', e => { e.textContent = ''; });
  await page.click('#run');
  await waitDone(page);
}

const eventCount = page => page.$$eval('#events li.event', l => l.length);
const doneCount = async page => Number((await statusText(page)).match(/(\d+) event/)?.[1] ?? NaN);

function check(cond, what) { if (!cond) throw new Error(what); }

// ---- the cases -------------------------------------------------------------------

const figures = {};

const cases = [
  ['logs in', async (page, base) => {
    await page.goto(base, { waitUntil: 'load' });
    await page.waitForSelector('#login-form', { visible: true, timeout: WAIT_MS });
    await page.type('#login-user', USER);
    await page.type('#login-password', 'wrong password');
    await page.click('#login-form button');
    await page.waitForFunction(() => document.getElementById('login-error').textContent !== '', { timeout: WAIT_MS });
    check(await page.$eval('#app', e => e.hidden), 'a wrong password let the user in');
    await page.$eval('#login-password', e => { e.value = ''; });
    await page.type('#login-password', PASSWORD);
    await page.click('#login-form button');
    await page.waitForSelector('#app', { visible: true, timeout: WAIT_MS });
    check(await page.evaluate(() => !!sessionStorage.getItem('velmor.session')), 'no session key kept');
  }],

  ['search text, CSV and axis helpers', async page => {
    // The page's own modules, by the URLs it loaded them from (no second copy).
    const got = await page.evaluate(async () => {
      const app = await import(document.querySelector('script[type=module]').src);
      const api = await import(new URL('api.js', location.href).href);
      const chart = await import(new URL('chart.js', location.href).href);
      return {
        full: ['', '  error ', 'search x', 'SEARCH x', '| inputcsv a.csv', 'searchable'].map(app.fullSearch),
        terms: ['error host=web-01 NOT debug "disk full" source::x err* | stats count', '(a OR b) status!=500 *',
          'x "say \\"hi\\"" | where y="z"'].map(t => app.searchTerms(t)),
        added: [['error | stats count', 'host', 'a"b'], ['', 'host', 'web-01'], ['x "a|b" | head 1', 'k', 'c\\d']]
          .map(([q, f, v]) => app.addFieldValue(q, f, v)),
        csv: [api.parseCsv('a,b\n1,"x, ""y"""\n2,\n'), api.parseCsv('t\r\n"line\none"\r\n'), api.parseCsv('')],
        order: app.orderColumns(['count', 'host', '_time', '_span', 'pct'],
          [{ count: '3', host: 'h', _time: '1', _span: '60', pct: '0.5' }, { count: '4', host: '7', pct: '' }]),
        nice: [0, -3, 0.4, 7, 10, 120, 1000, 1001].map(chart.niceMax),
      };
    });
    const want = {
      full: ['search *', 'search error', 'search x', 'SEARCH x', 'inputcsv a.csv', 'search searchable'],
      terms: [['error', 'web-01', 'disk full', 'err*'], ['a', 'b', '500'], ['x', 'say "hi"']],
      added: ['error host="a\\"b" | stats count', 'search * host="web-01"', 'x "a|b" k="c\\\\d" | head 1'],
      csv: [{ columns: ['a', 'b'], rows: [{ a: '1', b: 'x, "y"' }, { a: '2' }] },
        { columns: ['t'], rows: [{ t: 'line\none' }] }, { columns: [], rows: [] }],
      order: ['_time', 'host', 'count', 'pct'],
      nice: [1, 1, 0.5, 10, 10, 200, 1000, 2000],
    };
    for (const k of Object.keys(want))
      check(JSON.stringify(got[k]) === JSON.stringify(want[k]), `${k}: ${JSON.stringify(got[k])}`);
  }],

  ['runs a search: timeline, events newest first, terms highlighted', async page => {
    await search(page, 'error');
    const n = await eventCount(page);
    check(n > 0, 'no events shown');
    check(await page.$$eval('#timeline .bar', b => b.length) > 0, 'no timeline bars');
    const marks = await page.$$eval('#events mark', m => m.map(x => x.textContent.toLowerCase()));
    check(marks.length > 0 && marks.every(m => m === 'error'), `highlights: ${marks.slice(0, 5)}`);
    const times = await page.$$eval('#events li.event time', t => t.map(x => x.textContent));
    check(times.every((t, i) => i === 0 || t <= times[i - 1]), `not newest first: ${times.slice(0, 5)}`);
    const meta = await page.$eval('#events li.event .meta', e => [...e.children].map(c => c.textContent));
    check(meta.every(Boolean), `time, host, source, source type: ${meta}`);
    await page.click('#events li.event summary');
    const fields = await page.$$eval('#events li.event details[open] .event-fields th', t => t.map(x => x.textContent));
    check(fields.includes('host') && fields.includes('sourcetype'), `expanded fields: ${fields}`);
  }],

  ['zooms into a timeline bar', async page => {
    const before = await doneCount(page);
    // The fullest bar, so the zoomed search still finds events.
    const bar = await page.$$eval('#timeline .bar', bars => {
      let best = 0, c = -1;
      bars.forEach((b, i) => { const n = Number(b.querySelector('title').textContent.match(/: (\d+)/)[1]); if (n > c) { c = n; best = i; } });
      return { i: best, t: Number(bars[best].dataset.t), d: Number(bars[best].dataset.d), c };
    });
    const bars = await page.$$('#timeline .bar');
    await page.$eval('#status-text', e => { e.textContent = ''; });
    await bars[bar.i].click();
    await waitDone(page);
    const url = new URL(page.url());
    check(url.searchParams.get('range') === 'custom', `range in the URL: ${url.search}`);
    check(Number(url.searchParams.get('et')) === bar.t, `from ${url.searchParams.get('et')} != ${bar.t}`);
    const after = await doneCount(page);
    check(after === bar.c && after < before, `zoomed count ${after}, bar ${bar.c}, before ${before}`);
  }],

  ['adds a field value from the side list', async page => {
    await page.$eval('#status-text', e => { e.textContent = ''; });
    await page.select('#range', 'all');
    await waitDone(page);
    const before = await doneCount(page);
    const value = await page.$$eval('#field-list details.field', fs => {
      const host = fs.find(f => f.querySelector('.name').textContent === 'host');
      const b = host.querySelectorAll('button.value')[1] || host.querySelector('button.value');
      b.setAttribute('data-picked', '1');
      return b.textContent;
    });
    await page.$eval('#status-text', e => { e.textContent = ''; });
    await page.click('button[data-picked="1"]');
    await waitDone(page);
    const q = await page.$eval('#q', e => e.value);
    check(q === `error host="${value}"`, `search text: ${q}`);
    const hosts = await page.$$eval('#events li.event .host', h => h.map(x => x.textContent));
    check(hosts.length > 0 && hosts.every(h => h === value), `hosts: ${[...new Set(hosts)]}`);
    check(await doneCount(page) < before, 'the count did not drop');
  }],

  ['shows markup in events as text', async page => {
    await search(page, 'boom');
    const raw = await page.$eval('#events li.event summary', e => e.textContent);
    check(raw.includes('<b>boom</b>') && raw.includes('<img src=x'), `raw: ${raw}`);
    check(await page.$('#events b, #events img') === null, 'markup from an event became elements');
    check(await page.evaluate(() => window.__pwned === undefined), 'a handler from an event ran');
  }],

  ['pages through events and keeps the view in the URL', async page => {
    await search(page, '*');
    figures.allEvents = await doneCount(page);
    const first = await page.$eval('#events li.event summary', e => e.textContent);
    await page.click('#pager .next');
    await page.waitForFunction(f => document.querySelector('#events li.event summary')?.textContent !== f, { timeout: WAIT_MS }, first);
    check(new URL(page.url()).searchParams.get('page') === '1', `URL: ${page.url()}`);
    const second = await page.$eval('#events li.event summary', e => e.textContent);
    await page.reload({ waitUntil: 'load' });
    await waitDone(page);
    await page.waitForFunction(s => document.querySelector('#events li.event summary')?.textContent === s, { timeout: WAIT_MS }, second);
    check(await page.$eval('#q', e => e.value) === '*', 'the search text was lost');
    await page.click('#pager .prev');
    await page.waitForFunction(f => document.querySelector('#events li.event summary')?.textContent === f, { timeout: WAIT_MS }, first);
  }],

  ['a report gives a table and a bar chart', async page => {
    await search(page, 'search * | stats count by host');
    await page.waitForSelector('#table tbody tr', { timeout: WAIT_MS });
    const head = await page.$$eval('#table th', t => t.map(x => x.textContent));
    check(head.join(',') === 'host,count', `columns: ${head}`);
    const rows = await page.$$eval('#table tbody tr', r => r.map(x => [...x.children].map(c => c.textContent)));
    // The three generated hosts and the host of the followed file.
    check(rows.map(r => r[0]).join(',') === 'app-01,db-01,live-01,web-01', `rows: ${JSON.stringify(rows)}`);
    const sum = rows.reduce((n, r) => n + Number(r[1]), 0);
    check(sum === figures.allEvents, `counts add up to ${sum}, not the ${figures.allEvents} events of 'search *'`);
    check(new URL(page.url()).searchParams.get('tab') === 'table', 'the table tab is not in the URL');
    await page.click('#tabs [data-tab=chart]');
    const bars = await page.$$eval('#chart rect.datum', r => r.length);
    check(bars === 4, `bars: ${bars}`);
  }],

  ['a report over time gives lines', async page => {
    await search(page, 'search * | timechart span=1h count by host');
    await page.waitForSelector('#chart polyline.datum', { timeout: WAIT_MS });
    const lines = await page.$$eval('#chart polyline.datum', p => p.length);
    check(lines === 4, `lines: ${lines}`);
    await page.click('#tabs [data-tab=table]');
    const head = await page.$$eval('#table th', t => t.map(x => x.textContent));
    check(head[0] === '_time', `first column: ${head}`);
  }],

  ['page load to first results', async (page, base) => {
    const start = Date.now();
    await page.goto(`${base}?q=error&range=all&tab=events`, { waitUntil: 'load' });
    await page.waitForSelector('#events li.event', { timeout: WAIT_MS });
    figures.firstResultsMs = Date.now() - start;
    const nav = await page.evaluate(() => performance.getEntriesByType('resource').reduce((n, r) => n + (r.transferSize || 0), 0));
    figures.resourceBytes = nav;
  }],

  ['live tail shows a new line', async (page, base) => {
    const key = await page.evaluate(() => sessionStorage.getItem('velmor.session'));
    const probe = await fetch(`${base}services/streams/tail?` + new URLSearchParams({ search: 'search *', authtoken: key, max_time: '1' }));
    await probe.body?.cancel().catch(() => {});
    if (probe.status === 404) return 'SKIP: the live tail path is not served by this velmord';
    await page.$eval('#q', e => { e.value = 'tailmarker'; });
    await page.click('#live');
    await page.waitForFunction(() => /^Following/.test(document.getElementById('live-state').textContent), { timeout: WAIT_MS });
    const token = `t${Date.now()}`;
    fs.appendFileSync(followed, `${new Date().toISOString()} level=INFO msg="tailmarker ${token} appended"\n`);
    await page.waitForFunction(t => [...document.querySelectorAll('#live-events li')].some(l => l.textContent.includes(t)),
      { timeout: WAIT_MS }, token);
    check(new URL(page.url()).searchParams.get('tab') === 'live', 'the live tab is not selected');
    await page.click('#live');
  }],

  ['logs out', async page => {
    await page.click('#logout');
    await page.waitForSelector('#login-form', { visible: true, timeout: WAIT_MS });
    check(await page.evaluate(() => sessionStorage.getItem('velmor.session')) === null, 'the session key stayed');
  }],
];

// ---- main ------------------------------------------------------------------------

let passed = 0, failed = 0, skipped = 0;
try {
  fs.mkdirSync(artefacts, { recursive: true });
  layOut();
  const port = await freePort();
  await startServer(port);
  const base = `http://127.0.0.1:${port}/`;
  browser = await puppeteer.launch({
    executablePath: CHROMIUM, headless: true,
    args: [...(process.getuid?.() === 0 ? ['--no-sandbox'] : []), '--disable-gpu', '--window-size=1280,900'],
    protocolTimeout: WAIT_MS * 2,
  });
  const page = await browser.newPage();
  await page.setViewport({ width: 1280, height: 900 });
  page.setDefaultTimeout(WAIT_MS);
  const pageErrors = [];
  page.on('pageerror', e => pageErrors.push(e.message));
  for (const [i, [name, body]] of cases.entries()) {
    const slug = `${String(i + 1).padStart(2, '0')}-${name.replace(/[^a-z0-9]+/gi, '-').replace(/-+$/, '')}`;
    try {
      const r = await body(page, base);
      if (typeof r === 'string' && r.startsWith('SKIP')) { skipped++; console.log(`SKIP  ${name}: ${r.slice(6)}`); continue; }
      if (pageErrors.length) throw new Error(`page error: ${pageErrors.splice(0).join('; ')}`);
      passed++;
      console.log(`ok    ${name}`);
    } catch (e) {
      failed++;
      console.log(`FAIL  ${name}: ${e.message.split('\n')[0]}`);
    }
    await shot(page, slug);
  }
  const shipped = fs.readdirSync(path.join(sourceDir, 'share/web'))
    .reduce((n, f) => n + fs.statSync(path.join(sourceDir, 'share/web', f)).size, 0);
  console.log(`figures: first results ${figures.firstResultsMs} ms after navigation; page files ${shipped} bytes ` +
    `(${figures.resourceBytes} bytes transferred for the page and its calls)`);
} catch (e) {
  failed++;
  console.log(`FAIL  setup: ${e.message}`);
} finally {
  if (browser) await browser.close().catch(() => {});
  await stopServer();
  if (!process.env.VELMOR_WEB_TEST_KEEP) fs.rmSync(home, { recursive: true, force: true });
  else console.log(`kept ${home}`);
}
console.log(`${passed} passed, ${failed} failed, ${skipped} skipped`);
process.exit(failed ? 1 : 0);
