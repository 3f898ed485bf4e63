// The reports of the server of --serve (see source.js, and docs/serve-api.md for its API),
// named by a script element with id "served".
import { reportProblem } from '../dom.js';
import { decodeBase64, num, parseDocument } from '../format.js';
import { PagedRows } from '../lists.js';
import { emit } from '../state.js';
import { prepareNode } from './source.js';

// The server of --serve (docs/serve-api.md): every question is a request.
export class ServerSource {
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
      () => emit('samples', stream), { maxPages: 100 });
      stream.number = s;
      return stream;
    });
    if (report.coverage) {
      report.problemCount = num(report.problemCount);
      report.errorCount = num(report.errorCount);
      report.problemRows = new PagedRows(report.problemCount, (from, count) =>
        this.get(`${base}/problems?from=${from}&count=${count}`).then((answer) => answer.problems),
      () => emit('problems'));
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
    () => emit('kids', node));
    node.items = new PagedRows(node.childCount, (from, count) =>
      this.get(`${base}/children?from=${from}&count=${count}`).then((answer) =>
        answer.children.map((child) => (child.kind === 'element' ? this.node(report, child, node) : child))),
    () => emit('items', node));
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
      emit('bytes');
    }, reportProblem);
    return undefined;
  }
}
