// Requests of the PCI viewer, ASPM and performance counter screens. Answers
// that are plain words ("success", "yes", "Error") come back as text.
export interface PciFunction {
  SBDF: string;
  DeviceID: string;
  VendorID: string;
  ClassCode: string;
  DeviceDescription: string;
  ParentSBDF: string;
}
export interface PciField {
  name: string;
  startBit: string;
  endBit: string;
  value: string;
  access: string;
  text: string;
}
export interface PciRegister {
  name: string;
  offset: string;
  size: string;
  value?: string;
  field: PciField[];
}
export interface PciTable {
  name: string;
  capId: string;
  absoluteOffset: string;
  register: PciRegister[];
}
export interface AspmEnd {
  SBDF: string;
  L0sCapable: boolean;
  L1Capable: boolean;
  L11Capable: boolean;
  L12Capable: boolean;
  L0sEnabled: boolean;
  L1Enabled: boolean;
  L11Enabled: boolean;
  L12Enabled: boolean;
  L0sExitLatency: string;
  L1ExitLatency: string;
}
export interface AspmLink extends Record<string, unknown> {
  id: number;
  Port: AspmEnd;
  Device: AspmEnd;
  Kind: string;
  /** "Port" or "Device": whose link controller holds the timers; "" for a plain link. */
  TimerEnd: string;
  L0TimerValues: string[];
  L1TimerValues: string[];
  /** The entry in use, -1 without timers. */
  L0TimerIndex: number;
  L1TimerIndex: number;
}
export interface CounterRow {
  key: number;
  space: string;
  name: string;
  port: string;
  event: string;
  value: string;
  rate: string;
  maxRate: string;
  enabled: boolean;
}
export interface CounterSettings {
  index: number;
  portSelection: string[];
  selectedPort: number;
  counterSelection: string[];
  selectedCounter: number;
  enabled: boolean;
}

async function text(path: string, body?: unknown): Promise<string> {
  let response: Response;
  try {
    response = await fetch(
      path,
      body === undefined
        ? undefined
        : { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify(body) },
    );
  } catch {
    throw new Error('The service cannot be reached. Check that it is running.');
  }
  const answer = await response.text();
  if (!response.ok) throw new Error(`The service refused the request (${response.status}): ${answer.trim() || response.statusText}`);
  return answer;
}

async function json<T>(path: string, body?: unknown): Promise<T> {
  const answer = await text(path, body);
  let value: unknown;
  try {
    value = JSON.parse(answer);
  } catch {
    throw new Error(`The service sent an answer that is not JSON (${path}).`);
  }
  const failure = value as { OperationStatus?: boolean; ErrMsg?: string };
  if (failure && failure.OperationStatus === false) throw new Error(failure.ErrMsg ?? 'The service refused.');
  return value as T;
}

const API = '/api/1.0/';
export const get_pci_functions = () => json<PciFunction[]>(`${API}GetPCIDeviceList`);
export const get_cap_list = (SBDF: string) => json<string[]>(`${API}GetPCICapStructList`, { SBDF });
export const get_ext_cap_list = (SBDF: string) => json<string[]>(`${API}GetPCIExtCapStructList`, { SBDF });
export const get_raw_view = (SBDF: string) =>
  json<{ register: { offset: string; value: string }[] }>(`${API}GetPCIRawView`, { SBDF });
export const get_table = (SBDF: string, tableName: string) => json<PciTable>(`${API}GetPCITableInfo`, { SBDF, tableName });
export const write_field = (SBDF: string, table: PciTable, register: string, field: string, value: string) =>
  text(`${API}PCITableWrite`, { SBDF, tableName: table.name, absoluteOffset: table.absoluteOffset, register, field, value });

export const get_aspm = () => json<AspmLink[]>(`${API}GetASPMInfo`);
export type AspmState = 'L0s' | 'L1' | 'L11' | 'L12';
const ASPM_ROUTE: Record<AspmState, string> = { L0s: 'SetL0Enabled', L1: 'SetL1Enabled', L11: 'SetL11Enabled', L12: 'SetL12Enabled' };
/** True when the service did it ("yes"/"no"), false for "Error". */
export const set_aspm = async (state: AspmState, index: number, value: boolean) =>
  (await text(`${API}${ASPM_ROUTE[state]}`, { index, value })) !== 'Error';

export type AspmTimer = 'L0' | 'L1';
/** True when the service took the entry (it echoes the text), false for "Error". */
export const set_aspm_timer = async (timer: AspmTimer, index: number, timerIndex: number, value: string) =>
  (await text(`${API}Set${timer}Timer`, { index, timerIndex, value })) === value;

export const get_counters = () => json<CounterRow[]>(`${API}GetPerfCounterInfo`);
export const select_counter = (index: number) => json<CounterSettings>(`${API}GetPerfCounterSettings`, { index });
export const set_counter_port = (index: number) => json<unknown>(`${API}SetPerfCounterPort`, { index });
export const set_counter_event = (index: number) => json<unknown>(`${API}SetPerfCounterCounter`, { index });
export const set_counter_enabled = (status: boolean) => json<unknown>(`${API}SetEnableCounter`, { status });
export const start_monitor = () => text(`${API}StartPerfCountersMonitor`);
export const stop_monitor = () => text(`${API}StopPerfCountersMonitor`);
export const set_counter_logging = (status: boolean) => json<unknown>(`${API}SetCountersLogging`, { status });
export const set_counter_decimal = (status: boolean) => json<unknown>(`${API}SetCountersDecimalDisplay`, { status });
export const set_counter_changes_only = (status: boolean) => json<unknown>(`${API}SetCountersChangesOnly`, { status });
/** The panel's options as the service keeps them (they survive a restart) and whether its monitor runs. */
export interface CounterOptions {
  decimalDisplay: boolean;
  logToCountTxt: boolean;
  changesOnly: boolean;
  running: boolean;
}
export const get_counter_options = () => json<CounterOptions>(`${API}GetPerfCounterOptions`);
