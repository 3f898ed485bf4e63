// The frame of the page: its reports, one shown at a time, and the tabs the views add.
import { $, el } from './dom.js';
import { humanSize } from './format.js';
import { PageSource } from './sources/page.js';
import { ServerSource } from './sources/server.js';
import { emit, on, selectElement, showTab, state } from './state.js';

// The pane of each tab; a chosen tab shows its pane and hides the others.
const panes = new Map();

function addTab(tab, text, pane) {
  const button = el('button', '', text);
  button.dataset.tab = tab;
  button.setAttribute('role', 'tab');
  button.addEventListener('click', () => showTab(tab));
  $('tabs').append(button);
  panes.set(tab, pane);
  return button;
}

function buildTabs(report) {
  $('tabs').replaceChildren();
  panes.clear();
  emit('tabs', report, addTab);
}

on('tab', (tab) => {
  for (const button of $('tabs').children) button.setAttribute('aria-selected', String(button.dataset.tab === tab));
  for (const pane of document.querySelectorAll('main')) {
    if (pane.id !== 'message-view') pane.hidden = pane.id !== panes.get(tab);
  }
});

function showMessage(html) {
  for (const pane of document.querySelectorAll('main')) pane.hidden = pane.id !== 'message-view';
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
  state.field = null;
  state.mark = null;
  state.problem = -1;
  state.stream = null;
  state.related = new Set();
  emit('reset', report);
  document.title = `${report.file} · sarvelinth`;
  $('file-name').textContent = report.file;
  if (report.error !== undefined) {
    $('file-facts').textContent = '';
    $('tabs').replaceChildren();
    showMessage([el('div', 'error', `${report.file}: ${report.error}`), el('p', '', 'This file has no report.')]);
    return;
  }
  $('file-facts').textContent = `${report.fileSize} bytes (${humanSize(report.fileSize)}) · ${report.container}`;
  $('message-view').hidden = true;
  $('loading').hidden = true;
  buildTabs(report);
  showTab('boxes');
  emit('report', report);
  if (!report.topCount) {
    showMessage([el('p', '', 'The report has no elements.')]);
    return;
  }
  report.root.kids.fetch(0).then((first) => {
    if (first && state.report === report && !state.selected) selectElement(first);
  });
}

export function start() {
  // The one place that tells the sources apart.
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
