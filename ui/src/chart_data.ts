// Turns "TestOutput"."FullMarginData" into what the per-lane charts draw.
// One unit per quantity everywhere on the page: timing in UI with its
// picoseconds beside it, voltage in millivolts. The report holds timing in
// UI and a PCIe margin's voltage in volts, so only voltage is scaled here.
import type { ErrorMapEntry, LaneGrade, LaneMargin } from './types';

export interface MarginChartData {
  /** Lane number shown on the axis, one per lane object. */
  lanes: number[];
  /** Picoseconds in one UI at the link's speed, null when the speed is unknown. */
  uiPs: number | null;
  left: (number | null)[];
  right: (number | null)[];
  /** Millivolts. */
  top: (number | null)[];
  bottom: (number | null)[];
  /** Eye width (left + right) in ps, null without both sides or a known UI. */
  eyeWidthPs: (number | null)[];
  /** Eye height (top + bottom) in mV, null without both sides. */
  eyeHeightMV: (number | null)[];
  /** Index of the lane with the narrowest eye (left + right), null without data. */
  worstTiming: number | null;
  /** Index of the lane with the lowest eye (top + bottom), null without data. */
  worstVoltage: number | null;
}

function value(lane: LaneMargin, key: string): number | null {
  const v = lane[key];
  return typeof v === 'number' && Number.isFinite(v) ? v : null;
}

/**
 * The worst lane of a pair of margins is the one with the smallest sum; a lane
 * that lacks either side is left out, and of equal lanes the first counts.
 */
function worst_of(a: (number | null)[], b: (number | null)[]): number | null {
  let worst: number | null = null;
  let smallest = Infinity;
  for (let i = 0; i < a.length; i++) {
    const x = a[i];
    const y = b[i];
    if (x === null || y === null) continue;
    if (x + y < smallest) {
      smallest = x + y;
      worst = i;
    }
  }
  return worst;
}

export function lane_number(lane: LaneMargin, position: number): number {
  if (typeof lane.LaneID === 'number') return lane.LaneID;
  if (typeof lane.LanePCIeNo === 'number') return lane.LanePCIeNo;
  if (typeof lane.LaneSerialID === 'number') return lane.LaneSerialID;
  return position;
}

export function lane_objects(full: unknown): LaneMargin[] {
  return Array.isArray(full)
    ? full.filter((l): l is LaneMargin => typeof l === 'object' && l !== null && !Array.isArray(l))
    : [];
}

const sum = (a: number | null, b: number | null) => (a === null || b === null ? null : a + b);
const mv = (volts: number | null) => (volts === null ? null : volts * 1000);

export function margin_chart_data(full: unknown, uiPs: number | null = null): MarginChartData {
  const lanes = lane_objects(full);
  const left = lanes.map((l) => value(l, 'PhaseLeftMargin'));
  const right = lanes.map((l) => value(l, 'PhaseRightMargin'));
  const top = lanes.map((l) => mv(value(l, 'VoltTopMargin')));
  const bottom = lanes.map((l) => mv(value(l, 'VoltBotomMargin')));
  return {
    lanes: lanes.map(lane_number),
    uiPs,
    left,
    right,
    top,
    bottom,
    eyeWidthPs: left.map((l, i) => {
      const w = sum(l, right[i]);
      return w === null || uiPs === null ? null : w * uiPs;
    }),
    eyeHeightMV: top.map((t, i) => sum(t, bottom[i])),
    worstTiming: worst_of(left, right),
    worstVoltage: worst_of(top, bottom),
  };
}

/** Series for the chart: left and bottom negated so the eye opens around zero. */
export function mirrored(values: (number | null)[]): (number | null)[] {
  return values.map((v) => (v === null ? null : -v));
}

/** The service's grade of each charted lane, matched by lane number; null where it gave none. */
export function lane_grades(lanes: number[], grades: unknown): (LaneGrade | null)[] {
  const byLane = new Map<number, LaneGrade>();
  if (Array.isArray(grades)) {
    for (const g of grades) {
      if (typeof g === 'object' && g !== null && typeof (g as LaneGrade).Lane === 'number') byLane.set((g as LaneGrade).Lane, g as LaneGrade);
    }
  }
  return lanes.map((lane) => byLane.get(lane) ?? null);
}

export type ErrorMapName = 'PhaseLeftErrorMap' | 'PhaseRightErrorMap' | 'VoltTopErrorMap' | 'VoltBottomErrorMap';
export const ERROR_MAPS: { key: ErrorMapName; label: string; timing: boolean }[] = [
  { key: 'PhaseLeftErrorMap', label: 'Timing left', timing: true },
  { key: 'PhaseRightErrorMap', label: 'Timing right', timing: true },
  { key: 'VoltTopErrorMap', label: 'Voltage top', timing: false },
  { key: 'VoltBottomErrorMap', label: 'Voltage bottom', timing: false },
];

/**
 * An error map's entries that are well formed, by offset then dwell time. A
 * PCIe map records each dwell of an offset; an hVL map has one record per
 * offset, without a dwell, and notes what the walk met there ("OffsetStatus").
 */
export function error_map(lane: LaneMargin, key: ErrorMapName): ErrorMapEntry[] {
  const map = lane[key];
  if (!Array.isArray(map)) return [];
  const entries: ErrorMapEntry[] = [];
  for (const e of map as ({ [key: string]: unknown } | null)[]) {
    if (typeof e !== 'object' || e === null || typeof e.Offset !== 'number' || typeof e.ErrCnt !== 'number') continue;
    entries.push({
      Offset: e.Offset,
      DwellTime: typeof e.DwellTime === 'number' ? e.DwellTime : null,
      ErrCnt: e.ErrCnt,
      OffsetStatus: typeof e.OffsetStatus === 'string' && e.OffsetStatus !== '' ? e.OffsetStatus : null,
    });
  }
  return entries.sort((a, b) => a.Offset - b.Offset || (a.DwellTime ?? 0) - (b.DwellTime ?? 0));
}

/**
 * Size of one offset step of a lane: a timing step in UI, a voltage step in
 * mV. The receiver reports its largest offset in hundredths of a UI (timing)
 * or of a volt (voltage), reached at its number of steps. null when the lane
 * lacks either figure.
 */
export function step_size(lane: LaneMargin, timing: boolean): number | null {
  const max = value(lane, timing ? 'MaxTimingOffset' : 'MaxVoltOffset');
  // A PCIe receiver names its step counts "Num...", an hVL PHY without it.
  const steps = value(lane, timing ? 'NumTimingSteps' : 'NumVoltSteps') ?? value(lane, timing ? 'TimingSteps' : 'VoltSteps');
  if (max === null || steps === null || steps <= 0) return null;
  return timing ? max / (steps * 100) : (max * 1000) / (steps * 100);
}

/**
 * Step sizes of every lane of a test. The margining capabilities belong to
 * the receiver and the report may carry them on one lane only, so a lane
 * without them takes those of the first lane that has them.
 */
export function step_sizes(lanes: LaneMargin[], timing: boolean): (number | null)[] {
  const own = lanes.map((l) => step_size(l, timing));
  const shared = own.find((s) => s !== null) ?? null;
  return own.map((s) => s ?? shared);
}
