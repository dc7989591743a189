import { describe, expect, it } from 'vitest';
import { bathtubs, build_eye_record, default_eye_form, eye_ber_label, eye_result_of, eye_targets, target_key, type EyeForm } from './eye';
import type { EyeScanTarget } from './types';

const choices = { BER: ['7.65', '5.24', '3.735'], Lanes: [...Array(16).keys()] };
const g1: EyeScanTarget = {
  SERDES: { DeviceName: 'Die S0', SERDES: 'G1' },
  HVLCtrlInfo: { DeviceName: 'Die S0', SERDES: 'G1', Socket: 0, Die: 0 },
  EyeScanSupported: true,
  EyeScanData: choices,
};
const port: EyeScanTarget = {
  PCIeInfo: { SBDF: '0:3:0.0' },
  PCIeCtrlInfo: { PCIeCore: 0, Port: 2 },
  SERDES: { DeviceName: 'Die S0', SERDES: 'P2' },
  EyeScanSupported: true,
  EyeScanData: { BER: choices.BER, Lanes: [4, 5, 6, 7] },
};

describe('eye scan targets and BER', () => {
  it('keeps scannable ports and link ends only', () => {
    const unmapped = { PCIeInfo: { SBDF: '0:4:0.0' }, EyeScanSupported: false };
    expect(eye_targets([port, unmapped, g1, { EyeScanSupported: true }, 'junk'])).toEqual([port, g1]);
    expect(eye_targets(null)).toEqual([]);
    expect(() => eye_targets({})).toThrow('not a list');
  });

  it.each([
    ['7.65', '1e-7.65 (2²³ bits)'],
    ['3.735', '1e-3.735 (2¹⁰ bits)'],
    ['12', '1e-12'],
    ['9.99e', '9.99e'],
  ])('%s reads %s', (ber, label) => expect(eye_ber_label(ber)).toBe(label));
});

describe('build_eye_record', () => {
  const form = (t: EyeScanTarget, change: Partial<EyeForm> = {}): EyeForm => ({ ...default_eye_form(t), ...change });

  it('sends an hVL end by its HVLCtrlInfo and a port by its PCIe keys, lanes in the target order', () => {
    expect(build_eye_record([port, g1], form(g1, { lanes: [3, 0, 2, 1], ber: '5.24' })).record).toEqual({
      Operation: 'EyeScan', SERDES: g1.SERDES, HVLCtrlInfo: g1.HVLCtrlInfo, TestParams: { Lanes: [0, 1, 2, 3], BER: '5.24' },
    });
    expect(build_eye_record([port, g1], form(port)).record).toEqual({
      Operation: 'EyeScan', SERDES: port.SERDES, PCIeInfo: port.PCIeInfo, PCIeCtrlInfo: port.PCIeCtrlInfo, TestParams: { Lanes: [4, 5, 6, 7], BER: '7.65' },
    });
  });

  it.each([
    ['no target', { target: '' }, { device: 'Choose a port or link.' }],
    ['a target gone from the list', { target: 'hvl|Die S1|G2' }, { device: 'That port or link is no longer listed; reload the list.' }],
    ['no lane', { lanes: [] }, { lanes: 'Choose at least one lane, or all lanes.' }],
    ['a lane the port lacks', { lanes: [0] }, { lanes: 'Lane 0 is not a lane of this port.' }],
    ['a BER outside the table', { ber: '12' }, { ber: 'BER 1e-12 is not offered for this port.' }],
  ])('refuses %s', (_name, change, errors) => {
    expect(build_eye_record([port], { ...form(port), ...change })).toEqual({ errors });
  });

  it('needs the die and link the collector runs on', () => {
    const bare = { ...port, SERDES: undefined };
    expect(build_eye_record([bare], form(bare)).errors.device).toBe('The service names no die and link for this target.');
    expect(target_key(bare)).toBe('pcie|0:3:0.0');
  });
});

describe('eye scan data', () => {
  // 3 phases x 4 voltage bins; 2^2 bits x 2 pairs x 1 tap = 8 bits per point.
  const answer = {
    OperationStatus: true, Nbits: 2, Taps: 1, BerFloor: 3 / 8, PhaseUI: [-0.5, 0, 0.5], VoltageMV: [-7.5, -2.5, 2.5, 7.5],
    Lanes: [
      { Lane: 1, Link: 'G1', Counts: [[1, 2]], Figures: null, Png: null },
      { Lane: 0, Link: 'G1', Counts: [[8, 8, 8], [4, 0, 2], [8, 2, 6], [8, 8, 8]], Figures: { TopMV: 5, BottomMV: -5, LeftUI: -0.25 }, Png: 'a.png' },
    ],
    Analysis: { Header: ['Name', 'Lane'], Rows: [['s0_G1_0', 0]] },
  };

  it('reads lanes in lane order, drops a map that does not fit the axes, and keeps the figures given', () => {
    const d = eye_result_of(answer);
    expect(d.Lanes.map((l) => l.Counts.length)).toEqual([4, 0]);
    expect(d.Lanes[0].Figures).toEqual({ TopMV: 5, BottomMV: -5, LeftUI: -0.25, RightUI: null, WidthUI: null, HeightMV: null });
    expect(d.AnalysisCsv).toBeNull();
    expect(() => eye_result_of({ OperationStatus: false, ErrMsg: 'No result 9.' })).toThrow('No result 9.');
  });

  it('cuts the eye through 0 mV (the two middle bins averaged) and 0 UI, in log10 BER', () => {
    const d = eye_result_of(answer);
    const tubs = bathtubs(d, d.Lanes[0].Counts);
    expect(tubs.phase).toEqual([Math.log10(6 / 8), Math.log10(1 / 8), Math.log10(4 / 8)]);
    // No error seen is below what the scan resolves: no point, not a rate of zero.
    expect(tubs.voltage).toEqual([0, null, Math.log10(2 / 8), 0]);
  });
});
