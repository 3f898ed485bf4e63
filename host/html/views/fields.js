// The selected element: its path, facts and the table of its fields and child elements.
import { $, el, span } from '../dom.js';
import { hexOfRaw, humanSize, num } from '../format.js';
import { VirtualList } from '../lists.js';
import { on, selectElement, selectField, state } from '../state.js';

const fields = new VirtualList($('fields'), 22, renderFieldRow);

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

on('element', (node) => {
  renderElementHead(node);
  fields.host.scrollTop = 0;
  fields.setCount(node.childCount);
});
on('field', (index, options) => {
  if (options.revealRow) fields.reveal(index);
  fields.render();
});
on('items', (node) => {
  if (state.selected === node) fields.render();
});
on('filter', () => fields.render());
on('tab', (tab) => {
  if (tab === 'boxes') fields.render();
});
on('reset', () => fields.setCount(0));
