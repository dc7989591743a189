import { describe, expect, it } from 'vitest';
import { error_map, margin_chart_data, mirrored } from './chart_data';
import { export_csv_url, ordered_range } from './dates';

const lane = (no: number, left: unknown, right: unknown, top: unknown, bottom: unknown) => ({
  LaneSerialID: no - 16,
  LanePCIeNo: no,
  PhaseLeftMargin: left,
  PhaseRightMargin: right,
  VoltTopMargin: top,
  VoltBotomMargin: bottom,
});

describe('margin_chart_data', () => {
  it('keeps UI and volts as reported and finds the worst lane of each by its eye', () => {
    const data = margin_chart_data([
      lane(16, 0.3, 0.3, 0.05, 0.06),
      // Narrowest eye (0.45 UI), though not the smallest single side.
      lane(17, 0.2, 0.25, 0.04, 0.05),
      lane(18, 0.15, 0.4, 0.03, 0.04),
      lane(19, 0.5, 0.5, 0.02, 0.03),
    ]);
    expect(data.lanes).toEqual([16, 17, 18, 19]);
    expect(data.left).toEqual([0.3, 0.2, 0.15, 0.5]);
    expect(data.bottom).toEqual([0.06, 0.05, 0.04, 0.03]);
    expect(data.worstTiming).toBe(1);
    expect(data.worstVoltage).toBe(3);
  });

  it('leaves gaps for missing values, skips such lanes for the worst, and takes the first of equals', () => {
    const data = margin_chart_data([lane(0, 0.1, null, 0.02, 0.02), lane(1, 0.2, 0.2, 0.02, 0.02), lane(2, 0.2, 0.2, 'x', 0.01)]);
    expect(data.right).toEqual([null, 0.2, 0.2]);
    expect(data.top).toEqual([0.02, 0.02, null]);
    expect(data.worstTiming).toBe(1);
    expect(data.worstVoltage).toBe(0);
  });

  it('has no worst lane without data, and labels lanes by position when unnumbered', () => {
    expect(margin_chart_data(undefined)).toMatchObject({ lanes: [], worstTiming: null, worstVoltage: null });
    expect(margin_chart_data([{ PhaseLeftMargin: 1 }, 'junk', {}]).lanes).toEqual([0, 1]);
  });

  it('mirrors the lower side below zero', () => {
    expect(mirrored([0.2, null, 0])).toEqual([-0.2, null, -0]);
  });
});

describe('error_map', () => {
  it('sorts by offset then dwell and drops malformed entries', () => {
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

describe('result ranges', () => {
  const list = ['2 May 9:06AM', '2 May 1:15PM', '3 May 0:30AM'];
  it.each([
    ['in order', list[0], list[2], [list[0], list[2]]],
    ['picked backwards', list[2], list[1], [list[1], list[2]]],
    ['one run', list[1], list[1], [list[1], list[1]]],
    ['unknown date', list[0], '4 May 1:00AM', null],
  ])('%s', (_name, a, b, expected) => {
    expect(ordered_range(list, a, b)).toEqual(expected);
  });

  it('encodes blanks and colons of the dates in the export link', () => {
    expect(export_csv_url('2 May 9:06AM', '3 May 0:30AM')).toBe(
      '/api/1.0/ExportResultsCSV?start=2%20May%209%3A06AM&end=3%20May%200%3A30AM&kind=pcie',
    );
  });
});
