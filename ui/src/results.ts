// What the results screen shows of the archive: finish times with year and
// seconds, figures in one unit per quantity with a dash for a test that did
// not measure, grades, and the record a result can be queued again from.
import { ber_label, lanes_label, rate_label, text_of } from './format';
import type { Grade, GradeName, HVLCtrlInfo, JsonObject, ResultDocument, ResultSummary, ResultsPage } from './types';

const STAMP = /^(\d{4})_(\d{2})_(\d{2})-(\d{2})_(\d{2})_(\d{2})$/;

/** "2026_11_25-01_23_21" -> "2026-11-25 01:23:21"; anything else as it came. */
export function stamp_label(stamp: unknown): string {
  const m = typeof stamp === 'string' ? STAMP.exec(stamp) : null;
  return m ? `${m[1]}-${m[2]}-${m[3]} ${m[4]}:${m[5]}:${m[6]}` : text_of(stamp);
}

/** A datetime-local field's value as an archive stamp ('' stays ''); seconds default to 00. */
export function stamp_of_input(value: string): string {
  const m = /^(\d{4})-(\d{2})-(\d{2})T(\d{2}):(\d{2})(?::(\d{2}))?/.exec(value);
  return m ? `${m[1]}_${m[2]}_${m[3]}-${m[4]}_${m[5]}_${m[6] ?? '00'}` : '';
}

export function input_of_stamp(stamp: string): string {
  const m = STAMP.exec(stamp);
  return m ? `${m[1]}-${m[2]}-${m[3]}T${m[4]}:${m[5]}:${m[6]}` : '';
}

/**
 * Picoseconds in one UI at a link speed such as "16 GT/s" or "32Gts". 64 GT/s signals
 * four levels at 32 GBd, so its UI is that of 32 GT/s. null when unknown.
 */
export function ui_ps_of_speed(speed: unknown): number | null {
  // An hVL link writes its rate as "32Gts".
  const m = typeof speed === 'string' ? /([\d.]+)\s*GT\/?s/i.exec(speed) : null;
  const rate = m ? Number(m[1]) : NaN;
  if (!(rate > 0)) return null;
  return 1000 / (rate >= 64 ? rate / 2 : rate);
}

const finite = (v: unknown): v is number => typeof v === 'number' && Number.isFinite(v);

/** A timing figure as "0.297 UI (18.6 ps)", "0.297 UI" without a known UI, or a dash. */
export function timing_label(ui: unknown, uiPs: number | null): string {
  if (!finite(ui)) return '–';
  return uiPs === null ? `${ui.toFixed(3)} UI` : `${ui.toFixed(3)} UI (${(ui * uiPs).toFixed(1)} ps)`;
}

export function mv_label(mv: unknown): string {
  return finite(mv) ? `${mv.toFixed(1)} mV` : '–';
}

/** A dwell of so many milliseconds in seconds, or in minutes from one minute on. */
export function dwell_label(ms: unknown): string {
  if (!finite(ms)) return '–';
  const s = ms / 1000;
  if (s < 60) return `${s < 10 ? s.toFixed(3) : s.toFixed(1)} s`;
  return `${(s / 60).toFixed(1)} min`;
}

const GRADES: GradeName[] = ['Fail', 'Pass', 'Perfect'];

/** The grade's name, or null when the service gave none (the test didn't measure). */
export function grade_name(grade: Grade | null | undefined): GradeName | null {
  const g = grade?.Grade;
  return typeof g === 'string' && (GRADES as string[]).includes(g) ? (g as GradeName) : null;
}

/** Eye of a grade as "EW 37.5 ps · EH 106.2 mV" with its note, for a tooltip. */
export function grade_detail(grade: Grade | null | undefined): string {
  if (!grade) return '';
  const parts = [];
  if (finite(grade.EyeWidthPs)) parts.push(`eye width ${grade.EyeWidthPs.toFixed(1)} ps`);
  if (finite(grade.EyeHeightMV)) parts.push(`eye height ${grade.EyeHeightMV.toFixed(1)} mV`);
  if (typeof grade.Note === 'string' && grade.Note) parts.push(grade.Note);
  return parts.join(' · ');
}

function number_or_null(v: unknown): number | null {
  return finite(v) ? v : null;
}

function text_or(v: unknown, fallback = ''): string {
  return typeof v === 'string' ? v : fallback;
}

function is_object(v: unknown): v is JsonObject {
  return typeof v === 'object' && v !== null && !Array.isArray(v);
}

function grade_of(v: unknown): Grade | null {
  if (!is_object(v)) return null;
  return {
    Grade: grade_name(v as unknown as Grade),
    EyeWidthPs: number_or_null(v.EyeWidthPs),
    EyeHeightMV: number_or_null(v.EyeHeightMV),
    Note: typeof v.Note === 'string' ? v.Note : null,
  };
}

/**
 * One summary as the table reads it. Figures of a test that isn't "complete"
 * are dropped whatever the archive wrote, so a test that didn't measure never
 * reads as zero margins.
 */
export function summary_of(v: unknown): ResultSummary | null {
  if (!is_object(v) || typeof v.ResultId !== 'string' || v.ResultId === '') return null;
  const status = text_or(v.Status);
  const measured = status === 'complete';
  const figure = (x: unknown) => (measured ? number_or_null(x) : null);
  return {
    ResultId: v.ResultId,
    RunStamp: text_or(v.RunStamp),
    Stamp: text_or(v.Stamp, text_or(v.RunStamp)),
    TestID: number_or_null(v.TestID),
    Operation: text_or(v.Operation),
    Status: status,
    FailureReason: typeof v.FailureReason === 'string' && v.FailureReason ? v.FailureReason : null,
    Time: text_or(v.Time),
    SBDF: text_or(v.SBDF),
    // An eye scan may name its link as one text "<die> <link>".
    Link: is_object(v.Link) ? (v.Link as Partial<HVLCtrlInfo>) : typeof v.Link === 'string' && v.Link ? { DeviceName: v.Link } : null,
    Receiver: number_or_null(v.Receiver),
    Lanes: Array.isArray(v.Lanes) ? v.Lanes.filter((l): l is number => Number.isInteger(l)) : [],
    BER: typeof v.BER === 'string' ? v.BER : finite(v.BER) ? String(v.BER) : '',
    ErrCnt: number_or_null(v.ErrCnt),
    Speed: text_or(v.Speed),
    Width: text_or(v.Width),
    PhaseLeftUI: figure(v.PhaseLeftUI),
    PhaseRightUI: figure(v.PhaseRightUI),
    VoltTopMV: figure(v.VoltTopMV),
    VoltBotMV: figure(v.VoltBotMV),
    Grade: measured ? grade_of(v.Grade) : null,
  };
}

export function results_page_of(answer: unknown): ResultsPage {
  if (!is_object(answer) || !Array.isArray(answer.Results)) {
    const reason = is_object(answer) && typeof answer.ErrMsg === 'string' ? answer.ErrMsg : 'the answer holds no "Results" list';
    throw new Error(`The service sent no results: ${reason}.`);
  }
  const results = answer.Results.map(summary_of).filter((s): s is ResultSummary => s !== null);
  return {
    Total: finite(answer.Total) ? answer.Total : results.length,
    Offset: finite(answer.Offset) ? answer.Offset : 0,
    Results: results,
  };
}

/** Cells of one summary row, each already in its unit. */
export function summary_cells(s: ResultSummary) {
  const uiPs = ui_ps_of_speed(s.Speed);
  return {
    date: stamp_label(s.Stamp),
    receiver: s.Receiver === null ? '' : String(s.Receiver),
    lanes: lanes_label(s.Lanes),
    ber: s.BER ? ber_label(s.BER) : '',
    link: [rate_label(s.Speed), s.Width.trim()].filter(Boolean).join(' '),
    left: timing_label(s.PhaseLeftUI, uiPs),
    right: timing_label(s.PhaseRightUI, uiPs),
    top: mv_label(s.VoltTopMV),
    bottom: mv_label(s.VoltBotMV),
    grade: grade_name(s.Grade) ?? '–',
    gradeDetail: grade_detail(s.Grade),
  };
}

// HVLCtrlInfo names the target of an hVL test the way PCIeInfo does of a PCIe one.
const RECORD_KEYS = ['Operation', 'PCIeInfo', 'PCIeCtrlInfo', 'SERDES', 'HVLCtrlInfo', 'TestParams'] as const;

/**
 * The record that queues a result's test again: the keys the archive keeps
 * from the queued record, nothing of its output. null when the document lacks
 * what a queue record needs.
 */
export function run_again_record(doc: ResultDocument): JsonObject | null {
  if (typeof doc.Operation !== 'string' || !is_object(doc.TestParams)) return null;
  const record: JsonObject = {};
  for (const key of RECORD_KEYS) {
    if (doc[key] !== undefined) record[key] = doc[key];
  }
  return record;
}

