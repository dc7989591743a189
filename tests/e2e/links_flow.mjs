// Browser test of the port status and link control screens against
// lanewright-sim: a retrain loop on 0:40:1.0 moves its LTSSM history on the
// page and counts its loops until stopped, and link control takes the same
// port to 16 GT/s and back to 32 GT/s, the table showing each speed.
//
// node links_flow.mjs --sim <lanewright-sim> --artifacts <folder>
//
// Screenshots land in the artifacts folder as links-flow-*.png, with the
// service's console output (links-sim.log).
import assert from 'node:assert/strict';
import { LONG_WAIT_MS, WAIT_MS, open_page, run_flows, shot as save_shot, wait_live, wait_until } from './harness.mjs';

const PORT = '0:40:1.0';
// The same port as the port status screen names it.
const PORT_NAME = /^0:40:01\.0 /;

/** What the LTSSM panel shows now. */
function timeline(page) {
  return page.evaluate(() => {
    const list = document.querySelector('[data-testid=ltssm-timeline]');
    return {
      history: list?.dataset.history ?? '',
      states: [...(list?.children ?? [])].map((li) => li.className),
      seen: Number(document.querySelector('[data-testid=ltssm-seen]')?.dataset.seen ?? 0),
    };
  });
}

const number_of = async (page, testId) => Number(await page.textContent(`[data-testid=${testId}]`));

async function check_retrain_loop(browser, service, artifacts) {
  const shot = (page, name) => save_shot(page, artifacts, `links-flow-${name}`);
  const { context, page, problems } = await open_page(browser);
  await page.goto(`${service.base}/#ports`);
  await wait_live(page);

  const value = await wait_until('the port in the port selection', () =>
    page.$$eval('[data-testid=status-port] option', (options, pattern) => options.find((o) => new RegExp(pattern).test(o.textContent))?.value, PORT_NAME.source),
  );
  await page.selectOption('[data-testid=status-port]', value);
  await page.waitForSelector('[data-testid=group-linkStatus] table.fields tr', { timeout: WAIT_MS });
  await wait_until('the LTSSM history', async () => (await timeline(page)).states.length > 0);
  assert.match(await page.textContent('[data-testid=ltssm-current]'), /^Current: L0/);

  await page.check('[data-testid=stress-loop] .modes label:has-text("Retrain") input');
  await page.selectOption('#ps-speed', { label: '32 Gt/s' });
  await page.selectOption('#ps-interval', { label: '5 s' });
  await page.fill('#ps-count', '0');
  const before = await timeline(page);
  await page.click('[data-testid=loop-start]');
  await wait_until('the loop to run', async () => (await page.textContent('[data-testid=loop-state]')) === 'Running');
  assert.ok(await page.isDisabled('[data-testid=status-port]'), 'the port stays chosen while the loop runs');

  // Each retrain passes through Recovery: the history takes new states push after push, until
  // the loop's few states fill the whole list (then it reads the same from push to push).
  const histories = new Set([before.history]);
  await wait_until(
    'the LTSSM history to move three times during the loop',
    async () => {
      const now = await timeline(page);
      histories.add(now.history);
      return histories.size >= 4 && now.seen > before.seen;
    },
    LONG_WAIT_MS,
  );
  const during = await timeline(page);
  assert.ok(during.states.some((c) => c.includes('recovery')), `a Recovery state in the history: ${during.history}`);
  await wait_until('three loops counted', async () => (await number_of(page, 'count-loops')) >= 3, LONG_WAIT_MS);
  assert.match(await page.textContent('[data-testid=loop-log]'), /Loop:\d+/);
  await shot(page, 'retrain-running');

  await page.click('[data-testid=loop-stop]');
  await wait_until('the loop to end', async () => (await page.textContent('[data-testid=loop-state]')) === 'Idle');
  await wait_until('the summary in the log', async () => /Summary: LoopCount=\d+/.test(await page.textContent('[data-testid=loop-log]')));
  const loops = await number_of(page, 'count-loops');
  const success = await number_of(page, 'count-success');
  const failure = await number_of(page, 'count-failure');
  assert.ok(loops >= 3, `loops ${loops}`);
  assert.ok(success + failure <= loops, `success ${success} + failure ${failure} within ${loops} loops`);
  assert.ok(!(await page.isDisabled('[data-testid=status-port]')), 'the port can be changed again');
  await shot(page, 'retrain-stopped');
  assert.deepEqual(problems, []);
  await context.close();
}

/** The speed the service reports for the port, outside the browser. */
async function service_speed(service) {
  const info = await service.api('GetLinkInfo');
  return info.ports.find((p) => p.SBDF === PORT)?.['Link Speed'];
}

async function check_speed_change(browser, service, artifacts) {
  const shot = (page, name) => save_shot(page, artifacts, `links-flow-${name}`);
  const { context, page, problems } = await open_page(browser);
  await page.goto(`${service.base}/#links`);
  await wait_live(page);
  const row = `[data-testid=link-ports] tr[data-sbdf="${PORT}"]`;
  await page.click(row, { timeout: WAIT_MS });
  await page.waitForSelector('[data-testid=link-once]', { timeout: WAIT_MS });
  assert.equal(await page.textContent(`${row} [data-testid=link-speed]`), '32 GT/s');

  for (const [choice, shown] of [
    ['16 Gt/s', '16 GT/s'],
    ['32 Gt/s', '32 GT/s'],
  ]) {
    await page.selectOption('#lc-speed', { label: choice });
    await page.click('[data-testid=apply-speed]');
    await wait_until(
      `the table to show ${shown}`,
      async () => (await page.textContent(`${row} [data-testid=link-speed]`)) === shown && (await page.textContent('[data-testid=link-now]')).startsWith(shown),
      LONG_WAIT_MS,
    );
    assert.equal(await service_speed(service), shown);
    assert.equal(await page.$eval('[data-testid=link-message]', (m) => m.querySelector('.error')?.textContent ?? ''), '');
    await shot(page, `speed-${shown.split(' ')[0]}`);
  }
  assert.deepEqual(problems, []);
  await context.close();
}

// Slow enough that a loop of 5 model seconds a tick retrains about twice a wall second, so the
// history, pushed once a second, fills with the loop's states over several pushes.
await run_flows('links', 10, [
  ['port status: the LTSSM history moves during a retrain loop, which counts loops until stopped', check_retrain_loop],
  ['link control: 0:40:1.0 to 16 GT/s and back to 32 GT/s, shown in the table', check_speed_change],
]);
