// A stream's tab: its facts and the table of its samples. The chart (chart.js) shows the
// same stream.
import { $, el, span } from '../dom.js';
import { humanSize, num } from '../format.js';
import { VirtualList } from '../lists.js';
import { emit, on, selectSample, showBytes, state } from '../state.js';

const samples = new VirtualList($('samples'), 22, renderSampleRow);

function showStream(stream) {
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
    if (stream.codecs) addFact('Codecs', stream.codecs);
    if (stream.representation) addFact('Representation', stream.representation);
    if (stream.video) addFact('Picture', pictureText(stream.video));
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
  emit('stream', stream);
}

// What the parameter sets tell of the pictures: "coded 1920x1088, shown 1920x1080, 8 bit
// 4:2:0, colour 1/1/1, 25/1 frames per second".
function pictureText(video) {
  const chroma = ['monochrome', '4:2:0', '4:2:2', '4:4:4'][video.chromaFormat];
  const parts = [`coded ${video.codedWidth}x${video.codedHeight}, shown ${video.width}x${video.height}`,
    `${video.bitDepthLuma} bit${chroma ? ` ${chroma}` : ''}`];
  if (video.colourPrimaries !== undefined) {
    parts.push(`colour ${video.colourPrimaries}/${video.transferCharacteristics}/${video.matrixCoefficients}`);
  }
  if (video.frameRate) parts.push(`${video.frameRate.timeScale}/${video.frameRate.frameDuration} frames per second`);
  return parts.join(', ');
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

// Each stream has a tab of its own.
const streamTabs = new Map();
on('tabs', (report, addTab) => {
  streamTabs.clear();
  report.streams.forEach((stream, i) => {
    const codec = stream.codecName || 'unknown codec';
    const picture = stream.width || stream.height ? ` ${stream.width}×${stream.height}` : '';
    // A stream of no known codec outside deep analysis, which lists no samples of it, goes by its handler.
    const byHandler = !stream.codecName && stream.handlerType && stream.trackId === undefined && stream.handlerType !== 'vide';
    const label = byHandler ? `Stream ${stream.index}: ${stream.handlerType}, samples with --deep`
      : `Stream ${stream.index}: ${codec}${picture}, ${stream.sampleCount} samples`;
    addTab(`stream ${i}`, label, 'stream-view');
    streamTabs.set(`stream ${i}`, stream);
  });
});
on('tab', (tab) => {
  if (streamTabs.has(tab)) showStream(streamTabs.get(tab));
});
on('sample', (stream) => {
  samples.reveal(stream.selected);
  samples.render();
  updateSelectedSample();
});
on('samples', () => samples.render());
