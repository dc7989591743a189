// Browser test of the hVL screens against lanewright-sim: the link list with
// both ends of each link, the form's own errors, a margin of s0.G1 lanes 0-3
// at BER 1e-9 watched lane by lane to "complete", a test of the partner end
// (s1.G3) that waits for it, and the result with its lanes in steps, UI/ps
// and mV, equalisation and offset records.
//
// node hvl_flow.mjs --sim <lanewright-sim> --artifacts <folder>
//
// Screenshots land in the artifacts folder as hvl-flow-*.png, with the
// service's console output (hvl-flow-sim.log).
import assert from 'node:assert/strict';
import { LONG_WAIT_MS, WAIT_MS, open_page, queue_row, run, wait_live, wait_until, watch_queue_row } from './harness.mjs';

const OPERATION = 'HVL Destructive Margin';
// Wall time the watched margin should take: several once-a-second queue
// pushes, and time to queue the partner's test while it runs.
const WATCHED_SECONDS = 20;
const DIRECTION = '(Top|Bottom|Left|Right)';

/** Cells of the link table by column name, for the row of one end ("s0.G1"). */
function link_cells(page, end) {
  return page.evaluate((label) => {
    const heads = [...document.querySelectorAll('[data-testid=hvl-link-table] thead th')].map((th) => th.textContent);
    const row = document.querySelector(`[data-testid=hvl-link-table] tbody tr[data-end="${label}"]`);
    return row ? Object.fromEntries(heads.map((h, i) => [h, row.cells[i]?.textContent ?? ''])) : null;
  }, end);
}

const end_of = (info) => `s${info.Socket}${info.Die ? `d${info.Die}` : ''}.${info.SERDES}`;

async function check_link_list(page, links) {
  for (const { HVLCtrlInfo: info, HVLDestMarginData: data, HVLDestMarginSupported: ok } of links) {
    const cells = await link_cells(page, end_of(info));
    assert.ok(cells, `row of ${end_of(info)}`);
    assert.equal(cells.Die, info.DeviceName);
    assert.equal(cells.Link, info.SERDES);
    assert.equal(cells['Partner end'], `s${info.PartnerSocket}${info.PartnerDie ? `d${info.PartnerDie}` : ''}.${info.PartnerSERDES}`);
    assert.equal(cells.Rate, info.Speed.replace(/Gts$/, ' GT/s'));
    assert.equal(cells.Width, info.Width.trim());
    assert.match(cells['Lane order'], info.LaneReversed ? /^reversed/ : /^straight$/);
    assert.equal(cells.Margining, ok ? 'Supported' : 'No');
    if (ok) assert.equal(cells.Lanes, `${Math.min(...data.Lanes)}-${Math.max(...data.Lanes)}`);
  }
}

/** Queues from the form: the end's row button, some lanes, a BER; returns the TestID. */
async function queue_from_form(page, base, end, lanes, ber) {
  await page.goto(`${base}/#hvl`);
  await page.click(`[data-testid=hvl-link-table] tr[data-end="${end}"] button`);
  await page.uncheck('#hv-all-lanes');
  for (const lane of lanes) await page.check(`[data-testid=hv-lane-choices] label:text-is("${lane}") input`);
  await page.selectOption('#hv-ber', ber);
  await page.waitForSelector('[data-testid=hv-estimate]:not(.updating):has-text("on hardware")', { timeout: WAIT_MS });
  const estimate = await page.textContent('[data-testid=hv-estimate]');
  assert.match(estimate, new RegExp(`^about \\d+ (s|min|h|d)\\b.* on hardware .*${lanes.length} lanes? one after another`), estimate);
  console.log(`# estimate for ${end} lanes ${lanes} BER 1e-${ber}: ${estimate}`);
  await page.click('[data-testid=hv-submit]');
  const answer = await page.waitForSelector('[data-testid=hv-queue-answer] .success, [data-testid=hv-queue-answer] .error', { timeout: WAIT_MS });
  const text = await answer.textContent();
  const id = new RegExp(`^Queued as test (\\d+): hVL margin of ${end.replace('.', '\\.')}, lanes `).exec(text);
  assert.ok(id, text);
  return Number(id[1]);
}

async function check_form_errors(page) {
  await page.uncheck('#hv-all-lanes');
  await page.fill('#hv-errcnt', '99');
  await page.click('[data-testid=hv-submit]');
  assert.equal(await page.textContent('[data-testid=hv-error-lanes]'), 'Choose at least one lane, or all lanes.');
  assert.equal(await page.textContent('[data-testid=hv-error-errCnt]'), 'Error count must be between 1 and 63.');
  assert.equal(await page.textContent('[data-testid=hv-queue-answer]'), '', 'nothing is sent while the form has errors');
}

/** The cells of the opened hVL result's lane table, a row per lane. */
function result_lanes(page) {
  return page.$$eval('[data-testid=hvl-lanes] tbody tr', (rows) => rows.map((r) => [...r.cells].map((c) => c.textContent)));
}

async function check_result(page, lanes) {
  await page.waitForSelector('[data-testid=hvl-lanes] tbody tr', { timeout: WAIT_MS });
  const rows = await result_lanes(page);
  assert.deepEqual(rows.map((r) => Number(r[0])), lanes);
  for (const [lane, ls, lui, rs, rui, width, ts, tmv, bs, bmv, height, status] of rows) {
    for (const steps of [ls, rs, ts, bs]) assert.match(steps, /^\d+$/, `lane ${lane} steps`);
    for (const ui of [lui, rui, width]) assert.match(ui, /^\d+\.\d{3} UI \(\d+\.\d ps\)$/, `lane ${lane} timing`);
    for (const mv of [tmv, bmv, height]) assert.match(mv, /^\d+\.\d mV$/, `lane ${lane} voltage`);
    assert.equal(status, 'margined', `lane ${lane}`);
    assert.ok(Number(ls) > 0 && Number(ts) > 0, `lane ${lane} has an eye`);
  }
  const eq = await page.$$eval('[data-testid=hvl-equalisation] tbody tr', (r) => r.length);
  assert.equal(eq, lanes.length, 'one equalisation row per lane');
  // The offset records are open: every direction of the lane walked some offsets.
  const records = await page.$$eval('[data-testid=error-maps] table.map', (maps) =>
    maps.map((m) => ({ map: m.dataset.map, rows: m.querySelectorAll('tbody tr td.num').length > 0, notes: [...m.querySelectorAll('[data-testid=offset-status]')].map((n) => n.textContent).filter(Boolean) })),
  );
  assert.equal(records.length, 4);
  for (const r of records) assert.ok(r.rows, `${r.map} has offset records`);
  console.log(`# notes of the first lane's offset records: ${JSON.stringify(records.map((r) => r.notes))}`);
}

await run('hvl-flow', 1000, async ({ service, browser, shot }) => {
  const links = await service.api('GetHVLDeviceListForMargin');
  assert.ok(Array.isArray(links) && links.length >= 2, `the simulated machine lists hVL links: ${JSON.stringify(links)}`);
  const find = (socket, serdes) => links.find((l) => l.HVLCtrlInfo.Socket === socket && l.HVLCtrlInfo.SERDES === serdes);
  const g1 = find(0, 'G1');
  assert.ok(g1?.HVLDestMarginSupported, 's0.G1 can be margined');
  assert.equal(end_of({ Socket: g1.HVLCtrlInfo.PartnerSocket, Die: g1.HVLCtrlInfo.PartnerDie, SERDES: g1.HVLCtrlInfo.PartnerSERDES }), 's1.G3');
  assert.ok(find(1, 'G3')?.HVLDestMarginSupported, 's1.G3 can be margined');

  // The model's pace is set so the watched margin lasts about WATCHED_SECONDS.
  const lanes = [0, 1, 2, 3];
  const record = { Operation: OPERATION, HVLCtrlInfo: g1.HVLCtrlInfo, SERDES: g1.SERDES, TestParams: { BER: '9', ErrCnt: 4, Lanes: lanes } };
  const estimate = await service.api('EstimateTestDuration', record);
  assert.equal(estimate.OperationStatus, true, JSON.stringify(estimate));
  await service.stop();
  await service.start(Math.max(1, estimate.Seconds / WATCHED_SECONDS));

  const { context, page, problems } = await open_page(browser);
  await page.goto(`${service.base}/#hvl`);
  await wait_live(page);
  await page.waitForSelector('[data-testid=hvl-link-table] tbody tr[data-end]', { timeout: WAIT_MS });
  await check_link_list(page, links);
  await page.click('[data-testid=hvl-link-table] tr[data-end="s0.G1"] button');
  await check_form_errors(page);
  await shot(page, 'form-errors');

  const firstId = await queue_from_form(page, service.base, 's0.G1', lanes, '9');
  await shot(page, 'queued');
  await page.goto(`${service.base}/#queue`);
  const watch = watch_queue_row(page, firstId);
  await wait_until('the margin to run', async () => (await queue_row(page, firstId))?.status === 'Running', LONG_WAIT_MS);

  // The partner end's test waits for the running one and says so.
  const secondId = await queue_from_form(page, service.base, 's1.G3', [0], '8');
  await page.goto(`${service.base}/#queue`);
  const waiting = await wait_until('the partner end to wait', async () => (await queue_row(page, secondId))?.waiting);
  assert.equal(waiting, `waits for test ${firstId}`);
  await shot(page, 'queue');

  const finished = await page.waitForSelector(`[data-testid=finished-item][data-test="${firstId}"]`, { timeout: LONG_WAIT_MS });
  await watch.done();
  assert.equal(await finished.getAttribute('data-status'), 'complete', await finished.textContent());
  assert.equal(watch.statuses[watch.statuses.length - 1], 'Running', `statuses seen: ${watch.statuses}`);
  assert.ok(watch.percents.size >= 2, `progress moved: ${[...watch.percents]}`);
  for (const { text } of watch.shown) assert.match(text, new RegExp(`^lane [0-3] ${DIRECTION} · sides \\d+/16 · `), text);
  const walked = new Set(watch.shown.map(({ text }) => /^lane (\d+)/.exec(text)[1]));
  console.log(`# lanes seen walking: ${[...walked]}, progress seen: ${[...watch.percents]}`);

  // Its result: per-lane margins in steps, UI (ps) and mV.
  await finished.$eval('[data-testid=open-result]', (a) => a.click());
  await page.waitForSelector('[data-testid=hvl-result]', { timeout: LONG_WAIT_MS });
  await check_result(page, lanes);
  await page.waitForSelector('[data-testid=timing-chart] canvas', { timeout: WAIT_MS });
  await shot(page, 'result');

  // The partner end ran after it.
  const second = await page.waitForSelector(`[data-testid=finished-item][data-test="${secondId}"]`, { state: 'attached', timeout: LONG_WAIT_MS });
  assert.equal(await second.getAttribute('data-status'), 'complete', await second.textContent());
  assert.deepEqual(problems, []);
  await context.close();
  console.log('ok - hVL link list, form errors, a margin of s0.G1 watched to its result, the partner end waiting');
});
