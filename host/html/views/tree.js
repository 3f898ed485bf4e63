// The tree of boxes, and the filter that narrows it to the boxes whose type or field names
// hold a text. The Boxes tab is the tree's.
import { $, el, reportProblem, span } from '../dom.js';
import { num } from '../format.js';
import { VirtualList } from '../lists.js';
import { emit, on, selectElement, state } from '../state.js';

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
  emit('rows');
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
  if (state.related.has(node.id)) row.classList.add('related');
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

function openPathTo(node) {
  for (let up = node.parent; up && up.parent; up = up.parent) {
    if (state.filter) state.filter.open.set(up.id, true);
    else up.open = true;
  }
}

// Opens the path to node and shows it in the tree; the filter goes when it hides node.
function revealInTree(node) {
  openPathTo(node);
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
    emit('filter');
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
    emit('filter');
  }, reportProblem);
}

function clearFilter() {
  $('search').value = '';
  applyFilter('');
}

on('element', (node, options) => {
  if (options.reveal !== false) revealInTree(node);
  else tree.render();
});
on('related', (nodes) => {
  nodes.forEach(openPathTo);
  flattenTree();
});
on('tab', (tab) => {
  if (tab === 'boxes') tree.render();
});
on('report', () => {
  flattenTree();
  if ($('search').value.trim()) applyFilter($('search').value);
});
on('kids', () => flattenTree());
on('tabs', (report, addTab) => addTab('boxes', `Boxes (${report.elementCount})`, 'boxes-view'));
