import { describe, expect, it } from 'vitest';
import { archive_sbdf } from './address';
import { results_page_of, run_again_record, summary_cells } from './results';
import type { ResultDocument } from './types';

const summary = (over: object) => ({
  ResultId: '2026_11_25-01_23_21/test_0',
  RunStamp: '2026_11_25-01_23_21',
  Stamp: '2026_11_25-01_24_02',
  TestID: 0,
  Operation: 'PCIe Margin',
  Status: 'complete',
  FailureReason: null,
  Time: '25 Nov 1:24AM',
  SBDF: '0:3:0.0',
  Receiver: 6,
  Lanes: [0, 1, 2, 3],
  BER: '12',
  ErrCnt: 4,
  Speed: '16 GT/s',
  Width: 'x4',
  PhaseLeftUI: 0.296875,
  PhaseRightUI: 0.21875,
  VoltTopMV: 50,
  VoltBotMV: 53.125,
  Grade: { Grade: 'Perfect', EyeWidthPs: 32.2, EyeHeightMV: 103.1, Note: null },
  ...over,
});

describe('results table rows', () => {
  it.each([
    ['complete', {}, { left: '0.297 UI (18.6 ps)', bottom: '53.1 mV', grade: 'Perfect' }],
    // Whatever the archive wrote, a test that didn't measure shows dashes, never zero margins.
    ['Failed', { Status: 'Failed', FailureReason: 'Lanes 2, 3 could not be margined', PhaseLeftUI: 0, VoltTopMV: 0, Grade: { Grade: 'Fail' } }, { left: '–', top: '–', grade: '–' }],
    ['Cancelled', { Status: 'Cancelled', PhaseRightUI: 0.1, Grade: null }, { right: '–', bottom: '–', grade: '–' }],
    ['complete without a grade', { Grade: { Grade: null } }, { grade: '–' }],
    ['unknown grade name', { Grade: { Grade: 'Excellent' } }, { grade: '–' }],
  ])('%s', (_name, over, expected) => {
    const page = results_page_of({ Total: 1, Offset: 0, Results: [summary(over)] });
    expect(summary_cells(page.Results[0])).toMatchObject({
      date: '2026-11-25 01:24:02',
      lanes: '0-3',
      ber: '1e-12',
      link: '16 GT/s x4',
      ...expected,
    });
  });

  it('keeps only well-formed summaries and says why a page is unusable', () => {
    const page = results_page_of({ Total: 3, Offset: 0, Results: [summary({}), { ResultId: '' }, 'junk'] });
    expect(page.Results.map((r) => r.ResultId)).toEqual(['2026_11_25-01_23_21/test_0']);
    expect(page.Total).toBe(3);
    expect(() => results_page_of({ OperationStatus: false, ErrMsg: 'Bad stamp' })).toThrow('Bad stamp');
  });

  it('a grade tooltip carries the eye and how it was formed', () => {
    const row = results_page_of({ Results: [summary({ Grade: { Grade: 'Pass', EyeWidthPs: 20, EyeHeightMV: 16.5, Note: 'Left and right together' } })] }).Results[0];
    expect(summary_cells(row).gradeDetail).toBe('eye width 20.0 ps · eye height 16.5 mV · Left and right together');
  });
});

describe('run again', () => {
  it('re-posts the queued record and nothing of the output', () => {
    const doc = {
      Operation: 'PCIe Margin',
      PCIeInfo: { SBDF: '0:3:0.0' },
      PCIeCtrlInfo: { PCIeCore: 'PCIE0', Function: 0 },
      SERDES: { SERDES: 'P0' },
      TestParams: { BER: '12', ErrCnt: 4, Receiver: 6, Lanes: [0, 1] },
      TestID: 7,
      TestOutput: { Status: 'Failed', FailureReason: 'Interrupted: the service ended while this test ran' },
      Grades: {},
    } as ResultDocument;
    expect(Object.keys(run_again_record(doc)!).sort()).toEqual(['Operation', 'PCIeCtrlInfo', 'PCIeInfo', 'SERDES', 'TestParams']);
    expect(run_again_record({ Operation: 'PCIe Margin' })).toBeNull();
  });
});

describe('device filter', () => {
  it.each([
    ['0000:03:00.0', '0:3:0.0'],
    ['0000:c0:01.0', '0:c0:1.0'],
    ['41:00.1', '0:41:0.1'],
    [' 0:3:0.0 ', '0:3:0.0'],
    ['P0', 'P0'],
  ])('%j is searched as %j', (typed, sent) => expect(archive_sbdf(typed)).toBe(sent));
});
