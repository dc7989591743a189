// Turns "TestOutput"."FullMarginData" into what the per-lane chart draws.
// Timing margins stay in UI and voltage margins in volts, as the report
// holds them; the chart plots left and bottom below the zero line.
import type { ErrorMapEntry, LaneMargin } from './types';

export interface MarginChartData {
  /** Lane number shown on the axis, one per lane object. */
  lanes: number[];
  left: (number | null)[];
  right: (number | null)[];
  top: (number | null)[];
  bottom: (number | null)[];
  /** Index of the lane with the narrowest eye (left + right), null without data. */
  worstTiming: number | null;
  /** Index of the lane with the lowest eye (top + bottom), null without data. */
  worstVoltage: number | null;
}

function value(lane: LaneMargin, key: keyof LaneMargin): number | null {
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

function lane_number(lane: LaneMargin, position: number): number {
  if (typeof lane.LanePCIeNo === 'number') return lane.LanePCIeNo;
  if (typeof lane.LaneSerialID === 'number') return lane.LaneSerialID;
  return position;
}

export function margin_chart_data(full: unknown): MarginChartData {
  const lanes = Array.isArray(full)
    ? full.filter((l): l is LaneMargin => typeof l === 'object' && l !== null && !Array.isArray(l))
    : [];
  const data: MarginChartData = {
    lanes: lanes.map(lane_number),
    left: lanes.map((l) => value(l, 'PhaseLeftMargin')),
    right: lanes.map((l) => value(l, 'PhaseRightMargin')),
    top: lanes.map((l) => value(l, 'VoltTopMargin')),
    bottom: lanes.map((l) => value(l, 'VoltBotomMargin')),
    worstTiming: null,
    worstVoltage: null,
  };
  data.worstTiming = worst_of(data.left, data.right);
  data.worstVoltage = worst_of(data.top, data.bottom);
  return data;
}

/** Series for the chart: left and bottom negated so the eye opens around zero. */
export function mirrored(values: (number | null)[]): (number | null)[] {
  return values.map((v) => (v === null ? null : -v));
}

export type ErrorMapName = 'PhaseLeftErrorMap' | 'PhaseRightErrorMap' | 'VoltTopErrorMap' | 'VoltBottomErrorMap';
export const ERROR_MAPS: { key: ErrorMapName; label: string }[] = [
  { key: 'PhaseLeftErrorMap', label: 'Timing left' },
  { key: 'PhaseRightErrorMap', label: 'Timing right' },
  { key: 'VoltTopErrorMap', label: 'Voltage top' },
  { key: 'VoltBottomErrorMap', label: 'Voltage bottom' },
];

/** An error map's entries that are well formed, by offset then dwell time. */
export function error_map(lane: LaneMargin, key: ErrorMapName): ErrorMapEntry[] {
  const map = lane[key];
  if (!Array.isArray(map)) return [];
  return map
    .filter(
      (e): e is ErrorMapEntry =>
        typeof e === 'object' &&
        e !== null &&
        typeof e.Offset === 'number' &&
        typeof e.DwellTime === 'number' &&
        typeof e.ErrCnt === 'number',
    )
    .sort((a, b) => a.Offset - b.Offset || a.DwellTime - b.DwellTime);
}
