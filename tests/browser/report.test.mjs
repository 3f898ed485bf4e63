// Opens sarvelinth's HTML report in Debian's chromium, headless, and uses it as a person
// would: expands the video track, selects stsz, checks the field table against the JSON
// report and the highlighted bytes against the file, filters, hovers the map, and opens a
// report with 100,000 samples. Screenshots go to the output directory.
//
//   node report.test.mjs SARVELINTH OUTPUT_DIR
//
// Exits 77 (skipped) when chromium or playwright-core is not installed.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { mkdirSync, readFileSync, writeFileSync } from 'node:fs';
import path from 'node:path';
import { fileURLToPath, pathToFileURL } from 'node:url';

import { browserOrSkip, keyFramePixels, openBrowser, runChecks } from './harness.mjs';

const SAMPLE = 'samples/sample.mp4';

const [sarvelinth, outputDir] = process.argv.slice(2);
if (!sarvelinth || !outputDir) {
  console.error('usage: node report.test.mjs SARVELINTH OUTPUT_DIR');
  process.exit(2);
}
const sourceDir = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '../..');

const chromium = await browserOrSkip();

// ---- The reports -------------------------------------------------------------------------

// The report on standard output; a file with errors found by --check exits with 4.
function runTool(args) {
  try {
    return execFileSync(sarvelinth, args, { cwd: sourceDir, stdio: ['ignore', 'pipe', 'ignore'] });
  } catch (error) {
    if (args.includes('--check') && error.status === 4) return error.stdout;
    throw error;
  }
}

mkdirSync(outputDir, { recursive: true });
const samplePage = path.join(outputDir, 'sample.html');
runTool(['--format', 'html', '-o', samplePage, SAMPLE]);
const report = JSON.parse(runTool(['--format', 'json', SAMPLE]).toString());
const fileBytes = readFileSync(path.join(sourceDir, SAMPLE));

// The elements from the top down to the first element named `name` below `from`.
function pathTo(nodes, test) {
  for (const node of nodes) {
    if (node.kind !== 'element') continue;
    if (test(node)) return [node];
    const below = pathTo(node.children, test);
    if (below) return [node, ...below];
  }
  return null;
}
const hasField = (node, name, value) =>
  node.children.some((child) => child.kind === 'field' && child.name === name && child.value === value);
const isVideoTrack = (node) =>
  node.name === 'trak' && pathTo(node.children, (n) => n.name === 'hdlr' && hasField(n, 'handler_type', 'vide'));
const videoTrack = pathTo(report.elements, isVideoTrack);
assert.ok(videoTrack, 'the sample has a video track');
const stszPath = [...videoTrack, ...pathTo(videoTrack.at(-1).children, (n) => n.name === 'stsz')];

// The report's JSON as the page holds it, to make variants of the page from.
const pageText = readFileSync(samplePage, 'utf8');
const scriptStart = '<script type="application/json" class="report">';
function pageWith(documents) {
  const at = pageText.indexOf(scriptStart);
  const end = pageText.indexOf('</script>', at) + '</script>\n'.length;
  const scripts = documents
    .map((document) => scriptStart + JSON.stringify(document).replace(/<\//g, '<\\/').replace(/<!/g, '\\u003c!') + '</script>\n')
    .join('');
  return pageText.slice(0, at) + scripts + pageText.slice(end);
}
const embedded = JSON.parse(pageText.slice(pageText.indexOf(scriptStart) + scriptStart.length, pageText.indexOf('</script>')));

// ---- The browser -------------------------------------------------------------------------

const { page, problems, close } = await openBrowser(chromium, (url) => url.startsWith('file:'));

async function open(file) {
  await page.goto(pathToFileURL(file).href);
  await page.waitForSelector('#tree .trow');
}

// The tree row of an element, found by its offset, which no other element in a path has.
const treeRow = (node) => page.locator('#tree .trow', { has: page.locator(`.tat:text-is("@${node.offset}")`) }).first();
const hex = (bytes) => Array.from(bytes, (b) => b.toString(16).padStart(2, '0')).join(' ');
const cellTexts = (row) => row.locator(':scope > span').allInnerTexts();

const checks = [];
const check = (name, run) => checks.push({ name, run });

check('the report of the sample opens without errors or network access', async () => {
  await open(samplePage);
  assert.equal(await page.locator('#file-name').innerText(), SAMPLE);
  assert.deepEqual(
    await page.locator('#tree .trow .tname').allInnerTexts(),
    report.elements.map((node) => node.name));
});

check('expanding the video track and selecting stsz shows its fields', async () => {
  for (const node of stszPath.slice(0, -1)) {
    const row = treeRow(node);
    if ((await row.getAttribute('aria-expanded')) !== 'true') await row.locator('.twist').click();
  }
  const stsz = stszPath.at(-1);
  await treeRow(stsz).locator('.tname').click();
  await page.waitForFunction(() => document.querySelector('#element-head h2')?.textContent === 'stsz');
  assert.match(await page.locator('#element-head .facts').innerText(), new RegExp(`offset ${stsz.offset} · size ${stsz.size} bytes`));
  const rows = await page.locator('#fields .frow').all();
  assert.equal(rows.length, stsz.children.length);
  for (const [i, child] of stsz.children.entries()) {
    const [offset, size, name, value] = await cellTexts(rows[i]);
    const indexed = child.index >= 0 ? `${child.name}[${child.index}]` : child.name;
    assert.deepEqual([offset, size, name, value], [String(child.offset), String(child.size), indexed, child.value]);
  }
});

check('selecting a field highlights exactly its bytes in the hex view', async () => {
  const stsz = stszPath.at(-1);
  const picks = [0, 1, stsz.children.length - 1];
  for (const i of picks) {
    const field = stsz.children[i];
    await page.locator(`#fields .frow[data-row="${i}"]`).click();
    const highlighted = (await page.locator('#hex .hbytes .hl').allInnerTexts()).join(' ');
    assert.equal(highlighted, hex(fileBytes.subarray(field.offset, field.offset + field.size)), field.name);
    assert.equal(await page.locator('#hex .hascii .hl').count(), field.size);
    assert.match(await page.locator('#hex-head').innerText(), new RegExp(`${field.name}: bytes ${field.offset}–${field.offset + field.size - 1}`));
  }
  // A click on a byte selects the field that holds it.
  const sampleCount = stsz.children.findIndex((child) => child.name === 'sample_count');
  if (sampleCount >= 0) {
    await page.locator(`#hex .hbytes span[data-offset="${stsz.children[sampleCount].offset + 2}"]`).click();
    assert.equal(await page.locator('#fields .frow.selected .fname').innerText(), 'sample_count');
  }
  await page.screenshot({ path: path.join(outputDir, 'report-stsz.png') });
});

check('the hex view says which bytes are not embedded', async () => {
  const mdat = report.elements.find((node) => node.name === 'mdat');
  await treeRow(mdat).locator('.tname').click();
  const gap = page.locator('#hex .hrow.gap');
  assert.equal(await gap.count(), 1);
  assert.match(await gap.innerText(), /not embedded: media data/);
  assert.match(await page.locator('#hex-head').innerText(), new RegExp(`${mdat.size - 8} of them not embedded`));
});

check('the filter keeps the boxes whose type or field names match, with their parents', async () => {
  await page.fill('#search', 'stsz');
  await page.waitForFunction(() => document.querySelector('#search-count').textContent !== '');
  const names = await page.locator('#tree .trow .tname').allInnerTexts();
  assert.ok(names.includes('stsz'));
  assert.ok(names.every((name) => ['moov', 'trak', 'mdia', 'minf', 'stbl', 'stsz'].includes(name)), names.join(' '));
  await page.fill('#search', 'major_brand');
  await page.waitForFunction(() => document.querySelector('#search-count').textContent === '1 box');
  assert.deepEqual(await page.locator('#tree .trow.match .tname').allInnerTexts(), ['ftyp']);
  await page.fill('#search', '');
  await page.waitForFunction(() => document.querySelector('#search-count').textContent === '');
});

check('the map shows the top-level boxes in proportion, with their facts on hover', async () => {
  const moov = report.elements.find((node) => node.name === 'moov');
  const segment = page.locator('#map-bar .map-seg', { hasText: /^moov$/ });
  const bar = await page.locator('#map-bar').boundingBox();
  const box = await segment.boundingBox();
  assert.ok(Math.abs(box.width / bar.width - moov.size / report.fileSize) < 0.01);
  await segment.hover();
  const tip = await page.locator('#tip').innerText();
  assert.match(tip, new RegExp(`moov\\noffset ${moov.offset}\\nsize ${moov.size} bytes`));
  await segment.click();
  assert.equal(await page.locator('#element-head h2').innerText(), 'moov');
});

check('a video stream shows its facts, chart and samples', async () => {
  const stream = report.streams.find((s) => s.samples.length > 0);
  if (!stream) return; // the parser reports no samples for this file
  await page.locator('#tabs button', { hasText: `Stream ${stream.index}:` }).click();
  const facts = await page.locator('#stream-facts').innerText();
  assert.match(facts, new RegExp(`Width\\s+${stream.width} px`));
  assert.match(facts, new RegExp(`Configuration\\s+@${stream.configOffset}, ${stream.configSize} bytes`));
  assert.equal(await page.locator('#samples .srow').count(), stream.samples.length);
  await page.locator('#stream-facts a').click();
  assert.equal(await page.locator('#hex .hbytes .mark').count(), stream.configSize);
  await page.screenshot({ path: path.join(outputDir, 'report-config.png') });
});

check('deep analysis shows every track with its facts, presentation times and origins', async () => {
  const file = path.join(outputDir, 'deep.html');
  const movie = 'tests/data/frag-empty-moov.mp4';
  runTool(['--deep', '--format', 'html', '-o', file, movie]);
  const deep = JSON.parse(runTool(['--deep', '--format', 'json', movie]).toString());
  await open(file);
  const sound = deep.streams.find((s) => s.handlerType === 'soun');
  await page.locator('#tabs button', { hasText: `Stream ${sound.index}:` }).click();
  const facts = await page.locator('#stream-facts').innerText();
  assert.match(facts, new RegExp(`Sound\\s+${sound.channelCount} channels, ${sound.sampleRate} Hz`));
  assert.match(facts, /Sample entry\s+mp4a/);
  assert.ok(facts.includes(`Codecs\t${sound.codecs}`), `the codecs string ${sound.codecs} in ${facts}`);
  const video = deep.streams.find((s) => s.video);
  await page.locator('#tabs button', { hasText: `Stream ${video.index}:` }).click();
  const picture = await page.locator('#stream-facts').innerText();
  assert.ok(picture.includes(`Picture\tcoded ${video.video.codedWidth}x${video.video.codedHeight}`), picture);
  await page.locator('#tabs button', { hasText: `Stream ${sound.index}:` }).click();
  const first = await page.locator('#samples .srow').first().locator('span').allInnerTexts();
  const sample = sound.samples[0];
  const presented = sample.presentationTime === null ? '-' : String(sample.presentationTime);
  assert.deepEqual(first.slice(-2), [presented, `moof ${sample.moof}`]);
  await page.screenshot({ path: path.join(outputDir, 'report-deep.png') });
});

check('with --units a selected sample opens its units under the samples', async () => {
  const file = path.join(outputDir, 'units.html');
  const movie = 'tests/data/deep-hevc.mp4';
  runTool(['--units', '--format', 'html', '-o', file, movie]);
  const report = JSON.parse(runTool(['--units', '--format', 'json', movie]).toString());
  await open(file);
  await page.locator('#tabs button', { hasText: 'Stream 0:' }).click();
  assert.ok(await page.locator('#sample-units').isHidden(), 'no units before a sample is selected');
  await page.locator('#samples .srow').first().click();
  await page.waitForSelector('#sample-units div');
  const lines = await page.locator('#sample-units div').allInnerTexts();
  const units = report.streams[0].samples[0].units;
  assert.equal(lines.length, units.length);
  assert.ok(lines[0].startsWith(`@${units[0].offset}+${units[0].size} type ${units[0].type} ${units[0].name}`));
});

check('a checked file lists its problems, shows their bytes and colours its map by coverage', async () => {
  // The sample cut short inside its last box: boxes past the end, and an unknown box.
  const cut = path.join(outputDir, 'cut.mp4');
  writeFileSync(cut, fileBytes.subarray(0, fileBytes.length - 100));
  const file = path.join(outputDir, 'checked.html');
  runTool(['--check', '--format', 'html', '-o', file, cut]);
  const checked = JSON.parse(runTool(['--check', '--format', 'json', cut]).toString());
  await open(file);
  const tab = page.locator('#tabs button', { hasText: `Problems (${checked.problems.length})` });
  assert.equal(await tab.getAttribute('class'), 'has-errors');
  await tab.click();
  const rows = await page.locator('#problems .prow').all();
  assert.equal(rows.length, checked.problems.length);
  for (const [i, problem] of checked.problems.entries()) {
    assert.deepEqual(await cellTexts(rows[i]),
      [problem.severity, problem.code, String(problem.offset), String(problem.size), problem.path, problem.message]);
  }
  await page.screenshot({ path: path.join(outputDir, 'report-problems.png') });
  // Choosing a problem selects the deepest box that holds its bytes and marks those the file has.
  for (const code of ['unknown-box', 'box-past-eof']) {
    const i = checked.problems.findLastIndex((problem) => problem.code === code);
    const problem = checked.problems[i];
    await page.locator(`#problems .prow[data-row="${i}"]`).click();
    const name = problem.path.split('/').at(-1).replace(/\[\d+\]$/, '');
    await page.waitForFunction((n) => document.querySelector('#element-head h2')?.textContent === n, name);
    const present = Math.min(problem.offset + problem.size, checked.fileSize) - problem.offset;
    assert.equal((await page.locator('#hex .hbytes .mark').allInnerTexts()).join(' '),
      hex(fileBytes.subarray(problem.offset, problem.offset + present)), code);
    await page.locator('#tabs button', { hasText: 'Problems' }).click();
  }
  // The strip below the map: box headers at the start, media data in the middle.
  const strip = await page.locator('#coverage-map').boundingBox();
  assert.ok(strip && strip.width > 100);
  await page.mouse.move(strip.x + 1, strip.y + strip.height / 2);
  assert.match(await page.locator('#tip').innerText(), /box headers and fields: 100 %/);
  const mdat = checked.elements.find((node) => node.name === 'mdat');
  await page.mouse.move(strip.x + strip.width * ((mdat.offset + mdat.size / 2) / checked.fileSize), strip.y + 5);
  assert.match(await page.locator('#tip').innerText(), /sample data|media data no sample references/);
  assert.match(await page.locator('#coverage-legend').innerText(), new RegExp(`sample data: ${checked.coverage.parts.sampleData} bytes`));
});

check('the items of an image are listed, and choosing one marks its bytes and property boxes', async () => {
  const image = 'tests/data/image-two.heic';
  const file = path.join(outputDir, 'image.html');
  runTool(['--format', 'html', '--deep', '--check', '-o', file, image]);
  const items = JSON.parse(runTool(['--format', 'json', '--deep', image]).toString()).items;
  const bytes = readFileSync(path.join(sourceDir, image));
  await open(file);
  await page.locator('#tabs button', { hasText: `Items (${items.length})` }).click();
  await page.waitForSelector('#items .prow');
  assert.equal(await page.locator('#items .prow').count(), items.length);
  const first = await cellTexts(page.locator('#items .prow').first());
  assert.deepEqual(first.slice(0, 4), [String(items[0].id), items[0].type, `${items[0].width}x${items[0].height}`, 'primary']);
  // The thumbnail's grid: its layout in idat, marked in the hex view. (The page keeps only the
  // head of media data, so the images in mdat have no bytes to mark there.)
  const grid = items.findIndex((item) => item.type === 'grid');
  await page.locator(`#items .prow[data-row="${grid}"]`).click();
  await page.waitForFunction(() => document.querySelector('#element-head h2')?.textContent === 'idat');
  assert.deepEqual(await page.locator('#tree .trow.related .tname').allInnerTexts(),
    items[grid].properties.map((property) => property.type));
  const extent = items[grid].extents[0];
  await page.waitForSelector('#hex .hbytes .mark');
  assert.equal((await page.locator('#hex .hbytes .mark').allInnerTexts()).join(' '),
    hex(bytes.subarray(extent.offset, extent.offset + extent.length)));
  await page.locator('#tabs button', { hasText: 'Problems' }).click();
  assert.match(await page.locator('#coverage-legend').innerText(), /item data: \d+ bytes/);
});

check('hostile names are shown as text', async () => {
  const hostile = structuredClone(embedded);
  const names = ['</script><img src=x onerror=alert(1)>', '<!--<script>', '\u2028"\'&'];
  hostile.elements[0].name = names[0];
  hostile.elements[0].note = names[1];
  hostile.elements[0].children[0].value = names[2];
  const file = path.join(outputDir, 'hostile.html');
  writeFileSync(file, pageWith([hostile]));
  await open(file);
  assert.equal(await page.locator('#tree .trow .tname').first().innerText(), names[0]);
  assert.equal(await page.locator('#element-head .note').innerText(), names[1]);
  assert.equal(await page.locator('#element-head img').count(), 0);
});

check('a report with 100,000 samples opens in a few seconds and stays usable', async () => {
  const count = 100000;
  const big = structuredClone(embedded);
  const samples = [];
  let offset = 4096;
  for (let i = 0; i < count; i++) {
    const key = i % 50 === 0 ? 1 : 0;
    const size = key ? 40000 + (i % 7) * 1000 : 3000 + ((i * 7919) % 5000);
    samples.push({ index: i, offset, size, dts: i * 512, pts: i * 512 + 1024, duration: 512, keyFrame: key });
    offset += size;
  }
  big.streams = [{ index: 0, width: 1920, height: 1080, codecId: 28, configOffset: 4976, configSize: 38, samples }];
  const file = path.join(outputDir, 'samples-100000.html');
  writeFileSync(file, pageWith([big]));

  const started = Date.now();
  await open(file);
  await page.locator('#tabs button', { hasText: `${count} samples` }).click();
  await page.waitForSelector('#samples .srow');
  const seconds = (Date.now() - started) / 1000;
  console.log(`  100,000 samples: open and show the stream in ${seconds.toFixed(1)} s`);
  assert.ok(seconds < 10, `took ${seconds} s`);
  assert.ok((await page.locator('#samples .srow').count()) < 200, 'only the rows in view are made');

  // The end of the table, then a sample picked on the chart.
  await page.locator('#samples .srow').first().click();
  await page.keyboard.press('End');
  await page.waitForSelector(`#samples .srow.selected:has(span:text-is("${count - 1}"))`);
  const chart = await page.locator('#chart').boundingBox();
  await page.mouse.click(chart.x + 64 + (chart.width - 76) / 2, chart.y + chart.height / 2);
  const selected = Number(await page.locator('#samples .srow.selected span').first().innerText());
  assert.ok(Math.abs(selected - count / 2) < count / 50, `picked sample ${selected}`);
  const painted = await keyFramePixels(page);
  assert.ok(painted > 100, 'key frames are marked on the chart');
  await page.screenshot({ path: path.join(outputDir, 'report-100000-samples.png') });
});

let failed = 0;
try {
  failed = await runChecks(checks, problems);
} finally {
  await close();
}
console.log(`${checks.length - failed} passed, ${failed} failed`);
process.exit(failed ? 1 : 0);
