'use strict';
// The viewer of sarvelinth's reports: the box tree, the selected element's fields and bytes,
// a map of the file and the streams with their samples, one file at a time. It reads the
// reports through a source: the JSON documents in the page itself (script elements of type
// application/json and class report, the page of --format html), or the server of --serve
// (a script element with id "served" names its API), which answers each question with the
// piece that is shown. Lists that can grow to millions of rows (tree, fields, hex, samples)
// render only the rows in view and ask for them page by page.
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

  // ---- Paged rows ------------------------------------------------------------------------

  // The rows of a long list, asked for a page at a time: get() gives a row that is there
  // and asks for the page of one that is not, then calls onLoad. Only the latest pages are
  // kept when maxPages is given. A list given whole is simply read.
  const PAGE = 200;
  class PagedRows {
    constructor(count, load, onLoad, options = {}) {
      this.count = count;
      this.load = load; // (from, count) => Promise of the rows
      this.onLoad = onLoad;
      this.whole = options.whole || null;
      this.maxPages = options.maxPages || Infinity;
      this.pages = new Map();
      this.pending = new Map();
    }

    get(i) {
      if (this.whole) return this.whole[i];
      if (i < 0 || i >= this.count) return undefined;
      const page = Math.floor(i / PAGE);
      const rows = this.pages.get(page);
      if (rows) {
        // The most recent pages stay, so a page in use is last in the map.
        if (this.maxPages !== Infinity) {
          this.pages.delete(page);
          this.pages.set(page, rows);
        }
        return rows[i - page * PAGE];
      }
      this.request(page);
      return undefined;
    }

    // The row if it is there, without asking for it.
    peek(i) {
      if (this.whole) return this.whole[i];
      const rows = this.pages.get(Math.floor(i / PAGE));
      return rows ? rows[i % PAGE] : undefined;
    }

    // All rows there are, for searches among them.
    loaded() {
      if (this.whole) return this.whole.map((row, i) => [i, row]);
      const rows = [];
      for (const [page, list] of this.pages) list.forEach((row, k) => rows.push([page * PAGE + k, row]));
      return rows;
    }

    // The row once it is there.
    fetch(i) {
      const row = this.get(i);
      if (row !== undefined || i < 0 || i >= this.count) return Promise.resolve(row);
      const page = Math.floor(i / PAGE);
      return this.request(page).then(() => this.get(i));
    }

    request(page) {
      if (this.pending.has(page)) return this.pending.get(page);
      const from = page * PAGE;
      const promise = this.load(from, Math.min(PAGE, this.count - from)).then((rows) => {
        this.pending.delete(page);
        this.pages.set(page, rows);
        while (this.pages.size > this.maxPages) this.pages.delete(this.pages.keys().next().value);
        this.onLoad();
      }, (error) => {
        this.pending.delete(page);
        reportProblem(error);
      });
      this.pending.set(page, promise);
      return promise;
    }
  }

  // ---- Nodes -----------------------------------------------------------------------------

  // An element of the tree: its facts, its parent, and its child elements (kids) and all
  // its children (items) as paged rows, made when first asked for.
  function prepareNode(report, node, parent) {
    node.parent = parent;
    node.depth = parent ? parent.depth + 1 : 0;
    node.o = num(node.offset);
    node.s = num(node.size);
    node.lowerName = String(node.name).toLowerCase();
    node.open = false;
    report.nodes.set(node.id, node);
    return node;
  }

  // ---- The report in the page ------------------------------------------------------------

  // The documents of --format html: each is read whole when its file is first shown, and
  // every question is answered from it at once.
  class PageSource {
    constructor(scripts) {
      this.scripts = scripts;
    }

    list() {
      return Promise.resolve(this.scripts.map((script, i) => {
        // Only the file name is needed for the list: it comes first in every document.
        const match = /^\{"file":("(?:[^"\\]|\\.)*")/.exec(script.textContent.slice(0, 4096));
        return match ? JSON.parse(match[1]) : `report ${i + 1}`;
      }));
    }

    open(index) {
      const report = parseDocument(this.scripts[index].textContent);
      report.nodes = new Map();
      report.all = [];
      report.root = prepareNode(report, { id: 0, name: report.file, offset: 0, size: report.fileSize || 0 }, null);
      report.root.depth = 0;
      report.root.children = report.elements || [];
      // Every element gets an id in document order and its parent, without recursion, since
      // nesting depth is the file's.
      const stack = [[report.root, 0]];
      while (stack.length) {
        const [node, at] = stack.pop();
        const children = node.children || [];
        for (let i = at; i < children.length; i++) {
          const child = children[i];
          if (child.kind !== 'element') continue;
          child.id = report.all.length + 1;
          report.all.push(child);
          prepareNode(report, child, node);
          stack.push([node, i + 1], [child, 0]);
          break;
        }
      }
      for (const node of [report.root, ...report.all]) {
        const children = node.children || [];
        const kids = children.filter((child) => child.kind === 'element');
        kids.forEach((kid, k) => {
          kid.position = k;
        });
        node.kidCount = kids.length;
        node.childCount = children.length;
        node.kids = new PagedRows(kids.length, null, null, { whole: kids });
        node.items = new PagedRows(children.length, null, null, { whole: children });
      }
      report.topCount = report.root.kidCount;
      report.elementCount = report.all.length;
      report.streams = (report.streams || []).map(prepareStream);
      for (const stream of report.streams) stream.rows = new PagedRows(stream.sampleCount, null, null, { whole: stream.samples || [] });
      if (report.problems) {
        report.problemCount = report.problems.length;
        report.errorCount = report.problems.filter((problem) => problem.severity === 'error').length;
        report.problemRows = new PagedRows(report.problemCount, null, null, { whole: report.problems });
      }
      report.bytes = new PageBytes(report);
      return Promise.resolve(report);
    }

    locate(report, stream, x) {
      if (!stream.byTime) return Promise.resolve(Math.max(0, Math.min(stream.sampleCount, Math.ceil(x))));
      let low = 0;
      let high = stream.sampleCount;
      while (low < high) {
        const mid = (low + high) >> 1;
        if (stream.dts[mid] < x) low = mid + 1;
        else high = mid;
      }
      return Promise.resolve(low);
    }

    // The same columns as the server's: for each, its first sample and count, its key
    // frames, and the smallest and largest size of key frames and of other samples.
    chart(report, stream, x0, x1, columns) {
      const result = { first: [], count: [], keys: [], frameMin: [], frameMax: [], keyMin: [], keyMax: [] };
      for (const list of Object.values(result)) for (let c = 0; c < columns; c++) list.push(0);
      const n = stream.sampleCount;
      const span = x1 - x0;
      for (let i = 0; i < n; i++) {
        const x = stream.byTime ? stream.dts[i] : i;
        if (x < x0 || x > x1) continue;
        const c = Math.min(columns - 1, Math.max(0, Math.floor(((x - x0) / span) * columns)));
        const size = stream.sizes[i];
        if (!result.count[c]++) result.first[c] = i;
        const key = stream.keys[i];
        if (key) result.keys[c]++;
        const [min, max] = key ? ['keyMin', 'keyMax'] : ['frameMin', 'frameMax'];
        const counted = key ? result.keys[c] : result.count[c] - result.keys[c];
        if (counted === 1 || size < result[min][c]) result[min][c] = size;
        if (size > result[max][c]) result[max][c] = size;
      }
      return Promise.resolve(result);
    }

    search(report, query) {
      const matches = [];
      const shown = new Set();
      for (const node of report.all) {
        if (node.lowerName.includes(query) || fieldMatches(node, query)) {
          matches.push(node);
          for (let up = node; up && up !== report.root && !shown.has(up); up = up.parent) shown.add(up);
        }
      }
      return Promise.resolve({ count: matches.length, matches, nodes: report.all.filter((node) => shown.has(node)) });
    }

    // The deepest element that holds the bytes.
    pathTo(report, from, to) {
      let best = null;
      for (const node of report.all) {
        if (node.o <= from && node.o + node.s >= to && (!best || node.s <= best.s)) best = node;
      }
      const path = [];
      for (let up = best; up && up !== report.root; up = up.parent) path.unshift(up);
      return Promise.resolve(path);
    }
  }

  function fieldMatches(node, query) {
    for (const child of node.children || []) {
      if (child.kind !== 'element' && String(child.name).toLowerCase().includes(query)) return true;
    }
    return false;
  }

  // The bytes a page carries: base64 stretches of the file, decoded when first shown.
  class PageBytes {
    constructor(report) {
      const embedded = report.embeddedBytes || { ranges: [] };
      this.chunks = (embedded.ranges || [])
        .map((range) => ({ o: num(range.offset), data: range.data, bytes: null }))
        .sort((a, b) => a.o - b.o);
      for (const chunk of this.chunks) chunk.end = chunk.o + (chunk.data.length * 3) / 4 - padding(chunk.data);
      this.limitAt = embedded.limitReachedAt == null ? null : num(embedded.limitReachedAt);
      this.limit = embedded.limit;
      this.readError = embedded.readError || '';
    }

    // The stretches from `from` to `to`: those the page holds, and gaps with the reason.
    segments(from, to) {
      const segments = [];
      let position = from;
      for (let i = this.chunkIndexAfter(from); i < this.chunks.length && position < to; i++) {
        const chunk = this.chunks[i];
        const start = Math.max(chunk.o, position);
        const end = Math.min(chunk.end, to);
        if (start >= to) break;
        if (start > position) segments.push({ gap: this.gapReason(start), from: position, to: start });
        if (end > start) segments.push({ gap: null, from: start, to: end });
        position = Math.max(position, end);
      }
      if (position < to) segments.push({ gap: this.gapReason(to), from: position, to });
      return segments;
    }

    gapReason(end) {
      if (this.readError) return 'not embedded: the file could not be read when the report was written';
      if (this.limitAt !== null && end > this.limitAt) return `not embedded: past the ${humanSize(this.limit)} of file bytes a report holds`;
      return 'not embedded: media data and bulk data are not embedded';
    }

    get(offset) {
      const i = this.chunkIndexAfter(offset);
      const chunk = this.chunks[i];
      if (!chunk || chunk.o > offset) return undefined;
      return chunkBytes(chunk)[offset - chunk.o];
    }

    // The first chunk that ends after offset.
    chunkIndexAfter(offset) {
      const chunks = this.chunks;
      let low = 0;
      let high = chunks.length;
      while (low < high) {
        const mid = (low + high) >> 1;
        if (chunks[mid].end <= offset) low = mid + 1;
        else high = mid;
      }
      return low;
    }
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

  function decodeBase64(data) {
    const text = atob(data);
    const bytes = new Uint8Array(text.length);
    for (let i = 0; i < text.length; i++) bytes[i] = text.charCodeAt(i);
    return bytes;
  }

  // Sizes, times and key frames of a stream the page holds, for its chart.
  function prepareStream(stream) {
    const list = stream.samples || [];
    const n = list.length;
    stream.sizes = new Float64Array(n);
    stream.dts = new Float64Array(n);
    stream.keys = new Uint8Array(n);
    let keyCount = 0;
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
      keyCount += stream.keys[i];
      total += size;
      if (size > maxSize) maxSize = size;
    }
    stream.sampleCount = n;
    stream.keyCount = keyCount;
    stream.totalSize = total;
    stream.maxSize = maxSize;
    // Decode times that do not rise give no time axis: the samples are spread by number.
    const first = n ? stream.dts[0] : 0;
    const last = n ? stream.dts[n - 1] + num(list[n - 1].duration) : 0;
    stream.byTime = ordered && n > 0 && last > first;
    stream.xMin = stream.byTime ? first : 0;
    stream.xMax = stream.byTime ? last : Math.max(n, 1);
    return stream;
  }

  // ---- The report of a server ------------------------------------------------------------

  // The server of --serve (docs/serve-api.md): every question is a request.
  class ServerSource {
    constructor(api) {
      this.api = api;
    }

    get(path) {
      return fetch(this.api + path).then((response) =>
        response.text().then((text) => {
          const body = parseDocument(text);
          if (!response.ok) throw new Error(body.error || `${response.status} ${response.statusText}`);
          return body;
        }));
    }

    list() {
      return this.get('/files').then((answer) => {
        this.files = answer.files;
        return answer.files.map((file) => file.file);
      });
    }

    open(index) {
      const report = Object.assign({}, this.files[index]);
      if (report.error !== undefined) return Promise.resolve(report);
      const base = `/files/${index}`;
      report.base = base;
      report.nodes = new Map();
      report.root = this.node(report, { id: 0, name: report.file, offset: 0, size: report.fileSize, kidCount: report.topCount, childCount: report.topCount });
      report.streams = report.streams.map((stream, s) => {
        stream.rows = new PagedRows(num(stream.sampleCount), (from, count) =>
          this.get(`${base}/streams/${s}/samples?from=${from}&count=${count}`).then((answer) => answer.samples),
        () => samples.render(), { maxPages: 100 });
        stream.number = s;
        return stream;
      });
      if (report.coverage) {
        report.problemCount = num(report.problemCount);
        report.errorCount = num(report.errorCount);
        report.problemRows = new PagedRows(report.problemCount, (from, count) =>
          this.get(`${base}/problems?from=${from}&count=${count}`).then((answer) => answer.problems),
        () => problemList.render());
      }
      report.bytes = new ServedBytes(this, report);
      return Promise.resolve(report);
    }

    // The node of an element record, made once per id.
    node(report, record, parent) {
      const known = report.nodes.get(record.id);
      if (known) return known;
      const node = prepareNode(report, record, parent === undefined ? report.nodes.get(record.parent) || null : parent);
      const base = `${report.base}/nodes/${node.id}`;
      node.kidCount = num(node.kidCount);
      node.childCount = num(node.childCount);
      node.kids = new PagedRows(node.kidCount, (from, count) =>
        this.get(`${base}/elements?from=${from}&count=${count}`).then((answer) =>
          answer.elements.map((kid) => this.node(report, kid, node))),
      () => flattenTree());
      node.items = new PagedRows(node.childCount, (from, count) =>
        this.get(`${base}/children?from=${from}&count=${count}`).then((answer) =>
          answer.children.map((child) => (child.kind === 'element' ? this.node(report, child, node) : child))),
      () => {
        if (state.selected === node) {
          fields.render();
          updateHex(false);
        }
      });
      return node;
    }

    locate(report, stream, x) {
      return this.get(`${report.base}/streams/${stream.number}/locate?x=${Math.round(x)}`).then((answer) => num(answer.index));
    }

    chart(report, stream, x0, x1, columns) {
      return this.get(`${report.base}/streams/${stream.number}/chart?from=${Math.floor(x0)}&to=${Math.ceil(x1)}&columns=${columns}`)
        .then((answer) => {
          for (const key of ['frameMin', 'frameMax', 'keyMin', 'keyMax']) answer[key] = answer[key].map(num);
          return answer;
        });
    }

    search(report, query) {
      return this.get(`${report.base}/search?q=${encodeURIComponent(query)}&limit=1000`).then((answer) => {
        const nodes = answer.elements.map((record) => this.node(report, record));
        return { count: num(answer.count), matches: answer.matches.map((id) => report.nodes.get(id)), nodes };
      });
    }

    pathTo(report, from, to) {
      return this.get(`${report.base}/path?offset=${from}&size=${to - from}`).then((answer) => {
        let parent = report.root;
        return answer.elements.map((record) => (parent = this.node(report, record, parent)));
      });
    }
  }

  // The bytes of a served file, asked for in blocks as the hex view shows them.
  const BYTE_BLOCK = 4096;
  class ServedBytes {
    constructor(source, report) {
      this.source = source;
      this.report = report;
      this.blocks = new Map();
      this.pending = new Set();
    }

    segments(from, to) {
      return to > from ? [{ gap: null, from, to }] : [];
    }

    get(offset) {
      const block = Math.floor(offset / BYTE_BLOCK);
      const bytes = this.blocks.get(block);
      if (bytes) return bytes[offset - block * BYTE_BLOCK];
      if (this.pending.has(block)) return undefined;
      this.pending.add(block);
      this.source.get(`${this.report.base}/bytes?offset=${block * BYTE_BLOCK}&size=${BYTE_BLOCK}`).then((answer) => {
        this.pending.delete(block);
        this.blocks.set(block, decodeBase64(answer.data));
        // A few hundred blocks are kept, the oldest go.
        while (this.blocks.size > 256) this.blocks.delete(this.blocks.keys().next().value);
        hex.render();
      }, reportProblem);
      return undefined;
    }
  }

  function showStatus(text) {
    $('status').textContent = text;
    $('status').hidden = !text;
  }
  function reportProblem(error) {
    showStatus(`The server did not answer: ${error.message}`);
  }

  // ---- State -----------------------------------------------------------------------------

  const state = {
    source: null,
    report: null,
    selected: null, // element
    field: null, // bytes of the selected field: { from, to }
    fieldIndex: -1,
    mark: null, // bytes shown in the hex view for a stream, a sample or a problem: { from, to }
    problem: -1, // the selected problem
    // The filter: its query, marks per element id (1 matches, 2 leads to a match), the
    // elements shown below each element, and open states of its own.
    filter: null,
    rows: [], // visible tree rows: elements, or { placeholder: parent, index } not yet there
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
    const filter = state.filter;
    if (!filter) return node.open;
    const open = filter.open.get(node.id);
    return open === undefined ? (filter.marks.get(node.id) & 2) !== 0 : open;
  }

  function flattenTree() {
    const rows = [];
    const filter = state.filter;
    const visit = (node, onlyMarked) => {
      if (onlyMarked) {
        for (const kid of filter.kids.get(node.id) || []) {
          rows.push(kid);
          if (kid.kidCount && isExpanded(kid)) visit(kid, (filter.marks.get(kid.id) & 2) !== 0);
        }
        return;
      }
      for (let i = 0; i < node.kidCount; i++) {
        const kid = node.kids.peek(i);
        if (!kid) {
          rows.push({ placeholder: node, index: i, depth: node.depth + 1 });
          continue;
        }
        rows.push(kid);
        if (kid.kidCount && isExpanded(kid)) visit(kid, filter ? (filter.marks.get(kid.id) & 2) !== 0 : false);
      }
    };
    const report = state.report;
    if (report && report.root) visit(report.root, !!filter);
    state.rows = rows;
    tree.setCount(rows.length);
    if (report && report.root && report.root.kids.loaded().length !== mapCount) renderMap();
  }

  function renderTreeRow(i) {
    let node = state.rows[i];
    const row = el('div', 'trow');
    row.dataset.row = i;
    row.setAttribute('role', 'treeitem');
    row.style.paddingLeft = `${6 + (node.depth - 1) * 16}px`;
    if (node.placeholder) {
      // Asks for the page of the element; the tree is made again when it comes.
      const kid = node.placeholder.kids.get(node.index);
      if (!kid) {
        row.classList.add('loading');
        row.append(span('twist', ''), span('tname', '…'));
        return row;
      }
      node = kid;
    }
    const filter = state.filter;
    const expanded = isExpanded(node);
    const twist = span('twist', node.kidCount ? (expanded ? '▾' : '▸') : '');
    if (node.kidCount) row.setAttribute('aria-expanded', expanded ? 'true' : 'false');
    row.append(twist, span('tname', node.name));
    if (num(node.index) >= 0) row.append(span('tindex', `[${node.index}]`));
    row.append(span('tat', `@${node.offset}`), span('tsize', `${node.size} bytes`));
    if (node.note) row.append(span('tnote', node.note, node.note));
    if (node === state.selected) row.classList.add('selected');
    if (filter && filter.marks.get(node.id) & 1) row.classList.add('match');
    return row;
  }

  function rowNode(i) {
    const row = state.rows[i];
    return row && row.placeholder ? row.placeholder.kids.peek(row.index) : row;
  }

  function toggle(node) {
    if (!node.kidCount) return;
    if (state.filter) state.filter.open.set(node.id, !isExpanded(node));
    else node.open = !node.open;
    flattenTree();
  }

  // Opens the path to node and shows it in the tree; the filter goes when it hides node.
  function revealInTree(node) {
    for (let up = node.parent; up && up.parent; up = up.parent) {
      if (state.filter) state.filter.open.set(up.id, true);
      else up.open = true;
    }
    flattenTree();
    const shown = (row) => row === node || (row.placeholder === node.parent && row.index === num(node.position));
    let index = state.rows.findIndex(shown);
    if (index < 0 && state.filter) {
      clearFilter();
      revealInTree(node);
      return;
    }
    if (index >= 0) tree.reveal(index);
  }

  $('tree').addEventListener('click', (event) => {
    const row = event.target.closest('.trow');
    if (!row) return;
    const node = rowNode(Number(row.dataset.row));
    if (!node) return;
    if (event.target.classList.contains('twist')) toggle(node);
    else selectElement(node, { reveal: false });
  });
  $('tree').addEventListener('dblclick', (event) => {
    const row = event.target.closest('.trow');
    const node = row && rowNode(Number(row.dataset.row));
    if (node && !event.target.classList.contains('twist')) toggle(node);
  });
  $('tree').addEventListener('keydown', (event) => {
    const node = state.selected;
    const index = node ? state.rows.indexOf(node) : -1;
    let next = null;
    switch (event.key) {
      case 'ArrowDown':
        next = rowNode(Math.min(index + 1, state.rows.length - 1));
        break;
      case 'ArrowUp':
        next = rowNode(Math.max(index - 1, 0));
        break;
      case 'ArrowRight':
        if (node && node.kidCount && !isExpanded(node)) toggle(node);
        else if (node && node.kidCount) next = node.kids.get(0);
        break;
      case 'ArrowLeft':
        if (node && node.kidCount && isExpanded(node)) toggle(node);
        else if (node && node.parent && node.parent.parent) next = node.parent;
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

  // ---- Filter ----------------------------------------------------------------------------

  let searchTimer = 0;
  let searchSerial = 0;
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
      applyFilter($('search').value).then(() => {
        const first = state.rows.find((row) => state.filter && state.filter.marks.get(row.id) & 1);
        if (first) selectElement(first);
      });
    }
  });

  // Asks the source for the elements whose type or field names hold the text, and shows
  // them with the elements that lead to them.
  function applyFilter(text) {
    const query = text.trim().toLowerCase();
    const serial = ++searchSerial;
    const report = state.report;
    if (!report || !report.root) return Promise.resolve();
    if (!query) {
      state.filter = null;
      $('search-count').textContent = '';
      flattenTree();
      fields.render();
      return Promise.resolve();
    }
    return state.source.search(report, query).then((result) => {
      if (serial !== searchSerial || state.report !== report) return;
      const marks = new Map();
      const kids = new Map();
      for (const node of result.matches) marks.set(node.id, 1);
      for (const node of result.matches) {
        for (let up = node.parent; up && up.parent; up = up.parent) marks.set(up.id, (marks.get(up.id) || 0) | 2);
      }
      for (const node of result.nodes) {
        const parent = node.parent ? node.parent.id : 0;
        if (!kids.has(parent)) kids.set(parent, []);
        kids.get(parent).push(node);
      }
      for (const list of kids.values()) list.sort((a, b) => a.id - b.id);
      state.filter = { query, marks, kids, open: new Map() };
      const count = result.count;
      const listed = result.matches.length < count ? ` (the first ${result.matches.length} shown)` : '';
      $('search-count').textContent = (count === 1 ? '1 box' : `${count} boxes`) + listed;
      flattenTree();
      fields.render();
    }, reportProblem);
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
    state.mark = null;
    if (options.reveal !== false) revealInTree(node);
    else tree.render();
    renderElementHead(node);
    fields.host.scrollTop = 0;
    fields.setCount(node.childCount);
    updateHex(true);
    updateMapMark();
  }

  function renderElementHead(node) {
    const head = $('element-head');
    head.replaceChildren();
    const path = el('div', 'path');
    const chain = [];
    for (let up = node.parent; up && up.parent; up = up.parent) chain.unshift(up);
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
    const child = state.selected.items.get(i);
    const row = el('div', 'frow fields-cols');
    row.dataset.row = i;
    if (child === undefined) {
      row.classList.add('loading');
      row.append(span('num', '…'));
      return row;
    }
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
    const query = state.filter && state.filter.query;
    if (query && child.kind !== 'element' && String(child.name).toLowerCase().includes(query)) {
      row.classList.add('match');
    }
    return row;
  }

  function selectField(index, options = {}) {
    const child = state.selected.items.get(index);
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
    if (!state.selected) return;
    const count = state.selected.childCount;
    if (event.key === 'ArrowDown') selectField(Math.min(state.fieldIndex + 1, count - 1), { revealRow: true });
    else if (event.key === 'ArrowUp') selectField(Math.max(state.fieldIndex - 1, 0), { revealRow: true });
    else return;
    event.preventDefault();
  });

  // ---- Hex view --------------------------------------------------------------------------

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

  // ---- Problems and coverage -------------------------------------------------------------

  // The parts of a checked file's bytes, as the report names them, with their colours.
  const COVERAGE_PARTS = [
    ['structure', 'box headers and fields', '#1f6feb'],
    ['sampleData', 'sample data', '#8c959f'],
    ['itemData', 'item data', '#2da44e'],
    ['unreferencedMediaData', 'media data no sample references', '#e5a50a'],
    ['filler', 'free and skip', '#d0d7de'],
    ['unknown', 'unknown boxes', '#a371f7'],
    ['trailing', 'trailing bytes', '#e5533d'],
  ];

  const problemList = new VirtualList($('problems'), 22, renderProblemRow);

  function showProblems() {
    const report = state.report;
    const legend = $('coverage-legend');
    legend.replaceChildren();
    const size = num(report.coverage.fileSize);
    for (const [key, label, color] of COVERAGE_PARTS) {
      const bytes = num(report.coverage.parts[key]);
      const human = bytes >= 1024 ? ` (${humanSize(bytes)})` : '';
      const share = size ? `, ${((bytes / size) * 100).toFixed(1)} %` : '';
      const swatch = span('swatch');
      swatch.style.background = color;
      const item = span('', undefined, `"${key}" in the JSON report`);
      item.append(swatch, `${label}: ${bytes} bytes${human}${share}`);
      legend.append(item);
    }
    problemList.setCount(report.problemCount);
    if (!report.problemCount) legend.append(span('', 'No problems found.'));
  }

  function renderProblemRow(i) {
    const problem = state.report.problemRows.get(i);
    const row = el('div', 'prow problems-cols');
    row.dataset.row = i;
    if (!problem) {
      row.classList.add('loading');
      row.append(span('', '…'));
      return row;
    }
    row.append(
      span(`sev-${problem.severity}`, problem.severity),
      span('', problem.code),
      span('num', String(problem.offset)),
      span('num', String(problem.size)),
      span('', problem.path, problem.path),
      span('', problem.message, problem.message));
    if (i === state.problem) row.classList.add('selected');
    return row;
  }

  // Shows the bytes of a problem in its box; the list keeps its place for the way back.
  function selectProblem(i) {
    const report = state.report;
    if (!report.problemCount) return;
    state.problem = Math.max(0, Math.min(report.problemCount - 1, i));
    problemList.reveal(state.problem);
    problemList.render();
    report.problemRows.fetch(state.problem).then((problem) => {
      if (problem && state.report === report) showBytes(num(problem.offset), num(problem.size));
    });
  }

  $('problems').addEventListener('click', (event) => {
    const row = event.target.closest('.prow');
    if (row) selectProblem(Number(row.dataset.row));
  });
  $('problems').addEventListener('keydown', (event) => {
    if (event.key === 'ArrowDown') selectProblem(state.problem + 1);
    else if (event.key === 'ArrowUp') selectProblem(state.problem - 1);
    else return;
    event.preventDefault();
  });

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

  // The bytes of each part in the cells of the map that lie under a stretch of the file, given
  // as fractions of its length.
  function coverageBetween(coverage, start, end) {
    const map = coverage.map;
    const cells = map.structure.length;
    const cellSize = num(map.cellSize);
    const size = num(coverage.fileSize);
    if (!cells) return COVERAGE_PARTS.map(() => 0);
    const first = Math.min(cells - 1, Math.floor((start * size) / cellSize));
    const last = Math.max(first + 1, Math.min(cells, Math.ceil((end * size) / cellSize)));
    return COVERAGE_PARTS.map(([key]) => {
      let sum = 0;
      for (let c = first; c < last; c++) sum += num(map[key][c]);
      return sum;
    });
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

  // ---- Streams ---------------------------------------------------------------------------

  const samples = new VirtualList($('samples'), 22, renderSampleRow);

  function showStream(index) {
    const stream = state.report.streams[index];
    state.stream = stream;
    if (stream.selected === undefined) stream.selected = -1;
    if (!stream.view) stream.view = { x0: num(stream.xMin), x1: num(stream.xMax) };
    const facts = $('stream-facts');
    facts.replaceChildren();
    const addFact = (label, value) => {
      const row = el('tr');
      const cell = el('td');
      cell.append(value);
      row.append(el('th', '', label), cell);
      facts.append(row);
      return row;
    };
    const codec = stream.codecName;
    addFact('Stream', String(stream.index));
    addFact('Codec', codec ? `${codec} (${stream.codecId})` : `unknown (${stream.codecId})`);
    addFact('Width', `${stream.width} px`);
    addFact('Height', `${stream.height} px`);
    if (num(stream.configSize) > 0) {
      const link = el('a', '', `@${stream.configOffset}, ${stream.configSize} bytes`);
      link.title = 'Show the codec configuration in its box';
      link.addEventListener('click', () => showBytes(num(stream.configOffset), num(stream.configSize)));
      addFact('Configuration', link);
    } else {
      addFact('Configuration', 'none');
    }
    const count = num(stream.sampleCount);
    const keys = num(stream.keyCount);
    addFact('Samples', `${count} (${keys} key frame${keys === 1 ? '' : 's'})`);
    addFact('Sample bytes', `${stream.totalSize} (${humanSize(stream.totalSize)}), largest ${stream.maxSize}`);
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
    const selected = addFact('Selected sample', '');
    selected.id = 'selected-sample';
    selected.hidden = true;
    $('samples-pane').classList.toggle('deep', deep);
    $('samples-title').textContent = `Samples of stream ${stream.index}`;
    $('sample-jump').max = Math.max(0, count - 1);
    samples.host.scrollTop = 0;
    samples.setCount(count);
    updateSelectedSample();
    drawChart();
  }

  // Shows bytes of the file in the deepest element that holds them, marked.
  function showBytes(from, size) {
    const report = state.report;
    return state.source.pathTo(report, from, from + size).then((path) => {
      if (state.report !== report) return;
      const node = path[path.length - 1];
      if (!node) {
        showStatus(`Bytes ${from}–${from + Math.max(size, 1) - 1} lie outside every box of the file.`);
        return;
      }
      showStatus('');
      showTab('boxes');
      selectElement(node);
      state.mark = { from, to: from + size };
      updateHex(false);
      revealHexOffset(from);
    }, reportProblem);
  }

  // The row of the facts that tells the selected sample, with a link to its bytes.
  function updateSelectedSample() {
    const row = $('selected-sample');
    const stream = state.stream;
    if (!row || !stream) return;
    row.hidden = stream.selected < 0;
    if (stream.selected < 0) return;
    const i = stream.selected;
    stream.rows.fetch(i).then((sample) => {
      if (!sample || state.stream !== stream || stream.selected !== i) return;
      const cell = row.querySelector('td');
      const link = el('a', '', 'show its bytes');
      link.title = 'Show the bytes of this sample in the box that holds them';
      link.addEventListener('click', () => showBytes(num(sample.offset), num(sample.size)));
      cell.replaceChildren(`${sample.index}: @${sample.offset}, ${sample.size} bytes · `, link);
    });
  }

  function renderSampleRow(i) {
    const stream = state.stream;
    const sample = stream.rows.get(i);
    const row = el('div', `srow samples-cols`);
    row.dataset.row = i;
    if (!sample) {
      row.classList.add('loading');
      row.append(span('num', String(i)), span('num', '…'));
      return row;
    }
    const key = num(sample.keyFrame) !== 0;
    if (key) row.classList.add('key');
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
    const count = num(stream.sampleCount);
    if (!count) return;
    stream.selected = Math.max(0, Math.min(count - 1, i));
    samples.reveal(stream.selected);
    samples.render();
    updateSelectedSample();
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
    else if (event.key === 'End') selectSample(num(stream.sampleCount) - 1);
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
    if (!stream || state.tab === 'boxes') return;
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
  new ResizeObserver(() => {
    drawChart();
    if (state.report && state.report.root) renderMap();
  }).observe(document.body);

  // ---- Tabs and reports ------------------------------------------------------------------

  function showTab(tab) {
    state.tab = tab;
    for (const button of $('tabs').children) button.setAttribute('aria-selected', String(button.dataset.tab === tab));
    $('boxes-view').hidden = tab !== 'boxes';
    $('problems-view').hidden = tab !== 'problems';
    $('stream-view').hidden = tab === 'boxes' || tab === 'problems';
    if (tab === 'boxes') {
      tree.render();
      fields.render();
      hex.render();
    } else if (tab === 'problems') {
      showProblems();
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
      return button;
    };
    add('boxes', `Boxes (${report.elementCount})`);
    if (report.problemRows) {
      const button = add('problems', `Problems (${report.problemCount})`);
      button.classList.toggle('has-errors', report.errorCount > 0);
    }
    report.streams.forEach((stream, i) => {
      const codec = stream.codecName || 'unknown codec';
      const picture = stream.width || stream.height ? ` ${stream.width}×${stream.height}` : '';
      add(String(i), `Stream ${stream.index}: ${codec}${picture}, ${stream.sampleCount} samples`);
    });
  }

  function showMessage(html) {
    $('boxes-view').hidden = true;
    $('stream-view').hidden = true;
    $('problems-view').hidden = true;
    $('loading').hidden = true;
    const view = $('message-view');
    view.hidden = false;
    view.replaceChildren(...html);
  }

  const reports = [];
  let loading = 0;
  function loadReport(index) {
    const serial = ++loading;
    const opened = reports[index] ? Promise.resolve(reports[index]) : state.source.open(index);
    return opened.then((report) => {
      if (serial !== loading) return;
      reports[index] = report;
      showReport(report);
    }, (error) => showMessage([el('div', 'error', `This report cannot be read: ${error.message}`)]));
  }

  function showReport(report) {
    state.report = report;
    state.selected = null;
    state.fieldIndex = -1;
    state.filter = null;
    fields.setCount(0);
    hex.setCount(0);
    state.field = null;
    state.mark = null;
    state.problem = -1;
    state.stream = null;
    chartData = null;
    document.title = `${report.file} · sarvelinth`;
    $('file-name').textContent = report.file;
    if (report.error !== undefined) {
      $('file-facts').textContent = '';
      $('tabs').replaceChildren();
      $('map-bar').replaceChildren();
      drawCoverage();
      $('map-mark').hidden = true;
      showMessage([el('div', 'error', `${report.file}: ${report.error}`), el('p', '', 'This file has no report.')]);
      return;
    }
    $('file-facts').textContent = `${report.fileSize} bytes (${humanSize(report.fileSize)}) · ${report.container}`;
    $('message-view').hidden = true;
    $('loading').hidden = true;
    buildTabs(report);
    showTab('boxes');
    flattenTree();
    renderMap();
    if ($('search').value.trim()) applyFilter($('search').value);
    if (!report.topCount) {
      showMessage([el('p', '', 'The report has no elements.')]);
      return;
    }
    report.root.kids.fetch(0).then((first) => {
      if (first && state.report === report && !state.selected) selectElement(first);
    });
  }

  function start() {
    const served = $('served');
    const scripts = Array.from(document.querySelectorAll('script.report'));
    if (served) state.source = new ServerSource(JSON.parse(served.textContent).api);
    else if (scripts.length) state.source = new PageSource(scripts);
    if (!state.source) {
      showMessage([el('p', '', 'This page holds no report.')]);
      return;
    }
    state.source.list().then((names) => {
      const select = $('file-select');
      if (names.length > 1) {
        select.hidden = false;
        names.forEach((name, i) => {
          const option = el('option', '', name);
          option.value = i;
          select.append(option);
        });
        select.addEventListener('change', () => loadReport(Number(select.value)));
      }
      if (!names.length) showMessage([el('p', '', 'This page holds no report.')]);
      else loadReport(0);
    }, (error) => showMessage([el('div', 'error', `The reports cannot be read: ${error.message}`)]));
  }

  // Lets the page paint its frame before a large report is parsed.
  requestAnimationFrame(() => setTimeout(start, 0));
})();
