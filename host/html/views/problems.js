// The Problems tab of a checked file: where its bytes went, and the list of its problems,
// each shown in its box when selected.
import { COVERAGE_PARTS } from '../coverage.js';
import { $, el, span } from '../dom.js';
import { humanSize, num } from '../format.js';
import { VirtualList } from '../lists.js';
import { on, showBytes, state } from '../state.js';

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

on('tabs', (report, addTab) => {
  if (report.problemRows) {
    const button = addTab('problems', `Problems (${report.problemCount})`, 'problems-view');
    button.classList.toggle('has-errors', report.errorCount > 0);
  }
});
on('tab', (tab) => {
  if (tab === 'problems') showProblems();
});
on('problems', () => problemList.render());
