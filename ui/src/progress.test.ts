import { describe, expect, it } from 'vitest';
import { about_duration, merge_finished, next_remaining, progress_text, steady_queue } from './progress';
import type { Progress, QueuedTest } from './types';

describe('about_duration', () => {
  it.each([
    [0, 'about 0 s'],
    [59.4, 'about 59 s'],
    [89, 'about 1 min'],
    [3569, 'about 59 min'],
    [3599, 'about 1 h'],
    [3600, 'about 1 h'],
    [7800, 'about 2 h 10 min'],
    [86_399, 'about 1 d'],
    [86_400 + 3 * 3600 + 100, 'about 1 d 3 h'],
  ])('%s s -> %s', (seconds, text) => {
    expect(about_duration(seconds)).toBe(text);
  });
});

describe('progress_text', () => {
  const base: Progress = {
    LanesDone: 0, LanesTotal: 16, Direction: 'Timing Right', ElapsedSeconds: 250, RemainingSeconds: 250, Percent: 50, SidesDone: 4, SidesTotal: 8, Lane: null,
  };
  it.each([
    ['half the sides walked, no lane finished yet', base, 'Timing Right · sides 4/8 · 16 lanes · ~4m 10s left · 4m 10s elapsed'],
    ['a batch finished', { ...base, LanesDone: 8 }, 'Timing Right · sides 4/8 · lanes 8/16 finished · ~4m 10s left · 4m 10s elapsed'],
    ['no side counts, one lane, no estimate yet', { ...base, LanesTotal: 1, SidesDone: null, SidesTotal: null, RemainingSeconds: null, Direction: '' },
      '— · 1 lane · estimating · 4m 10s elapsed'],
    ['hVL: lanes one after another, the lane being walked named', { ...base, Lane: 2, Direction: 'Bottom', LanesDone: 2, LanesTotal: 4, SidesDone: 9, SidesTotal: 16 },
      'lane 2 Bottom · sides 9/16 · lanes 2/4 finished · ~4m 10s left · 4m 10s elapsed'],
  ])('%s', (_name, progress, text) => {
    expect(progress_text(progress)).toBe(text);
    expect(text).not.toMatch(/lanes 0\//);
  });
});

describe('next_remaining', () => {
  // Each step: the service's estimate, then the time shown.
  it.each([
    ['first estimate shown as it is', [[null, null], [300, 300]]],
    ['falls followed at once', [[300, 300], [200, 200], [20, 20]]],
    ['small rises held', [[300, 300], [330, 300], [390, 300], [280, 280]]],
    ['a clear rise followed', [[300, 300], [900, 900], [880, 880]]],
    ['a missing estimate keeps the last one', [[300, 300], [null, 300]]],
  ])('%s', (_name, steps) => {
    let shown: number | null = null;
    for (const [estimate, expected] of steps) {
      shown = next_remaining(shown, estimate);
      expect(shown).toBe(expected);
    }
  });

  it('is applied per running test and forgets tests that left', () => {
    const test = (id: number, remaining: number | null): QueuedTest => ({
      TestID: id, Status: 'Running', Operation: 'PCIe Margin', SBDF: '0:3:0.0', Receiver: '1', Lanes: '0-3', BER: '1e-12',
      WaitingFor: null, Cancelling: false, ResultId: null,
      Progress: { LanesDone: 0, LanesTotal: 4, Direction: '', ElapsedSeconds: 1, RemainingSeconds: remaining, Percent: 10, SidesDone: null, SidesTotal: null, Lane: null },
    });
    const first = steady_queue([test(1, 100), test(2, 50)], new Map());
    const second = steady_queue([test(1, 110)], first.shown);
    expect(second.tests[0].Progress?.RemainingSeconds).toBe(100);
    expect([...second.shown.keys()]).toEqual([1]);
  });
});

describe('merge_finished', () => {
  it('lists new ends first, once each', () => {
    const end = (id: number, Status: string) => ({ TestID: id, Operation: 'PCIe Margin', SBDF: '', Status, FailureReason: null, ResultId: null });
    const old = merge_finished([], [end(1, 'complete'), end(2, 'Failed')], '01:00:00');
    expect(merge_finished(old, [end(2, 'Failed'), end(3, 'Cancelled')], '01:00:05').map((f) => [f.TestID, f.at])).toEqual([
      [2, '01:00:05'], [3, '01:00:05'], [1, '01:00:00'],
    ]);
  });
});
