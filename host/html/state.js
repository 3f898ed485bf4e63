// What the views share: the source, the report shown and what is selected in it, and the
// news that passes between them. A view changes the selection through the functions here
// and hears of every change through on(); no view calls another, and none knows which
// source it reads.
import { reportProblem, showStatus } from './dom.js';
import { num } from './format.js';

export const state = {
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
  related: new Set(), // ids of elements marked beside the selection: the chosen item's properties
};

// The news by name, with what it carries. Listeners hear it in the order they were added,
// which is the order of the views' modules in main.js.
//   reset (report)            a report is about to be shown: drop what is kept of the last
//   tabs (report, addTab)     add the report's tabs: addTab(id, text, pane id) gives the button
//   report (report)           the report is shown, on its Boxes tab
//   tab (id)                  a tab was chosen (state.tab)
//   element (node, options)   an element was selected (state.selected)
//   field (index, options)    a field of it was selected (state.field, state.fieldIndex)
//   mark (from)               bytes of the selected element were marked (state.mark)
//   related                   other elements were marked beside the selection (state.related)
//   rows                      the rows of the tree were made again (state.rows)
//   filter                    the filter changed (state.filter)
//   stream (stream)           a stream's tab was shown (state.stream)
//   sample (stream)           a sample of it was selected (stream.selected)
//   kids (node), items (node), samples (stream), problems, bytes
//                             rows or bytes the source was asked for came
const listeners = new Map();

export function on(name, listener) {
  if (!listeners.has(name)) listeners.set(name, []);
  listeners.get(name).push(listener);
}

export function emit(name, ...args) {
  for (const listener of listeners.get(name) || []) listener(...args);
}

// options.reveal false: the tree keeps its place (the element was clicked in it).
export function selectElement(node, options = {}) {
  state.selected = node;
  state.field = null;
  state.fieldIndex = -1;
  state.mark = null;
  emit('element', node, options);
}

// The bytes a field covers: bit fields round out to whole bytes.
export function fieldRange(field) {
  const offset = num(field.offset);
  const size = num(field.size);
  if (field.bitField) {
    const bits = num(field.bitOffset) + size;
    return { from: offset, to: offset + Math.max(1, Math.ceil(bits / 8)) };
  }
  return { from: offset, to: offset + size };
}

// A child of the selected element: a field is selected, an element shown.
// options.revealRow: the field table scrolls to it.
export function selectField(index, options = {}) {
  const child = state.selected.items.get(index);
  if (!child) return;
  if (child.kind === 'element') {
    selectElement(child);
    return;
  }
  state.fieldIndex = index;
  state.field = fieldRange(child);
  emit('field', index, options);
}

// Marks elements beside the selection, such as the property boxes of an item.
export function markRelated(nodes) {
  state.related = new Set(nodes.map((node) => node.id));
  emit('related', nodes);
}

export function selectSample(i) {
  const stream = state.stream;
  const count = num(stream.sampleCount);
  if (!count) return;
  stream.selected = Math.max(0, Math.min(count - 1, i));
  emit('sample', stream);
}

export function showTab(tab) {
  state.tab = tab;
  emit('tab', tab);
}

// Shows bytes of the file in the deepest element that holds them, marked.
export function showBytes(from, size) {
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
    emit('mark', from);
  }, reportProblem);
}
