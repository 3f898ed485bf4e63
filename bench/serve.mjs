// Times the page of `sarvelinth --serve` on a long file, as a person would meet it: how long
// the server takes to be ready (beside the default JSON report of the same file), how long
// the page takes to be usable, how long the sample table takes to answer a scroll to its end
// and to random places, and the server's peak memory (VmHWM), read before it is stopped with
// SIGTERM. The browser is Debian's chromium through tests/browser's playwright-core.
//
//   node bench/serve.mjs SARVELINTH FILE [ARGUMENT...]
//
// ARGUMENTs go to the server too (for example --deep or --check). With SCREENSHOT=FILE in
// the environment, the stream's view is saved there as PNG at the end.
import { execFileSync, spawn } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync } from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

const [tool, file, ...extra] = process.argv.slice(2);
if (!tool || !file) {
  console.error('usage: node bench/serve.mjs SARVELINTH FILE [ARGUMENT...]');
  process.exit(2);
}
const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '..');
const { chromium } = await import(path.join(root, 'tests/browser/node_modules/playwright-core/index.mjs'));
const median = (values) => [...values].sort((a, b) => a - b)[Math.floor(values.length / 2)];
const seconds = (ms) => `${(ms / 1000).toFixed(2)} s`;

// The default JSON report of the same file, the median of three.
const jsonTimes = [];
for (let i = 0; i < 3; i++) {
  const started = performance.now();
  execFileSync(tool, ['--format', 'json', file], { stdio: ['ignore', 'ignore', 'ignore'], maxBuffer: 0 });
  jsonTimes.push(performance.now() - started);
}

const started = performance.now();
const server = spawn(tool, ['--serve', ...extra, file], { stdio: ['ignore', 'ignore', 'pipe'] });
let serverErr = '';
const address = await new Promise((resolve, reject) => {
  server.stderr.on('data', (data) => {
    serverErr += data;
    const match = /serving (http:\/\/127\.0\.0\.1:\d+\/)/.exec(serverErr);
    if (match) resolve(match[1]);
  });
  server.on('exit', () => reject(new Error(`the server ended: ${serverErr}`)));
});
const ready = performance.now() - started;

const profile = mkdtempSync(path.join(os.tmpdir(), 'sarvelinth-chromium-'));
const context = await chromium.launchPersistentContext(profile, {
  executablePath: '/usr/bin/chromium',
  headless: true,
  args: ['--no-sandbox', '--headless', '--disable-gpu', '--no-first-run'],
  viewport: { width: 1400, height: 900 },
});
const settled = (selector) =>
  page.waitForFunction((s) => document.querySelector(`${s} .vrow`) && !document.querySelector(`${s} .loading`), selector);
const page = context.pages()[0] || (await context.newPage());
let opened = performance.now();
await page.goto(address);
await page.waitForFunction(() => document.querySelector('#element-head h2'));
await settled('#fields');
opened = performance.now() - opened;

// The stream with the most samples, and its table scrolled to places it has not shown.
const streams = await page.evaluate(() => fetch('api/v1/files/0').then((r) => r.json()).then((f) => f.streams));
const largest = streams.reduce((best, s) => (s.sampleCount > best.sampleCount ? s : best));
await page.locator('#tabs button', { hasText: `Stream ${largest.index}:` }).click();
await settled('#samples');
async function scrollTo(fraction) {
  const begun = performance.now();
  await page.evaluate((f) => {
    const table = document.getElementById('samples');
    table.scrollTop = f * (table.scrollHeight - table.clientHeight);
  }, fraction);
  await page.waitForFunction(() => !document.querySelector('#samples .loading'));
  return performance.now() - begun;
}
const toEnd = await scrollTo(1);
const scrolls = [];
for (let i = 1; i <= 20; i++) scrolls.push(await scrollTo(((i * 7919) % 1000) / 1000));

// The stream's view, for the README.
if (process.env.SCREENSHOT) {
  await scrollTo(0.5);
  const chart = await page.locator('#chart').boundingBox();
  await page.mouse.click(chart.x + chart.width * 0.6, chart.y + chart.height / 2);
  await page.waitForFunction(() => !document.querySelector('#samples .loading'));
  await page.screenshot({ path: process.env.SCREENSHOT });
}

const peak = Number(/VmHWM:\s+(\d+) kB/.exec(readFileSync(`/proc/${server.pid}/status`, 'utf8'))[1]);
await context.close();
rmSync(profile, { recursive: true, force: true });
server.kill('SIGTERM');
await new Promise((resolve) => server.on('exit', resolve));

const json = median(jsonTimes);
console.log(`file ${path.basename(file)}: ${largest.sampleCount} samples in its largest stream`);
console.log(`default JSON report      ${seconds(json)}`);
console.log(`server ready             ${seconds(ready)} (${(ready / json).toFixed(2)} times the JSON report)`);
console.log(`page usable              ${seconds(opened)}`);
console.log(`scroll to the end        ${toEnd.toFixed(0)} ms`);
console.log(`scroll to 20 places      median ${median(scrolls).toFixed(0)} ms, longest ${Math.max(...scrolls).toFixed(0)} ms`);
console.log(`server peak memory       ${(peak / 1024).toFixed(1)} MiB`);
