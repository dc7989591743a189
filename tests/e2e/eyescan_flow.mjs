// Browser test of the eye scan against lanewright-sim: a scan of the hVL
// link end s0.G1, lanes 0-3 at BER "5.24" (2^15 bits per point), queued
// from the eye scan screen and followed on the queue to its result, opened
// from "Recently finished" and from the results table: four heatmaps whose
// hovered cells read what the service counted, the eye dark and its
// surroundings bright, bathtub curves, the plotted images, and the figures
// table with its CSV. Then a scan whose second lane's ring stalls (a fault
// of the model): the lane before it is shown, the stalled one says why.
//
// node eyescan_flow.mjs --sim <lanewright-sim> --artifacts <folder>
//
// Screenshots land in the artifacts folder as eyescan-flow-*.png.
import assert from 'node:assert/strict';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { LONG_WAIT_MS, WAIT_MS, open_page, run, wait_live, watch_queue_row } from './harness.mjs';

const LANES = [0, 1, 2, 3];
const STALLED = 9;
const BER = '5.24';
const sci = (x) => x.toExponential(1).replace('e+', 'e');

async function queue_from_form(page, base) {
  await page.goto(`${base}/#eye`);
  await page.waitForSelector('#ey-target option[value^="hvl|"]', { state: 'attached', timeout: WAIT_MS });
  const value = await page.$$eval('#ey-target option', (options) => options.find((o) => / s0\.G1 /.test(o.textContent))?.value);
  assert.ok(value, 'the targets list s0.G1');
  await page.selectOption('#ey-target', value);
  // Nothing chosen: the form says why and sends nothing.
  await page.click('text=None');
  await page.click('[data-testid=ey-submit]');
  assert.equal(await page.textContent('[data-testid=ey-error-lanes]'), 'Choose at least one lane, or all lanes.');
  assert.equal(await page.textContent('[data-testid=ey-queue-answer]'), '');
  await page.click('[data-testid=ey-lanes-quad]');
  assert.equal(await page.$eval('#ey-ber option[value="5.24"]', (o) => o.textContent), '1e-5.24 (2¹⁵ bits)');
  await page.selectOption('#ey-ber', BER);
  await page.waitForSelector('[data-testid=ey-estimate]:not(.updating):has-text("on hardware")', { timeout: WAIT_MS });
  const estimate = await page.textContent('[data-testid=ey-estimate]');
  assert.match(estimate, /^about \d+ (s|min|h)\b.* on hardware \(4 lanes one after another\)/, estimate);
  await page.click('[data-testid=ey-submit]');
  const answer = await (await page.waitForSelector('[data-testid=ey-queue-answer] :is(.success, .error)', { timeout: WAIT_MS })).textContent();
  const id = /^Queued as test (\d+): eye scan of s0\.G1, lanes 0-3, BER 1e-5\.24 \(2¹⁵ bits\)\./.exec(answer);
  assert.ok(id, answer);
  return Number(id[1]);
}

/** Screen row of voltage bin r: the highest voltage at the top. */
const screen_row = (d, r) => (d.VoltageMV[d.VoltageMV.length - 1] > d.VoltageMV[0] ? d.VoltageMV.length - 1 - r : r);

/** Points at cell (p, r) of a lane's map; returns the reading once it names that cell, and the cell's lightness. */
async function point_at(page, canvas, d, p, r) {
  await canvas.scrollIntoViewIfNeeded();
  const [left, top, width, height] = (await canvas.getAttribute('data-plot')).split(',').map(Number);
  const box = await canvas.boundingBox();
  // Off the cell's centre line, where the eye opening is marked.
  const x = left + (p + 0.3) * (width / d.PhaseUI.length);
  const y = top + (screen_row(d, r) + 0.5) * (height / d.VoltageMV.length);
  await page.mouse.move(box.x + x, box.y + y);
  const where = `Phase ${d.PhaseUI[p].toFixed(4)} UI · voltage ${d.VoltageMV[r].toFixed(1)} mV · `;
  await page.waitForFunction(([c, text]) => c.nextElementSibling?.textContent.startsWith(text), [canvas, where], { timeout: WAIT_MS });
  const reading = await canvas.evaluate((c) => c.nextElementSibling.textContent);
  const rgb = await canvas.evaluate((c, [cx, cy]) => [...c.getContext('2d').getImageData(cx * devicePixelRatio, cy * devicePixelRatio, 1, 1).data].slice(0, 3), [x, y]);
  return { reading: reading.slice(where.length), light: rgb[0] * 0.3 + rgb[1] * 0.6 + rgb[2] * 0.1 };
}

async function check_eyes(page, d) {
  const lanes = await page.$$('[data-testid=eye-lane]');
  assert.equal(lanes.length, LANES.length, 'a heatmap per lane');
  const bits = 2 ** d.Nbits * 2 * d.Taps;
  const nearest = (values) => values.reduce((best, v, i) => (Math.abs(v) < Math.abs(values[best]) ? i : best), 0);
  const cells = { centre: [nearest(d.PhaseUI), nearest(d.VoltageMV)], corner: [0, d.VoltageMV.indexOf(Math.max(...d.VoltageMV))] };
  for (const [i, lane] of lanes.entries()) {
    assert.equal(Number(await lane.getAttribute('data-lane')), LANES[i]);
    const canvas = await lane.$('[data-testid=eye-heatmap]');
    const seen = {};
    for (const [name, [p, r]] of Object.entries(cells)) {
      seen[name] = await point_at(page, canvas, d, p, r);
      const count = d.Lanes.find((l) => l.Lane === LANES[i]).Counts[r][p];
      const ber = count > 0 ? `BER ${sci(Math.min(1, count / bits))} (` : `BER < ${sci(1 / bits)} (no error`;
      assert.ok(seen[name].reading.startsWith(ber), `lane ${LANES[i]} ${name}: "${seen[name].reading}", count ${count}`);
    }
    const { centre: inside, corner } = seen;
    assert.ok(corner.light > inside.light + 100, `lane ${LANES[i]}: the eye is dark (${inside.light}) and its corner bright (${corner.light})`);
    for (const cut of ['phase', 'voltage']) assert.ok(await lane.$(`[data-testid=bathtub-${cut}] canvas`), `lane ${LANES[i]} ${cut} bathtub`);
  }
  // The images the plotting tool drew load, and their links fetch them.
  await page.waitForFunction(() => {
    const images = [...document.querySelectorAll('[data-testid=eye-png]')];
    return images.length === 4 && images.every((img) => img.complete && img.naturalWidth > 0);
  }, null, { timeout: WAIT_MS });
  for (const href of await page.$$eval('[data-testid=eye-png-download]', (links) => links.map((a) => a.href))) {
    const response = await fetch(href);
    assert.equal(response.headers.get('content-type'), 'image/png', href);
  }
  // The figures at the BER floor, one row per lane, sides on their own side of the centre.
  const table = await page.$eval('[data-testid=eye-analysis]', (t) => ({
    head: [...t.querySelectorAll('thead th')].map((th) => th.textContent),
    rows: [...t.querySelectorAll('tbody tr')].map((tr) => [...tr.cells].map((c) => c.textContent)),
  }));
  assert.equal(table.rows.length, 4, JSON.stringify(table));
  const column = (name) => table.rows.map((row) => Number(row[table.head.indexOf(name)]));
  assert.deepEqual(column('Lane'), LANES);
  for (const [name, sign] of [['Top (mV)', 1], ['Bottom (mV)', -1], ['Left (UI)', -1], ['Right (UI)', 1]]) {
    for (const value of column(name)) assert.ok(value * sign > 0, `${name}: ${column(name)}`);
  }
  const csv = await (await fetch(await page.$eval('[data-testid=analysis-csv]', (a) => a.href))).text();
  assert.equal(csv.trim().split('\n').length, 5, csv);
}

/** Scans lanes 8 and 9 of s0.G1, whose lane 9 ring stalls: lane 8 keeps its eye, lane 9 says why it has none. */
async function check_stalled_lane(page, service, shot) {
  const g1 = (await service.api('GetDeviceListForEyeScan')).find((t) => t.HVLCtrlInfo?.Socket === 0 && t.HVLCtrlInfo.SERDES === 'G1');
  const queued = await service.api('AddTestToQueue', {
    Operation: 'EyeScan', SERDES: g1.SERDES, HVLCtrlInfo: g1.HVLCtrlInfo, TestParams: { Lanes: [STALLED - 1, STALLED], BER: BER },
  });
  assert.equal(queued.OperationStatus, true, JSON.stringify(queued));
  await page.goto(`${service.base}/#queue`);
  const finished = await page.waitForSelector(`[data-testid=finished-item][data-test="${queued.TestID}"]`, { timeout: LONG_WAIT_MS });
  assert.equal(await finished.getAttribute('data-status'), 'Failed', await finished.textContent());
  await finished.$eval('[data-testid=open-result]', (a) => a.click());
  await page.waitForSelector('[data-testid=eye-lane] [data-testid=eye-heatmap]', { timeout: WAIT_MS });
  const reason = await page.textContent('[data-testid=result-detail] .detail-line .error');
  assert.match(reason, new RegExp(`lane ${STALLED}\\b`), reason);
  const lanes = await page.$$eval('[data-testid=eye-lane]', (cards) =>
    cards.map((c) => [Number(c.dataset.lane), Boolean(c.querySelector('canvas[data-testid=eye-heatmap]')), c.querySelector('[data-testid=eye-lane-missing]')?.textContent ?? null]),
  );
  assert.deepEqual(lanes, [[STALLED - 1, true, null], [STALLED, false, `No error map for this lane: ${reason}`]]);
  await shot(page, 'stalled-lane');
}

// The default machine with lane 9 of s0.G1 stalling its ring.
const here = path.dirname(fileURLToPath(import.meta.url));
const profile = JSON.parse(fs.readFileSync(path.resolve(here, '../../src/simulator/profiles/default.json'), 'utf8'));
profile.faults = [...(profile.faults ?? []), { type: 'eye_ring_stall', socket: 0, link: 'G1', lane: STALLED }];
const profilePath = path.join(fs.mkdtempSync(path.join(os.tmpdir(), 'lanewright-eyescan-')), 'profile.json');
fs.writeFileSync(profilePath, JSON.stringify(profile));

await run('eyescan-flow', 100000, async ({ service, browser, shot }) => {
  const { context, page, problems } = await open_page(browser, { width: 1440, height: 900 });
  await page.goto(`${service.base}/`);
  await wait_live(page);
  const testId = await queue_from_form(page, service.base);
  await shot(page, 'form');

  await page.goto(`${service.base}/#queue`);
  const watch = watch_queue_row(page, testId);
  const finished = await page.waitForSelector(`[data-testid=finished-item][data-test="${testId}"]`, { timeout: LONG_WAIT_MS });
  await watch.done();
  assert.equal(await finished.getAttribute('data-status'), 'complete', await finished.textContent());
  console.log(`# statuses seen on the queue: ${watch.statuses.join(', ') || 'none (ended between pushes)'}`);

  const resultId = decodeURIComponent((await finished.$eval('[data-testid=open-result]', (a) => a.getAttribute('href'))).replace('#/results/', ''));
  const data = await service.api(`GetEyeScanData?id=${encodeURIComponent(resultId)}`);
  assert.equal(data.OperationStatus, true, JSON.stringify(data).slice(0, 300));
  await finished.$eval('[data-testid=open-result]', (a) => a.click());
  await page.waitForSelector('[data-testid=eye-lane]', { timeout: LONG_WAIT_MS });
  await check_eyes(page, data);
  await page.mouse.move(0, 0);
  await page.evaluate(() => window.scrollTo(0, 0));
  await shot(page, 'result');

  // The results table opens it too.
  await page.goto(`${service.base}/#results`);
  await page.click(`[data-testid=results-table] tr[data-result="${resultId}"]`, { timeout: WAIT_MS });
  await page.waitForSelector('[data-testid=eye-lane] [data-testid=eye-heatmap]', { timeout: WAIT_MS });
  assert.equal(await page.$$eval('[data-testid=eye-lane]', (l) => l.length), 4);
  console.log('ok - an eye scan of s0.G1 lanes 0-3 queued from the screen, watched to its result, four eyes with their figures and images');

  await check_stalled_lane(page, service, shot);
  assert.deepEqual(problems, []);
  await context.close();
  console.log(`ok - a scan whose lane ${STALLED} stalls shows the lane before it and says why lane ${STALLED} has no eye`);
}, ['--profile', profilePath]);
fs.rmSync(path.dirname(profilePath), { recursive: true, force: true });
