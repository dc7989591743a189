// What the browser tests share: lanewright-sim on a free port with a
// temporary results folder, Debian's Chromium through playwright-core (from
// ui/node_modules, installed by the build), waiting for conditions, and
// screenshots into the artifacts folder.
import { spawn } from 'node:child_process';
import { createRequire } from 'node:module';
import fs from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import assert from 'node:assert/strict';

const here = path.dirname(fileURLToPath(import.meta.url));
const requireFromUi = createRequire(path.resolve(here, '../../ui/package.json'));
const { chromium } = requireFromUi('playwright-core');

export const CHROMIUM = '/usr/bin/chromium';
// Generous bounds for conditions to become true; nothing here measures speed.
export const LONG_WAIT_MS = 150_000;
export const WAIT_MS = 30_000;

export function option(name) {
  const at = process.argv.indexOf(name);
  if (at < 0 || at + 1 >= process.argv.length) throw new Error(`missing ${name}`);
  return process.argv[at + 1];
}

function free_port() {
  return new Promise((resolve, reject) => {
    const server = net.createServer();
    server.unref();
    server.on('error', reject);
    server.listen(0, '127.0.0.1', () => {
      const { port } = server.address();
      server.close(() => resolve(port));
    });
  });
}

export const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

export async function wait_until(what, condition, timeoutMs = WAIT_MS) {
  const deadline = Date.now() + timeoutMs;
  for (;;) {
    const value = await condition();
    if (value) return value;
    if (Date.now() > deadline) throw new Error(`gave up waiting for ${what}`);
    await sleep(100);
  }
}

export class Service {
  /** `name` prefixes the log and the results folder; `timeScale` is the sim's --time-scale; `args` go to the sim as well. */
  constructor(simPath, artifacts, name, timeScale, args = []) {
    this.simPath = simPath;
    this.args = args;
    this.name = name;
    this.timeScale = timeScale;
    this.log = fs.createWriteStream(path.join(artifacts, `${name}-sim.log`));
    this.exited = null;
  }

  /** A second start (after stop) may run the sim at another time scale. */
  async start(timeScale = this.timeScale) {
    this.timeScale = timeScale;
    this.exited = null;
    this.port = await free_port();
    this.results = fs.mkdtempSync(path.join(os.tmpdir(), `lanewright-${this.name}-`));
    this.base = `http://127.0.0.1:${this.port}`;
    this.process = spawn(this.simPath, ['--port', String(this.port), '--results', this.results, '--time-scale', String(this.timeScale), ...this.args], {
      stdio: ['ignore', 'pipe', 'pipe'],
    });
    this.process.stdout.pipe(this.log, { end: false });
    this.process.stderr.pipe(this.log, { end: false });
    this.process.on('exit', (code, signal) => (this.exited = { code, signal }));
    await wait_until(
      'the service to serve the page',
      async () => {
        if (this.exited) throw new Error(`lanewright-sim ended at start: ${JSON.stringify(this.exited)}`);
        try {
          const response = await fetch(`${this.base}/`);
          return response.ok && (await response.text()).includes('id="app"');
        } catch {
          return false;
        }
      },
      60_000,
    );
  }

  /** A route of the service, outside the browser: GET without a body, POST with one. */
  async api(route, body) {
    const init = body === undefined ? {} : { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify(body) };
    const response = await fetch(`${this.base}/api/1.0/${route}`, init);
    const text = await response.text();
    assert.ok(response.ok, `${route}: ${response.status} ${text}`);
    return JSON.parse(text);
  }

  async stop() {
    if (!this.process) return;
    if (!this.exited) {
      try {
        await fetch(`${this.base}/stop`);
      } catch {
        // Already gone.
      }
      try {
        await wait_until('the service to end', () => this.exited !== null, 20_000);
      } catch {
        this.process.kill('SIGKILL');
      }
    }
    this.process = null;
    fs.rmSync(this.results, { recursive: true, force: true });
  }
}

export async function open_page(browser, viewport = { width: 1280, height: 800 }) {
  const context = await browser.newContext({ viewport, acceptDownloads: true });
  const page = await context.newPage();
  const problems = [];
  page.on('pageerror', (error) => problems.push(`page error: ${error.message}`));
  page.on('console', (message) => {
    if (message.type() === 'error') problems.push(`console error: ${message.text()}`);
  });
  return { context, page, problems };
}

export async function wait_live(page) {
  await page.waitForSelector('[data-testid=connection].up', { timeout: WAIT_MS });
}

/**
 * Runs `flows` (each given the browser, the service and the artifacts folder)
 * against one service, prints "ok - <name>" per flow, and ends the process
 * with 1 at the first failure.
 */
export async function run_flows(name, timeScale, flows) {
  await run(name, timeScale, async ({ browser, service, artifacts }) => {
    for (const [label, flow] of flows) {
      await flow(browser, service, artifacts);
      console.log(`ok - ${label}`);
    }
  });
}

export async function shot(page, artifacts, name) {
  await page.screenshot({ path: path.join(artifacts, `${name}.png`), fullPage: true });
}

/** What the queue screen shows for one test, or null when it isn't listed. */
export function queue_row(page, testId) {
  return page
    .evaluate((id) => {
      for (const tr of document.querySelectorAll('[data-testid=queue-table] tbody tr')) {
        if (tr.cells[0]?.textContent === String(id)) {
          const bar = tr.querySelector('[role=progressbar]');
          return {
            status: tr.dataset.status,
            cancelling: tr.dataset.cancelling === 'true',
            percent: bar ? Number(bar.getAttribute('aria-valuenow')) : null,
            text: tr.querySelector('.progress-text')?.textContent ?? null,
            waiting: tr.querySelector('[data-testid=waiting]')?.textContent ?? null,
          };
        }
      }
      return null;
    }, testId)
    .catch(() => null);
}

/** Statuses and progress of one test as the queue screen shows them over time; done() ends the watch. */
export function watch_queue_row(page, testId) {
  const seen = { statuses: [], percents: new Set(), shown: [], stop: false };
  const loop = (async () => {
    while (!seen.stop) {
      const row = await queue_row(page, testId);
      if (row) {
        if (seen.statuses[seen.statuses.length - 1] !== row.status) seen.statuses.push(row.status);
        if (row.percent !== null) {
          seen.percents.add(row.percent);
          seen.shown.push({ percent: row.percent, text: row.text });
        }
      }
      await sleep(50);
    }
  })();
  seen.done = async () => {
    seen.stop = true;
    await loop;
  };
  return seen;
}

/** Runs the checks against one service (started with simArgs too) and browser, then ends both whatever happened. */
export async function run(name, timeScale, checks, simArgs = []) {
  const artifacts = option('--artifacts');
  fs.mkdirSync(artifacts, { recursive: true });
  const service = new Service(option('--sim'), artifacts, name, timeScale, simArgs);
  let browser;
  try {
    if (!fs.existsSync(CHROMIUM)) throw new Error(`${CHROMIUM} is missing; scripts/setup installs Debian's chromium`);
    await service.start();
    browser = await chromium.launch({ executablePath: CHROMIUM, headless: true, args: ['--no-sandbox', '--disable-background-networking'] });
    const named_shot = (page, shotName) => shot(page, artifacts, `${name}-${shotName}`);
    await checks({ service, browser, shot: named_shot, artifacts });
  } catch (error) {
    console.error(`not ok - ${error.stack ?? error}`);
    process.exitCode = 1;
  } finally {
    await browser?.close();
    await service.stop();
  }
}
