// hVL links: the rows of the link list, the margin record from the form,
// and one result's lanes in steps, UI/ps and mV with their equalisation.
// A link has two ends, each listed on its own; an end is named by its
// socket and link ("s0.G1") since the die's long name is the same for all
// links of a die.
import { lane_objects, lane_number, margin_chart_data } from './chart_data';
import { ber_label, lanes_label, rate_label, text_of } from './format';
import { check_errcnt, check_lanes_and_ber, default_choices, type FormErrors } from './record';
import { mv_label, timing_label, ui_ps_of_speed } from './results';
import type { HVLCtrlInfo, HVLLink, HVLRecord, LaneMargin, ResultDocument } from './types';

export const HVL_OPERATION = 'HVL Destructive Margin';

/** "s0.G1" (a die other than 0 as "s0d1.G1"); without a socket number, the die's name and the link. */
export function end_label(socket: unknown, die: unknown, serdes: unknown, deviceName: unknown): string {
  if (typeof socket !== 'number') return `${text_of(deviceName)} ${text_of(serdes)}`.trim();
  return `s${socket}${typeof die === 'number' && die !== 0 ? `d${die}` : ''}.${text_of(serdes)}`;
}

export function link_label(info: Partial<HVLCtrlInfo> | undefined): string {
  return end_label(info?.Socket, info?.Die, info?.SERDES, info?.DeviceName);
}

export function partner_label(info: Partial<HVLCtrlInfo> | undefined): string {
  if (!info?.PartnerSERDES) return '';
  return end_label(info.PartnerSocket, info.PartnerDie, info.PartnerSERDES, info.PartnerDeviceName);
}

/** The select's value for one end: die and link together are unique. */
export function link_key(link: HVLLink): string {
  return `${link.HVLCtrlInfo.DeviceName}|${link.HVLCtrlInfo.SERDES}`;
}

export function hvl_links(answer: unknown): HVLLink[] {
  // One socket: the service answers null, there is no link.
  if (answer === null) return [];
  if (!Array.isArray(answer)) throw new Error('The hVL link list from the service is not a list.');
  return answer.filter((l): l is HVLLink => {
    const info = (l as HVLLink | null)?.HVLCtrlInfo;
    return typeof info?.DeviceName === 'string' && typeof info.SERDES === 'string';
  });
}

export interface LinkRow {
  link: HVLLink;
  key: string;
  /** End, die, link, partner end, rate, width, lanes, lane order, margining. */
  cells: string[];
}

export const LINK_COLUMNS = ['End', 'Die', 'Link', 'Partner end', 'Rate', 'Width', 'Lanes', 'Lane order', 'Margining'];

export function link_row(link: HVLLink): LinkRow {
  const info = link.HVLCtrlInfo;
  const lanes = link.HVLDestMarginData?.Lanes ?? [];
  const reversed = info.LaneReversed === true;
  return {
    link,
    key: link_key(link),
    cells: [
      link_label(info),
      info.DeviceName,
      info.SERDES,
      partner_label(info),
      rate_label(info.Speed),
      text_of(info.Width).trim(),
      lanes_label(lanes),
      info.LaneReversed === undefined ? '' : reversed ? `reversed (lane l meets ${Math.max(0, ...lanes)} − l)` : 'straight',
      link.HVLDestMarginSupported ? 'Supported' : 'No',
    ],
  };
}

export interface HvlForm {
  /** link_key of the chosen end, '' when none is chosen. */
  link: string;
  allLanes: boolean;
  lanes: number[];
  ber: string;
  errCnt: string;
}

export function default_hvl_form(link: HVLLink | undefined): HvlForm {
  return { link: link ? link_key(link) : '', allLanes: true, lanes: [], ...default_choices(link?.HVLDestMarginData) };
}

export function build_hvl_record(links: readonly HVLLink[], form: HvlForm): { record?: HVLRecord; errors: FormErrors } {
  const errors: FormErrors = {};
  const link = links.find((l) => link_key(l) === form.link);
  const errCnt = check_errcnt(form.errCnt, link?.HVLDestMarginData, errors);
  if (form.link === '') {
    errors.device = 'Choose a link.';
    return { errors };
  }
  if (!link) {
    errors.device = `Link ${form.link.replace('|', ' ')} is not in the link list.`;
    return { errors };
  }
  if (link.HVLDestMarginSupported !== true) {
    errors.device = `Link ${link_label(link.HVLCtrlInfo)} does not support margining.`;
    return { errors };
  }
  const lanes = check_lanes_and_ber(link.HVLDestMarginData ?? {}, form, 'link', errors);
  if (Object.keys(errors).length > 0) return { errors };
  const record: HVLRecord = {
    Operation: HVL_OPERATION,
    HVLCtrlInfo: link.HVLCtrlInfo,
    TestParams: { BER: form.ber, ErrCnt: errCnt, Lanes: lanes },
  };
  if (link.SERDES) record.SERDES = link.SERDES;
  return { record, errors };
}

export function hvl_record_text(record: HVLRecord): string {
  const p = record.TestParams;
  return `hVL margin of ${link_label(record.HVLCtrlInfo)}, lanes ${lanes_label(p.Lanes)}, BER ${ber_label(p.BER)}, error count ${p.ErrCnt}`;
}

// --- One result ---

function finite(v: unknown): number | null {
  return typeof v === 'number' && Number.isFinite(v) ? v : null;
}

/**
 * Picoseconds in one UI of an hVL result: the report's own figure where a
 * lane carries it, else from the data rate of a lane or of the link.
 */
export function hvl_ui_ps(doc: ResultDocument, lanes: LaneMargin[]): number | null {
  for (const lane of lanes) {
    const given = finite((lane.Margins as { UIps?: unknown } | undefined)?.UIps);
    if (given !== null && given > 0) return given;
  }
  const rate = Number(lanes.find((l) => typeof l.DataRate === 'string')?.DataRate);
  if (rate > 0) return 1000 / rate;
  return ui_ps_of_speed(doc.HVLCtrlInfo?.Speed);
}

/** One lane of an hVL result as its table row shows it. */
export interface HvlLaneRow {
  lane: number;
  /** Why the lane failed, null when it didn't. */
  error: string | null;
  /** "steps" and "UI (ps)" or "mV" per direction. */
  left: [string, string];
  right: [string, string];
  top: [string, string];
  bottom: [string, string];
  eyeWidth: string;
  eyeHeight: string;
}

/** A count, register value or name (a preset "P1") as it came, a dash when absent. */
const step_text = (value: unknown) => (finite(value) !== null || (typeof value === 'string' && value !== '') ? String(value) : '–');

const MEASURED = /^(Phase|Volt)\w*(Margin|Offset)$/;

/**
 * The lanes of a report with the figures of a failed lane taken out: what
 * such a lane holds (often zeros) was never measured, so it is neither
 * shown nor charted, nor taken for the worst lane.
 */
export function measured_lanes(full: unknown): LaneMargin[] {
  return lane_objects(full).map((lane) =>
    lane.ErrorPresent === true ? Object.fromEntries(Object.entries(lane).filter(([key]) => !MEASURED.test(key))) : lane,
  );
}

export function hvl_lane_rows(full: unknown, uiPs: number | null): HvlLaneRow[] {
  const lanes = measured_lanes(full);
  const chart = margin_chart_data(lanes, uiPs);
  return lanes.map((lane, i) => {
    const failed = lane.ErrorPresent === true;
    const widthUI = chart.left[i] !== null && chart.right[i] !== null ? chart.left[i]! + chart.right[i]! : null;
    return {
      lane: chart.lanes[i],
      error: failed ? text_of(lane.ErrorMsg) || 'failed, no reason given' : null,
      left: [step_text(lane.PhaseLeftOffset), timing_label(chart.left[i], uiPs)],
      right: [step_text(lane.PhaseRightOffset), timing_label(chart.right[i], uiPs)],
      top: [step_text(lane.VoltTopOffset), mv_label(chart.top[i])],
      bottom: [step_text(lane.VoltBottomOffset), mv_label(chart.bottom[i])],
      eyeWidth: timing_label(widthUI, uiPs),
      eyeHeight: mv_label(chart.eyeHeightMV[i]),
    };
  });
}

export const TX_EQ = ['cnm1_phy', 'cnp1_phy', 'preset', 'fom'] as const;
export const RX_EQ = ['ctleidx', 'H0', 'H1', 'H2', 'H3', 'iq', 'vga'] as const;

/**
 * A lane's equalisation values, each as text: the partner's transmitter
 * settings and the receiver's adaptation, a dash for a side the report has
 * no valid data of (and for a figure of merit not marked valid).
 */
export function equalisation(lane: LaneMargin, position: number): { lane: number; tx: string[]; rx: string[] } {
  const tx = TX_EQ.map((key) => (lane.TxEqValid === true && (key !== 'fom' || lane.fom_valid === true) ? step_text(lane[key]) : '–'));
  const rx = RX_EQ.map((key) => (lane.RxEqValid === true ? step_text(lane[key]) : '–'));
  return { lane: lane_number(lane, position), tx, rx };
}
