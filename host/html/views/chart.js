// The chart of a stream's sample sizes over decode time, with zoom, below its facts.
import { $, el, hideTip, reportProblem, showTip } from '../dom.js';
import { num } from '../format.js';
import { on, selectSample, state } from '../state.js';

const CHART = { left: 64, right: 12, top: 14, bottom: 34 };
const chart = $('chart');
let chartData = null; // the columns last drawn: { key, stream, columns }
let chartSerial = 0;

function cssColor(name) {
  return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}

function niceStep(range, ticks) {
  const raw = range / ticks;
  const power = 10 ** Math.floor(Math.log10(raw || 1));
  const step = [1, 2, 5, 10].map((f) => f * power).find((s) => raw <= s);
  return step || power * 10;
}

function plotGeometry() {
  const cssWidth = chart.clientWidth;
  const cssHeight = chart.clientHeight;
  return {
    cssWidth,
    cssHeight,
    plotWidth: Math.max(1, cssWidth - CHART.left - CHART.right),
    plotHeight: Math.max(1, cssHeight - CHART.top - CHART.bottom),
  };
}

// Sizes over decode time, in the part of the stream in view. The source sums the samples
// up per pixel column: each column shows the sizes of its other samples as a bar, solid
// up to the smallest and lighter up to the largest, and its largest key frame as a dot
// at its size with a tick above the plot, so that key frames and spikes stay visible at
// every zoom.
function drawChart() {
  const stream = state.stream;
  if (!stream || $('stream-view').hidden) return;
  const { plotWidth } = plotGeometry();
  const columns = Math.max(1, Math.min(4096, Math.ceil(plotWidth)));
  const view = stream.view;
  const key = `${view.x0}|${view.x1}|${columns}`;
  if (chartData && chartData.stream === stream && chartData.key === key) {
    paintChart(stream, chartData.columns);
    return;
  }
  paintChart(stream, null);
  if (!num(stream.sampleCount)) return;
  const serial = ++chartSerial;
  state.source.chart(state.report, stream, view.x0, view.x1, columns).then((data) => {
    if (serial !== chartSerial || state.stream !== stream) return;
    chartData = { key, stream, columns: data };
    paintChart(stream, data);
  }, reportProblem);
}

function paintChart(stream, data) {
  // What is in view, for tests and tools that read the page.
  chart.dataset.view = data ? `${stream.view.x0} ${stream.view.x1}` : '';
  const ratio = window.devicePixelRatio || 1;
  const { cssWidth, cssHeight, plotWidth, plotHeight } = plotGeometry();
  chart.width = Math.round(cssWidth * ratio);
  chart.height = Math.round(cssHeight * ratio);
  const g = chart.getContext('2d');
  g.setTransform(ratio, 0, 0, ratio, 0, 0);
  g.clearRect(0, 0, cssWidth, cssHeight);
  const { x0, x1 } = stream.view;
  const n = num(stream.sampleCount);
  let inView = n;
  let largest = num(stream.maxSize);
  if (data) {
    inView = 0;
    largest = 0;
    for (let c = 0; c < data.count.length; c++) {
      inView += num(data.count[c]);
      largest = Math.max(largest, data.frameMax[c], data.keyMax[c]);
    }
  }
  const log = $('chart-log').checked;
  const scaled = log ? (y) => Math.log10(1 + y) : (y) => y;
  const yMax = scaled(largest || 1) || 1;
  const xSpan = x1 - x0 || 1;
  const toX = (x) => CHART.left + ((x - x0) / xSpan) * plotWidth;
  const toY = (y) => CHART.top + plotHeight - (scaled(y) / yMax) * plotHeight;

  // Axes and grid.
  g.font = '11px ' + cssColor('--mono');
  g.fillStyle = cssColor('--dim');
  g.strokeStyle = cssColor('--line');
  g.lineWidth = 1;
  g.textAlign = 'right';
  g.textBaseline = 'middle';
  const yTicks = [];
  if (log) {
    for (let y = 1; y <= largest; y *= 10) yTicks.push(y);
  } else {
    const yStep = niceStep(yMax, 4);
    for (let y = 0; y <= yMax; y += yStep) yTicks.push(y);
  }
  for (const y of yTicks) {
    const py = Math.round(toY(y)) + 0.5;
    g.beginPath();
    g.moveTo(CHART.left, py);
    g.lineTo(CHART.left + plotWidth, py);
    g.stroke();
    g.fillText(String(y), CHART.left - 6, py);
  }
  g.textAlign = 'center';
  g.textBaseline = 'top';
  const xStep = niceStep(xSpan, Math.max(2, Math.floor(plotWidth / 110)));
  for (let x = Math.ceil(x0 / xStep) * xStep; x <= x1; x += xStep) {
    const px = Math.round(toX(x)) + 0.5;
    g.beginPath();
    g.moveTo(px, CHART.top + plotHeight);
    g.lineTo(px, CHART.top + plotHeight + 4);
    g.stroke();
    const label = String(x);
    const overflow = px + g.measureText(label).width / 2 - cssWidth;
    g.fillText(label, overflow > 0 ? px - overflow : px, CHART.top + plotHeight + 6);
  }
  g.save();
  g.translate(12, CHART.top + plotHeight / 2);
  g.rotate(-Math.PI / 2);
  g.textBaseline = 'middle';
  g.fillText('bytes', 0, 0);
  g.restore();
  g.textAlign = 'right';
  const zoomed = x0 > num(stream.xMin) || x1 < num(stream.xMax);
  g.fillText((stream.byTime ? 'decode time' : 'sample number') + (zoomed ? ' (zoomed: double-click for all)' : ''),
    CHART.left + plotWidth, CHART.top + plotHeight + 20);

  if (!n) {
    g.textAlign = 'center';
    g.fillText('This stream has no samples.', CHART.left + plotWidth / 2, CHART.top + plotHeight / 2);
    return;
  }
  if (!data) return;
  // Few samples get bars wider than a pixel.
  const barWidth = Math.max(1, Math.min(12, Math.floor(plotWidth / Math.max(1, inView)) - 1));
  const base = CHART.top + plotHeight;
  const columns = data.count.length;
  const columnX = (c) => CHART.left + (c / columns) * plotWidth;
  g.fillStyle = cssColor('--frame');
  for (let c = 0; c < columns; c++) {
    if (num(data.count[c]) - num(data.keys[c]) <= 0) continue;
    const top = toY(data.frameMax[c]);
    const low = toY(data.frameMin[c]);
    g.globalAlpha = 0.5;
    g.fillRect(columnX(c), top, barWidth, Math.max(1, base - top));
    g.globalAlpha = 1;
    g.fillRect(columnX(c), low, barWidth, Math.max(1, base - low));
  }
  g.fillStyle = cssColor('--key');
  const dot = Math.max(3, Math.min(barWidth, 8));
  for (let c = 0; c < columns; c++) {
    if (!num(data.keys[c])) continue;
    const x = columnX(c);
    if (barWidth > 3) {
      const top = toY(data.keyMax[c]);
      g.fillRect(x, top, barWidth, Math.max(1, base - top));
    } else {
      g.fillRect(x - 1, toY(data.keyMax[c]) - 1, dot, dot);
    }
    g.fillRect(x, CHART.top - 8, 1, 6);
  }
  const selected = stream.selected >= 0 ? stream.rows.peek(stream.selected) : undefined;
  if (selected) {
    const x = Math.round(toX(stream.byTime ? num(selected.dts) : stream.selected)) + 0.5;
    if (x >= CHART.left && x <= CHART.left + plotWidth) {
      g.strokeStyle = cssColor('--fg');
      g.setLineDash([3, 3]);
      g.beginPath();
      g.moveTo(x, CHART.top);
      g.lineTo(x, base);
      g.stroke();
      g.setLineDash([]);
    }
  }
}

// The place on the chart's axis under a point of the chart.
function chartX(clientX) {
  const stream = state.stream;
  const rect = chart.getBoundingClientRect();
  const plotWidth = Math.max(1, rect.width - CHART.left - CHART.right);
  const share = Math.max(0, Math.min(1, (clientX - rect.left - CHART.left) / plotWidth));
  return stream.view.x0 + share * (stream.view.x1 - stream.view.x0);
}

// The column of the last drawing under a point of the chart.
function chartColumn(clientX) {
  if (!chartData || chartData.stream !== state.stream) return -1;
  const rect = chart.getBoundingClientRect();
  const plotWidth = Math.max(1, rect.width - CHART.left - CHART.right);
  const columns = chartData.columns.count.length;
  const c = Math.floor(((clientX - rect.left - CHART.left) / plotWidth) * columns);
  return c >= 0 && c < columns ? c : -1;
}

// The sample nearest to a point: the last one that starts at or before it.
function pickSample(clientX) {
  const stream = state.stream;
  const report = state.report;
  const x = chartX(clientX);
  state.source.locate(report, stream, stream.byTime ? Math.floor(x) + 1 : Math.floor(x) + 1).then((after) => {
    if (state.stream === stream) selectSample(Math.max(0, after - 1));
  }, reportProblem);
}

function setView(stream, x0, x1) {
  const xMin = num(stream.xMin);
  const xMax = num(stream.xMax);
  const full = xMax - xMin;
  // No closer than a few samples' width.
  const least = Math.min(full, Math.max(stream.byTime ? 1 : 4, (full / Math.max(1, num(stream.sampleCount))) * 4));
  let span = Math.max(least, Math.min(full, x1 - x0));
  let from = Math.max(xMin, Math.min(xMax - span, x0));
  if (!stream.byTime) {
    from = Math.floor(from);
    span = Math.ceil(span);
  }
  stream.view = { x0: from, x1: Math.min(xMax, from + span) };
  drawChart();
}

chart.addEventListener('wheel', (event) => {
  const stream = state.stream;
  if (!stream || !num(stream.sampleCount)) return;
  event.preventDefault();
  const at = chartX(event.clientX);
  const factor = event.deltaY > 0 ? 1.25 : 0.8;
  const { x0, x1 } = stream.view;
  setView(stream, at - (at - x0) * factor, at + (x1 - at) * factor);
}, { passive: false });

// A drag zooms to what it spans; a click picks a sample.
let drag = null;
const dragBox = el('div', 'chart-drag');
dragBox.hidden = true;
$('chart-wrap').append(dragBox);
chart.addEventListener('mousedown', (event) => {
  if (event.button === 0 && state.stream) drag = { from: event.clientX, to: event.clientX };
});
window.addEventListener('mousemove', (event) => {
  if (!drag) return;
  drag.to = event.clientX;
  const rect = chart.getBoundingClientRect();
  const wrap = $('chart-wrap').getBoundingClientRect();
  dragBox.hidden = Math.abs(drag.to - drag.from) <= 4;
  dragBox.style.left = `${Math.min(drag.from, drag.to) - wrap.left}px`;
  dragBox.style.width = `${Math.abs(drag.to - drag.from)}px`;
  dragBox.style.top = `${rect.top - wrap.top + CHART.top}px`;
  dragBox.style.height = `${rect.height - CHART.top - CHART.bottom}px`;
});
window.addEventListener('mouseup', (event) => {
  if (!drag) return;
  const { from } = drag;
  drag = null;
  dragBox.hidden = true;
  if (Math.abs(event.clientX - from) > 4) {
    const a = chartX(from);
    const b = chartX(event.clientX);
    setView(state.stream, Math.min(a, b), Math.max(a, b));
  } else if (event.target === chart) {
    pickSample(event.clientX);
  }
});
chart.addEventListener('dblclick', () => {
  const stream = state.stream;
  if (stream) setView(stream, num(stream.xMin), num(stream.xMax));
});

chart.addEventListener('mousemove', (event) => {
  const stream = state.stream;
  const c = chartColumn(event.clientX);
  if (!stream || c < 0 || !num(chartData.columns.count[c])) return hideTip();
  const data = chartData.columns;
  const first = num(data.first[c]);
  const count = num(data.count[c]);
  const keys = num(data.keys[c]);
  const sample = count === 1 ? stream.rows.peek(first) : undefined;
  if (sample) {
    showTip(
      `sample ${sample.index}${num(sample.keyFrame) ? ' (key frame)' : ''}\n` +
        `size ${sample.size} bytes\ndts ${sample.dts}  pts ${sample.pts}\noffset ${sample.offset}`,
      event.clientX,
      event.clientY);
    return;
  }
  const sizes = [];
  if (count > keys) sizes.push(`other samples ${data.frameMin[c]}–${data.frameMax[c]} bytes`);
  if (keys) sizes.push(`key frames ${data.keyMin[c]}–${data.keyMax[c]} bytes`);
  showTip(
    `${count === 1 ? `sample ${first}` : `samples ${first}–${first + count - 1}`}` +
      `${keys ? `, ${keys} key frame${keys === 1 ? '' : 's'}` : ''}\n${sizes.join('\n')}`,
    event.clientX,
    event.clientY);
});
chart.addEventListener('mouseleave', hideTip);
$('chart-log').addEventListener('change', drawChart);
new ResizeObserver(() => drawChart()).observe(document.body);
on('stream', () => drawChart());
on('sample', () => drawChart());
on('reset', () => {
  chartData = null;
});
