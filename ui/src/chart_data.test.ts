import { describe, expect, it } from 'vitest';
import { error_map, lane_grades, margin_chart_data, step_size } from './chart_data';
import { export_csv_url, export_range } from './dates';

const lane = (no: number, left: unknown, right: unknown, top: unknown, bottom: unknown) => ({
  LaneSerialID: no - 16,
  LanePCIeNo: no,
  PhaseLeftMargin: left,
  PhaseRightMargin: right,
  VoltTopMargin: top,
  VoltBotomMargin: bottom,
});

describe('margin_chart_data', () => {
  it('keeps timing in UI, turns volts into mV, forms eyes in ps and mV and finds the worst lane of each', () => {
    const data = margin_chart_data(
      [
        lane(16, 0.3, 0.3, 0.05, 0.06),
        // Narrowest eye (0.45 UI), though not the smallest single side.
        lane(17, 0.2, 0.25, 0.04, 0.05),
        lane(18, 0.15, 0.4, 0.03, 0.04),
        lane(19, 0.5, 0.5, 0.02, 0.03),
      ],
      62.5,
    );
    expect(data.lanes).toEqual([16, 17, 18, 19]);
    expect(data.left).toEqual([0.3, 0.2, 0.15, 0.5]);
    expect(data.bottom.map((v) => v && +v.toFixed(6))).toEqual([60, 50, 40, 30]);
    expect(data.eyeWidthPs.map((v) => v && +v.toFixed(4))).toEqual([37.5, 28.125, 34.375, 62.5]);
    expect(data.eyeHeightMV.map((v) => v && +v.toFixed(6))).toEqual([110, 90, 70, 50]);
    expect(data.worstTiming).toBe(1);
    expect(data.worstVoltage).toBe(3);
  });

  it('leaves gaps for missing values, skips such lanes for the worst, and takes the first of equals', () => {
    const data = margin_chart_data([lane(0, 0.1, null, 0.02, 0.02), lane(1, 0.2, 0.2, 0.02, 0.02), lane(2, 0.2, 0.2, 'x', 0.01)]);
    expect(data.right).toEqual([null, 0.2, 0.2]);
    expect(data.top[2]).toBeNull();
    // Without the link's UI there is no width in ps.
    expect(data.eyeWidthPs).toEqual([null, null, null]);
    expect(data.eyeHeightMV[2]).toBeNull();
    expect(data.worstTiming).toBe(1);
    expect(data.worstVoltage).toBe(0);
  });

  it('has no worst lane without data, and labels lanes by position when unnumbered', () => {
    expect(margin_chart_data(undefined)).toMatchObject({ lanes: [], worstTiming: null, worstVoltage: null });
    expect(margin_chart_data([{ PhaseLeftMargin: 1 }, 'junk', {}]).lanes).toEqual([0, 1]);
  });
});

describe('per-lane helpers', () => {
  it('matches the service grades to the charted lanes by lane number, reversed lanes included', () => {
    const grades = [{ Lane: 3, Grade: 'Fail' }, { Lane: 15, Grade: 'Perfect' }, { Grade: 'Pass' }];
    expect(lane_grades([15, 14, 3], grades).map((g) => g?.Grade ?? null)).toEqual(['Perfect', null, 'Fail']);
    expect(lane_grades([0], undefined)).toEqual([null]);
  });

  it.each([
    ['timing: 50 % of a UI over 32 steps', { MaxTimingOffset: 50, NumTimingSteps: 32 }, true, 0.015625],
    ['voltage: 0.20 V over 64 steps, in mV', { MaxVoltOffset: 20, NumVoltSteps: 64 }, false, 3.125],
    ['no steps reported', { MaxVoltOffset: 20, NumVoltSteps: 0 }, false, null],
    ['capabilities missing', {}, true, null],
  ])('step size, %s', (_name, caps, timing, expected) => {
    expect(step_size(caps, timing)).toBe(expected);
  });

  it('sorts an error map by offset then dwell and drops malformed entries', () => {
    const entries = error_map(
      {
        PhaseLeftErrorMap: [
          { Offset: 3, DwellTime: 10, ErrCnt: 1 },
          { Offset: 1, DwellTime: 100, ErrCnt: 0 },
          { Offset: 1, DwellTime: 10, ErrCnt: 0 },
          { Offset: '2', DwellTime: 10, ErrCnt: 0 } as unknown as { Offset: number; DwellTime: number; ErrCnt: number },
        ],
      },
      'PhaseLeftErrorMap',
    );
    expect(entries.map((e) => [e.Offset, e.DwellTime])).toEqual([[1, 10], [1, 100], [3, 10]]);
    expect(error_map({}, 'VoltTopErrorMap')).toEqual([]);
  });
});

describe('CSV export of the shown range', () => {
  it.each([
    ['open range: oldest to newest archived', '', '', ['2026_01_02-03_04_05', '2026_11_25-01_23_21']],
    ['operator bounds win', '2026_05_01-00_00_00', '2026_06_01-00_00_00', ['2026_05_01-00_00_00', '2026_06_01-00_00_00']],
    ['open end follows the newest', '2026_05_01-00_00_00', '', ['2026_05_01-00_00_00', '2026_11_25-01_23_21']],
  ])('%s', (_name, from, to, expected) => {
    expect(export_range(from, to, '2026_01_02-03_04_05', '2026_11_25-01_23_21')).toEqual(expected);
  });

  it('has no link while nothing is archived, and sends stamps as from/to', () => {
    expect(export_range('', '', null, null)).toBeNull();
    expect(export_csv_url('2026_01_02-03_04_05', '2026_11_25-01_23_21')).toBe(
      '/api/1.0/ExportResultsCSV?from=2026_01_02-03_04_05&to=2026_11_25-01_23_21&kind=pcie',
    );
  });
});
