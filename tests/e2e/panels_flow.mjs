// Browser test of the panel screens against lanewright-sim: the PCI viewer
// opens 0:41:0.0 with its Lane Margining and AER structures, shows live
// values and writes an RW field; the ASPM screen turns L1 off and on for a
// link after confirming; the counters screen watches the 400G NIC's TX
// bytes climb at its profile's rate and saves the samples as CSV.
//
// node panels_flow.mjs --sim <lanewright-sim> --artifacts <folder>
import assert from 'node:assert/strict';
import fs from 'node:fs';
import { LONG_WAIT_MS, run_flows, shot, sleep, wait_until } from './harness.mjs';

async function check_viewer(page, artifacts) {
  await page.goto(`${page.base}/#pci`);
  await page.click('[data-testid=pci-tree] >> text=0:41:0.0');
  for (const name of ['PCIE_MARGINING_ENH_CAP', 'PCIE_ADV_ERR_RPT_ENH_CAP', 'PCIE_CAP'])
    await page.waitForSelector(`[data-testid=structures] button:has-text("${name}")`);
  await page.click('[data-testid=structures] button:has-text("PCIE_CAP")');
  // Live: the trained link of the NIC (32 GT/s x16) as the device reports it.
  await page.waitForSelector('[data-field="LINK_STATUS.NEGOTIATED_LINK_WIDTH"]');
  assert.equal((await page.textContent('[data-field="LINK_STATUS.NEGOTIATED_LINK_WIDTH"] td:nth-child(6)')).trim(), '0x10');
  await page.click('[data-testid=structures] button:has-text("PCIE_ADV_ERR_RPT_ENH_CAP")');
  const input = '[data-field="CORR_ERR_MASK.BAD_TLP_MASK"] input';
  await page.waitForSelector(input);
  await page.fill(input, '0x1');
  await page.click('[data-field="CORR_ERR_MASK.BAD_TLP_MASK"] button');
  await wait_until('the write to be confirmed', async () => (await page.textContent('[data-testid=viewer-note]'))?.includes('BAD_TLP_MASK = 0x1'));
  await wait_until('the table to show the new value', async () => (await page.inputValue(input)) === '0x1');
  // A value too wide for the field is refused beside it, naming the field; the device keeps its value.
  await page.fill(input, '0x5');
  await page.click('[data-field="CORR_ERR_MASK.BAD_TLP_MASK"] button');
  await wait_until('the refusal beside the field', async () =>
    (await page.textContent('[data-field="CORR_ERR_MASK.BAD_TLP_MASK"] [data-testid=field-refused]').catch(() => ''))
      .includes('BAD_TLP_MASK of CORR_ERR_MASK takes a number from 0x0 to 0x1 (1 bit); the device keeps 0x1'));
  // A read-only field offers no editor.
  assert.equal(await page.$('[data-field="UNCORR_ERR_STATUS.POISONED_TLP"] input'), null);
  await page.click('[data-testid=structures] button:has-text("Raw dump")');
  const dump = await page.textContent('[data-testid=raw-dump]');
  assert.match(dump, /^000: /);
  await shot(page, artifacts, 'panels-flow-viewer');
}

async function check_aspm(page, service, artifacts) {
  await page.goto(`${page.base}/#aspm`);
  const box = '[data-link="0:40:1.0"] input[aria-label="L1 0:40:1.0"]';
  await page.waitForSelector(box);
  const link = async () => (await service.api('GetASPMInfo')).find((l) => l.Port.SBDF === '0:40:1.0');
  assert.equal((await link()).L1Enabled, false);
  page.once('dialog', (d) => d.dismiss());
  await page.click(box);
  await sleep(300);
  assert.equal((await link()).L1Enabled, false, 'a dismissed confirmation changes nothing');
  for (const want of [true, false]) {
    page.once('dialog', (d) => d.accept());
    await page.click(box);
    await wait_until(`L1 ${want ? 'on' : 'off'} on both ends`, async () => {
      const l = await link();
      return l.L1Enabled === want && l.Port.L1Enabled === want && l.Device.L1Enabled === want;
    });
    await wait_until('the box to follow', async () => (await page.isChecked(box)) === want);
  }
  // The port's L1 entry timer: the select sets it and follows the service.
  const timer = 'select[aria-label="L1 timer 0:40:1.0"]';
  await page.selectOption(timer, { label: '1 ms' });
  await wait_until('the L1 timer to take 1 ms', async () => {
    const l = await link();
    return l.L1TimerValues[l.L1TimerIndex] === '1 ms';
  });
  await wait_until('the note to confirm it', async () => (await page.textContent('[data-testid=aspm-note]')).includes('set to 1 ms'));
  // A refusal is shown as an error, and the select goes back to what the port holds.
  await page.route('**/api/1.0/SetL1Timer', (route) => route.fulfill({ status: 200, body: 'Error' }));
  await page.selectOption(timer, { label: '2 ms' });
  await wait_until('the refusal to show', async () => (await page.getAttribute('[data-testid=aspm-note]', 'class')) === 'error');
  assert.match(await page.textContent('[data-testid=aspm-note]'), /^Error: .*L1 entry timer 2 ms/);
  await page.unroute('**/api/1.0/SetL1Timer');
  await wait_until('the select to show 1 ms again', async () => (await page.$eval(timer, (s) => s.selectedOptions[0].text)) === '1 ms');
  assert.match(await page.textContent('[data-link="0:2:0.0"] [data-testid=aspm-timers]'), /none/);
  await shot(page, artifacts, 'panels-flow-aspm');
}

async function check_counters(page, artifacts) {
  await page.goto(`${page.base}/#counters`);
  // The first TX TXCLK slot of the core above the 400G NIC: pick TX Bytes and enable it.
  const first = 'tr:has(td:text-is("PCIE0_nbio1 TX TXCLK")):has(option:text-is("0:40:1.0"))';
  await page.waitForSelector(first);
  const key = await page.$eval(first, (tr) => tr.dataset.counter);
  const row = `tr[data-counter="${key}"]`;
  await page.focus(`${row} select[aria-label^=event]`);
  await page.selectOption(`${row} select[aria-label^=event]`, { label: '2. TX Bytes' });
  // The box follows the service's table, so a reload still in flight may put it back once: wait for the service.
  await page.click(`${row} input[type=checkbox]`);
  await wait_until('the row to be enabled', async () => page.isChecked(`${row} input[type=checkbox]`));
  await page.click('[data-testid=monitor-start]');
  await wait_until('the monitor to run', async () => (await page.textContent('[data-testid=monitor-state]')) === 'Monitoring');
  await shot(page, artifacts, 'panels-flow-counters-started');
  await wait_until(
    'a rate from the pushes',
    async () => /^\d+$/.test((await page.textContent(`${row} [data-testid=rate]`)).trim()),
    LONG_WAIT_MS,
  );
  const rate = Number((await page.textContent(`${row} [data-testid=rate]`)).trim());
  assert.ok(Math.abs(rate - 12e9) <= 12e9 * 0.01, `TX bytes rate ${rate}, profile 12e9`);
  await page.waitForSelector(`${row} svg.rate-chart`, { timeout: LONG_WAIT_MS });
  // A reload finds the monitor running, and the watched row alone on request.
  await page.reload();
  await wait_until('the reloaded screen to show the monitor', async () => (await page.textContent('[data-testid=monitor-state]')) === 'Monitoring');
  await page.check('[data-testid=only-enabled]');
  await wait_until('only the enabled row', async () => (await page.$$('tr[data-counter]')).length === 1 && (await page.$(row)) !== null);
  await wait_until('the chart again', async () => (await page.$(`${row} svg.rate-chart`)) !== null, LONG_WAIT_MS);
  const download = page.waitForEvent('download');
  await page.click('[data-testid=samples-csv]');
  const csv = fs.readFileSync(await (await download).path(), 'utf8');
  assert.match(csv, /^Time,Counter,Port,Event,Value,Rate/);
  assert.match(csv, /"PCIE0_nbio1 TX TXCLK","0:40:1.0","2. TX Bytes"/);
  await page.click('[data-testid=monitor-stop]');
  await wait_until('the monitor to stop', async () => (await page.textContent('[data-testid=monitor-state]')) === 'Stopped');
  await shot(page, artifacts, 'panels-flow-counters');
}

// Fast: the margins only have to finish; nothing here watches them run.
await run_flows('panels-flow', 100, [
  [
    'PCI viewer, ASPM and counters',
    async (browser, service, artifacts) => {
      const context = await browser.newContext({ viewport: { width: 1600, height: 1000 }, acceptDownloads: true });
      const page = await context.newPage();
      page.base = service.base;
      const problems = [];
      page.on('pageerror', (error) => problems.push(`page error: ${error.message}`));
      await check_viewer(page, artifacts);
      console.log('ok - PCI viewer: tree, structures, live values, RW write, raw dump');
      await check_aspm(page, service, artifacts);
      console.log('ok - ASPM: L1 off and on for a link, with confirmation');
      await check_counters(page, artifacts);
      console.log('ok - counters: TX bytes at the profile rate, chart, CSV, stop');
      assert.deepEqual(problems, []);
      await context.close();
    },
  ],
]);
