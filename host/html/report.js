'use strict';
// The viewer of sarvelinth's HTML report. The reports sit in the page as JSON documents,
// one per file, in script elements of type application/json and class report; this shows one
// at a time: the box tree, the selected element's fields and bytes, a map of the file and
// the video streams with their samples. Lists that can grow to millions of rows (tree,
// fields, hex, samples) render only the rows in view.
(function () {
  const $ = (id) => document.getElementById(id);
  const BYTES_PER_ROW = 16;

  // ---- Numbers -------------------------------------------------------------------------

  // Offsets and sizes are 64-bit and may pass 2^53 in damaged files. Such numbers are kept
  // as their exact decimal text; num() gives a number for arithmetic.
  function parseDocument(text) {
    if (!/[:,[]-?\d{16}/.test(text)) return JSON.parse(text);
    return JSON.parse(text, (key, value, context) =>
      typeof value === 'number' && !Number.isSafeInteger(value) && context && context.source
        ? context.source
        : value);
  }
  const num = (value) => (typeof value === 'number' ? value : Number(value));

  function humanSize(bytes) {
    const units = ['bytes', 'KiB', 'MiB', 'GiB', 'TiB'];
    let value = num(bytes);
    let unit = 0;
    while (value >= 1024 && unit < units.length - 1) {
      value /= 1024;
      unit++;
    }
    return unit === 0 ? `${bytes} bytes` : `${value.toFixed(value < 10 ? 2 : 1)} ${units[unit]}`;
  }

  function el(tag, className, text) {
    const node = document.createElement(tag);
    if (className) node.className = className;
    if (text !== undefined) node.textContent = text;
    return node;
  }

  function span(className, text, title) {
    const node = el('span', className, text);
    if (title) node.title = title;
    return node;
  }

  // ---- Tooltip ---------------------------------------------------------------------------

  const tip = $('tip');
  function showTip(text, x, y) {
    tip.textContent = text;
    tip.hidden = false;
    const width = tip.offsetWidth;
    const height = tip.offsetHeight;
    tip.style.left = `${Math.min(x + 14, window.innerWidth - width - 4)}px`;
    tip.style.top = `${y + 18 + height > window.innerHeight ? y - height - 8 : y + 18}px`;
  }
  function hideTip() {
    tip.hidden = true;
  }

  // ---- Virtual list ----------------------------------------------------------------------

  // A scrolling list that creates only the rows in view. Browsers cap the height of an
  // element, so beyond MAX_HEIGHT pixels the scroll position maps onto the rows in scale.
  const MAX_HEIGHT = 8000000;
  class VirtualList {
    constructor(host, rowHeight, renderRow) {
      this.host = host;
      this.rowHeight = rowHeight;
      this.renderRow = renderRow;
      this.count = 0;
      host.classList.add('vlist');
      this.spacer = el('div', 'vspacer');
      this.layer = el('div', 'vlayer');
      host.append(this.spacer, this.layer);
      this.pending = false;
      host.addEventListener('scroll', () => this.schedule());
      new ResizeObserver(() => this.schedule()).observe(host);
    }

    setCount(count) {
      this.count = count;
      this.total = count * this.rowHeight;
      this.spacer.style.height = `${Math.min(this.total, MAX_HEIGHT)}px`;
      this.render();
    }

    // Virtual pixels per scroll pixel.
    scale() {
      const view = this.host.clientHeight;
      const height = Math.min(this.total, MAX_HEIGHT);
      return this.total <= MAX_HEIGHT || height <= view ? 1 : (this.total - view) / (height - view);
    }

    schedule() {
      if (this.pending) return;
      this.pending = true;
      requestAnimationFrame(() => {
        this.pending = false;
        this.render();
      });
    }

    render() {
      const view = this.host.clientHeight;
      const scroll = this.host.scrollTop;
      const top = scroll * this.scale();
      const first = Math.max(0, Math.floor(top / this.rowHeight) - 4);
      const last = Math.min(this.count, Math.ceil((top + view) / this.rowHeight) + 4);
      const rows = document.createDocumentFragment();
      for (let i = first; i < last; i++) {
        const row = this.renderRow(i);
        row.classList.add('vrow');
        row.style.top = `${i * this.rowHeight - top + scroll}px`;
        rows.append(row);
      }
      this.layer.replaceChildren(rows);
    }

    // Scrolls so that row index is in view (centred when it was not).
    reveal(index) {
      const view = this.host.clientHeight;
      const scale = this.scale();
      const top = this.host.scrollTop * scale;
      const y = index * this.rowHeight;
      if (y >= top && y + this.rowHeight <= top + view) return;
      this.host.scrollTop = Math.max(0, (y - view / 2 + this.rowHeight / 2) / scale);
      this.render();
    }
  }

  // ---- Reports ---------------------------------------------------------------------------

  const scripts = Array.from(document.querySelectorAll('script.report'));
  const reports = scripts.map(() => null);

  // Links every element to its parent and lists its child elements; collects all
  // elements in document order, without recursion, since nesting depth is the file's.
  function prepareReport(report) {
    report.all = [];
    report.top = [];
    const stack = [];
    const add = (list, parent, depth) => {
      for (let i = list.length - 1; i >= 0; i--) stack.push([list[i], parent, depth]);
    };
    add(report.elements || [], null, 0);
    while (stack.length) {
      const [node, parent, depth] = stack.pop();
      if (node.kind !== 'element') continue;
      node.id = report.all.length;
      report.all.push(node);
      node.parent = parent;
      node.depth = depth;
      node.o = num(node.offset);
      node.s = num(node.size);
      node.lowerName = String(node.name).toLowerCase();
      node.kids = [];
      node.open = false;
      const children = node.children || [];
      for (const child of children) if (child.kind === 'element') node.kids.push(child);
      if (!parent) report.top.push(node);
      add(children, node, depth + 1);
    }
    prepareBytes(report);
    return report;
  }

  function prepareBytes(report) {
    const embedded = report.embeddedBytes || { ranges: [] };
    report.chunks = (embedded.ranges || [])
      .map((range) => ({ o: num(range.offset), data: range.data, bytes: null }))
      .sort((a, b) => a.o - b.o);
    for (const chunk of report.chunks) chunk.end = chunk.o + (chunk.data.length * 3) / 4 - padding(chunk.data);
    report.limitAt = embedded.limitReachedAt == null ? null : num(embedded.limitReachedAt);
    report.limit = embedded.limit;
    report.readError = embedded.readError || '';
  }

  function padding(base64) {
    return base64.endsWith('==') ? 2 : base64.endsWith('=') ? 1 : 0;
  }

  function chunkBytes(chunk) {
    if (!chunk.bytes) {
      const text = atob(chunk.data);
      const bytes = new Uint8Array(text.length);
      for (let i = 0; i < text.length; i++) bytes[i] = text.charCodeAt(i);
      chunk.bytes = bytes;
      chunk.data = '';
    }
    return chunk.bytes;
  }

  // The first chunk that ends after offset.
  function chunkIndexAfter(offset) {
    const chunks = state.report.chunks;
    let low = 0;
    let high = chunks.length;
    while (low < high) {
      const mid = (low + high) >> 1;
      if (chunks[mid].end <= offset) low = mid + 1;
      else high = mid;
    }
    return low;
  }

  // ---- State -----------------------------------------------------------------------------

  const state = {
    report: null,
    selected: null, // element
    field: null, // bytes of the selected field: { from, to }
    fieldIndex: -1,
    config: null, // bytes of a codec configuration shown in the hex view: { from, to }
    marks: null, // filter marks per element: 1 matches, 2 leads to a match
    filterOpen: new Map(), // element id to open state while filtering
    query: '',
    rows: [], // visible tree rows
    tab: 'boxes',
    stream: null,
  };

  // ---- Tree ------------------------------------------------------------------------------

  const tree = new VirtualList($('tree'), 22, renderTreeRow);

  // Without a filter, rows follow each element's own open state. With one, the filter
  // has open states of its own: elements that lead to matches start open and show only
  // the children that match or lead on; other elements start closed and, opened, show
  // all their children.
  function isExpanded(node) {
    const marks = state.marks;
    if (!marks) return node.open;
    const open = state.filterOpen.get(node.id);
    return open === undefined ? (marks[node.id] & 2) !== 0 : open;
  }

  function flattenTree() {
    const rows = [];
    const marks = state.marks;
    const visit = (nodes, all) => {
      for (const node of nodes) {
        if (!all && !marks[node.id]) continue;
        rows.push(node);
        if (node.kids.length && isExpanded(node)) visit(node.kids, all || !(marks[node.id] & 2));
      }
    };
    if (state.report) visit(state.report.top, !marks);
    state.rows = rows;
    tree.setCount(rows.length);
  }

  function renderTreeRow(i) {
    const node = state.rows[i];
    const row = el('div', 'trow');
    row.dataset.row = i;
    row.setAttribute('role', 'treeitem');
    row.style.paddingLeft = `${6 + node.depth * 16}px`;
    const marks = state.marks;
    const expanded = isExpanded(node);
    const twist = span('twist', node.kids.length ? (expanded ? '▾' : '▸') : '');
    if (node.kids.length) row.setAttribute('aria-expanded', expanded ? 'true' : 'false');
    row.append(twist, span('tname', node.name));
    if (num(node.index) >= 0) row.append(span('tindex', `[${node.index}]`));
    row.append(span('tat', `@${node.offset}`), span('tsize', `${node.size} bytes`));
    if (node.note) row.append(span('tnote', node.note, node.note));
    if (node === state.selected) row.classList.add('selected');
    if (marks && marks[node.id] & 1) row.classList.add('match');
    return row;
  }

  function toggle(node) {
    if (!node.kids.length) return;
    if (state.marks) state.filterOpen.set(node.id, !isExpanded(node));
    else node.open = !node.open;
    flattenTree();
  }

  // Opens the path to node and shows it in the tree; the filter goes when it hides node.
  function revealInTree(node) {
    for (let up = node.parent; up; up = up.parent) {
      if (state.marks) state.filterOpen.set(up.id, true);
      else up.open = true;
    }
    flattenTree();
    if (state.marks && !state.rows.includes(node)) {
      clearFilter();
      revealInTree(node);
      return;
    }
    const index = state.rows.indexOf(node);
    if (index >= 0) tree.reveal(index);
  }

  $('tree').addEventListener('click', (event) => {
    const row = event.target.closest('.trow');
    if (!row) return;
    const node = state.rows[Number(row.dataset.row)];
    if (event.target.classList.contains('twist')) toggle(node);
    else selectElement(node, { reveal: false });
  });
  $('tree').addEventListener('dblclick', (event) => {
    const row = event.target.closest('.trow');
    if (row && !event.target.classList.contains('twist')) toggle(state.rows[Number(row.dataset.row)]);
  });
  $('tree').addEventListener('keydown', (event) => {
    const node = state.selected;
    const index = node ? state.rows.indexOf(node) : -1;
    let next = null;
    switch (event.key) {
      case 'ArrowDown':
        next = state.rows[Math.min(index + 1, state.rows.length - 1)];
        break;
      case 'ArrowUp':
        next = state.rows[Math.max(index - 1, 0)];
        break;
      case 'ArrowRight':
        if (node && node.kids.length && !node.open) toggle(node);
        else if (node && node.kids.length) next = node.kids[0];
        break;
      case 'ArrowLeft':
        if (node && node.open) toggle(node);
        else if (node && node.parent) next = node.parent;
        break;
      case 'Enter':
        if (node) toggle(node);
        break;
      default:
        return;
    }
    event.preventDefault();
    if (next) selectElement(next);
  });

  // ---- Search ----------------------------------------------------------------------------

  let searchTimer = 0;
  $('search').addEventListener('input', () => {
    clearTimeout(searchTimer);
    searchTimer = setTimeout(() => applyFilter($('search').value), 120);
  });
  $('search').addEventListener('keydown', (event) => {
    if (event.key === 'Escape') {
      $('search').value = '';
      applyFilter('');
    } else if (event.key === 'Enter') {
      clearTimeout(searchTimer);
      applyFilter($('search').value);
      const first = state.rows.find((node) => state.marks && state.marks[node.id] & 1);
      if (first) selectElement(first);
    }
  });

  function fieldMatches(node, query) {
    for (const child of node.children || []) {
      if (child.kind !== 'element' && String(child.name).toLowerCase().includes(query)) return true;
    }
    return false;
  }

  function applyFilter(text) {
    const query = text.trim().toLowerCase();
    state.query = query;
    state.filterOpen = new Map();
    const report = state.report;
    if (!report) return;
    if (!query) {
      state.marks = null;
      $('search-count').textContent = '';
    } else {
      const marks = new Uint8Array(report.all.length);
      let count = 0;
      for (const node of report.all) {
        if (node.lowerName.includes(query) || fieldMatches(node, query)) {
          marks[node.id] |= 1;
          count++;
          for (let up = node.parent; up && !(marks[up.id] & 2); up = up.parent) marks[up.id] |= 2;
        }
      }
      state.marks = marks;
      $('search-count').textContent = count === 1 ? '1 box' : `${count} boxes`;
    }
    flattenTree();
    fields.render();
  }

  function clearFilter() {
    $('search').value = '';
    applyFilter('');
  }

  // ---- Selected element ------------------------------------------------------------------

  const fields = new VirtualList($('fields'), 22, renderFieldRow);

  function selectElement(node, options = {}) {
    state.selected = node;
    state.field = null;
    state.fieldIndex = -1;
    state.config = null;
    if (options.reveal !== false) revealInTree(node);
    else tree.render();
    renderElementHead(node);
    fields.host.scrollTop = 0;
    fields.setCount(node.children ? node.children.length : 0);
    updateHex(true);
    updateMapMark();
  }

  function renderElementHead(node) {
    const head = $('element-head');
    head.replaceChildren();
    const path = el('div', 'path');
    const chain = [];
    for (let up = node.parent; up; up = up.parent) chain.unshift(up);
    path.append('/ ');
    for (const up of chain) {
      const link = el('a', '', up.name);
      link.addEventListener('click', () => selectElement(up));
      path.append(link, ' / ');
    }
    const title = el('h2', '', num(node.index) >= 0 ? `${node.name}[${node.index}]` : node.name);
    const facts = el(
      'div',
      'facts',
      `offset ${node.offset} · size ${node.size} bytes` +
        (node.s >= 1024 ? ` (${humanSize(node.size)})` : '') +
        ` · ends at ${node.o + node.s}`);
    head.append(path, title, facts);
    if (node.note) head.append(el('div', 'note', node.note));
    if (node.value) head.append(el('div', 'value', `value: ${node.value}`));
  }

  // The bytes a field covers: bit fields round out to whole bytes.
  function fieldRange(field) {
    const offset = num(field.offset);
    const size = num(field.size);
    if (field.bitField) {
      const bits = num(field.bitOffset) + size;
      return { from: offset, to: offset + Math.max(1, Math.ceil(bits / 8)) };
    }
    return { from: offset, to: offset + size };
  }

  function hexOfRaw(data) {
    const shown = data.length > 96 ? data.slice(0, 96) : data;
    return shown.replace(/(..)(?!$)/g, '$1 ') + (shown.length < data.length ? ' …' : '');
  }

  function renderFieldRow(i) {
    const child = state.selected.children[i];
    const row = el('div', 'frow fields-cols');
    row.dataset.row = i;
    const indexed = num(child.index) >= 0 ? `${child.name}[${child.index}]` : String(child.name);
    if (child.kind === 'element') {
      row.classList.add('element');
      row.append(
        span('num', String(child.offset)),
        span('num', String(child.size)),
        span('fname', `▸ ${indexed}`, 'Show this element'),
        span('fvalue', child.value || ''),
        span('fcomment', child.note || ''));
    } else if (child.kind === 'raw') {
      row.classList.add('raw');
      row.append(
        span('num', String(child.offset)),
        span('num', String(child.size)),
        span('fname', indexed),
        span('fvalue', hexOfRaw(child.data), child.data.length > 96 ? child.data : ''),
        span('fcomment', child.comment || ''));
    } else {
      const offset = span('num', String(child.offset));
      let size = span('num', String(child.size));
      if (child.bitField) {
        const first = num(child.bitOffset);
        const last = first + num(child.size) - 1;
        offset.append(span('bits', ` b${first}–${last}`));
        offset.title = `bits ${first} to ${last}, counted from the most significant bit of byte ${child.offset}`;
        size = span('num', `${child.size} bits`);
      }
      const value = child.extra ? `${child.value} ${child.extra}` : String(child.value);
      row.append(offset, size, span('fname', indexed), span('fvalue', value, value.length > 40 ? value : ''),
        span('fcomment', child.comment || '', child.comment || ''));
    }
    if (i === state.fieldIndex) row.classList.add('selected');
    if (state.query && child.kind !== 'element' && String(child.name).toLowerCase().includes(state.query)) {
      row.classList.add('match');
    }
    return row;
  }

  function selectField(index, options = {}) {
    const child = state.selected.children[index];
    if (!child) return;
    if (child.kind === 'element') {
      selectElement(child);
      return;
    }
    state.fieldIndex = index;
    state.field = fieldRange(child);
    if (options.revealRow) fields.reveal(index);
    fields.render();
    updateHex(false);
    revealHexOffset(state.field.from);
  }

  $('fields').addEventListener('click', (event) => {
    const row = event.target.closest('.frow');
    if (row) selectField(Number(row.dataset.row));
  });
  $('fields').addEventListener('keydown', (event) => {
    if (!state.selected || !state.selected.children) return;
    const count = state.selected.children.length;
    if (event.key === 'ArrowDown') selectField(Math.min(state.fieldIndex + 1, count - 1), { revealRow: true });
    else if (event.key === 'ArrowUp') selectField(Math.max(state.fieldIndex - 1, 0), { revealRow: true });
    else return;
    event.preventDefault();
  });

  // ---- Hex view --------------------------------------------------------------------------

  const hex = new VirtualList($('hex'), 20, renderHexRow);
  let hexSegments = []; // { gap, from, to, firstRow, rowBase, rows, chunk }

  // Splits the selected element's bytes into embedded stretches, shown in rows of 16 at
  // file-aligned offsets, and the stretches that are not embedded, one row each.
  function buildHexSegments(from, to) {
    const segments = [];
    const chunks = state.report.chunks;
    let position = from;
    let row = 0;
    const push = (segment) => {
      segment.firstRow = row;
      row += segment.rows;
      segments.push(segment);
    };
    for (let i = chunkIndexAfter(from); i < chunks.length && position < to; i++) {
      const chunk = chunks[i];
      const start = Math.max(chunk.o, position);
      const end = Math.min(chunk.end, to);
      if (start >= to) break;
      if (start > position) push({ gap: true, from: position, to: start, rows: 1 });
      if (end > start) {
        const rowBase = start - (start % BYTES_PER_ROW);
        push({ gap: false, from: start, to: end, rowBase, rows: Math.ceil((end - rowBase) / BYTES_PER_ROW), chunk });
      }
      position = Math.max(position, end);
    }
    if (position < to) push({ gap: true, from: position, to, rows: 1 });
    hexSegments = segments;
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

  function gapReason(segment) {
    const report = state.report;
    if (report.readError) return 'the file could not be read when the report was written';
    if (report.limitAt !== null && segment.to > report.limitAt) {
      return `past the ${humanSize(report.limit)} of file bytes a report holds`;
    }
    return 'media data and bulk data are not embedded';
  }

  function renderHexRow(i) {
    const segment = segmentOfRow(i);
    const row = el('div', 'hrow');
    if (segment.gap) {
      row.classList.add('gap');
      row.textContent = `⋯ bytes ${segment.from}–${segment.to - 1} (${segment.to - segment.from}) not embedded: ${gapReason(segment)}`;
      return row;
    }
    const base = segment.rowBase + (i - segment.firstRow) * BYTES_PER_ROW;
    const bytes = chunkBytes(segment.chunk);
    const field = state.field;
    const config = state.config;
    const hexCells = el('span', 'hbytes');
    const asciiCells = el('span', 'hascii');
    for (let k = 0; k < BYTES_PER_ROW; k++) {
      const offset = base + k;
      if (offset < segment.from || offset >= segment.to) {
        hexCells.append(span('blank', '  '));
        asciiCells.append(span('blank', ' '));
        continue;
      }
      const value = bytes[offset - segment.chunk.o];
      const byteCell = span('', value.toString(16).padStart(2, '0'));
      byteCell.dataset.offset = offset;
      const charCell = span('', value >= 0x20 && value < 0x7f ? String.fromCharCode(value) : '.');
      if (field && offset >= field.from && offset < field.to) {
        byteCell.className = 'hl';
        charCell.className = 'hl';
      } else if (config && offset >= config.from && offset < config.to) {
        byteCell.className = 'cfg';
        charCell.className = 'cfg';
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
    const from = Math.min(node.o, num(report.fileSize));
    const to = Math.min(node.o + node.s, num(report.fileSize));
    if (rebuild) {
      hex.host.scrollTop = 0;
      hex.setCount(buildHexSegments(from, to));
    } else {
      hex.render();
    }
    let missing = 0;
    for (const segment of hexSegments) if (segment.gap) missing += segment.to - segment.from;
    head.replaceChildren(`Bytes ${from}–${Math.max(from, to - 1)} of ${node.name} (${to - from})`);
    if (node.o + node.s > num(report.fileSize)) head.append(span('omitted', ' · the element reaches past the end of the file'));
    if (missing) head.append(span('omitted', ` · ${missing} of them not embedded in this report`));
    const field = state.field;
    if (field) {
      const child = node.children[state.fieldIndex];
      head.append(` · ${child.name}: bytes ${field.from}–${field.to - 1}`);
      if (!isEmbedded(field.from, field.to)) head.append(span('omitted', ' (not all embedded)'));
    }
  }

  function isEmbedded(from, to) {
    if (to <= from) return true;
    const chunks = state.report.chunks;
    const i = chunkIndexAfter(from);
    return i < chunks.length && chunks[i].o <= from && chunks[i].end >= to;
  }

  function revealHexOffset(offset) {
    for (const segment of hexSegments) {
      if (offset >= segment.from && offset < segment.to) {
        hex.reveal(segment.gap ? segment.firstRow : segment.firstRow + Math.floor((offset - segment.rowBase) / BYTES_PER_ROW));
        return;
      }
    }
  }

  // A click on a byte selects the narrowest field of the element that covers it.
  $('hex').addEventListener('click', (event) => {
    const offset = event.target.dataset && event.target.dataset.offset;
    if (offset === undefined || !state.selected) return;
    const at = Number(offset);
    let best = -1;
    let bestSize = Infinity;
    const children = state.selected.children || [];
    for (let i = 0; i < children.length; i++) {
      const child = children[i];
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

  // ---- Map -------------------------------------------------------------------------------

  const MAP_COLORS = { mdat: '#7d8590', free: '#b3bac1', skip: '#b3bac1', moov: '#1f6feb', ftyp: '#8250df',
    moof: '#1a7f37', uuid: '#bf8700' };
  function colorOf(name) {
    if (MAP_COLORS[name]) return MAP_COLORS[name];
    let hash = 0;
    for (const c of String(name)) hash = (hash * 31 + c.charCodeAt(0)) >>> 0;
    return `hsl(${hash % 360}, 55%, 45%)`;
  }

  let mapGroups = [];
  function renderMap() {
    const bar = $('map-bar');
    bar.replaceChildren();
    mapGroups = [];
    const report = state.report;
    const size = num(report.fileSize);
    if (!report.top || !report.top.length || size <= 0) return;
    // Runs of boxes too narrow to see join into segments of a few pixels.
    const width = bar.clientWidth || 1000;
    const minimum = (3 / width) * size;
    let group = null;
    for (const node of report.top) {
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

  // ---- Streams ---------------------------------------------------------------------------

  const samples = new VirtualList($('samples'), 22, renderSampleRow);

  function prepareStream(stream) {
    if (stream.prepared) return stream;
    const list = stream.samples || [];
    const n = list.length;
    stream.sizes = new Float64Array(n);
    stream.dts = new Float64Array(n);
    stream.keys = new Uint8Array(n);
    stream.keyCount = 0;
    let total = 0;
    let maxSize = 0;
    let ordered = true;
    for (let i = 0; i < n; i++) {
      const sample = list[i];
      const size = num(sample.size);
      stream.sizes[i] = size;
      stream.dts[i] = num(sample.dts);
      if (i && stream.dts[i] < stream.dts[i - 1]) ordered = false;
      stream.keys[i] = num(sample.keyFrame) ? 1 : 0;
      stream.keyCount += stream.keys[i];
      total += size;
      if (size > maxSize) maxSize = size;
    }
    stream.total = total;
    stream.maxSize = maxSize;
    // Decode times that do not rise give no time axis: the samples are spread by number.
    const first = n ? stream.dts[0] : 0;
    const last = n ? stream.dts[n - 1] + num(list[n - 1].duration) : 0;
    stream.byTime = ordered && n > 0 && last > first;
    stream.xMin = stream.byTime ? first : 0;
    stream.xMax = stream.byTime ? last : Math.max(n, 1);
    stream.selected = -1;
    stream.prepared = true;
    return stream;
  }

  function showStream(index) {
    const stream = prepareStream(state.report.streams[index]);
    state.stream = stream;
    const facts = $('stream-facts');
    facts.replaceChildren();
    const addFact = (label, value) => {
      const row = el('tr');
      const cell = el('td');
      cell.append(value);
      row.append(el('th', '', label), cell);
      facts.append(row);
    };
    const codec = stream.codecName;
    addFact('Stream', String(stream.index));
    addFact('Codec', codec ? `${codec} (${stream.codecId})` : `unknown (${stream.codecId})`);
    addFact('Width', `${stream.width} px`);
    addFact('Height', `${stream.height} px`);
    if (num(stream.configSize) > 0) {
      const link = el('a', '', `@${stream.configOffset}, ${stream.configSize} bytes`);
      link.title = 'Show the codec configuration in its box';
      link.addEventListener('click', () => showConfig(stream));
      addFact('Configuration', link);
    } else {
      addFact('Configuration', 'none');
    }
    const count = stream.samples ? stream.samples.length : 0;
    addFact('Samples', `${count} (${stream.keyCount} key frame${stream.keyCount === 1 ? '' : 's'})`);
    addFact('Sample bytes', `${stream.total} (${humanSize(stream.total)}), largest ${stream.maxSize}`);
    if (stream.byTime) addFact('Decode time', `${stream.xMin} to ${stream.xMax} (track time units)`);
    // The facts of deep analysis.
    const deep = stream.trackId !== undefined;
    if (deep) {
      addFact('Track', `${stream.trackId}, handler ${stream.handlerType || 'not known'}`);
      addFact('Sample entry', stream.sampleEntry || 'none');
      addFact('Time scale', stream.timescale === null ? 'not known' : `${stream.timescale} per second`);
      addFact('Duration', `${stream.duration} (track time units)`);
      addFact('Language', stream.language || 'not given');
      if (stream.channelCount !== undefined) {
        addFact('Sound', `${stream.channelCount} channel${stream.channelCount === 1 ? '' : 's'}, ${stream.sampleRate} Hz`);
      }
    }
    $('samples-pane').classList.toggle('deep', deep);
    $('samples-title').textContent = `Samples of stream ${stream.index}`;
    $('sample-jump').max = Math.max(0, count - 1);
    samples.host.scrollTop = 0;
    samples.setCount(count);
    drawChart();
  }

  // Shows the codec configuration's bytes inside the deepest element that holds them.
  function showConfig(stream) {
    const from = num(stream.configOffset);
    const to = from + num(stream.configSize);
    let best = null;
    for (const node of state.report.all) {
      if (node.o <= from && node.o + node.s >= to && (!best || node.s <= best.s)) best = node;
    }
    showTab('boxes');
    if (!best) return;
    selectElement(best);
    state.config = { from, to };
    updateHex(false);
    revealHexOffset(from);
  }

  function renderSampleRow(i) {
    const stream = state.stream;
    const sample = stream.samples[i];
    const key = num(sample.keyFrame) !== 0;
    const row = el('div', `srow samples-cols${key ? ' key' : ''}`);
    row.dataset.row = i;
    row.append(
      span('num', String(sample.index)),
      span('num', String(sample.offset)),
      span('num', String(sample.size)),
      span('num', String(sample.dts)),
      span('num', String(sample.pts)),
      span('num', String(sample.duration)),
      span('', key ? 'key' : ''));
    if (sample.presentationTime !== undefined) {
      const from = sample.moof !== undefined ? `moof ${sample.moof}` : `chunk ${sample.chunk}`;
      row.append(
        span('num', sample.presentationTime === null ? '-' : String(sample.presentationTime)),
        span('', from));
    }
    if (i === stream.selected) row.classList.add('selected');
    return row;
  }

  function selectSample(i) {
    const stream = state.stream;
    const count = stream.samples.length;
    if (!count) return;
    stream.selected = Math.max(0, Math.min(count - 1, i));
    samples.reveal(stream.selected);
    samples.render();
    drawChart();
  }

  $('samples').addEventListener('click', (event) => {
    const row = event.target.closest('.srow');
    if (row) selectSample(Number(row.dataset.row));
  });
  $('samples').addEventListener('keydown', (event) => {
    const stream = state.stream;
    if (!stream) return;
    const page = Math.max(1, Math.floor(samples.host.clientHeight / 22) - 1);
    const moves = { ArrowDown: 1, ArrowUp: -1, PageDown: page, PageUp: -page };
    if (event.key in moves) selectSample(stream.selected + moves[event.key]);
    else if (event.key === 'Home') selectSample(0);
    else if (event.key === 'End') selectSample(stream.samples.length - 1);
    else return;
    event.preventDefault();
  });
  $('sample-jump').addEventListener('change', () => {
    const value = Number($('sample-jump').value);
    if (Number.isFinite(value)) selectSample(Math.floor(value));
  });

  // ---- Chart -----------------------------------------------------------------------------

  const CHART = { left: 64, right: 12, top: 14, bottom: 34 };
  const chart = $('chart');

  function cssColor(name) {
    return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
  }

  function niceStep(range, ticks) {
    const raw = range / ticks;
    const power = 10 ** Math.floor(Math.log10(raw || 1));
    const step = [1, 2, 5, 10].map((f) => f * power).find((s) => raw <= s);
    return step || power * 10;
  }

  function sampleX(stream, i) {
    return stream.byTime ? stream.dts[i] : i;
  }

  // Sizes over decode time. Each pixel column shows the largest other sample that falls in
  // it as a bar, and its largest key frame as a dot at its size with a tick above the plot,
  // so that dense key frames hide neither each other nor the bars.
  function drawChart() {
    const stream = state.stream;
    if (!stream || state.tab === 'boxes') return;
    const ratio = window.devicePixelRatio || 1;
    const cssWidth = chart.clientWidth;
    const cssHeight = chart.clientHeight;
    chart.width = Math.round(cssWidth * ratio);
    chart.height = Math.round(cssHeight * ratio);
    const g = chart.getContext('2d');
    g.setTransform(ratio, 0, 0, ratio, 0, 0);
    g.clearRect(0, 0, cssWidth, cssHeight);
    const plotWidth = Math.max(1, cssWidth - CHART.left - CHART.right);
    const plotHeight = Math.max(1, cssHeight - CHART.top - CHART.bottom);
    const n = stream.sizes.length;
    const log = $('chart-log').checked;
    const scaled = log ? (y) => Math.log10(1 + y) : (y) => y;
    const yMax = scaled(stream.maxSize || 1) || 1;
    const xSpan = stream.xMax - stream.xMin || 1;
    const toX = (x) => CHART.left + ((x - stream.xMin) / xSpan) * plotWidth;
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
      for (let y = 1; y <= stream.maxSize; y *= 10) yTicks.push(y);
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
    for (let x = Math.ceil(stream.xMin / xStep) * xStep; x <= stream.xMax; x += xStep) {
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
    g.fillText(stream.byTime ? 'decode time' : 'sample number', CHART.left + plotWidth, CHART.top + plotHeight + 20);

    if (!n) {
      g.textAlign = 'center';
      g.fillText('This stream has no samples.', CHART.left + plotWidth / 2, CHART.top + plotHeight / 2);
      return;
    }
    const columns = Math.ceil(plotWidth);
    const frames = new Float64Array(columns);
    const keys = new Float64Array(columns);
    for (let i = 0; i < n; i++) {
      const column = Math.min(columns - 1, Math.max(0, Math.floor(toX(sampleX(stream, i)) - CHART.left)));
      const target = stream.keys[i] ? keys : frames;
      if (stream.sizes[i] > target[column]) target[column] = stream.sizes[i];
    }
    // Few samples get bars wider than a pixel.
    const barWidth = Math.max(1, Math.min(12, Math.floor(plotWidth / n) - 1));
    const base = CHART.top + plotHeight;
    g.fillStyle = cssColor('--frame');
    for (let c = 0; c < columns; c++) {
      if (!frames[c]) continue;
      const top = toY(frames[c]);
      g.fillRect(CHART.left + c, top, barWidth, Math.max(1, base - top));
    }
    g.fillStyle = cssColor('--key');
    const dot = Math.max(3, Math.min(barWidth, 8));
    for (let c = 0; c < columns; c++) {
      if (!keys[c]) continue;
      const x = CHART.left + c;
      if (barWidth > 3) {
        const top = toY(keys[c]);
        g.fillRect(x, top, barWidth, Math.max(1, base - top));
      } else {
        g.fillRect(x - 1, toY(keys[c]) - 1, dot, dot);
      }
      g.fillRect(x, CHART.top - 8, 1, 6);
    }
    if (stream.selected >= 0) {
      const x = Math.round(toX(sampleX(stream, stream.selected))) + 0.5;
      g.strokeStyle = cssColor('--fg');
      g.setLineDash([3, 3]);
      g.beginPath();
      g.moveTo(x, CHART.top);
      g.lineTo(x, base);
      g.stroke();
      g.setLineDash([]);
    }
  }

  // The sample nearest to a point of the chart.
  function sampleAt(clientX) {
    const stream = state.stream;
    const n = stream.sizes.length;
    if (!n) return -1;
    const rect = chart.getBoundingClientRect();
    const plotWidth = Math.max(1, rect.width - CHART.left - CHART.right);
    const x = stream.xMin + ((clientX - rect.left - CHART.left) / plotWidth) * (stream.xMax - stream.xMin);
    if (!stream.byTime) return Math.max(0, Math.min(n - 1, Math.floor(x)));
    let low = 0;
    let high = n - 1;
    while (low < high) {
      const mid = (low + high + 1) >> 1;
      if (stream.dts[mid] <= x) low = mid;
      else high = mid - 1;
    }
    return low;
  }

  chart.addEventListener('mousemove', (event) => {
    if (!state.stream) return;
    const i = sampleAt(event.clientX);
    if (i < 0) return hideTip();
    const sample = state.stream.samples[i];
    showTip(
      `sample ${sample.index}${num(sample.keyFrame) ? ' (key frame)' : ''}\n` +
        `size ${sample.size} bytes\ndts ${sample.dts}  pts ${sample.pts}\noffset ${sample.offset}`,
      event.clientX,
      event.clientY);
  });
  chart.addEventListener('mouseleave', hideTip);
  $('chart-log').addEventListener('change', drawChart);
  chart.addEventListener('click', (event) => {
    if (state.stream) selectSample(sampleAt(event.clientX));
  });
  new ResizeObserver(() => {
    drawChart();
    if (state.report) renderMap();
  }).observe(document.body);

  // ---- Tabs and reports ------------------------------------------------------------------

  function showTab(tab) {
    state.tab = tab;
    for (const button of $('tabs').children) button.setAttribute('aria-selected', String(button.dataset.tab === tab));
    $('boxes-view').hidden = tab !== 'boxes';
    $('stream-view').hidden = tab === 'boxes';
    if (tab === 'boxes') {
      tree.render();
      fields.render();
      hex.render();
    } else {
      showStream(Number(tab));
    }
  }

  function buildTabs(report) {
    const tabs = $('tabs');
    tabs.replaceChildren();
    const add = (tab, text) => {
      const button = el('button', '', text);
      button.dataset.tab = tab;
      button.setAttribute('role', 'tab');
      button.addEventListener('click', () => showTab(tab));
      tabs.append(button);
    };
    add('boxes', `Boxes (${report.all.length})`);
    (report.streams || []).forEach((stream, i) => {
      const codec = stream.codecName || 'unknown codec';
      const count = stream.samples ? stream.samples.length : 0;
      const picture = stream.width || stream.height ? ` ${stream.width}×${stream.height}` : '';
      add(String(i), `Stream ${stream.index}: ${codec}${picture}, ${count} samples`);
    });
  }

  function showMessage(html) {
    $('boxes-view').hidden = true;
    $('stream-view').hidden = true;
    $('loading').hidden = true;
    const view = $('message-view');
    view.hidden = false;
    view.replaceChildren(...html);
  }

  function loadReport(index) {
    let report = reports[index];
    if (!report) {
      try {
        report = prepareReport(parseDocument(scripts[index].textContent));
      } catch (error) {
        showMessage([el('div', 'error', `This report cannot be read: ${error.message}`)]);
        return;
      }
      reports[index] = report;
    }
    state.report = report;
    state.selected = null;
    state.fieldIndex = -1;
    fields.setCount(0);
    hex.setCount(0);
    state.field = null;
    state.config = null;
    state.stream = null;
    document.title = `${report.file} · sarvelinth`;
    $('file-name').textContent = report.file;
    if (report.error !== undefined) {
      $('file-facts').textContent = '';
      $('tabs').replaceChildren();
      $('map-bar').replaceChildren();
      $('map-mark').hidden = true;
      showMessage([el('div', 'error', `${report.file}: ${report.error}`), el('p', '', 'This file has no report.')]);
      return;
    }
    $('file-facts').textContent = `${report.fileSize} bytes (${humanSize(report.fileSize)}) · ${report.container}`;
    $('message-view').hidden = true;
    $('loading').hidden = true;
    buildTabs(report);
    showTab('boxes');
    applyFilter($('search').value);
    renderMap();
    if (report.top.length) selectElement(report.top[0]);
    else showMessage([el('p', '', 'The report has no elements.')]);
  }

  function start() {
    if (!scripts.length) {
      showMessage([el('p', '', 'This page holds no report.')]);
      return;
    }
    const select = $('file-select');
    if (scripts.length > 1) {
      select.hidden = false;
      scripts.forEach((script, i) => {
        // Only the file name is needed for the list: it comes first in every document.
        const match = /^\{"file":("(?:[^"\\]|\\.)*")/.exec(script.textContent.slice(0, 4096));
        const option = el('option', '', match ? JSON.parse(match[1]) : `report ${i + 1}`);
        option.value = i;
        select.append(option);
      });
      select.addEventListener('change', () => loadReport(Number(select.value)));
    }
    loadReport(0);
  }

  // Lets the page paint its frame before a large report is parsed.
  requestAnimationFrame(() => setTimeout(start, 0));
})();
