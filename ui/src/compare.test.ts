import { describe, expect, it } from 'vitest';
import { compare_results, grouped } from './compare';
import type { ResultDocument } from './types';

// 16 GT/s: 1 UI = 62.5 ps; a timing step is 50/(32*100) UI = 0.976 ps, a voltage step 20*10/64 = 3.125 mV.
const caps = { MaxTimingOffset: 50, NumTimingSteps: 32, MaxVoltOffset: 20, NumVoltSteps: 64 };
const steps = (no: number, left: number, right: number, top: number, bottom: number) => ({
  LanePCIeNo: no,
  ...caps,
  PhaseLeftMargin: (left * 50) / 3200,
  PhaseRightMargin: (right * 50) / 3200,
  VoltTopMargin: (top * 20) / 6400,
  VoltBotomMargin: (bottom * 20) / 6400,
});
// As the service writes it: the receiver's capabilities on the first lane only.
const bare = (lane: object) => Object.fromEntries(Object.entries(lane).filter(([k]) => !(k in caps)));
const doc = (lanes: object[], grades: [number, string][]): ResultDocument => ({
  Operation: 'PCIe Margin',
  PCIeInfo: { SBDF: '0:3:0.0', Speed: '16 GT/s' },
  TestOutput: { Status: 'complete', FullMarginData: lanes.map((l, i) => (i === 0 ? l : bare(l))) as never },
  Grades: { Lanes: grades.map(([Lane, Grade]) => ({ Lane, Grade: Grade as never })) },
});

describe('compare_results', () => {
  const cmp = compare_results([
    { label: 'first', doc: doc([steps(0, 20, 18, 17, 17), steps(1, 20, 18, 17, 17), steps(2, 20, 18, 17, 17)], [[0, 'Perfect'], [1, 'Perfect'], [2, 'Perfect']]) },
    // Lane 0 unchanged; lane 1 one timing step narrower and one voltage step lower, now "Pass";
    // lane 2 not margined; lane 3 new.
    { label: 'second', doc: doc([steps(0, 20, 18, 17, 17), steps(1, 19, 18, 16, 17), steps(3, 20, 18, 17, 17)], [[0, 'Perfect'], [1, 'Pass'], [3, 'Perfect']]) },
  ]);

  it('lines runs up on the union of lanes, timing in ps, voltage in mV', () => {
    expect(cmp.lanes).toEqual([0, 1, 2, 3]);
    expect(cmp.runs[0].eyeWidthPs[0]).toBeCloseTo(38 * 0.9765625, 6);
    expect(cmp.runs[0].eyeHeightMV[0]).toBeCloseTo(34 * 3.125, 6);
    expect(cmp.runs[1].eyeWidthPs[2]).toBeNull();
    expect(cmp.runs[0].eyeWidthPs[3]).toBeNull();
  });

  it.each([
    ['the first run is the baseline', 0, [false, false, false, false], [false, false, false, false], [false, false, false, false]],
    ['a one-step change counts, an absent lane differs', 1, [false, true, true, true], [false, true, true, true], [false, true, true, true]],
  ])('%s', (_name, run, width, height, grade) => {
    expect(cmp.runs[run].widthDiffers).toEqual(width);
    expect(cmp.runs[run].heightDiffers).toEqual(height);
    expect(cmp.runs[run].gradeDiffers).toEqual(grade);
  });

  it('spreads only where two runs have the lane, and one scale fits every run', () => {
    expect(cmp.widthSpreadPs[0]).toBe(0);
    expect(cmp.widthSpreadPs[1]).toBeCloseTo(0.9765625, 6);
    expect(cmp.heightSpreadMV[2]).toBeNull();
    expect(cmp.widthMaxPs).toBeCloseTo(38 * 0.9765625, 6);
    expect(cmp.heightMaxMV).toBeCloseTo(34 * 3.125, 6);
  });

  it('does not count a change smaller than the coarser run\'s step', () => {
    // Lane 1 carries no capabilities of its own: the first lane's step applies.
    const fine = { ...steps(1, 20, 18, 17, 17), PhaseLeftMargin: (20 * 50) / 3200 - 0.001 };
    const c = compare_results([
      { label: 'a', doc: doc([steps(0, 20, 18, 17, 17), steps(1, 20, 18, 17, 17)], []) },
      { label: 'b', doc: doc([steps(0, 20, 18, 17, 17), fine], []) },
    ]);
    expect(c.runs[1].widthDiffers).toEqual([false, false]);
    // Without capabilities any change counts, and equal figures never do.
    const unknown = compare_results([
      { label: 'a', doc: doc([bare(steps(1, 20, 18, 17, 17))], []) },
      { label: 'b', doc: doc([bare(fine)], []) },
    ]);
    expect(unknown.runs[1].widthDiffers).toEqual([true]);
    expect(unknown.runs[1].heightDiffers).toEqual([false]);
  });
});

describe('grouped bars', () => {
  it('places each run beside the others around its lane, with values only at its own places', () => {
    const g = grouped([[1, 2], [3, null]]);
    expect(g.x).toEqual([-0.2, 0.2, 0.8, 1.2]);
    expect(g.series).toEqual([[1, null, 2, null], [null, 3, null, null]]);
  });
});
