// Eye scans: the targets (PCIe ports and hVL link ends), the record from
// the form, and one result's counts read as bit error rates, with the cuts
// through the eye's centre that make its bathtub curves.
import { ber_label, lanes_label, rate_label, text_of } from './format';
import { link_label, partner_label } from './hvl';
import { check_lanes_and_ber, type FormErrors } from './record';
import type { EyeFigures, EyeLane, EyeScanRecord, EyeScanResult, EyeScanTarget, JsonObject } from './types';

export const EYE_OPERATION = 'EyeScan';

// Each BER choice stands for 2^nbits bits compared at every point; the
// strings step by about log10(2).
const NBITS: Record<string, number> = {
  '7.65': 23, '7.345': 22, '7.045': 21, '6.745': 20, '6.445': 19, '6.145': 18, '5.84': 17,
  '5.54': 16, '5.24': 15, '4.94': 14, '4.64': 13, '4.335': 12, '4.035': 11, '3.735': 10,
};

const SUPERSCRIPT = '⁰¹²³⁴⁵⁶⁷⁸⁹';
const power_of_two = (n: number) => `2${[...String(n)].map((d) => SUPERSCRIPT[Number(d)]).join('')}`;

/** "5.24" -> "1e-5.24 (2¹⁵ bits)"; a string outside the table as ber_label reads it. */
export function eye_ber_label(ber: string): string {
  const nbits = NBITS[ber];
  return nbits === undefined ? ber_label(ber) : `${ber_label(ber)} (${power_of_two(nbits)} bits)`;
}

const is_object = (v: unknown): v is JsonObject => typeof v === 'object' && v !== null && !Array.isArray(v);

/** Targets that can be scanned: PCIe ports that say so, and hVL link ends. */
export function eye_targets(answer: unknown): EyeScanTarget[] {
  if (answer === null) return [];
  if (!Array.isArray(answer)) throw new Error('The eye scan target list from the service is not a list.');
  return answer.filter(
    (t): t is EyeScanTarget =>
      is_object(t) &&
      t.EyeScanSupported === true &&
      (typeof (t as EyeScanTarget).PCIeInfo?.SBDF === 'string' || typeof (t as EyeScanTarget).HVLCtrlInfo?.SERDES === 'string'),
  );
}

export function target_key(t: EyeScanTarget): string {
  return t.PCIeInfo ? `pcie|${t.PCIeInfo.SBDF}` : `hvl|${t.HVLCtrlInfo?.DeviceName}|${t.HVLCtrlInfo?.SERDES}`;
}

/** "hVL s0.G1 to s1.G3 · 32 GT/s x16" or "PCIe 0:3:0.0 · 16 GT/s x16 · link P2 of <die>". */
export function target_label(t: EyeScanTarget): string {
  if (t.HVLCtrlInfo) {
    const partner = partner_label(t.HVLCtrlInfo);
    return `hVL ${link_label(t.HVLCtrlInfo)}${partner ? ` to ${partner}` : ''} · ${rate_label(t.HVLCtrlInfo.Speed)} ${text_of(t.HVLCtrlInfo.Width).trim()}`;
  }
  const info = t.PCIeInfo!;
  const serdes = t.SERDES?.SERDES ? ` · link ${t.SERDES.SERDES} of ${text_of(t.SERDES.DeviceName)}` : '';
  return `PCIe ${info.SBDF} · ${rate_label(info.Speed)} ${text_of(info.Width).trim()}${serdes}`;
}

export interface EyeForm {
  /** target_key of the chosen target, '' when none is chosen. */
  target: string;
  lanes: number[];
  ber: string;
}

/** All lanes, at the most bits the target offers (the first BER listed). */
export function default_eye_form(t: EyeScanTarget | undefined): EyeForm {
  return { target: t ? target_key(t) : '', lanes: [...(t?.EyeScanData?.Lanes ?? [])], ber: t?.EyeScanData?.BER?.[0] ?? '' };
}

export function build_eye_record(targets: readonly EyeScanTarget[], form: EyeForm): { record?: EyeScanRecord; errors: FormErrors } {
  const errors: FormErrors = {};
  const target = targets.find((t) => target_key(t) === form.target);
  if (!target) {
    errors.device = form.target === '' ? 'Choose a port or link.' : 'That port or link is no longer listed; reload the list.';
    return { errors };
  }
  const lanes = check_lanes_and_ber(target.EyeScanData ?? {}, { ...form, allLanes: false }, target.HVLCtrlInfo ? 'link' : 'port', errors);
  if (!target.SERDES?.DeviceName || !target.SERDES.SERDES) errors.device = 'The service names no die and link for this target.';
  if (Object.keys(errors).length > 0) return { errors };
  const record: EyeScanRecord = { Operation: EYE_OPERATION, SERDES: target.SERDES!, TestParams: { Lanes: lanes, BER: form.ber } };
  if (target.HVLCtrlInfo) record.HVLCtrlInfo = target.HVLCtrlInfo;
  else {
    record.PCIeInfo = target.PCIeInfo;
    if (target.PCIeCtrlInfo) record.PCIeCtrlInfo = target.PCIeCtrlInfo;
  }
  return { record, errors };
}

export function eye_record_text(r: EyeScanRecord): string {
  const what = r.HVLCtrlInfo ? link_label(r.HVLCtrlInfo) : (r.PCIeInfo?.SBDF ?? '');
  return `eye scan of ${what}, lanes ${lanes_label(r.TestParams.Lanes)}, BER ${eye_ber_label(r.TestParams.BER)}`;
}

// --- One result ---

const finite = (v: unknown): v is number => typeof v === 'number' && Number.isFinite(v);
const numbers = (v: unknown): number[] => (Array.isArray(v) ? v.filter(finite) : []);
const link_or_null = (v: unknown) => (typeof v === 'string' && v !== '' ? v : null);

function figures_of(v: unknown): EyeFigures | null {
  if (!is_object(v)) return null;
  const f = (key: string) => (finite(v[key]) ? (v[key] as number) : null);
  return { TopMV: f('TopMV'), BottomMV: f('BottomMV'), LeftUI: f('LeftUI'), RightUI: f('RightUI'), WidthUI: f('WidthUI'), HeightMV: f('HeightMV') };
}

/** The answer of "GetEyeScanData", checked; a refusal's reason becomes the Error's message. */
export function eye_result_of(answer: unknown): EyeScanResult {
  if (!is_object(answer)) throw new Error('The eye scan data from the service is not an object.');
  if (answer.OperationStatus !== true) throw new Error(text_of(answer.ErrMsg) || 'The service has no eye scan data for this result.');
  const phase = numbers(answer.PhaseUI);
  const voltage = numbers(answer.VoltageMV);
  const lanes: EyeLane[] = (Array.isArray(answer.Lanes) ? answer.Lanes : []).filter(is_object).map((l) => {
    const rows = Array.isArray(l.Counts) ? l.Counts.map(numbers) : [];
    // A grid of another shape than the axes can't be placed; the lane shows no map.
    const fits = rows.length === voltage.length && rows.every((r) => r.length === phase.length);
    return {
      Lane: finite(l.Lane) ? l.Lane : -1,
      Link: text_of(l.Link),
      Device: text_of(l.Device),
      Name: text_of(l.Name),
      Counts: fits ? rows : [],
      Figures: figures_of(l.Figures),
      Png: link_or_null(l.Png),
    };
  });
  // The service lists lanes as it finds their files.
  lanes.sort((a, b) => a.Lane - b.Lane);
  const analysis = is_object(answer.Analysis) ? answer.Analysis : {};
  return {
    Nbits: finite(answer.Nbits) ? answer.Nbits : 0,
    Taps: finite(answer.Taps) && answer.Taps > 0 ? answer.Taps : 1,
    BerFloor: finite(answer.BerFloor) ? answer.BerFloor : 0,
    PhaseUI: phase,
    VoltageMV: voltage,
    Lanes: lanes,
    Analysis: {
      Header: Array.isArray(analysis.Header) ? analysis.Header.map(text_of) : [],
      Rows: Array.isArray(analysis.Rows) ? analysis.Rows.filter(Array.isArray).map((r) => r.map((c) => (finite(c) || typeof c === 'string' ? c : null))) : [],
    },
    AnalysisCsv: link_or_null(answer.AnalysisCsv),
  };
}

/** Bits compared at each point of the map: 2^nbits per tap and per pair. */
export function bits_per_point(d: Pick<EyeScanResult, 'Nbits' | 'Taps'>): number {
  return 2 ** d.Nbits * 2 * d.Taps;
}

/** log10 of the error rate of a count, null for no error (below what the scan can see). */
export function log_ber(count: number, bits: number): number | null {
  return count > 0 ? Math.log10(Math.min(1, count / bits)) : null;
}

function nearest_zero(values: number[]): number[] {
  const best = Math.min(...values.map(Math.abs));
  return values.flatMap((v, i) => (Math.abs(v) === best ? [i] : []));
}

/**
 * Bathtub curves through the eye's centre: log10 BER against phase at
 * voltage 0, and against voltage at phase 0. With an even number of voltage
 * bins, 0 mV lies between the two middle ones, so their counts are averaged.
 */
export function bathtubs(d: EyeScanResult, counts: number[][]): { phase: (number | null)[]; voltage: (number | null)[] } {
  const bits = bits_per_point(d);
  if (counts.length === 0) return { phase: [], voltage: [] };
  const rows = nearest_zero(d.VoltageMV);
  const columns = nearest_zero(d.PhaseUI);
  const mean = (values: number[]) => values.reduce((a, b) => a + b, 0) / values.length;
  return {
    phase: d.PhaseUI.map((_, p) => log_ber(mean(rows.map((r) => counts[r][p])), bits)),
    voltage: d.VoltageMV.map((_, r) => log_ber(mean(columns.map((p) => counts[r][p])), bits)),
  };
}

/** "1.5e-6" style, for rates. */
export function sci(value: number): string {
  return value.toExponential(1).replace('e+', 'e');
}
