// Per-lane margins of several results of one device, side by side. A
// difference is worth an engineer's eye when it is at least one offset step
// of the receiver (anything smaller is the step's rounding), or when a lane's
// grade changed; both are measured against the first (oldest) result.
import { lane_grades, lane_objects, margin_chart_data, step_sizes } from './chart_data';
import { grade_name, ui_ps_of_speed } from './results';
import type { GradeName, ResultDocument } from './types';

export interface CompareInput {
  label: string;
  doc: ResultDocument;
}

export interface CompareRun {
  label: string;
  /** Per compared lane, null where this run did not margin it. Timing in ps, voltage in mV. */
  left: (number | null)[];
  right: (number | null)[];
  top: (number | null)[];
  bottom: (number | null)[];
  eyeWidthPs: (number | null)[];
  eyeHeightMV: (number | null)[];
  grade: (GradeName | null)[];
  /** Per lane: this run's figure differs from the first run's by a step or more. */
  widthDiffers: boolean[];
  heightDiffers: boolean[];
  gradeDiffers: boolean[];
}

export interface Comparison {
  lanes: number[];
  runs: CompareRun[];
  /** Largest spread between runs per lane: eye width in ps, eye height in mV. */
  widthSpreadPs: (number | null)[];
  heightSpreadMV: (number | null)[];
  /** Largest eye of all compared runs: one axis scale fits every run. */
  widthMaxPs: number;
  heightMaxMV: number;
}

export function ui_ps_of_doc(doc: ResultDocument): number | null {
  const given = doc.Grades?.Thresholds?.UIps;
  if (typeof given === 'number' && given > 0) return given;
  return ui_ps_of_speed(doc.PCIeInfo?.Speed);
}

function spread(values: (number | null)[]): number | null {
  const present = values.filter((v): v is number => v !== null);
  return present.length < 2 ? null : Math.max(...present) - Math.min(...present);
}

// Steps are printed rounded to a float's precision; allow for that.
const EPSILON = 1e-6;

function differs(a: number | null, b: number | null, step: number | null): boolean {
  if (a === null || b === null) return a !== b;
  return step === null ? Math.abs(a - b) > EPSILON : Math.abs(a - b) + EPSILON >= step;
}

export function compare_results(inputs: CompareInput[]): Comparison {
  const perRun = inputs.map(({ label, doc }) => {
    const full = lane_objects(doc.TestOutput?.FullMarginData);
    const uiPs = ui_ps_of_doc(doc);
    const data = margin_chart_data(full, uiPs);
    const ps = (ui: number | null) => (ui === null || uiPs === null ? null : ui * uiPs);
    const byLane = new Map<number, number>(data.lanes.map((lane, i) => [lane, i]));
    const timingStep = new Map<number, number | null>(step_sizes(full, true).map((t, i) => [data.lanes[i], ps(t)]));
    const voltStep = new Map<number, number | null>(step_sizes(full, false).map((v, i) => [data.lanes[i], v]));
    const grades = lane_grades(data.lanes, doc.Grades?.Lanes).map((g) => grade_name(g));
    return { label, data, ps, byLane, timingStep, voltStep, grades };
  });

  const lanes = [...new Set(perRun.flatMap((r) => r.data.lanes))].sort((a, b) => a - b);
  const pick = <T,>(r: (typeof perRun)[number], values: T[], lane: number): T | null => {
    const i = r.byLane.get(lane);
    return i === undefined ? null : values[i];
  };
  // The coarser step of the two runs decides: neither could resolve less.
  const stepOf = (map: 'timingStep' | 'voltStep', lane: number, a: (typeof perRun)[number], b: (typeof perRun)[number]) => {
    const steps = [a[map].get(lane), b[map].get(lane)].filter((s): s is number => typeof s === 'number');
    return steps.length === 0 ? null : Math.max(...steps);
  };

  const runs: CompareRun[] = perRun.map((r) => ({
    label: r.label,
    left: lanes.map((lane) => r.ps(pick(r, r.data.left, lane))),
    right: lanes.map((lane) => r.ps(pick(r, r.data.right, lane))),
    top: lanes.map((lane) => pick(r, r.data.top, lane)),
    bottom: lanes.map((lane) => pick(r, r.data.bottom, lane)),
    eyeWidthPs: lanes.map((lane) => pick(r, r.data.eyeWidthPs, lane)),
    eyeHeightMV: lanes.map((lane) => pick(r, r.data.eyeHeightMV, lane)),
    grade: lanes.map((lane) => pick(r, r.grades, lane)),
    widthDiffers: [],
    heightDiffers: [],
    gradeDiffers: [],
  }));
  const base = runs[0];
  runs.forEach((run, k) => {
    lanes.forEach((lane, i) => {
      const first = k === 0;
      run.widthDiffers.push(!first && differs(run.eyeWidthPs[i], base.eyeWidthPs[i], stepOf('timingStep', lane, perRun[k], perRun[0])));
      run.heightDiffers.push(!first && differs(run.eyeHeightMV[i], base.eyeHeightMV[i], stepOf('voltStep', lane, perRun[k], perRun[0])));
      run.gradeDiffers.push(!first && run.grade[i] !== base.grade[i]);
    });
  });

  const largest = (arrays: (number | null)[][]) => Math.max(0, ...arrays.flat().filter((v): v is number => v !== null));
  return {
    lanes,
    runs,
    widthSpreadPs: lanes.map((_, i) => spread(runs.map((r) => r.eyeWidthPs[i]))),
    heightSpreadMV: lanes.map((_, i) => spread(runs.map((r) => r.eyeHeightMV[i]))),
    widthMaxPs: largest(runs.map((r) => r.eyeWidthPs)),
    heightMaxMV: largest(runs.map((r) => r.eyeHeightMV)),
  };
}

/**
 * Grouped bars on one x scale: lane i's bar of run j sits at
 * i + (j - (n - 1) / 2) * width / n. Each series holds values only at its own
 * positions, so uPlot draws the groups side by side.
 */
export function grouped(values: (number | null)[][], width = 0.8): { x: number[]; series: (number | null)[][] } {
  const n = values.length;
  const lanes = n === 0 ? 0 : values[0].length;
  const x: number[] = [];
  const series = values.map(() => [] as (number | null)[]);
  for (let i = 0; i < lanes; i++) {
    for (let j = 0; j < n; j++) {
      x.push(i + ((j - (n - 1) / 2) * width) / n);
      series.forEach((s, k) => s.push(k === j ? values[k][i] : null));
    }
  }
  return { x, series };
}
