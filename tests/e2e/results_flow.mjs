// Browser test of the results screen against lanewright-sim: two margins of
// one device (and a third cancelled while queued) are archived, the table
// shows grades and dashes for the test that didn't measure, rows open by
// keyboard, the two margins are compared, one is run again and appears
// without a reload, and the CSV export covers the shown range.
//
// node results_flow.mjs --sim <lanewright-sim> --artifacts <folder>
//
// Screenshots land in the artifacts folder as results-flow-*.png, with the
// service's console output (results-flow-sim.log).
import fs from 'node:fs';
import path from 'node:path';
import assert from 'node:assert/strict';
import { LONG_WAIT_MS, WAIT_MS, open_page, run, wait_live, wait_until } from './harness.mjs';

const GRADE = /^(Fail|Pass|Perfect)$/;

/** Cells of the results table's rows by their visible text, newest first. */
function table_rows(page) {
  return page.$$eval('[data-testid=results-table] tbody tr[data-result]', (rows) =>
    rows.map((r) => ({
      id: r.dataset.result,
      test: r.cells[0].textContent,
      status: r.cells[3].querySelector('.status')?.textContent ?? '',
      left: r.cells[8].textContent,
      top: r.cells[10].textContent,
      grade: r.cells[12].textContent,
    })),
  );
}

async function queue_margins(service) {
  const devices = await service.api('GetPCIEDeviceListForMargin');
  const target = devices.find((d) => d.PCIeMarginSupported && (d.PCIeMarginData?.Lanes ?? []).length >= 4 && /^(16|32)/.test(d.PCIeInfo.Speed ?? ''));
  assert.ok(target, 'the simulated machine offers a margin-capable 16 or 32 GT/s device');
  const record = {
    Operation: 'PCIe Margin',
    PCIeInfo: target.PCIeInfo,
    PCIeCtrlInfo: target.PCIeCtrlInfo,
    SERDES: target.SERDES,
    TestParams: {
      // The coarsest BER offered: the shortest dwell.
      BER: [...target.PCIeMarginData.BER].sort((a, b) => Number(a) - Number(b))[0],
      ErrCnt: 4,
      Receiver: target.PCIeMarginData.Receivers[0],
      Lanes: target.PCIeMarginData.Lanes.slice(0, 4),
    },
  };
  // Three tests of one function: they run one after the other, so the third
  // is still queued when it is cancelled.
  const ids = [];
  for (let i = 0; i < 3; i++) {
    const answer = await service.api('AddTestToQueue', record);
    assert.equal(answer.OperationStatus, true, JSON.stringify(answer));
    assert.equal(typeof answer.TestID, 'number', 'the queue names the test it accepted');
    ids.push(answer.TestID);
  }
  const cancel = await service.api('CancelTest', { TestID: ids[2] });
  assert.equal(cancel.OperationStatus, true, JSON.stringify(cancel));
  return { sbdf: target.PCIeInfo.SBDF, ids, lanes: record.TestParams.Lanes };
}

async function check_results({ browser, service, shot, artifacts }) {
  const { sbdf, ids, lanes } = await queue_margins(service);
  await wait_until(
    'three archived results',
    async () => (await service.api('GetResultsSummary?offset=0&limit=10')).Total >= 3,
    LONG_WAIT_MS,
  );

  const { context, page, problems } = await open_page(browser, { width: 1600, height: 1000 });
  await page.goto(`${service.base}/#results`);
  await wait_live(page);
  const rows = await wait_until('the three results in the table', async () => {
    const shown = await table_rows(page);
    return shown.length >= 3 ? shown : null;
  });

  const byTest = Object.fromEntries(rows.map((r) => [Number(r.test), r]));
  for (const id of ids.slice(0, 2)) {
    assert.equal(byTest[id]?.status, 'complete', JSON.stringify(byTest[id]));
    assert.match(byTest[id].grade, GRADE, `grade of test ${id}`);
    assert.match(byTest[id].left, /^\d+\.\d{3} UI \(\d+\.\d ps\)$/, byTest[id].left);
    assert.match(byTest[id].top, /^\d+\.\d mV$/, byTest[id].top);
  }
  const cancelled = byTest[ids[2]];
  assert.equal(cancelled?.status, 'Cancelled', JSON.stringify(cancelled));
  assert.deepEqual([cancelled.left, cancelled.top, cancelled.grade], ['–', '–', '–'], 'a test that did not measure shows dashes');
  assert.match(await page.textContent('[data-testid=results-count]'), /^1–3 of 3, newest first$/);
  await shot(page, 'table');

  const detail_of = (id) =>
    wait_until(`the detail of test ${id}`, async () =>
      (await page.evaluate(() => document.querySelector('[data-testid=result-detail] h2')?.textContent ?? '')).startsWith(`Test ${id} `),
    );
  const row_of = (id) => `[data-testid=results-table] tr[data-result]:has(td:first-child:text-is("${id}"))`;

  // Rows open by keyboard: the first row focused, arrow down, Enter opens the second.
  await page.focus('[data-testid=results-table] tr[data-result]');
  await page.keyboard.press('ArrowDown');
  await page.keyboard.press('Enter');
  await detail_of(rows[1].test);

  const newest = Math.max(ids[0], ids[1]);
  const oldest = Math.min(ids[0], ids[1]);
  await page.click(row_of(newest));
  await detail_of(newest);
  await page.waitForSelector('[data-testid=eye-width-chart] canvas', { timeout: WAIT_MS });
  assert.match(await page.textContent('[data-testid=test-grade] .grade'), GRADE);
  assert.match(await page.textContent('.limits'), /^Limits: eye width ≥ [\d.]+ ps \(recommended [\d.]+ ps\), eye height ≥ [\d.]+ mV/);
  const laneGrades = await page.$$eval('[data-testid=lane-grades] tbody tr', (trs) => trs.map((tr) => tr.cells[7].textContent));
  assert.equal(laneGrades.length, lanes.length);
  for (const g of laneGrades) assert.match(g, GRADE);
  assert.match(await page.textContent('[data-testid=timing-chart] .worst-note'), /^worst lane \d+: left [\d.]+, right [\d.]+ UI$/);
  await page.click('text=Show raw error maps');
  await page.waitForSelector('[data-testid=error-maps] table.map tbody tr td.num', { timeout: WAIT_MS });
  const mapRow = await page.$eval('[data-testid=error-maps] table.map tbody tr', (tr) => [...tr.cells].map((c) => c.textContent));
  assert.match(mapRow[1], /UI \(/, `offset shown in UI and ps: ${mapRow}`);
  assert.match(mapRow[2], /^[\d.]+ (s|min)$/, `dwell in s or min: ${mapRow}`);
  await shot(page, 'detail');

  // The cancelled test opens with its reason, no margins, and can be run again.
  await page.click(row_of(ids[2]));
  await detail_of(ids[2]);
  await wait_until('the cancelled test', async () => (await page.textContent('[data-testid=result-detail]')).includes('Cancelled before it started'));
  assert.equal(await page.$('[data-testid=timing-chart]'), null, 'no chart for a test that did not measure');

  // Compare the two margins: one device, both runs' lanes side by side.
  for (const id of ids.slice(0, 2)) await page.check(`[aria-label="Compare test ${id}"]`);
  assert.equal(await page.isDisabled(`[aria-label="Compare test ${ids[2]}"]`), true, 'a cancelled test is not comparable');
  await page.click('[data-testid=compare]');
  await page.waitForSelector('[data-testid=compare-width-chart] canvas', { timeout: WAIT_MS });
  await page.waitForSelector('[data-testid=compare-height-chart] canvas', { timeout: WAIT_MS });
  const compared = await page.$$eval('[data-testid=compare-table] tbody tr', (trs) => trs.map((tr) => tr.cells.length));
  assert.equal(compared.length, lanes.length);
  // Lane, three cells per run, two spreads.
  for (const cells of compared) assert.equal(cells, 1 + 3 * 2 + 2);
  assert.match(await page.textContent('[data-testid=comparison] h2'), new RegExp(`^Comparison of 2 results of ${sbdf.replace(/\./g, '\\.')}$`));
  await shot(page, 'compare');
  await page.click('text=Close comparison');

  // The export covers the shown range as finish stamps.
  const href = await page.getAttribute('[data-testid=export-csv]', 'href');
  assert.match(href, /^\/api\/1\.0\/ExportResultsCSV\?from=\d{4}_\d\d_\d\d-\d\d_\d\d_\d\d&to=\d{4}_\d\d_\d\d-\d\d_\d\d_\d\d&kind=pcie$/);
  const [download] = await Promise.all([page.waitForEvent('download', { timeout: WAIT_MS }), page.click('[data-testid=export-csv]')]);
  const csv = fs.readFileSync(await download.path(), 'utf8');
  fs.writeFileSync(path.join(artifacts, 'results-flow-report.csv'), csv);
  const [head, ...body] = csv.trim().split('\n');
  assert.match(head, /grade/i, `the export has grade columns: ${head}`);
  assert.ok(body.length >= 2 * lanes.length, 'one row per margined lane of both margins');

  // Run again: the new test's result appears without a reload.
  await page.click(row_of(oldest));
  await detail_of(oldest);
  await page.click('[data-testid=run-again]');
  const again = await page.waitForSelector('[data-testid=run-again-answer].success', { timeout: WAIT_MS });
  const againId = Number(/^Queued again as test (\d+)\.$/.exec(await again.textContent())?.[1]);
  assert.ok(Number.isInteger(againId), await again.textContent());
  await wait_until(
    'the result of the test run again',
    async () => (await table_rows(page)).some((r) => Number(r.test) === againId && r.status === 'complete'),
    LONG_WAIT_MS,
  );
  await shot(page, 'run-again');
  assert.deepEqual(problems, []);
  await context.close();
}

// Fast: the margins only have to finish; nothing here watches them run.
await run('results-flow', 20000, async (env) => {
  await check_results(env);
  console.log('ok - results: grades, dashes, keyboard, comparison, export, run again');
});
