// The reports of --format html, in the page (see source.js): script elements of type
// application/json and class report.
import { decodeBase64, humanSize, num, parseDocument } from '../format.js';
import { PagedRows } from '../lists.js';
import { prepareNode } from './source.js';

// The documents of --format html: each is read whole when its file is first shown, and
// every question is answered from it at once.
export class PageSource {
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
    chunk.bytes = decodeBase64(chunk.data);
    chunk.data = '';
  }
  return chunk.bytes;
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
