// The map of the file above every tab: its top-level boxes in proportion, the selected
// element's place, and for a checked file the strip of where its bytes went.
import { COVERAGE_PARTS, coverageBetween } from '../coverage.js';
import { $, el, hideTip, showTip } from '../dom.js';
import { num } from '../format.js';
import { on, selectElement, showTab, state } from '../state.js';

const MAP_COLORS = { mdat: '#7d8590', free: '#b3bac1', skip: '#b3bac1', moov: '#1f6feb', ftyp: '#8250df',
  moof: '#1a7f37', uuid: '#bf8700' };
function colorOf(name) {
  if (MAP_COLORS[name]) return MAP_COLORS[name];
  let hash = 0;
  for (const c of String(name)) hash = (hash * 31 + c.charCodeAt(0)) >>> 0;
  return `hsl(${hash % 360}, 55%, 45%)`;
}

let mapGroups = [];
let mapCount = -1; // the top-level elements the map was made of
function renderMap() {
  const bar = $('map-bar');
  bar.replaceChildren();
  drawCoverage();
  mapGroups = [];
  const report = state.report;
  const size = num(report.fileSize);
  const top = report.root ? report.root.kids.loaded().map(([, node]) => node) : [];
  mapCount = top.length;
  if (!top.length || size <= 0) return;
  // Runs of boxes too narrow to see join into segments of a few pixels.
  const width = bar.clientWidth || 1000;
  const minimum = (3 / width) * size;
  let group = null;
  for (const node of top) {
    const from = Math.min(node.o, size);
    const to = Math.min(node.o + node.s, size);
    if (group && to - from < minimum && group.to - group.from < minimum && from - group.to < minimum) {
      group.nodes.push(node);
      group.to = Math.max(group.to, to);
      continue;
    }
    group = { from, to, nodes: [node] };
    mapGroups.push(group);
  }
  mapGroups.forEach((g, i) => {
    const first = g.nodes[0];
    const seg = el('div', 'map-seg', g.nodes.length === 1 ? first.name : `${g.nodes.length} boxes`);
    seg.style.left = `${(g.from / size) * 100}%`;
    seg.style.width = `${((g.to - g.from) / size) * 100}%`;
    seg.style.background = g.nodes.length === 1 ? colorOf(first.name) : '#9aa3ab';
    seg.dataset.group = i;
    bar.append(seg);
  });
  updateMapMark();
}

function mapText(group) {
  const size = num(state.report.fileSize);
  const share = (((group.to - group.from) / size) * 100).toFixed(1);
  if (group.nodes.length === 1) {
    const node = group.nodes[0];
    return `${node.name}\noffset ${node.offset}\nsize ${node.size} bytes (${share} % of the file)` +
      (node.note ? `\n${node.note}` : '');
  }
  const names = group.nodes.slice(0, 6).map((node) => node.name).join(', ');
  return `${group.nodes.length} boxes: ${names}${group.nodes.length > 6 ? ', …' : ''}\n` +
    `offsets ${group.from}–${group.to - 1} (${share} % of the file)`;
}

$('map-bar').addEventListener('mousemove', (event) => {
  const seg = event.target.closest('.map-seg');
  if (seg) showTip(mapText(mapGroups[Number(seg.dataset.group)]), event.clientX, event.clientY);
  else hideTip();
});
$('map-bar').addEventListener('mouseleave', hideTip);
$('map-bar').addEventListener('click', (event) => {
  const seg = event.target.closest('.map-seg');
  if (!seg) return;
  showTab('boxes');
  selectElement(mapGroups[Number(seg.dataset.group)].nodes[0]);
});

function updateMapMark() {
  const mark = $('map-mark');
  const node = state.selected;
  const size = state.report ? num(state.report.fileSize) : 0;
  if (!node || size <= 0) {
    mark.hidden = true;
    return;
  }
  const from = Math.min(node.o, size);
  const to = Math.min(node.o + node.s, size);
  mark.hidden = false;
  mark.style.left = `${(from / size) * 100}%`;
  mark.style.width = `${((to - from) / size) * 100}%`;
}

// The strip below the map: each pixel column shows the parts of the bytes under it, stacked.
function drawCoverage() {
  const canvas = $('coverage-map');
  const coverage = state.report && state.report.coverage;
  $('map').classList.toggle('covered', !!coverage);
  canvas.hidden = !coverage;
  if (!coverage) return;
  const ratio = window.devicePixelRatio || 1;
  const width = Math.max(1, Math.round(canvas.clientWidth * ratio));
  const height = Math.max(1, Math.round(canvas.clientHeight * ratio));
  canvas.width = width;
  canvas.height = height;
  const context = canvas.getContext('2d');
  for (let x = 0; x < width; x++) {
    const parts = coverageBetween(coverage, x / width, (x + 1) / width);
    const total = parts.reduce((sum, part) => sum + part, 0);
    let y = 0;
    parts.forEach((bytes, p) => {
      if (!bytes) return;
      const h = (bytes / total) * height;
      context.fillStyle = COVERAGE_PARTS[p][2];
      context.fillRect(x, y, 1, h + 0.5);
      y += h;
    });
  }
}

$('coverage-map').addEventListener('mousemove', (event) => {
  const coverage = state.report.coverage;
  const rect = event.target.getBoundingClientRect();
  const at = (event.clientX - rect.left) / rect.width;
  const size = num(coverage.fileSize);
  const parts = coverageBetween(coverage, at, at + 1 / rect.width);
  const total = parts.reduce((sum, part) => sum + part, 0) || 1;
  const lines = parts.map((bytes, p) => (bytes ? `${COVERAGE_PARTS[p][1]}: ${((bytes / total) * 100).toFixed(0)} %` : ''));
  showTip(`near offset ${Math.floor(at * size)}\n${lines.filter(Boolean).join('\n')}`, event.clientX, event.clientY);
});
$('coverage-map').addEventListener('mouseleave', hideTip);

on('element', () => updateMapMark());
on('rows', () => {
  const report = state.report;
  if (report && report.root && report.root.kids.loaded().length !== mapCount) renderMap();
});
on('report', () => renderMap());
// The map of the last report goes, also when this one has none.
on('reset', () => {
  $('map-bar').replaceChildren();
  drawCoverage();
  $('map-mark').hidden = true;
});
new ResizeObserver(() => {
  if (state.report && state.report.root) renderMap();
}).observe(document.body);
