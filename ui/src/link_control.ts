// The link control documents: the port table, one port's controls, the loop's
// counts. Lenient like the port status reader: what is missing reads empty.
import type { JsonObject } from './types';
import { is_record, toggle, type Toggle } from './port_status';

export const WIDTH_COLUMNS = ['x1', 'x2', 'x4', 'x8', 'x12', 'x16'] as const;

export interface LinkPort {
  key: number;
  name: string;
  sbdf: string;
  type: string;
  /** "40:01.0" from the hexadecimal "Bn", "Dn", "Fn". */
  bdf: string;
  /** The widths the port can be set to now. */
  widths: string[];
  /** "41–41": secondary to subordinate bus. */
  buses: string;
  speed: string;
  width: string;
  maxSpeed: string;
  maxWidth: string;
  ltssm: string;
}

const cell = (row: JsonObject, key: string): string => {
  const v = row[key];
  return typeof v === 'string' ? v : typeof v === 'number' ? String(v) : '';
};

function hex_cell(row: JsonObject, key: string, digits: number): string {
  const n = parseInt(cell(row, key), 16);
  return Number.isFinite(n) ? n.toString(16).padStart(digits, '0') : '?';
}

export function link_port(value: unknown): LinkPort | null {
  if (!is_record(value) || typeof value.key !== 'number') return null;
  const sec = cell(value, 'Sec Bn');
  const sub = cell(value, 'Sub Bn');
  return {
    key: value.key,
    name: cell(value, 'Name'),
    sbdf: cell(value, 'SBDF'),
    type: cell(value, 'Type'),
    bdf: `${hex_cell(value, 'Bn', 2)}:${hex_cell(value, 'Dn', 2)}.${hex_cell(value, 'Fn', 1)}`,
    widths: WIDTH_COLUMNS.filter((w) => cell(value, w) === 'Yes'),
    buses: sec || sub ? `${hex_cell(value, 'Sec Bn', 2)}–${hex_cell(value, 'Sub Bn', 2)}` : '',
    speed: cell(value, 'Link Speed'),
    width: cell(value, 'Link Width'),
    maxSpeed: cell(value, 'MaxSpeed'),
    maxWidth: cell(value, 'MaxWidth'),
    ltssm: cell(value, 'LTSSM'),
  };
}

export function link_ports(value: unknown): LinkPort[] {
  const ports = is_record(value) && Array.isArray(value.ports) ? value.ports : [];
  return ports.map(link_port).filter((p): p is LinkPort => p !== null);
}

/** The table with one row replaced by its newer state (matched by "key"). */
export function with_port(ports: readonly LinkPort[], port: LinkPort | null): LinkPort[] {
  return port ? ports.map((p) => (p.key === port.key ? port : p)) : [...ports];
}

export interface Option {
  label: string;
  enabled: boolean;
}

/** A list of labelled entries ("widthStatus", "speedStatus") with the selected one. */
export interface Options {
  options: Option[];
  selectedIndex: number;
  enabled: boolean;
}

function options(value: unknown, key: string): Options {
  const v = is_record(value) ? value : {};
  const list = Array.isArray(v[key]) ? (v[key] as unknown[]) : [];
  const opts = list.map((o) => (is_record(o) ? { label: typeof o.label === 'string' ? o.label : '', enabled: o.enabled !== false } : { label: '', enabled: false }));
  const index = typeof v.selectedIndex === 'number' ? v.selectedIndex : -1;
  return { options: opts, selectedIndex: index >= 0 && index < opts.length ? index : -1, enabled: v.enabled !== false };
}

/** A limit of the loop: its values and the chosen one. */
export interface Limit {
  label: string;
  values: string[];
  selected: string;
}

export const LIMIT_KEYS = ['linkSpeedLower', 'linkSpeedUpper', 'linkWidthLower', 'linkWidthUpper', 'contRunIntervals', 'failureRetryCount'] as const;
export type LimitKey = (typeof LIMIT_KEYS)[number];

export interface LoopCounter {
  loopCount: number;
  failureCount: number;
  speedFailures: number;
  widthFailures: number;
}

export function loop_counter(value: unknown): LoopCounter {
  const v = is_record(value) ? value : {};
  const n = (key: string) => (typeof v[key] === 'number' && Number.isFinite(v[key]) ? Math.max(0, v[key] as number) : 0);
  return { loopCount: n('loopCount'), failureCount: n('failureCount'), speedFailures: n('speedFailures'), widthFailures: n('widthFailures') };
}

export interface LinkPortInfo {
  index: number;
  port: LinkPort | null;
  widths: Options;
  speeds: Options;
  methods: string[];
  /** Index into `methods`: how a speed is set; the service keeps it for later changes and the loop. */
  method: number;
  counter: LoopCounter;
  logErrors: boolean;
  logLinkStatus: boolean;
  /** "linkControlInfo" as sent: the start request sends it back with the chosen values. */
  control: JsonObject;
  limits: Record<LimitKey, Limit>;
  loopCount: number;
  running: boolean;
  portOptions: Toggle[];
  errorReport: string[];
}

export function link_port_info(value: unknown): LinkPortInfo {
  const v = is_record(value) ? value : {};
  const opl = is_record(v.oplRC) ? v.oplRC : {};
  const control = is_record(v.linkControlInfo) ? v.linkControlInfo : {};
  const methods = is_record(opl.linkSpeedMethods) ? opl.linkSpeedMethods : {};
  const methodValues = Array.isArray(methods.values) ? methods.values.filter((m): m is string => typeof m === 'string') : [];
  const methodIndex = typeof methods.selectedIndex === 'number' ? methods.selectedIndex : -1;
  const limits = {} as Record<LimitKey, Limit>;
  for (const key of LIMIT_KEYS) {
    const l = is_record(control[key]) ? (control[key] as JsonObject) : {};
    const values = Array.isArray(l.values) ? l.values.filter((x): x is string => typeof x === 'string') : [];
    limits[key] = { label: typeof l.label === 'string' ? l.label : key, values, selected: typeof l.selectedValue === 'string' ? l.selectedValue : (values[0] ?? '') };
  }
  const loopCount = is_record(control.loopCount) && typeof control.loopCount.value === 'number' ? control.loopCount.value : 0;
  return {
    index: typeof v.index === 'number' ? v.index : -1,
    port: link_port(v.port),
    widths: options(opl.linkWidthSelection, 'widthStatus'),
    speeds: options(opl.linkSpeedSelection, 'speedStatus'),
    methods: methodValues,
    method: methodIndex >= 0 && methodIndex < methodValues.length ? methodIndex : Math.max(0, methodValues.indexOf(typeof methods.Speed === 'string' ? methods.Speed : '')),
    counter: loop_counter(opl.counter),
    logErrors: is_record(opl.logErrors) && opl.logErrors.checked === true,
    logLinkStatus: is_record(opl.logLinkStatus) && opl.logLinkStatus.checked === true,
    control,
    limits,
    loopCount: Math.max(0, loopCount),
    running: control.checked === true,
    portOptions: Array.isArray(v.portControlOptions) ? v.portControlOptions.map(toggle) : [],
    errorReport: Array.isArray(v.errorReport) ? v.errorReport.filter((e): e is string => typeof e === 'string') : [],
  };
}

/** The loop's start request: the service's "linkControlInfo" with the chosen limits and loop count. */
export function link_loop_request(control: JsonObject, chosen: Record<LimitKey, string>, loopCount: number): JsonObject {
  const body = JSON.parse(JSON.stringify(control)) as JsonObject;
  for (const key of LIMIT_KEYS) {
    body[key] = { ...(is_record(body[key]) ? (body[key] as JsonObject) : {}), selectedValue: chosen[key] };
  }
  body.loopCount = { ...(is_record(body.loopCount) ? body.loopCount : {}), value: loopCount };
  return body;
}
