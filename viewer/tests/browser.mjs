// The viewer in headless Chromium: the page loads and shows tiles, a changed hillshade
// azimuth re-renders the map, and the value under the cursor is the raster's. Serves the
// sample's hillshade with `pixwerk serve` on a free loopback port; keeps a screenshot in
// $PIXWERK_ARTIFACTS. Exits non-zero, saying why, on the first failure.
import { spawn, execFileSync } from 'node:child_process';
import { mkdirSync, mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { chromium } from 'playwright-core';

const cli = process.env.PIXWERK_CLI;
const sampler = process.env.PIXWERK_SAMPLE;
const artifacts = process.env.PIXWERK_ARTIFACTS || join(tmpdir(), 'pixwerk-viewer-test');
const work = mkdtempSync(join(tmpdir(), 'pixwerk-viewer-'));
mkdirSync(artifacts, { recursive: true });

function check(condition, what) {
  if (!condition) throw new Error(what);
  console.log(`ok: ${what}`);
}

execFileSync(sampler, [work, '512'], { stdio: 'ignore' });
writeFileSync(join(work, 'hillshade.json'), JSON.stringify({
  function: 'HillshadeFunction', name: 'Sample hillshade',
  arguments: { DEM: 'dem.tif', Azimuth: 315, ZFactor: 3 },
}));
const server = spawn(cli, ['serve', join(work, 'hillshade.json'), '--port', '0'],
  { stdio: ['ignore', 'pipe', 'inherit'] });
const address = await new Promise((resolve, reject) => {
  let text = '';
  server.stdout.on('data', (chunk) => {
    text += chunk;
    const found = text.match(/at (http:\/\/[^ ]+\/)/);
    if (found) resolve(found[1]);
  });
  server.on('exit', (code) => reject(new Error(`pixwerk serve ended (${code}): ${text}`)));
});

const browser = await chromium.launch({
  executablePath: process.env.PIXWERK_CHROMIUM,
  args: ['--no-sandbox', '--disable-gpu'],
});
let failed = false;
try {
  const page = await browser.newPage({ viewport: { width: 1000, height: 700 } });
  page.on('pageerror', (error) => console.log(`page error: ${error.message}`));
  await page.goto(address);
  await page.waitForFunction(() => window.pixwerk && window.pixwerk.info);
  check(await page.title() === 'pixwerk serve', 'the page loads');

  // The map's canvas: how many pixels are neither blank nor background, and a fingerprint.
  const look = () => page.evaluate(() => {
    const canvas = document.querySelector('#map canvas');
    if (!canvas) return { drawn: 0, print: 0 };
    const data = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
    let drawn = 0;
    let print = 0;
    for (let i = 0; i < data.length; i += 4) {
      if (data[i + 3] > 0) drawn += 1;
      print = (print * 31 + data[i] + 7 * data[i + 1] + 13 * data[i + 2]) % 1000000007;
    }
    return { drawn, print };
  });
  await page.waitForFunction(() => window.pixwerk.renderedVersion === 0);
  const before = await look();
  check(before.drawn > 100000, `tiles appear (${before.drawn} pixels drawn)`);
  await page.screenshot({ path: join(artifacts, 'viewer.png') });
  const mapBefore = await page.locator('#map').screenshot();

  await page.selectOption('#argument-Azimuth', '90').catch(async () => {
    await page.fill('#argument-Azimuth', '90');
    await page.dispatchEvent('#argument-Azimuth', 'change');
  });
  await page.waitForFunction(() => document.getElementById('status').textContent.includes('Azimuth is now 90'));
  await page.waitForFunction(() => window.pixwerk.renderedVersion === 1);
  await page.screenshot({ path: join(artifacts, 'viewer-azimuth-90.png') });
  const mapAfter = await page.locator('#map').screenshot();
  const after = await look();
  check(after.drawn > 100000 && !mapAfter.equals(mapBefore),
    `a changed azimuth re-renders the map (${after.drawn} pixels drawn)`);

  const box = await page.locator('#map').boundingBox();
  await page.mouse.move(box.x + box.width / 2, box.y + box.height / 2);
  await page.waitForFunction(() => window.pixwerk.identify && window.pixwerk.identify.values);
  const shown = await page.evaluate(() => window.pixwerk.identify);
  const direct = await (await fetch(`${address}api/identify?x=${shown.x}&y=${shown.y}`)).json();
  check(JSON.stringify(shown.values) === JSON.stringify(direct.values) && shown.values[0] !== null,
    `the value under the cursor is the raster's (${shown.values})`);
  const text = await page.textContent('#cursor');
  check(text.includes(String(direct.values[0])), 'the panel shows it');
} catch (error) {
  failed = true;
  console.error(`FAILED: ${error.message}`);
} finally {
  await browser.close();
  server.kill('SIGINT');
  rmSync(work, { recursive: true, force: true });
}
process.exit(failed ? 1 : 0);
