// What the browser tests share: Debian's chromium through playwright-core (the test is
// skipped, exit 77, without them), a page that records its errors, console errors, dialogs
// and requests to places it may not reach, and the runner of the named checks.
import assert from 'node:assert/strict';
import { existsSync, mkdtempSync, rmSync } from 'node:fs';
import os from 'node:os';
import path from 'node:path';

const CHROMIUM = '/usr/bin/chromium';
const CHROMIUM_ARGS = ['--no-sandbox', '--headless', '--disable-gpu', '--disable-background-networking',
  '--disable-quic', '--no-first-run', '--disable-component-update', '--disable-sync'];

export function skip(why) {
  console.log(`SKIPPED: ${why}`);
  process.exit(77);
}

// playwright-core's chromium, or a skip saying what is missing.
export async function browserOrSkip() {
  if (!existsSync(CHROMIUM)) skip(`no browser at ${CHROMIUM}: install Debian's chromium (./test does)`);
  try {
    return (await import('playwright-core')).chromium;
  } catch {
    skip('playwright-core is not installed: run npm ci in tests/browser (./test does)');
  }
}

// A page in a fresh profile; `problems` collects what the page must not do, such as a request
// whose address `allowed` refuses.
export async function openBrowser(chromium, allowed) {
  const profile = mkdtempSync(path.join(os.tmpdir(), 'sarvelinth-chromium-'));
  const context = await chromium.launchPersistentContext(profile, {
    executablePath: CHROMIUM,
    headless: true,
    args: CHROMIUM_ARGS,
    viewport: { width: 1400, height: 900 },
  });
  const page = context.pages()[0] || (await context.newPage());
  const problems = [];
  page.on('pageerror', (error) => problems.push(`page error: ${error.message}`));
  page.on('console', (message) => {
    if (message.type() === 'error') problems.push(`console: ${message.text()}`);
  });
  page.on('dialog', (dialog) => {
    problems.push(`dialog: ${dialog.message()}`);
    dialog.dismiss();
  });
  page.on('request', (request) => {
    if (!allowed(request.url())) problems.push(`request elsewhere: ${request.url()}`);
  });
  const close = async () => {
    await context.close();
    rmSync(profile, { recursive: true, force: true });
  };
  return { page, problems, close };
}

// How many pixels of the sample chart have the red of key frames.
export async function keyFramePixels(page) {
  return page.evaluate(() => {
    const canvas = document.getElementById('chart');
    const pixels = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
    let key = 0;
    for (let i = 0; i < pixels.length; i += 4) if (pixels[i] > 200 && pixels[i + 1] < 120 && pixels[i + 2] < 100) key++;
    return key;
  });
}

// Runs the checks in order, each failing on an exception or on a problem of the page, and
// tells each as "ok" or "not ok"; returns how many failed.
export async function runChecks(checks, problems) {
  let failed = 0;
  for (const { name, run } of checks) {
    const before = problems.length;
    try {
      await run();
      assert.deepEqual(problems.slice(before), []);
      console.log(`ok - ${name}`);
    } catch (error) {
      failed++;
      console.log(`not ok - ${name}\n${String(error.stack || error).replace(/^/gm, '    ')}`);
    }
  }
  return failed;
}
