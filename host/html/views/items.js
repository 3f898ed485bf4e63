// The Items tab of a file of images (HEIF, HEIC, AVIF) in deep mode: one row per item with
// its type, size, properties and references; choosing an item marks its property boxes in
// the tree and shows its first extent in its box, marked in the map and the hex view (or,
// without bytes, its first property box). The items come with the report of the page, and
// with the file's record from the server of --serve.
import { $, el, reportProblem, span } from '../dom.js';
import { num } from '../format.js';
import { VirtualList } from '../lists.js';
import { nodeAtPath } from '../sources/source.js';
import { markRelated, on, selectElement, showBytes, showTab, state } from '../state.js';

const itemList = new VirtualList($('items'), 22, renderItemRow);
let selectedItem = -1;

// How an item's bytes lie: its extents, or why they cannot be told.
function itemExtentsText(item) {
  if (!item.extents) return `none: ${item.extentsReason}`;
  const bytes = item.extents.reduce((sum, extent) => sum + num(extent.length), 0);
  const where = item.extents.length ? ` at ${item.extents[0].offset}` : '';
  return `${item.extents.length} of ${bytes} bytes${where}`;
}

function renderItemRow(i) {
  const item = state.report.items[i];
  const row = el('div', 'prow items-cols');
  row.dataset.row = i;
  const flags = [item.primary ? 'primary' : '', item.hidden ? 'hidden' : ''].filter(Boolean).join(', ');
  const size = item.grid
    ? `${item.width}x${item.height}, grid ${item.grid.rows}x${item.grid.columns}`
    : item.width || item.height ? `${item.width}x${item.height}` : '';
  const properties = item.properties.map((property) => `${property.index} ${property.type ?? '?'}${property.essential ? '!' : ''}`).join(', ');
  const references = item.references.map((reference) => `${reference.type} ${reference.direction} ${reference.items.join(' ')}`).join('; ');
  row.append(
    span('num', String(item.id)),
    span('', item.type),
    span('', size),
    span('', flags),
    span('', itemExtentsText(item)),
    span('', properties, item.properties.map((property) => property.path ?? '').join('\n')),
    span('', references, references));
  if (i === selectedItem) row.classList.add('selected');
  return row;
}

function selectItem(i) {
  const items = state.report.items;
  if (!items.length) return;
  selectedItem = Math.max(0, Math.min(items.length - 1, i));
  itemList.reveal(selectedItem);
  itemList.render();
  const item = items[selectedItem];
  const report = state.report;
  const paths = item.properties.map((property) => property.path).filter(Boolean);
  Promise.all(paths.map((path) => nodeAtPath(report, path))).then((found) => {
    if (state.report !== report || items[selectedItem] !== item) return;
    const properties = found.filter(Boolean);
    markRelated(properties);
    const extent = (item.extents || [])[0];
    if (extent) {
      showBytes(num(extent.offset), num(extent.length));
    } else if (properties.length) {
      showTab('boxes');
      selectElement(properties[0]);
    }
  }, reportProblem);
}

$('items').addEventListener('click', (event) => {
  const row = event.target.closest('.prow');
  if (row) selectItem(Number(row.dataset.row));
});
$('items').addEventListener('keydown', (event) => {
  if (event.key === 'ArrowDown') selectItem(selectedItem + 1);
  else if (event.key === 'ArrowUp') selectItem(selectedItem - 1);
  else return;
  event.preventDefault();
});

on('reset', () => {
  selectedItem = -1;
});
on('tabs', (report, addTab) => {
  if (report.items && report.items.length) addTab('items', `Items (${report.items.length})`, 'items-view');
});
on('tab', (tab) => {
  if (tab === 'items') itemList.setCount(state.report.items.length);
});
