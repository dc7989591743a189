import { describe, expect, it } from 'vitest';
import { lanes_of, parse_progress, parse_push } from './push';

const running = {
  Operation: 'PCIe Margin',
  PCIeInfo: { SBDF: '0:40:1.1' },
  TestParams: { BER: '12', ErrCnt: 4, Receiver: 1, Lanes: [0, 1, 2, '3,5'] },
  TestID: 7,
  Status: 'Running',
  Progress: { LanesDone: 2, LanesTotal: 5, Direction: 'Timing Left', ElapsedSeconds: 12.4, RemainingSeconds: null, Percent: 40 },
};

describe('parse_push', () => {
  it('reads the queue push: queued before running, progress only when running, waits, cancels and ends', () => {
    const queued = { ...running, TestID: 8, Status: 'Queued', Progress: running.Progress, WaitingFor: 7, Cancelling: true };
    const cancelling = { ...running, Cancelling: true, ResultId: '2026_11_25-01_00_00/test_7', WaitingFor: 3 };
    const finished = [
      { TestID: 5, Operation: 'PCIe Margin', SBDF: '0:3:0.0', Status: 'Cancelled', FailureReason: 'Cancelled by the user', ResultId: 'r/test_5' },
      { TestID: 6, Operation: 'HVL Destructive Margin', Status: 'complete', ResultId: 'r/test_6' },
      'junk',
    ];
    const push = parse_push(JSON.stringify({ key: 'RunningTestsUpdate', TestList: [queued, cancelling], FinishedTests: finished }));
    const common = { Operation: 'PCIe Margin', SBDF: '0:40:1.1', Receiver: '1', Lanes: '0-3, 5', BER: '1e-12' };
    expect(push).toEqual({
      kind: 'tests',
      tests: [
        { ...common, TestID: 8, Status: 'Queued', Progress: null, WaitingFor: 7, Cancelling: false, ResultId: null },
        {
          ...common, TestID: 7, Status: 'Running', WaitingFor: null, Cancelling: true, ResultId: '2026_11_25-01_00_00/test_7',
          Progress: { LanesDone: 2, LanesTotal: 5, Direction: 'Timing Left', ElapsedSeconds: 12.4, RemainingSeconds: null, Percent: 40, SidesDone: null, SidesTotal: null, Lane: null },
        },
      ],
      finished: [
        { TestID: 5, Operation: 'PCIe Margin', SBDF: '0:3:0.0', Status: 'Cancelled', FailureReason: 'Cancelled by the user', ResultId: 'r/test_5' },
        { TestID: 6, Operation: 'HVL Destructive Margin', SBDF: '', Status: 'complete', FailureReason: null, ResultId: 'r/test_6' },
      ],
    });
  });

  it('reads an empty list as an empty queue and names hVL targets by socket and link, else die and link', () => {
    expect(parse_push('{"key":"RunningTestsUpdate","TestList":[],"FinishedTests":{}}')).toEqual({ kind: 'tests', tests: [], finished: [] });
    const hvl = { Operation: 'HVL Destructive Margin', HVLCtrlInfo: { DeviceName: 'S0 D0', SERDES: 'L2' }, Status: 'Queued', TestID: 1 };
    const placed = { ...hvl, HVLCtrlInfo: { ...hvl.HVLCtrlInfo, Socket: 1, Die: 0 } };
    const push = parse_push(JSON.stringify({ key: 'RunningTestsUpdate', TestList: [hvl, placed, 'junk'] }));
    expect(push.kind === 'tests' && push.tests.map((t) => t.SBDF)).toEqual(['S0 D0 L2', 's1.L2']);
  });

  it.each([
    ['not JSON', '{"key":', { kind: 'invalid', reason: 'the message is not JSON' }],
    ['no key', '{"TestList":[]}', { kind: 'invalid', reason: 'the message has no "key"' }],
    ['list not an array', '{"key":"RunningTestsUpdate","TestList":{}}', { kind: 'invalid', reason: '"TestList" is not an array' }],
    ['export outcome', '{"key":"DownloadUpdate","msg":"1 pcie device and 0 hvl devices data dumped."}',
      { kind: 'download', msg: '1 pcie device and 0 hvl devices data dumped.' }],
    ['other kinds', '{"key":"UnknownUpdate","data":[]}', { kind: 'other', key: 'UnknownUpdate' }],
  ])('%s', (_name, text, expected) => {
    expect(parse_push(text)).toEqual(expected);
  });
});

describe('parse_progress', () => {
  const none = { SidesDone: null, SidesTotal: null, Lane: null };
  it.each([
    ['absent', undefined, null],
    ['not an object', 'half', null],
    ['no lane counts', { Percent: 50 }, null],
    ['percent derived from lanes, remaining kept', { LanesDone: 1, LanesTotal: 4, RemainingSeconds: 30 },
      { LanesDone: 1, LanesTotal: 4, Direction: '', ElapsedSeconds: 0, RemainingSeconds: 30, Percent: 25, ...none }],
    ['out-of-range values held in range', { LanesDone: 9, LanesTotal: 4, Percent: 130, ElapsedSeconds: -3, RemainingSeconds: -1, Direction: 'Voltage Top' },
      { LanesDone: 4, LanesTotal: 4, Direction: 'Voltage Top', ElapsedSeconds: 0, RemainingSeconds: 0, Percent: 100, ...none }],
    ['percent derived from sides before lanes, the lane walked kept', { LanesDone: 0, LanesTotal: 16, SidesDone: 3, SidesTotal: 8, Lane: 3 },
      { LanesDone: 0, LanesTotal: 16, Direction: '', ElapsedSeconds: 0, RemainingSeconds: null, Percent: 37.5, SidesDone: 3, SidesTotal: 8, Lane: 3 }],
    ['percent held within the span of the sides walked, a lane that is no lane dropped', { LanesDone: 0, LanesTotal: 16, SidesDone: 2, SidesTotal: 8, Percent: 90, Lane: 1.5 },
      { LanesDone: 0, LanesTotal: 16, Direction: '', ElapsedSeconds: 0, RemainingSeconds: null, Percent: 37.5, SidesDone: 2, SidesTotal: 8, Lane: null }],
    ['unusable side counts ignored', { LanesDone: 0, LanesTotal: 0, SidesDone: 1, SidesTotal: 0 },
      { LanesDone: 0, LanesTotal: 0, Direction: '', ElapsedSeconds: 0, RemainingSeconds: null, Percent: 0, ...none }],
  ])('%s', (_name, value, expected) => {
    expect(parse_progress(value)).toEqual(expected);
  });
});

describe('lanes_of', () => {
  it('reads numbers and comma-separated texts and skips anything else', () => {
    expect(lanes_of([3, '4,5', ' 6 ,x', -1, 2.5, null, true])).toEqual([3, 4, 5, 6]);
    expect(lanes_of('0,1')).toEqual([]);
  });
});
