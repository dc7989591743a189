import { describe, expect, it } from 'vitest';
import { error_map, step_sizes } from './chart_data';
import { build_hvl_record, default_hvl_form, equalisation, hvl_lane_rows, hvl_links, hvl_ui_ps, link_key, link_row, type HvlForm } from './hvl';
import type { HVLLink, LaneMargin, ResultDocument } from './types';

const g1: HVLLink = {
  SERDES: { DeviceName: 'Die S0', SERDES: 'G1' },
  HVLCtrlInfo: {
    DeviceName: 'Die S0', SERDES: 'G1', Speed: '32Gts', Width: ' x16', Socket: 0, Die: 0,
    PartnerDeviceName: 'Die S1', PartnerSERDES: 'G3', PartnerSocket: 1, PartnerDie: 0, LaneReversed: true,
  },
  HVLDestMarginSupported: true,
  HVLDestMarginData: { BER: ['8', '9', '10', '11', '12'], ErrCnt: { Max: 63, Min: 1 }, Lanes: [...Array(16).keys()] },
};
const p1: HVLLink = { ...g1, HVLCtrlInfo: { ...g1.HVLCtrlInfo, SERDES: 'P1', Die: 1 }, HVLDestMarginSupported: false };
const links = [g1, p1];

describe('hVL link list', () => {
  it('names each end, its partner, rate, width, lanes and lane order', () => {
    expect(link_row(g1).cells).toEqual([
      's0.G1', 'Die S0', 'G1', 's1.G3', '32 GT/s', 'x16', '0-15', 'reversed (lane l meets 15 − l)', 'Supported',
    ]);
    const straight = { ...g1.HVLCtrlInfo, LaneReversed: false, Socket: undefined, PartnerSERDES: undefined };
    expect(link_row({ ...p1, HVLCtrlInfo: straight }).cells).toEqual(['Die S0 G1', 'Die S0', 'G1', '', '32 GT/s', 'x16', '0-15', 'straight', 'No']);
  });

  it('reads a one-socket machine as no link and skips elements without die and link', () => {
    expect(hvl_links(null)).toEqual([]);
    expect(hvl_links([g1, { HVLCtrlInfo: { SERDES: 'G2' } }, 'junk'])).toEqual([g1]);
    expect(() => hvl_links({})).toThrow('not a list');
  });
});

describe('build_hvl_record', () => {
  const good: HvlForm = { link: link_key(g1), allLanes: false, lanes: [3, 0, 2, 1], ber: '9', errCnt: '5' };

  it('copies the list element whole and sends lanes in the link order', () => {
    expect(build_hvl_record(links, good)).toEqual({
      errors: {},
      record: { Operation: 'HVL Destructive Margin', HVLCtrlInfo: g1.HVLCtrlInfo, SERDES: g1.SERDES, TestParams: { BER: '9', ErrCnt: 5, Lanes: [0, 1, 2, 3] } },
    });
    // The default form is one the service accepts.
    expect(build_hvl_record(links, default_hvl_form(g1)).record?.TestParams).toEqual({ BER: '12', ErrCnt: 4, Lanes: g1.HVLDestMarginData!.Lanes });
  });

  it.each<[string, Partial<HvlForm>, Record<string, string>]>([
    ['no link', { link: '' }, { device: 'Choose a link.' }],
    ['a link gone from the list', { link: 'Die S9|G1' }, { device: 'Link Die S9 G1 is not in the link list.' }],
    ['a link without margining', { link: link_key(p1) }, { device: 'Link s0d1.P1 does not support margining.' }],
    ['no lane', { lanes: [] }, { lanes: 'Choose at least one lane, or all lanes.' }],
    ['a lane of no link', { lanes: [0, 16] }, { lanes: 'Lane 16 is not a lane of this link.' }],
    ['BER not offered, count out of range', { ber: '14', errCnt: '64' }, { ber: 'BER 1e-14 is not offered for this link.', errCnt: 'Error count must be between 1 and 63.' }],
  ])('refuses %s', (_name, change, errors) => {
    expect(build_hvl_record(links, { ...good, ...change })).toEqual({ errors });
  });
});

// A lane of a 32 GT/s link: 1 timing step = 0.5 UI / 32 steps, 1 voltage step = 0.2 V / 50 steps = 4 mV.
const lane = (id: number, extra: object = {}) => ({
  LaneID: id, ErrorPresent: false, DataRate: '32.00', TimingSteps: 32, MaxTimingOffset: 50, VoltSteps: 50, MaxVoltOffset: 20,
  PhaseLeftOffset: 12, PhaseRightOffset: 10, VoltTopOffset: 9, VoltBottomOffset: 11,
  PhaseLeftMargin: 0.1875, PhaseRightMargin: 0.15625, VoltTopMargin: 0.036, VoltBotomMargin: 0.044,
  ...extra,
});

describe('hVL result lanes', () => {
  it('shows each side in steps and in UI (ps) or mV, and the lanes that failed', () => {
    const rows = hvl_lane_rows([lane(7), lane(6, { ErrorPresent: true, ErrorMsg: 'Margin failed at offset zero' }), lane(5, { PhaseRightOffset: undefined, PhaseRightMargin: 'x' })], 31.25);
    expect(rows[0]).toEqual({
      lane: 7, error: null,
      left: ['12', '0.188 UI (5.9 ps)'], right: ['10', '0.156 UI (4.9 ps)'], top: ['9', '36.0 mV'], bottom: ['11', '44.0 mV'],
      eyeWidth: '0.344 UI (10.7 ps)', eyeHeight: '80.0 mV',
    });
    // A failed lane's figures were never measured, whatever it holds.
    expect(rows[1]).toEqual({
      lane: 6, error: 'Margin failed at offset zero',
      left: ['–', '–'], right: ['–', '–'], top: ['–', '–'], bottom: ['–', '–'], eyeWidth: '–', eyeHeight: '–',
    });
    expect(rows[2]).toMatchObject({ lane: 5, error: null, right: ['–', '–'], eyeWidth: '–', eyeHeight: '80.0 mV' });
  });

  it.each<[string, LaneMargin[], object, number | null]>([
    ['the report\'s own UI', [{ Margins: { UIps: 40 } }, lane(0)], {}, 40],
    ['a lane\'s data rate', [lane(0)], { Speed: '16Gts' }, 31.25],
    ['the link\'s rate', [{}], { Speed: '16Gts' }, 62.5],
    ['nothing known', [{}], {}, null],
  ])('1 UI in ps from %s', (_name, lanes, info, ps) => {
    expect(hvl_ui_ps({ HVLCtrlInfo: info } as ResultDocument, lanes)).toBe(ps);
  });

  it('shows equalisation only where the report marks it valid', () => {
    const tx = { TxEqValid: true, cnm1_phy: 3, cnp1_phy: 12, preset: 'P7', fom_valid: false, fom: 99 };
    const rx = { RxEqValid: true, ctleidx: 4, H0: 40, H1: -3, H2: 1, H3: 0, iq: 2, vga: null };
    expect(equalisation({ LaneID: 2, ...tx, ...rx, RxEqValid: false }, 0)).toEqual({ lane: 2, tx: ['3', '12', 'P7', '–'], rx: Array(7).fill('–') });
    expect(equalisation({ ...tx, fom_valid: true, ...rx }, 5)).toEqual({ lane: 5, tx: ['3', '12', 'P7', '99'], rx: ['4', '40', '-3', '1', '0', '2', '–'] });
  });

  it('reads offset records without dwell, keeps their notes, and sizes steps from the PHY', () => {
    const map = [
      { Offset: 12, ErrCnt: 5, OffsetStatus: 'Error count exceeded threshold' },
      { Offset: 0, ErrCnt: 0 },
      { Offset: 32, ErrCnt: 0, OffsetStatus: 'Margin found at boundary' },
      { Offset: 4 },
    ];
    expect(error_map({ PhaseLeftErrorMap: map }, 'PhaseLeftErrorMap')).toEqual([
      { Offset: 0, ErrCnt: 0, DwellTime: null, OffsetStatus: null },
      { Offset: 12, ErrCnt: 5, DwellTime: null, OffsetStatus: 'Error count exceeded threshold' },
      { Offset: 32, ErrCnt: 0, DwellTime: null, OffsetStatus: 'Margin found at boundary' },
    ]);
    expect([step_sizes([lane(0)], true)[0], step_sizes([lane(0)], false)[0]]).toEqual([0.015625, 4]);
  });
});
