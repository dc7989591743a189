// How the queue screen tells a running test's progress and time left, and
// how the form says how long a test will take.
import { duration_label } from './format';
import type { FinishedPush, Progress, QueuedTest } from './types';

/**
 * The line beside the progress bar. Lanes of one batch finish together, so a
 * lane count says "lanes 8/16 finished" only once some lane has; before that
 * it says how many lanes are being walked, and the side count carries the
 * percentage ("sides 2/8" beside 25%).
 */
export function progress_text(p: Progress): string {
  // Lanes that go one after another (hVL) name the lane being walked.
  const parts = [p.Lane === null ? p.Direction || '—' : `lane ${p.Lane} ${p.Direction || '—'}`];
  if (p.SidesTotal !== null && p.SidesDone !== null) parts.push(`sides ${p.SidesDone}/${p.SidesTotal}`);
  parts.push(p.LanesDone > 0 ? `lanes ${p.LanesDone}/${p.LanesTotal} finished` : `${p.LanesTotal} ${p.LanesTotal === 1 ? 'lane' : 'lanes'}`);
  // The time left before the time spent: a narrow cell cuts the end off.
  parts.push(p.RemainingSeconds === null ? 'estimating' : `~${duration_label(p.RemainingSeconds)} left`);
  parts.push(`${duration_label(p.ElapsedSeconds)} elapsed`);
  return parts.join(' · ');
}

// An estimate may rise this much above the time shown before the display
// follows it; smaller rises are wobble and the shown time is kept.
const RISE_FACTOR = 1.25;
const RISE_SECONDS = 30;

/**
 * The time left to show, given the one shown before and the service's newest
 * estimate. It never rises by a little: falls are shown at once (the service
 * knows better), small rises keep the earlier figure, and only a clear rise
 * (the estimate really changed) is followed. Every figure shown is one the
 * service sent.
 */
export function next_remaining(shown: number | null, estimate: number | null): number | null {
  if (estimate === null) return shown;
  if (shown === null || estimate <= shown) return estimate;
  return estimate <= shown * RISE_FACTOR + RISE_SECONDS ? shown : estimate;
}

/**
 * The queue as pushed, with each running test's time left steadied by
 * next_remaining against what was shown for it before. Returns the new
 * shown-times map (only tests still listed).
 */
export function steady_queue(
  tests: readonly QueuedTest[],
  shownBefore: ReadonlyMap<number, number | null>,
): { tests: QueuedTest[]; shown: Map<number, number | null> } {
  const shown = new Map<number, number | null>();
  const steadied = tests.map((t) => {
    if (t.TestID === null || t.Progress === null) return t;
    const remaining = next_remaining(shownBefore.get(t.TestID) ?? null, t.Progress.RemainingSeconds);
    shown.set(t.TestID, remaining);
    return { ...t, Progress: { ...t.Progress, RemainingSeconds: remaining } };
  });
  return { tests: steadied, shown };
}

/** A nominal duration in words: "about 45 s", "about 12 min", "about 2 h 10 min", "about 3 d 4 h". */
export function about_duration(seconds: number): string {
  const s = Math.max(0, Math.round(seconds));
  if (s < 60) return `about ${s} s`;
  const minutes = Math.round(s / 60);
  if (minutes < 60) return `about ${minutes} min`;
  if (minutes < 24 * 60) {
    const h = Math.floor(minutes / 60);
    const m = minutes % 60;
    return m === 0 ? `about ${h} h` : `about ${h} h ${m} min`;
  }
  const hours = Math.round(s / 3600);
  const d = Math.floor(hours / 24);
  const h = hours % 24;
  return h === 0 ? `about ${d} d` : `about ${d} d ${h} h`;
}

/** A test under "Recently finished", with the local time its end was seen. */
export interface FinishedTest extends FinishedPush {
  at: string;
}

const FINISHED_KEPT = 8;

/** Newly ended tests first; a test seen again (after a reconnection) is listed once. */
export function merge_finished(old: readonly FinishedTest[], ended: readonly FinishedPush[], at: string): FinishedTest[] {
  const fresh = ended.map((t) => ({ ...t, at }));
  const ids = new Set(fresh.map((t) => t.TestID).filter((id) => id !== null));
  return [...fresh, ...old.filter((t) => t.TestID === null || !ids.has(t.TestID))].slice(0, FINISHED_KEPT);
}
