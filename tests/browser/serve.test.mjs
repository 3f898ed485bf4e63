// Opens the page of `sarvelinth --serve` in Debian's chromium, headless, on a file of
// 200,000 samples made with FFmpeg, and uses it as a person would: opens the video track,
// scrolls the sample table to its end, zooms the chart, selects a sample and sees its bytes,
// and lists the problems the check found; and, on a second server, the items of an image.
// The server runs on 127.0.0.1 and is stopped with SIGTERM by its process id; the page may
// ask nothing of any other address. Screenshots go to the output directory.
//
//   node serve.test.mjs SARVELINTH OUTPUT_DIR
//
// Exits 77 (skipped) when chromium, playwright-core or ffmpeg is not installed.
import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { mkdirSync, mkdtempSync, openSync, readSync, closeSync, rmSync } from 'node:fs';
import os from 'node:os';
import path from 'node:path';

import { browserOrSkip, keyFramePixels, openBrowser, runChecks, skip } from './harness.mjs';

const SAMPLES = 200000;

const [sarvelinth, outputDir] = process.argv.slice(2);
if (!sarvelinth || !outputDir) {
  console.error('usage: node serve.test.mjs SARVELINTH OUTPUT_DIR');
  process.exit(2);
}
const chromium = await browserOrSkip();
try {
  execFileSync('ffmpeg', ['-version'], { stdio: 'ignore' });
} catch {
  skip('ffmpeg is not installed (./test installs it)');
}

// ---- The file: ten seconds of tiny H.264 at 100 frames per second, looped 200 times ------

mkdirSync(outputDir, { recursive: true });
const work = mkdtempSync(path.join(os.tmpdir(), 'sarvelinth-serve-'));
const movie = path.join(work, 'long.mp4');
const ffmpeg = (args) => execFileSync('ffmpeg', ['-hide_banner', '-loglevel', 'error', '-nostdin', '-y', ...args]);
ffmpeg(['-f', 'lavfi', '-i', 'testsrc2=size=32x32:rate=100', '-t', '10', '-c:v', 'libx264', '-preset', 'ultrafast',
  '-x264-params', 'keyint=100:min-keyint=100:scenecut=0', '-pix_fmt', 'yuv420p', path.join(work, 'seed.mp4')]);
ffmpeg(['-stream_loop', String(SAMPLES / 1000 - 1), '-i', path.join(work, 'seed.mp4'), '-c', 'copy', movie]);

function fileBytes(offset, size) {
  const bytes = Buffer.alloc(size);
  const fd = openSync(movie, 'r');
  readSync(fd, bytes, 0, size, offset);
  closeSync(fd);
  return bytes;
}

// ---- The server --------------------------------------------------------------------------

// Stopped with SIGTERM by its process id at the end; ended() tells how it ended.
async function startServer(args) {
  const server = spawn(sarvelinth, ['--serve', ...args], { stdio: ['ignore', 'ignore', 'pipe'] });
  let serverErr = '';
  const exit = new Promise((resolve) => server.on('exit', (code, signal) => resolve({ code, signal })));
  const address = await new Promise((resolve, reject) => {
    const timer = setTimeout(() => {
      server.kill('SIGTERM');
      reject(new Error(`the server did not start: ${serverErr}`));
    }, 60000);
    server.stderr.on('data', (data) => {
      serverErr += data;
      const match = /serving (http:\/\/127\.0\.0\.1:\d+\/)/.exec(serverErr);
      if (match) {
        clearTimeout(timer);
        resolve(match[1]);
      }
    });
    server.on('exit', () => reject(new Error(`the server ended: ${serverErr}`)));
  });
  const ended = () => {
    server.kill('SIGTERM');
    return exit;
  };
  return { address, ended };
}

const image = path.join(path.dirname(new URL(import.meta.url).pathname), '../data/image-two.heic');
const servers = [];
try {
  servers.push(await startServer(['--check', movie]));
  servers.push(await startServer(['--deep', '--check', image]));
} catch (error) {
  for (const server of servers) await server.ended();
  throw error;
}
const [{ address }, { address: imageAddress }] = servers;

// ---- The browser -------------------------------------------------------------------------

const { page, problems, close } = await openBrowser(chromium,
  (url) => url.startsWith(address) || url.startsWith(imageAddress)).catch(async (error) => {
  for (const server of servers) await server.ended();
  throw error;
});

const api = (route) => page.evaluate((url) => fetch(url).then((r) => r.json()), `${address}api/v1/files/0${route}`);
const noneLoading = (selector) =>
  page.waitForFunction((s) => document.querySelector(`${s} .vrow`) && !document.querySelector(`${s} .loading`), selector);

const checks = [];
const check = (name, run) => checks.push({ name, run });

check('the served page opens with the tree of the file', async () => {
  const started = Date.now();
  await page.goto(address);
  await page.waitForSelector('#tree .trow .tname');
  await page.waitForFunction(() => document.querySelector('#element-head h2'));
  console.log(`  page usable in ${Date.now() - started} ms`);
  const top = await api('/nodes/0/elements');
  assert.deepEqual(await page.locator('#tree .trow .tname').allInnerTexts(), top.elements.map((e) => e.name));
  assert.equal(await page.locator('#element-head h2').innerText(), top.elements[0].name);
});

check('the video track opens with all its samples, and the table scrolls to its end', async () => {
  await page.locator('#tabs button', { hasText: `${SAMPLES} samples` }).click();
  await noneLoading('#samples');
  assert.ok((await page.locator('#samples .srow').count()) < 200, 'only the rows in view are made');
  const started = Date.now();
  await page.evaluate(() => {
    const table = document.getElementById('samples');
    table.scrollTop = table.scrollHeight;
  });
  await page.waitForSelector(`#samples .srow span:text-is("${SAMPLES - 1}")`);
  await noneLoading('#samples');
  console.log(`  scroll to the end answered in ${Date.now() - started} ms`);
  const last = (await api(`/streams/0/samples?from=${SAMPLES - 1}&count=1`)).samples[0];
  const row = page.locator('#samples .srow', { has: page.locator(`span:text-is("${SAMPLES - 1}")`) });
  const cells = await row.locator('span').allInnerTexts();
  assert.deepEqual(cells.slice(0, 4), [String(last.index), String(last.offset), String(last.size), String(last.dts)]);
});

// The chart tells its view once drawn, and nothing while its columns are on their way.
const newView = (before) => {
  const view = document.querySelector('#chart').dataset.view;
  return view && view !== before;
};

check('the chart zooms with the wheel and with a drag, and a double-click shows all again', async () => {
  const chart = await page.locator('#chart').boundingBox();
  const view = () => page.evaluate(() => document.querySelector('#chart').dataset.view);
  await page.waitForFunction(() => document.querySelector('#chart').dataset.view);
  const full = await view();
  await page.mouse.move(chart.x + chart.width / 2, chart.y + chart.height / 2);
  for (let i = 0; i < 6; i++) await page.mouse.wheel(0, -100);
  await page.waitForFunction(newView, full);
  const [x0, x1] = (await view()).split(' ').map(Number);
  const [f0, f1] = full.split(' ').map(Number);
  assert.ok(x1 - x0 < (f1 - f0) / 2, `zoomed to ${x0}–${x1} of ${f0}–${f1}`);
  const zoomed = await view();
  await page.mouse.move(chart.x + 200, chart.y + 100);
  await page.mouse.down();
  await page.mouse.move(chart.x + 400, chart.y + 100, { steps: 5 });
  await page.mouse.up();
  await page.waitForFunction(newView, zoomed);
  const [d0, d1] = (await view()).split(' ').map(Number);
  assert.ok(d0 > x0 && d1 < x1, `dragged to ${d0}–${d1} inside ${x0}–${x1}`);
  await page.screenshot({ path: path.join(outputDir, 'serve-zoomed.png') });
  const painted = await keyFramePixels(page);
  assert.ok(painted > 20, 'key frames are marked on the zoomed chart');
  await page.mouse.dblclick(chart.x + chart.width / 2, chart.y + chart.height / 2);
  await page.waitForFunction((before) => document.querySelector('#chart').dataset.view === before, full);
});

check('a sample picked on the chart shows its bytes, read from the file', async () => {
  const chart = await page.locator('#chart').boundingBox();
  const previous = await page.evaluate(() => document.querySelector('#selected-sample td')?.textContent ?? '');
  await page.mouse.click(chart.x + 64 + (chart.width - 76) / 4, chart.y + chart.height / 2);
  // The pick asks the server where the sample lies; the row changes when it answers.
  await page.waitForFunction((before) => {
    const cell = document.querySelector('#selected-sample td');
    return cell && cell.querySelector('a') && cell.textContent !== before;
  }, previous);
  const picked = Number((await page.locator('#selected-sample td').innerText()).split(':')[0]);
  assert.ok(Math.abs(picked - SAMPLES / 4) < SAMPLES / 50, `picked sample ${picked}`);
  const sample = (await api(`/streams/0/samples?from=${picked}&count=1`)).samples[0];
  await page.locator('#selected-sample a').click();
  await page.waitForFunction(() => document.querySelector('#element-head h2')?.textContent === 'mdat');
  const shown = Math.min(sample.size, 16 - (sample.offset % 16));
  await page.waitForFunction((n) => document.querySelectorAll('#hex .hbytes .mark').length >= n, shown);
  const first = (await page.locator('#hex .hbytes .mark').allInnerTexts()).slice(0, shown).join(' ');
  const expected = Array.from(fileBytes(sample.offset, shown), (b) => b.toString(16).padStart(2, '0')).join(' ');
  assert.equal(first, expected);
  await page.screenshot({ path: path.join(outputDir, 'serve-sample-bytes.png') });
});

check('the filter asks the server and shows the matches with their parents', async () => {
  await page.locator('#tabs button', { hasText: 'Boxes' }).click();
  await page.fill('#search', 'stsz');
  await page.waitForFunction(() => document.querySelector('#search-count').textContent === '1 box');
  const names = await page.locator('#tree .trow .tname').allInnerTexts();
  assert.deepEqual(names, ['moov', 'trak', 'mdia', 'minf', 'stbl', 'stsz']);
  await page.locator('#tree .trow.match .tname').click();
  await noneLoading('#fields');
  assert.equal(await page.locator('#element-head h2').innerText(), 'stsz');
  await page.fill('#search', '');
  await page.waitForFunction(() => document.querySelector('#search-count').textContent === '');
});

check('the problems of the check are asked for, and one chosen shows its box', async () => {
  const facts = await api('');
  await page.locator('#tabs button', { hasText: `Problems (${facts.problemCount})` }).click();
  assert.ok(await page.locator('#coverage-map').isVisible(), 'the map shows the coverage');
  const listed = (await api(`/problems?count=${facts.problemCount}`)).problems;
  assert.equal(await page.locator('#problems .prow').count(), listed.length);
  if (!listed.length) return;
  await page.locator('#problems .prow').first().click();
  const name = listed[0].path.split('/').at(-1).replace(/\[\d+\]$/, '');
  await page.waitForFunction((n) => document.querySelector('#element-head h2')?.textContent === n, name);
});

check('the items of a served image are listed, and choosing one marks its property boxes', async () => {
  await page.goto(imageAddress);
  const items = await page.evaluate((url) => fetch(url).then((r) => r.json()), `${imageAddress}api/v1/files/0`)
    .then((facts) => facts.items);
  await page.locator('#tabs button', { hasText: `Items (${items.length})` }).click();
  await page.waitForSelector('#items .prow');
  assert.equal(await page.locator('#items .prow').count(), items.length);
  const grid = items.findIndex((item) => item.type === 'grid');
  await page.locator(`#items .prow[data-row="${grid}"]`).click();
  await page.waitForFunction(() => document.querySelector('#element-head h2')?.textContent === 'idat');
  await page.waitForSelector('#tree .trow.related');
  assert.deepEqual(await page.locator('#tree .trow.related .tname').allInnerTexts(),
    items[grid].properties.map((property) => property.type));
});

let failed = 0;
try {
  failed = await runChecks(checks, problems);
} finally {
  await close();
  for (const server of servers) {
    const { code, signal } = await server.ended();
    if (code !== 0) {
      failed++;
      console.log(`not ok - the server ends cleanly on SIGTERM (exit ${code}, signal ${signal})`);
    }
  }
  rmSync(work, { recursive: true, force: true });
}
console.log(`${checks.length - failed} passed, ${failed} failed`);
process.exit(failed ? 1 : 0);
