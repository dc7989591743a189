import { describe, expect, it, vi } from 'vitest';
import { bit_mask, changed_rows, loop_request, ltssm_shift, ltssm_timeline, parse_ltssm, port_status_doc, type RegisterGroup } from './port_status';
import { link_loop_request, link_port } from './link_control';
import { LinkPushHub, append_log, subscribe_batched, type LinkPush } from './link_push';
import { parse_push } from './push';

const link = (value: number | null, rows: [string, string, number][]): RegisterGroup => ({
  key: 'linkStatus',
  label: 'LINK_STATUS',
  name: 'LINK_STATUS',
  value,
  rows: rows.map(([field, bits, v]) => ({ field, bits, value: v, text: '' })),
});

describe('register fields', () => {
  it.each([
    ['3:0', 0xf],
    ['9:4', 0x3f0],
    ['4:9', 0x3f0],
    ['11', 0x800],
    ['31', 0x80000000],
    ['31:0', 0xffffffff],
    ['32', 0],
    ['', 0],
    ['RO', 0],
  ])('bits %j mask %i', (bits, mask) => expect(bit_mask(bits)).toBe(mask));

  const rows: [string, string, number][] = [
    ['Current Link Speed', '3:0', 5],
    ['Negotiated Link Width', '9:4', 4],
    ['Link Training', '11', 0],
  ];
  it.each([
    ['nothing before', undefined, link(0x45, rows), []],
    ['same value', link(0x45, rows), link(0x45, rows), []],
    // Speed 5 -> 4 flips bits 0 and 2; width and training stay.
    ['speed field', link(0x45, rows), link(0x44, rows), [0]],
    ['training bit and width', link(0x45, rows), link(0x845 ^ 0x30, rows), [1, 2]],
    // Bits above every named field changed: no row is marked.
    ['unnamed bits', link(0x45, rows), link(0x8045, rows), []],
    // A read error on one side: rows compared by their values.
    [
      'read error before',
      link(null, [['Current Link Speed', '3:0', 4], ['Negotiated Link Width', '9:4', 4]]),
      link(0x45, rows),
      [0],
    ],
  ])('changed rows: %s', (_name, prev, next, expected) => {
    expect([...changed_rows(prev, next)].sort()).toEqual(expected);
  });
});

describe('LTSSM history', () => {
  const history = (...names: string[]) => names.map((n, i) => parse_ltssm(`State ${i}: ${n}`));

  it.each([
    ['State 0: L0 (0x10)', { name: 'L0', code: 0x10 }],
    ['State 47: Detect (0x0)', { name: 'Detect', code: 0 }],
    ['HotReset(0x26)', { name: 'HotReset', code: 0x26 }],
    ['State 3: N/A', { name: 'N/A', code: null }],
  ])('reads %j', (entry, state) => expect(parse_ltssm(entry)).toEqual(state));

  const before = history('L0 (0x10)', 'Recovery (0x23)', 'Recovery (0x22)', 'L0 (0x10)', 'Detect (0x0)');
  it.each([
    ['the first read', [], before, 0],
    ['no change', before, before, 0],
    // A retrain: Recovery then L0 again, two states pushed in front.
    ['two new states', before, history('L0 (0x10)', 'Recovery (0x23)', 'L0 (0x10)', 'Recovery (0x23)', 'Recovery (0x22)'), 2],
    ['the same names with other codes are new', before, history('L0 (0x11)', 'L0 (0x11)', 'L0 (0x11)', 'L0 (0x11)', 'L0 (0x11)'), 5],
  ])('shift after %s', (_name, prev, next, shift) => expect(ltssm_shift(prev, next)).toBe(shift));

  it('lays the history out oldest first with the new states marked', () => {
    const next = history('L0 (0x10)', 'Disabled (0x27)', 'L0 (0x10)', 'Recovery (0x23)', 'Recovery (0x22)');
    const { entries, added } = ltssm_timeline(before, next);
    expect(added).toBe(2);
    expect(entries.map((e) => [e.name, e.family, e.fresh, e.age])).toEqual([
      ['Recovery', 'recovery', false, 4],
      ['Recovery', 'recovery', false, 3],
      ['L0', 'l0', false, 2],
      ['Disabled', 'down', true, 1],
      ['L0', 'l0', true, 0],
    ]);
  });
});

const registers = { linkStatus: { label: 'LINK_STATUS (0x45)', name: 'LINK_STATUS', value: 0x45, rows: [{ field: 'Current Link Speed', bits: '3:0', value: 5, text: '32 GT/s' }] } };
const loopSettings = {
  label: 'Continuous Loop Setting',
  settingsSelection: { selectedIndex: 0, status: [{ label: 'Disable/Enable', checked: true }, { label: 'Sec. Bus Reset', checked: false }, { label: 'Retrain', checked: false }] },
  continuousRun: { selectedIndex: 4, values: ['5 s', '4 s', '3 s', '2 s', '1 s'] },
  retrainSpeed: { selectedIndex: 4, values: ['2.5 Gt/s', '5 Gt/s', '8 Gt/s', '16 Gt/s', '32 Gt/s'] },
  stopOnError: { label: 'Stop on Error', checked: false },
  stopOnAERError: { label: 'Stop on AER Error', checked: false },
  loopCount: { label: 'Loop Count', value: 0 },
};

describe('link pushes', () => {
  const row = {
    key: 2, Name: '0:40:01.0 PCIE0_nbio1 P0 (socket 0) - nic-400g', SBDF: '0:40:1.0', Type: 'VEX RootPort', Seg: '0', Bn: '0x40', Dn: '0x1', Fn: '0x0',
    x1: 'Yes', x2: 'Yes', x4: 'Yes', x8: 'No', x12: 'No', x16: 'Yes', 'Sec Bn': '0x41', 'Sub Bn': '0x43', 'Link Speed': '16 GT/s', 'Link Width': 'x16',
  };

  it.each([
    ['LTSSM', { key: 'PortLTSSMUpdate', ltssmdata: ['State 0: L0 (0x10)', 7, 'State 1: Recovery (0x23)'] }, { kind: 'ltssm', states: [{ name: 'L0', code: 0x10 }, { name: 'Recovery', code: 0x23 }] }],
    [
      'loop tick',
      { key: 'contRunPortStatusUpdates', contRunPortStatusUpdates: { portStatusRegister: registers, logs: '12:00:01, Loop:1\n', counts: { loopCount: 1, successCount: 1, aerErrorFail: 'x', running: true } } },
      {
        kind: 'port-run',
        registers: [{ key: 'linkStatus', ...registers.linkStatus }],
        logs: '12:00:01, Loop:1\n',
        counts: { loopCount: 1, successCount: 1, failureCount: 0, linkStatusMismatchFail: 0, unstableGenFail: 0, presetValueMismatchFail: 0, aerErrorFail: 0, maxWaitFail: 0, running: true },
      },
    ],
    [
      'link loop',
      { key: 'LinkControlUpdate', linkControlData: { running: true, loopCount: 3, failureCount: 1, speedFailures: 1, port: row, errorReport: ['speed 16 GT/s requested'], log: 'x\n' } },
      {
        kind: 'link-run', running: true, loopCount: 3, failureCount: 1, speedFailures: 1, widthFailures: 0, errorReport: ['speed 16 GT/s requested'], log: 'x\n',
        port: {
          key: 2, name: row.Name, sbdf: '0:40:1.0', type: 'VEX RootPort', bdf: '40:01.0', widths: ['x1', 'x2', 'x4', 'x16'], buses: '41–43',
          speed: '16 GT/s', width: 'x16', maxSpeed: '', maxWidth: '', ltssm: '',
        },
      },
    ],
    ['LTSSM not a list', { key: 'PortLTSSMUpdate', ltssmdata: 'L0' }, { kind: 'invalid', reason: '"ltssmdata" is not an array' }],
    ['loop tick not an object', { key: 'contRunPortStatusUpdates' }, { kind: 'invalid', reason: '"contRunPortStatusUpdates" is not an object' }],
    ['document missing', { key: 'PortStatusUpdatePartial', TestRunning: true }, { kind: 'invalid', reason: '"port_status_data" is not an object' }],
  ])('%s', (_name, message, expected) => {
    const push = parse_push(JSON.stringify(message));
    expect(push.kind === 'links' ? push.push : push).toEqual(expected);
  });

  it('takes the run state of a partial update from the document or beside it', () => {
    const doc = { selectedIndex: 1, portSelection: { values: ['a', 'b'], enabled: false }, contLoopSettings: loopSettings, portStatusRegister: registers, TestRunning: false };
    const read = (message: object) => {
      const push = parse_push(JSON.stringify({ key: 'PortStatusUpdatePartial', ...message }));
      return push.kind === 'links' && push.push.kind === 'port-doc' && [push.push.doc.running, push.push.clearLogs, push.push.doc.selectedIndex, push.push.doc.selectionEnabled];
    };
    expect(read({ port_status_data: doc, TestRunning: true, clearlogs: true })).toEqual([true, true, 1, false]);
    expect(read({ port_status_data: { ...doc, TestRunning: true, clearlogs: true } })).toEqual([true, true, 1, false]);
    // A row without its "key" can't be matched to the table.
    expect(link_port({ ...row, key: '2' })).toBeNull();
  });
});

describe('loop requests', () => {
  it('send the service its own settings back with the choices put in', () => {
    const doc = port_status_doc({ contLoopSettings: loopSettings });
    const body = loop_request(doc.loop, { mode: 2, speed: 3, interval: 1, maxWait: 0, loopCount: 20, stopOnError: true, stopOnAERError: false }) as typeof loopSettings & { maxWait: { selectedIndex: number } };
    expect(body.settingsSelection.selectedIndex).toBe(2);
    expect(body.settingsSelection.status.map((s) => s.checked)).toEqual([false, false, true]);
    expect([body.retrainSpeed.selectedIndex, body.continuousRun.selectedIndex, body.maxWait.selectedIndex, body.loopCount.value, body.stopOnError.checked]).toEqual([3, 1, 0, 20, true]);
    expect(body.retrainSpeed.values).toEqual(loopSettings.retrainSpeed.values);
    expect(loopSettings.settingsSelection.selectedIndex).toBe(0);

    const control = { linkSpeedLower: { values: ['8 Gt/s', '16 Gt/s'], selectedValue: '8 Gt/s' }, checked: false };
    const chosen = { linkSpeedLower: '16 Gt/s', linkSpeedUpper: '32 Gt/s', linkWidthLower: 'x1', linkWidthUpper: 'x16', contRunIntervals: '1 s', failureRetryCount: '3' };
    const link = link_loop_request(control, chosen, 5) as Record<string, { selectedValue?: string; values?: string[]; value?: number }>;
    expect([link.linkSpeedLower.selectedValue, link.linkSpeedLower.values, link.contRunIntervals.selectedValue, link.loopCount.value]).toEqual(['16 Gt/s', ['8 Gt/s', '16 Gt/s'], '1 s', 5]);
  });

  it('keeps a long log to its last lines', () => {
    expect(append_log('a\nb\n', 'c\nd\n', 3)).toBe('b\nc\nd\n');
    expect(append_log('a\n', '', 1)).toBe('a\n');
  });
});

describe('batched pushes', () => {
  it('hands over every accepted push in order, one batch per period, and nothing after unsubscribing', () => {
    vi.useFakeTimers();
    const hub = new LinkPushHub();
    const batches: LinkPush[][] = [];
    const stop = subscribe_batched(hub, (p) => p.kind === 'port-run', (b) => batches.push(b), 100);
    const tick = (logs: string): LinkPush => ({ kind: 'port-run', registers: [], logs, counts: null });
    hub.emit(tick('1'));
    hub.emit({ kind: 'ltssm', states: [] });
    hub.emit(tick('2'));
    vi.advanceTimersByTime(100);
    hub.emit(tick('3'));
    stop();
    vi.advanceTimersByTime(100);
    hub.emit(tick('4'));
    vi.advanceTimersByTime(100);
    vi.useRealTimers();
    expect(batches).toEqual([[tick('1'), tick('2')]]);
  });
});
