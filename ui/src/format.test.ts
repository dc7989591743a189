import { describe, expect, it } from 'vitest';
import { voltage_figure_mv } from './format';
import { dwell_label, mv_label, stamp_label, stamp_of_input, input_of_stamp, timing_label, ui_ps_of_speed } from './results';

describe('one unit per quantity', () => {
  it.each([
    ['PCIe voltage in V shown in mV', voltage_figure_mv('PCIe Margin', 0.0390625), '39.1'],
    ['hVL voltage as it comes', voltage_figure_mv('HVL Destructive Margin', 42.25), '42.3'],
    ['absent voltage', voltage_figure_mv('PCIe Margin', Number.NaN), '–'],
    ['timing with its ps at 16 GT/s', timing_label(0.296875, ui_ps_of_speed('16 GT/s')), '0.297 UI (18.6 ps)'],
    ['timing at 32 GT/s', timing_label(0.3, ui_ps_of_speed('32.0 GT/s')), '0.300 UI (9.4 ps)'],
    ['64 GT/s has the UI of 32 GBd', timing_label(0.3, ui_ps_of_speed('64 GT/s')), '0.300 UI (9.4 ps)'],
    ['timing at an unknown speed', timing_label(0.3, ui_ps_of_speed('')), '0.300 UI'],
    ['not measured', timing_label(null, 62.5), '–'],
    ['millivolts', mv_label(53.125), '53.1 mV'],
    ['dwell under 10 s', dwell_label(574), '0.574 s'],
    ['dwell in seconds', dwell_label(28_700), '28.7 s'],
    ['dwell of minutes', dwell_label(287_000), '4.8 min'],
    ['finish stamp with year and seconds', stamp_label('2026_11_25-01_23_21'), '2026-11-25 01:23:21'],
    ['other date text as it came', stamp_label('25 Nov 1:23AM'), '25 Nov 1:23AM'],
  ])('%s', (_name, shown, expected) => {
    expect(shown).toBe(expected);
  });

  it.each([
    ['2026-11-25T01:23:21', '2026_11_25-01_23_21'],
    ['2026-11-25T01:23', '2026_11_25-01_23_00'],
    ['', ''],
  ])('range field %j is stamp %j', (input, stamp) => {
    expect(stamp_of_input(input)).toBe(stamp);
    if (stamp) expect(stamp_of_input(input_of_stamp(stamp))).toBe(stamp);
  });
});
