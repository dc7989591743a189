// Browser test of the front end against lanewright-sim: the device list, a
// record the service refuses, two PCIe margins of one device queued from the
// form (the second waits for the first, the first is cancelled), the second
// watched through the queue to its result chart, and the CSV export.
//
// node margin_flow.mjs --sim <lanewright-sim> --artifacts <folder>
//
// Screenshots of every screen land in the artifacts folder, with the
// service's console output (margin-sim.log). Debian's Chromium drives the page;
// playwright-core comes from ui/node_modules, installed by the build.
import fs from 'node:fs';
import path from 'node:path';
import assert from 'node:assert/strict';
import { LONG_WAIT_MS, WAIT_MS, open_page, queue_row, run_flows, shot, sleep, wait_live, wait_until, watch_queue_row } from './harness.mjs';

// A device the machine doesn't have, offered as margin-capable by a doctored
// device list: the form accepts it and only the service can refuse it.
const GHOST = {
  PCIeInfo: { SBDF: 'ff:ff:1f.7', VendorName: 'Nobody', Speed: '32.0 GT/s', Width: 'x4', DeviceType: 'Endpoint' },
  PCIeMarginSupported: true,
  PCIeMarginData: { BER: ['8', '12'], ErrCnt: { Max: 63, Min: 1 }, Lanes: [0, 1, 2, 3], Receivers: [6] },
  EyeScanSupported: false,
  NonDestMarginSupported: false,
};

async function check_form_errors_and_refusal(browser, service, artifacts) {
  const { context, page, problems } = await open_page(browser);
  await page.route('**/api/1.0/GetPCIEDeviceListForMargin', async (route) => {
    const response = await route.fetch();
    const list = await response.json();
    await route.fulfill({ response, json: [...list, GHOST] });
  });
  await page.goto(`${service.base}/#new`);
  await wait_live(page);
  await page.waitForSelector(`#nt-device option[value="${GHOST.PCIeInfo.SBDF}"]`, { state: 'attached', timeout: WAIT_MS });

  // Choices the form itself refuses, each named beside its field.
  await page.selectOption('#nt-device', GHOST.PCIeInfo.SBDF);
  await page.uncheck('#nt-all-lanes');
  await page.selectOption('#nt-ber', '');
  await page.fill('#nt-errcnt', '99');
  await page.click('button[type=submit]');
  assert.equal(await page.textContent('[data-testid=error-lanes]'), 'Choose at least one lane, or all lanes.');
  assert.equal(await page.textContent('[data-testid=error-ber]'), 'Choose a BER.');
  assert.equal(await page.textContent('[data-testid=error-errCnt]'), 'Error count must be between 1 and 63.');
  assert.equal(await page.textContent('[data-testid=queue-answer]'), '', 'nothing is sent while the form has errors');
  await shot(page, artifacts, 'new-test-form-errors');

  // A valid-looking record for a device that isn't there: the service's reason is shown.
  await page.check('#nt-all-lanes');
  await page.selectOption('#nt-ber', '12');
  await page.fill('#nt-errcnt', '5');
  await page.click('button[type=submit]');
  const answer = await page.waitForSelector('[data-testid=queue-answer] .error', { timeout: WAIT_MS });
  assert.equal(
    await answer.textContent(),
    'The service refused the test: no PCI function ff:ff:1f.7 on this machine',
  );
  await shot(page, artifacts, 'new-test-refused');
  assert.deepEqual(problems, []);
  await context.close();
}

/**
 * The bar and the line beside it agree: the lane count never reads "lanes 0/"
 * beside a moving bar, and the rounded percentage lies within the span the
 * walked sides allow.
 */
function check_progress_agrees({ percent, text }) {
  assert.doesNotMatch(text, /lanes 0\//, `progress line: ${text}`);
  const sides = /sides (\d+)\/(\d+)/.exec(text);
  assert.ok(sides, `the progress line counts sides: ${text}`);
  const [done, total] = [Number(sides[1]), Number(sides[2])];
  assert.ok(
    percent >= Math.floor((100 * done) / total) && percent <= Math.ceil((100 * Math.min(done + 1, total)) / total),
    `${percent}% beside ${text}`,
  );
}

/** The kernel's spelling of an address the service writes as "0:3:0.0". */
function long_address(sbdf) {
  const [segment, bus, rest] = sbdf.split(':');
  const [device, fn] = rest.split('.');
  const hex = (text, width) => parseInt(text, 16).toString(16).padStart(width, '0');
  return `${hex(segment, 4)}:${hex(bus, 2)}:${hex(device, 2)}.${fn}`;
}

/**
 * Queues a PCIe margin from the form (lanes null: all lanes) and returns the
 * TestID the service gave; the estimated duration must be on the form first.
 */
async function queue_from_form(page, sbdf, lanes, ber) {
  await page.goto(`${page.url().split('#')[0]}#new`);
  await page.selectOption('#nt-device', sbdf);
  if (lanes) {
    await page.uncheck('#nt-all-lanes');
    for (const lane of lanes) {
      await page.check(`[data-testid=lane-choices] label:text-is("${lane}") input`);
    }
  }
  await page.selectOption('#nt-ber', ber);
  await page.waitForSelector('[data-testid=estimate]:not(.updating):has-text("on hardware")', { timeout: WAIT_MS });
  const estimate = await page.textContent('[data-testid=estimate]');
  assert.match(estimate, /^about \d+ (s|min|h|d)\b.* on hardware/, estimate);
  console.log(`# estimate for ${sbdf} lanes ${lanes ?? 'all'} BER 1e-${ber}: ${estimate}`);
  await page.click('button[type=submit]');
  const answer = await page.waitForSelector('[data-testid=queue-answer] .success, [data-testid=queue-answer] .error', {
    timeout: WAIT_MS,
  });
  const text = await answer.textContent();
  const id = /^Queued as test (\d+): PCIe margin of /.exec(text);
  assert.ok(id, text);
  return Number(id[1]);
}

/** Cells of the device table by column name, for the row of one function. */
async function device_cells(page, sbdf) {
  return page.evaluate((address) => {
    const heads = [...document.querySelectorAll('[data-testid=device-table] thead th')].map((th) => th.textContent);
    const row = document.querySelector(`[data-testid=device-table] tbody tr[data-sbdf="${address}"]`);
    if (!row) return null;
    const cells = Object.fromEntries(heads.map((h, i) => [h, row.cells[i]?.textContent ?? '']));
    cells.downtrained = row.querySelector('[data-testid=downtrained]') !== null;
    return cells;
  }, sbdf);
}

async function check_devices(page, devices) {
  assert.ok(devices.some((d) => typeof d.PCIeInfo.LTSSM === 'string'), 'the service names link states');
  for (const d of devices) {
    const info = d.PCIeInfo;
    const cells = await device_cells(page, info.SBDF);
    assert.ok(cells, `row of ${info.SBDF}`);
    assert.notEqual(cells.Vendor, '', `${info.SBDF} is named`);
    assert.equal(cells['Link state'], info.LTSSM ?? '', info.SBDF);
    const capability = [info.MaxSpeed, info.MaxWidth].filter(Boolean).join(' ');
    assert.ok(cells.Capability.startsWith(capability), `${info.SBDF}: ${cells.Capability}`);
    assert.equal(cells.downtrained, info.Downtrained === true, `${info.SBDF} downtrained mark`);
    if (d.PCIeMarginSupported) {
      assert.equal(cells.Margining, 'Supported', info.SBDF);
    } else {
      assert.ok(d.PCIeMarginUnsupportedReason, `${info.SBDF}: the service says why it can't be margined`);
      assert.equal(cells.Margining, `No: ${d.PCIeMarginUnsupportedReason}`, info.SBDF);
    }
  }
}

async function check_margin_flow(browser, service, artifacts) {
  const { context, page, problems } = await open_page(browser);
  await page.goto(`${service.base}/#devices`);
  await wait_live(page);
  const version = await page.textContent('[data-testid=version]');
  assert.match(version, /^v\d+\.\d+\.\d+$/);
  await page.waitForSelector('[data-testid=device-table] tbody tr td', { timeout: WAIT_MS });
  await shot(page, artifacts, 'devices');

  const devices = await (await fetch(`${service.base}/api/1.0/GetPCIEDeviceListForMargin`)).json();
  await check_devices(page, devices);
  const target = devices.find((d) => d.PCIeMarginSupported && (d.PCIeMarginData?.Lanes ?? []).length >= 4);
  assert.ok(target, 'the simulated machine offers a margin-capable device');
  const sbdf = target.PCIeInfo.SBDF;
  const lanes = target.PCIeMarginData.Lanes.slice(0, 4);
  const bers = target.PCIeMarginData.BER;
  const ber = bers.includes('12') ? '12' : bers[0];
  // Ten times the dwell of the short test: long enough to be cancelled while it
  // runs, short enough that a cancel at the end of a dwell is still quick.
  const longBer = bers.includes(String(Number(ber) + 1)) ? String(Number(ber) + 1) : ber;

  // The filter finds the device by either spelling of its address, and only it.
  for (const spelling of [sbdf, long_address(sbdf)]) {
    await page.fill('.filter', spelling);
    await wait_until(`the filter "${spelling}" to apply`, async () => {
      const shown = await page.$$eval('[data-testid=device-table] tbody tr', (rows) => rows.map((r) => r.dataset.sbdf));
      return shown.length === 1 && shown[0] === sbdf;
    });
  }

  // Two tests on one device: a long one, and a short one queued while the
  // first runs, which waits for it and says so.
  const firstId = await queue_from_form(page, sbdf, null, longBer);
  await page.goto(`${service.base}/#queue`);
  await wait_until('the first test to run', async () => (await queue_row(page, firstId))?.status === 'Running', LONG_WAIT_MS);
  const secondId = await queue_from_form(page, sbdf, lanes, ber);
  await page.goto(`${service.base}/#queue`);
  const waiting = await wait_until('the second test to wait', async () => (await queue_row(page, secondId))?.waiting);
  assert.equal(waiting, `waits for test ${firstId}`);
  await shot(page, artifacts, 'queue-waiting');

  // The running test is cancelled after a confirmation and ends "Cancelled".
  const watch = watch_queue_row(page, secondId);
  await page.click(`[data-testid=queue-table] tbody tr:has(td:text-is("${firstId}")) [data-testid=cancel]`);
  await page.waitForSelector('[data-testid=confirm-cancel][open]', { timeout: WAIT_MS });
  await shot(page, artifacts, 'queue-confirm-cancel');
  await page.click('[data-testid=confirm-cancel] button.danger');
  const cancelled = await page.waitForSelector(`[data-testid=finished-item][data-test="${firstId}"]`, { timeout: LONG_WAIT_MS });
  assert.equal(await cancelled.getAttribute('data-status'), 'Cancelled');
  assert.match(await cancelled.textContent(), /Cancelled by the user/);
  assert.match(await cancelled.$eval('[data-testid=open-result]', (a) => a.getAttribute('href')), new RegExp(`^#/results/.+/test_${firstId}$`));
  assert.equal(await page.textContent('[data-testid=cancel-error]'), '', 'the service accepted the cancel');

  // The second then runs to its end, its progress agreeing with itself.
  const finished = await page.waitForSelector(`[data-testid=finished-item][data-test="${secondId}"]`, { timeout: LONG_WAIT_MS });
  await watch.done();
  assert.deepEqual(watch.statuses, ['Queued', 'Running'], `statuses seen: ${watch.statuses}`);
  assert.ok(watch.percents.size >= 2, `progress moved: ${[...watch.percents]}`);
  watch.shown.forEach(check_progress_agrees);
  assert.equal(await finished.getAttribute('data-status'), 'complete', await finished.textContent());
  await shot(page, artifacts, 'queue-finished');

  // "Open result" leads to the results screen with that result's address.
  const href = await finished.$eval('[data-testid=open-result]', (a) => a.getAttribute('href'));
  await finished.$eval('[data-testid=open-result]', (a) => a.click());
  await wait_until('the results screen', async () => (await page.evaluate(() => location.hash)) === href);
  await page.waitForSelector('[data-testid=results-table]', { state: 'visible', timeout: WAIT_MS });

  // The archive shows the finished test with its chart.
  const row = await page.waitForSelector(`[data-testid=results-table] tbody tr:has(td:text-is("${secondId}"))`, {
    timeout: LONG_WAIT_MS,
  });
  await row.click();
  await page.waitForSelector('[data-testid=timing-chart] canvas', { timeout: WAIT_MS });
  await page.waitForSelector('[data-testid=voltage-chart] canvas', { timeout: WAIT_MS });
  assert.ok((await row.$$eval('td', (tds) => tds.map((td) => td.textContent))).includes('complete'), await row.textContent());
  assert.match(await page.textContent('[data-testid=timing-chart] .worst-note'), /^worst lane \d+: /);
  await shot(page, artifacts, 'results');
  await page.click('text=Show raw error maps');
  await page.waitForSelector('[data-testid=error-maps] table.map tbody tr td.num', { timeout: WAIT_MS });
  await shot(page, artifacts, 'results-error-maps');

  // The export is a plain link: the browser downloads the CSV.
  const [download] = await Promise.all([page.waitForEvent('download', { timeout: WAIT_MS }), page.click('[data-testid=export-csv]')]);
  assert.equal(download.suggestedFilename(), 'pcie_margin_report.csv');
  const csv = fs.readFileSync(await download.path(), 'utf8');
  fs.writeFileSync(path.join(artifacts, 'pcie_margin_report.csv'), csv);
  assert.ok(csv.startsWith('Segment, Bus,'), `CSV begins: ${csv.slice(0, 40)}`);
  assert.ok(csv.trim().split('\n').length >= 1 + lanes.length, 'one row per margined lane at least');
  assert.deepEqual(problems, []);
  await context.close();

  // The same screen on a 4K monitor without system scaling, for the eye.
  const big = await open_page(browser, { width: 3840, height: 2160 });
  await big.page.goto(`${service.base}/#results`);
  await big.page.waitForSelector('[data-testid=timing-chart] canvas', { timeout: WAIT_MS });
  await shot(big.page, artifacts, 'results-4k');
  await big.context.close();
}

// Fast enough for a short test, slow enough that a margin spans several of
// the service's once-a-second queue pushes.
await run_flows('margin', 500, [
  ['form errors and a refused record', check_form_errors_and_refusal],
  ['devices, two margins of one device, a cancel, the chart and the CSV', check_margin_flow],
]);
