// The two kinds of list behind the views: a scrolling list that makes only the rows in
// view, and the rows of a long list, asked of the source page by page.
import { el, reportProblem } from './dom.js';

// A scrolling list that creates only the rows in view. Browsers cap the height of an
// element, so beyond MAX_HEIGHT pixels the scroll position maps onto the rows in scale.
const MAX_HEIGHT = 8000000;
export class VirtualList {
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

// The rows of a long list, asked for a page at a time: get() gives a row that is there
// and asks for the page of one that is not, then calls onLoad. Only the latest pages are
// kept when maxPages is given. A list given whole is simply read.
const PAGE = 200;
export class PagedRows {
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
