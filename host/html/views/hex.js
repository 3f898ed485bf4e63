// The bytes of the selected element in rows of 16, with the selected field's bytes
// highlighted and those of a sample, stream or problem marked.
import { $, el, span } from '../dom.js';
import { num } from '../format.js';
import { VirtualList } from '../lists.js';
import { fieldRange, on, selectField, state } from '../state.js';

const BYTES_PER_ROW = 16;
const hex = new VirtualList($('hex'), 20, renderHexRow);
let hexSegments = []; // { gap, from, to, firstRow, rowBase, rows }

// Splits the selected element's bytes into stretches the source has, shown in rows of 16
// at file-aligned offsets, and gaps, one row each.
function buildHexSegments(from, to) {
  let row = 0;
  hexSegments = state.report.bytes.segments(from, to).map((segment) => {
    segment.firstRow = row;
    if (segment.gap) {
      segment.rows = 1;
    } else {
      segment.rowBase = segment.from - (segment.from % BYTES_PER_ROW);
      segment.rows = Math.ceil((segment.to - segment.rowBase) / BYTES_PER_ROW);
    }
    row += segment.rows;
    return segment;
  });
  return row;
}

function segmentOfRow(row) {
  let low = 0;
  let high = hexSegments.length - 1;
  while (low < high) {
    const mid = (low + high + 1) >> 1;
    if (hexSegments[mid].firstRow <= row) low = mid;
    else high = mid - 1;
  }
  return hexSegments[low];
}

function renderHexRow(i) {
  const segment = segmentOfRow(i);
  const row = el('div', 'hrow');
  if (segment.gap) {
    row.classList.add('gap');
    row.textContent = `⋯ bytes ${segment.from}–${segment.to - 1} (${segment.to - segment.from}) ${segment.gap}`;
    return row;
  }
  const base = segment.rowBase + (i - segment.firstRow) * BYTES_PER_ROW;
  const bytes = state.report.bytes;
  const field = state.field;
  const mark = state.mark;
  const hexCells = el('span', 'hbytes');
  const asciiCells = el('span', 'hascii');
  for (let k = 0; k < BYTES_PER_ROW; k++) {
    const offset = base + k;
    const value = offset < segment.from || offset >= segment.to ? undefined : bytes.get(offset);
    if (value === undefined) {
      const waiting = offset >= segment.from && offset < segment.to;
      hexCells.append(span('blank', waiting ? '··' : '  '));
      asciiCells.append(span('blank', ' '));
      continue;
    }
    const byteCell = span('', value.toString(16).padStart(2, '0'));
    byteCell.dataset.offset = offset;
    const charCell = span('', value >= 0x20 && value < 0x7f ? String.fromCharCode(value) : '.');
    if (field && offset >= field.from && offset < field.to) {
      byteCell.className = 'hl';
      charCell.className = 'hl';
    } else if (mark && offset >= mark.from && offset < mark.to) {
      byteCell.className = 'mark';
      charCell.className = 'mark';
    }
    hexCells.append(byteCell);
    asciiCells.append(charCell);
  }
  row.append(span('haddr', String(base)), hexCells, asciiCells);
  return row;
}

function updateHex(rebuild) {
  const node = state.selected;
  const report = state.report;
  const head = $('hex-head');
  if (!node) {
    hexSegments = [];
    hex.setCount(0);
    head.textContent = '';
    return;
  }
  const size = num(report.fileSize);
  const from = Math.min(node.o, size);
  const to = Math.min(node.o + node.s, size);
  if (rebuild) {
    hex.host.scrollTop = 0;
    hex.setCount(buildHexSegments(from, to));
  } else {
    hex.render();
  }
  let missing = 0;
  for (const segment of hexSegments) if (segment.gap) missing += segment.to - segment.from;
  head.replaceChildren(`Bytes ${from}–${Math.max(from, to - 1)} of ${node.name} (${to - from})`);
  if (node.o + node.s > size) head.append(span('omitted', ' · the element reaches past the end of the file'));
  if (missing) head.append(span('omitted', ` · ${missing} of them not embedded in this report`));
  const field = state.field;
  const child = field && node.items.get(state.fieldIndex);
  if (child) {
    head.append(` · ${child.name}: bytes ${field.from}–${field.to - 1}`);
    if (report.bytes.segments(field.from, field.to).some((segment) => segment.gap)) {
      head.append(span('omitted', ' (not all embedded)'));
    }
  }
}

function revealHexOffset(offset) {
  for (const segment of hexSegments) {
    if (offset >= segment.from && offset < segment.to) {
      hex.reveal(segment.gap ? segment.firstRow : segment.firstRow + Math.floor((offset - segment.rowBase) / BYTES_PER_ROW));
      return;
    }
  }
}

// A click on a byte selects the narrowest field of the element that covers it, among
// the fields there are.
$('hex').addEventListener('click', (event) => {
  const offset = event.target.dataset && event.target.dataset.offset;
  if (offset === undefined || !state.selected) return;
  const at = Number(offset);
  let best = -1;
  let bestSize = Infinity;
  for (const [i, child] of state.selected.items.loaded()) {
    if (child.kind === 'element') continue;
    const range = fieldRange(child);
    if (at >= range.from && at < range.to && range.to - range.from < bestSize) {
      best = i;
      bestSize = range.to - range.from;
    }
  }
  if (best >= 0) selectField(best, { revealRow: true });
});
$('hex').addEventListener('mouseover', (event) => {
  const offset = event.target.dataset && event.target.dataset.offset;
  event.target.title = offset === undefined ? '' : `offset ${offset}`;
});

on('element', () => updateHex(true));
on('field', () => {
  updateHex(false);
  revealHexOffset(state.field.from);
});
on('mark', (from) => {
  updateHex(false);
  revealHexOffset(from);
});
on('items', (node) => {
  if (state.selected === node) updateHex(false);
});
on('bytes', () => hex.render());
on('tab', (tab) => {
  if (tab === 'boxes') hex.render();
});
on('reset', () => hex.setCount(0));
