// Small SVG charts built from DOM nodes (never from markup text): the
// timeline of event counts, grouped bars by category and lines over time.
// Every label goes in as a text node, so server text cannot become markup.

const NS = 'http://www.w3.org/2000/svg';
const COLORS = ['#3b6fd6', '#d9822b', '#2f9e6b', '#c2455c', '#7a5cc7', '#8a8f2a', '#2a8a9c', '#a0522d'];

function el(name, attrs = {}, parent = null) {
  const e = document.createElementNS(NS, name);
  for (const [k, v] of Object.entries(attrs)) e.setAttribute(k, String(v));
  if (parent) parent.appendChild(e);
  return e;
}

function text(parent, x, y, s, attrs = {}) {
  const t = el('text', { x, y, ...attrs }, parent);
  t.textContent = s;
  return t;
}

function svg(container, w, h, label) {
  container.replaceChildren();
  const s = el('svg', { viewBox: `0 0 ${w} ${h}`, width: '100%', height: h, role: 'img', 'aria-label': label });
  container.appendChild(s);
  return s;
}

// 1, 2, 5 x 10^n steps: a round maximum for an axis.
export function niceMax(v) {
  if (!(v > 0)) return 1;
  const p = Math.pow(10, Math.floor(Math.log10(v)));
  for (const m of [1, 2, 5, 10]) if (m * p >= v) return m * p;
  return 10 * p;
}

export function formatTime(epoch, span) {
  const d = new Date(epoch * 1000);
  const pad = n => String(n).padStart(2, '0');
  const day = `${d.getFullYear()}-${pad(d.getMonth() + 1)}-${pad(d.getDate())}`;
  const hm = `${pad(d.getHours())}:${pad(d.getMinutes())}`;
  if (span >= 86400) return day;
  return span >= 60 ? `${day} ${hm}` : `${day} ${hm}:${pad(d.getSeconds())}`;
}

function yAxis(s, max, x0, y0, h, w) {
  for (const f of [0, 0.5, 1]) {
    const y = y0 + h - f * h;
    el('line', { x1: x0, x2: x0 + w, y1: y, y2: y, class: 'grid' }, s);
    text(s, x0 - 4, y + 3, String(+(max * f).toPrecision(3)), { 'text-anchor': 'end', class: 'axis' });
  }
}

// Bars of event counts over time; onPick(bucket) when one is clicked.
export function timelineChart(container, buckets, onPick) {
  const W = 1000, H = 90, left = 40, top = 6, plotH = 64, plotW = W - left - 6;
  const s = svg(container, W, H, 'Events over time');
  if (!buckets.length) return s;
  const max = niceMax(Math.max(...buckets.map(b => b.c)));
  yAxis(s, max, left, top, plotH, plotW);
  const bw = plotW / buckets.length;
  buckets.forEach((b, i) => {
    const h = b.c / max * plotH;
    const g = el('g', { class: 'bar', 'data-t': b.t, 'data-d': b.d, tabindex: 0 }, s);
    // A full-height hit area, so that small bars are easy to click.
    el('rect', { x: left + i * bw, y: top, width: Math.max(bw, 1), height: plotH, class: 'hit' }, g);
    el('rect', { x: left + i * bw + bw * 0.1, y: top + plotH - h, width: Math.max(bw * 0.8, 1), height: h }, g);
    const title = el('title', {}, g);
    title.textContent = `${formatTime(b.t, b.d)}: ${b.c} event${b.c === 1 ? '' : 's'}`;
    g.addEventListener('click', () => onPick(b));
    g.addEventListener('keydown', e => { if (e.key === 'Enter') onPick(b); });
  });
  const first = buckets[0], last = buckets[buckets.length - 1];
  text(s, left, H - 4, formatTime(first.t, first.d), { class: 'axis' });
  text(s, W - 6, H - 4, formatTime(last.t + last.d, last.d), { class: 'axis', 'text-anchor': 'end' });
  return s;
}

function legend(s, series, x, y) {
  series.forEach((sr, i) => {
    el('rect', { x, y: y + i * 16, width: 10, height: 10, fill: COLORS[i % COLORS.length] }, s);
    text(s, x + 14, y + i * 16 + 9, sr.name, { class: 'axis' });
  });
}

// Grouped bars: one group per category, one bar per series.
export function barChart(container, categories, series) {
  const W = 1000, left = 56, top = 10, plotH = 240, legendW = 150, plotW = W - left - legendW;
  const H = top + plotH + 70;
  const s = svg(container, W, H, 'Bar chart');
  const max = niceMax(Math.max(0, ...series.flatMap(sr => sr.values.filter(Number.isFinite))));
  yAxis(s, max, left, top, plotH, plotW);
  const gw = plotW / Math.max(categories.length, 1), bw = gw * 0.8 / Math.max(series.length, 1);
  categories.forEach((cat, i) => {
    series.forEach((sr, k) => {
      const v = sr.values[i];
      if (!Number.isFinite(v)) return;
      const h = v / max * plotH;
      const r = el('rect', { x: left + i * gw + gw * 0.1 + k * bw, y: top + plotH - h, width: Math.max(bw, 1), height: h,
        fill: COLORS[k % COLORS.length], class: 'datum' }, s);
      el('title', {}, r).textContent = `${cat} ${sr.name}: ${v}`;
    });
    const label = cat.length > 18 ? cat.slice(0, 17) + '…' : cat;
    text(s, left + i * gw + gw / 2, top + plotH + 14, label,
      { class: 'axis', 'text-anchor': categories.length > 12 ? 'end' : 'middle',
        transform: categories.length > 12 ? `rotate(-40 ${left + i * gw + gw / 2} ${top + plotH + 14})` : '' });
  });
  legend(s, series, W - legendW + 10, top);
  return s;
}

// Lines over time: xs in epoch seconds, one polyline per series.
export function lineChart(container, xs, series) {
  const W = 1000, left = 56, top = 10, plotH = 240, legendW = 150, plotW = W - left - legendW, H = top + plotH + 30;
  const s = svg(container, W, H, 'Line chart');
  const max = niceMax(Math.max(0, ...series.flatMap(sr => sr.values.filter(Number.isFinite))));
  yAxis(s, max, left, top, plotH, plotW);
  const x0 = Math.min(...xs), x1 = Math.max(...xs), span = Math.max(x1 - x0, 1);
  const px = x => left + (xs.length > 1 ? (x - x0) / span * plotW : plotW / 2);
  series.forEach((sr, k) => {
    const pts = xs.map((x, i) => Number.isFinite(sr.values[i]) ? `${px(x).toFixed(1)},${(top + plotH - sr.values[i] / max * plotH).toFixed(1)}` : null)
      .filter(Boolean).join(' ');
    el('polyline', { points: pts, fill: 'none', stroke: COLORS[k % COLORS.length], 'stroke-width': 2, class: 'datum' }, s);
  });
  const step = xs.length > 1 ? span / (xs.length - 1) : 3600;
  text(s, left, H - 6, formatTime(x0, step), { class: 'axis' });
  text(s, left + plotW, H - 6, formatTime(x1, step), { class: 'axis', 'text-anchor': 'end' });
  legend(s, series, W - legendW + 10, top);
  return s;
}
