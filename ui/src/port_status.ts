// The port status document: register groups with their decoded fields, which
// fields changed between two reads, the LTSSM history as a timeline, and the
// stress loop's settings and counts. Every reader takes what the service sent
// as unknown and falls back to an empty value, so a missing key blanks one
// part of the screen and never the page.
import type { JsonObject } from './types';

export const is_record = (value: unknown): value is JsonObject =>
  typeof value === 'object' && value !== null && !Array.isArray(value);

const number_or_null = (value: unknown): number | null =>
  typeof value === 'number' && Number.isFinite(value) ? value : null;

const text = (value: unknown): string => (typeof value === 'string' ? value : '');

const texts = (value: unknown): string[] => (Array.isArray(value) ? value.filter((v): v is string => typeof v === 'string') : []);

// ---------- register groups ----------

/** The eight groups, in the order the screen shows them. */
export const GROUP_KEYS = [
  'pcieStatus',
  'deviceStatus',
  'linkStatus',
  'slotStatus',
  'rootStatus',
  'pcieUncorrErrStatus',
  'pcieCorrErrStatus',
  'pcieRootErrStatus',
] as const;

export interface RegisterRow {
  field: string;
  /** "3:0" or "11", as the service names the field's bits. */
  bits: string;
  value: number | null;
  text: string;
}

export interface RegisterGroup {
  key: string;
  label: string;
  name: string;
  /** null when the register could not be read or the port lacks it. */
  value: number | null;
  rows: RegisterRow[];
}

function register_row(value: unknown): RegisterRow | null {
  if (!is_record(value)) return null;
  return { field: text(value.field), bits: text(value.bits), value: number_or_null(value.value), text: text(value.text) };
}

/** The groups present in an object keyed as "portStatusRegister" is, in screen order. */
export function register_groups(value: unknown): RegisterGroup[] {
  if (!is_record(value)) return [];
  const groups: RegisterGroup[] = [];
  for (const key of GROUP_KEYS) {
    const g = value[key];
    if (!is_record(g)) continue;
    const rows = Array.isArray(g.rows) ? g.rows.map(register_row).filter((r): r is RegisterRow => r !== null) : [];
    groups.push({ key, label: text(g.label), name: text(g.name) || key, value: number_or_null(g.value), rows });
  }
  return groups;
}

/** The mask of a field's bits ("3:0" -> 0xF, "11" -> 0x800); 0 when the text isn't a bit range of a 32-bit register. */
export function bit_mask(bits: string): number {
  const m = /^\s*(\d+)\s*(?::\s*(\d+)\s*)?$/.exec(bits);
  if (!m) return 0;
  const a = Number(m[1]);
  const b = m[2] === undefined ? a : Number(m[2]);
  const [lo, hi] = a < b ? [a, b] : [b, a];
  if (hi > 31) return 0;
  return ((2 ** (hi - lo + 1) - 1) * 2 ** lo) >>> 0;
}

/**
 * The indices of the rows of `next` that changed since `prev`. With both
 * register values known, a row changed when any of its bits flipped, which
 * also catches a field whose decoded text hides the change. Otherwise (a read
 * error on either side, or bits the service didn't name) rows of the same
 * field are compared by value. No earlier read means nothing changed.
 */
export function changed_rows(prev: RegisterGroup | undefined, next: RegisterGroup): Set<number> {
  const changed = new Set<number>();
  if (!prev) return changed;
  const flipped = prev.value !== null && next.value !== null ? (prev.value ^ next.value) >>> 0 : null;
  const before = new Map(prev.rows.map((r) => [r.field, r.value]));
  next.rows.forEach((row, i) => {
    const mask = bit_mask(row.bits);
    if (flipped !== null && mask !== 0) {
      if ((flipped & mask) !== 0) changed.add(i);
    } else if (before.has(row.field) && before.get(row.field) !== row.value) {
      changed.add(i);
    }
  });
  return changed;
}

/** A field's value as the table shows it: one bit as 0/1, wider fields in hex as well when above 9. */
export function field_value(row: RegisterRow): string {
  if (row.value === null) return '–';
  const mask = bit_mask(row.bits);
  const single = mask !== 0 && (mask & (mask - 1)) === 0;
  if (single || row.value <= 9) return String(row.value);
  return `${row.value} (0x${row.value.toString(16).toUpperCase()})`;
}

// ---------- LTSSM history ----------

export interface LtssmState {
  name: string;
  code: number | null;
}

/** "State 3: Recovery (0x23)" or "Recovery(0x23)" -> Recovery, 0x23. */
export function parse_ltssm(entry: string): LtssmState {
  const m = /^(?:State\s+\d+:\s*)?(.*?)\s*(?:\(0x([0-9a-fA-F]+)\))?\s*$/.exec(entry);
  const name = m?.[1] || entry.trim();
  return { name: name || 'N/A', code: m?.[2] !== undefined ? parseInt(m[2], 16) : null };
}

export type LtssmFamily = 'l0' | 'power' | 'recovery' | 'training' | 'down' | 'none';

/** The colour group of a state: trained, low power, recovering, training, held down, unknown. */
export function ltssm_family(name: string): LtssmFamily {
  const n = name.toLowerCase().replace(/[\s_.-]/g, '');
  if (n === 'l0') return 'l0';
  if (['l0s', 'l1', 'l1ss', 'l2'].includes(n)) return 'power';
  if (n === 'recovery') return 'recovery';
  if (['detect', 'polling', 'configuration'].includes(n)) return 'training';
  if (['disabled', 'hotreset', 'loopback'].includes(n)) return 'down';
  return 'none';
}

const same_state = (a: LtssmState, b: LtssmState) => a.name === b.name && a.code === b.code;

/**
 * How many states entered the history between two reads of it, both newest
 * first and of the same window length: the smallest shift that lines the old
 * history up with the tail of the new one. The history carries no times, so a
 * loop that repeats the same few states may be counted short by whole
 * repetitions; a history that no shift explains is taken as all new.
 */
export function ltssm_shift(prev: readonly LtssmState[], next: readonly LtssmState[]): number {
  if (prev.length === 0) return 0;
  for (let k = 0; k < next.length; k++) {
    const overlap = Math.min(prev.length, next.length - k);
    let fits = true;
    for (let i = 0; i < overlap && fits; i++) fits = same_state(next[k + i], prev[i]);
    if (fits) return k;
  }
  return next.length;
}

export interface TimelineEntry extends LtssmState {
  family: LtssmFamily;
  /** Entered since the previous read. */
  fresh: boolean;
  /** Position in the service's list: 0 is the current state. */
  age: number;
}

/** The history oldest first (the current state last), with the states that are new since `prev` marked. */
export function ltssm_timeline(prev: readonly LtssmState[], next: readonly LtssmState[]): { entries: TimelineEntry[]; added: number } {
  const added = ltssm_shift(prev, next);
  const entries = next.map((s, age) => ({ ...s, family: ltssm_family(s.name), fresh: age < added, age })).reverse();
  return { entries, added };
}

// ---------- the document ----------

export interface Toggle {
  label: string;
  checked: boolean;
  enabled: boolean;
}

export interface Choice {
  label: string;
  values: string[];
  selectedIndex: number;
  enabled: boolean;
}

export interface RunCounts {
  loopCount: number;
  successCount: number;
  failureCount: number;
  linkStatusMismatchFail: number;
  unstableGenFail: number;
  presetValueMismatchFail: number;
  aerErrorFail: number;
  maxWaitFail: number;
  running: boolean;
}

/** The failure causes with the words the screen uses for them. */
export const FAILURE_CAUSES: { key: keyof RunCounts; label: string }[] = [
  { key: 'linkStatusMismatchFail', label: 'link status mismatch' },
  { key: 'unstableGenFail', label: 'unstable generation' },
  { key: 'presetValueMismatchFail', label: 'preset mismatch' },
  { key: 'aerErrorFail', label: 'AER error' },
  { key: 'maxWaitFail', label: 'max wait' },
];

export function run_counts(value: unknown): RunCounts | null {
  if (!is_record(value)) return null;
  const n = (key: string) => Math.max(0, number_or_null(value[key]) ?? 0);
  return {
    loopCount: n('loopCount'),
    successCount: n('successCount'),
    failureCount: n('failureCount'),
    linkStatusMismatchFail: n('linkStatusMismatchFail'),
    unstableGenFail: n('unstableGenFail'),
    presetValueMismatchFail: n('presetValueMismatchFail'),
    aerErrorFail: n('aerErrorFail'),
    maxWaitFail: n('maxWaitFail'),
    running: value.running === true,
  };
}

export function toggle(value: unknown): Toggle {
  const v = is_record(value) ? value : {};
  return { label: text(v.label), checked: v.checked === true, enabled: v.enabled !== false };
}

export function choice(value: unknown): Choice {
  const v = is_record(value) ? value : {};
  const values = texts(v.values);
  const index = number_or_null(v.selectedIndex) ?? -1;
  return { label: text(v.label), values, selectedIndex: index >= 0 && index < values.length ? index : -1, enabled: v.enabled !== false };
}

export interface PortStatusDoc {
  ports: string[];
  selectedIndex: number;
  selectionEnabled: boolean;
  ltssm: LtssmState[];
  registers: RegisterGroup[];
  advErrorEnabled: Toggle;
  linkDisable: Toggle;
  secBusReset: Toggle;
  logPortStatus: Toggle;
  /** "contLoopSettings" as sent: the start request sends it back with the operator's choices. */
  loop: JsonObject;
  modes: Toggle[];
  modeIndex: number;
  interval: Choice;
  maxWait: Choice | null;
  speed: Choice;
  stopOnError: boolean;
  stopOnAERError: boolean;
  loopCount: number;
  loopEnabled: boolean;
  counts: RunCounts | null;
  message: string;
  running: boolean;
}

export function port_status_doc(value: unknown): PortStatusDoc {
  const v = is_record(value) ? value : {};
  const selection = is_record(v.portSelection) ? v.portSelection : {};
  const loop = is_record(v.contLoopSettings) ? v.contLoopSettings : {};
  const settings = is_record(loop.settingsSelection) ? loop.settingsSelection : {};
  const ports = texts(selection.values);
  const index = number_or_null(v.selectedIndex) ?? -1;
  const counts = run_counts(v.counts);
  return {
    ports,
    selectedIndex: index >= 0 && index < ports.length ? index : -1,
    selectionEnabled: selection.enabled !== false,
    ltssm: texts(v.allLCStates).map(parse_ltssm),
    registers: register_groups(v.portStatusRegister),
    advErrorEnabled: toggle(v.advErrorEnabled),
    linkDisable: toggle(v.linkDisable),
    secBusReset: toggle(v.secBusReset),
    logPortStatus: toggle(v.logPortStatus),
    loop,
    modes: Array.isArray(settings.status) ? settings.status.map(toggle) : [],
    modeIndex: number_or_null(settings.selectedIndex) ?? 0,
    interval: choice(loop.continuousRun),
    maxWait: is_record(loop.maxWait) ? choice(loop.maxWait) : null,
    speed: choice(loop.retrainSpeed),
    stopOnError: is_record(loop.stopOnError) && loop.stopOnError.checked === true,
    stopOnAERError: is_record(loop.stopOnAERError) && loop.stopOnAERError.checked === true,
    loopCount: Math.max(0, number_or_null(is_record(loop.loopCount) ? loop.loopCount.value : null) ?? 0),
    loopEnabled: loop.enabled !== false,
    counts,
    message: text(v.message),
    running: v.TestRunning === true || counts?.running === true,
  };
}

export interface LoopChoices {
  mode: number;
  speed: number;
  interval: number;
  maxWait: number | null;
  loopCount: number;
  stopOnError: boolean;
  stopOnAERError: boolean;
}

/** The start request: the service's own "contLoopSettings" with the operator's choices put in. */
export function loop_request(loop: JsonObject, c: LoopChoices): JsonObject {
  const body = JSON.parse(JSON.stringify(loop)) as JsonObject;
  const part = (key: string): JsonObject => {
    if (!is_record(body[key])) body[key] = {};
    return body[key] as JsonObject;
  };
  const settings = part('settingsSelection');
  settings.selectedIndex = c.mode;
  if (Array.isArray(settings.status)) {
    settings.status = settings.status.map((s, i) => (is_record(s) ? { ...s, checked: i === c.mode } : s));
  }
  part('retrainSpeed').selectedIndex = c.speed;
  part('continuousRun').selectedIndex = c.interval;
  if (c.maxWait !== null) part('maxWait').selectedIndex = c.maxWait;
  part('loopCount').value = c.loopCount;
  part('stopOnError').checked = c.stopOnError;
  part('stopOnAERError').checked = c.stopOnAERError;
  return body;
}
