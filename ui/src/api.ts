// Requests to the service. Every failure becomes an Error whose message can
// be shown as it stands, next to the control that caused it.
import type { DurationEstimate, HVLLink, PCIeDevice, QueueAnswer, ResultRecord, TestRecord } from './types';
import type { EyeScanResult, EyeScanTarget, JsonObject, ResultDocument, ResultsPage } from './types';
import { results_page_of } from './results';
import { port_status_doc, register_groups, type PortStatusDoc, type RegisterGroup } from './port_status';
import { link_port, link_port_info, link_ports, type LinkPort, type LinkPortInfo } from './link_control';
import { hvl_links } from './hvl';
import { eye_result_of, eye_targets } from './eye';

async function request(path: string, init?: RequestInit): Promise<string> {
  let response: Response;
  try {
    response = await fetch(path, init);
  } catch {
    throw new Error('The service cannot be reached. Check that it is running.');
  }
  const body = await response.text();
  if (!response.ok) {
    const reason = body.trim() || response.statusText;
    throw new Error(`The service refused the request (${response.status}): ${reason}`);
  }
  return body;
}

async function request_json(path: string, init?: RequestInit): Promise<unknown> {
  const body = await request(path, init);
  try {
    return JSON.parse(body);
  } catch {
    throw new Error(`The service sent an answer that is not JSON (${path}).`);
  }
}

function post(body: unknown): RequestInit {
  // Same-origin fetch: the browser adds the page's own Origin, which the
  // service accepts.
  return { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify(body) };
}

export async function get_version(): Promise<string> {
  const answer = await request_json('/api/GetLANEWRIGHTVersion');
  const version = (answer as { Tool_Version?: unknown })?.Tool_Version;
  if (typeof version !== 'string') throw new Error('The service did not say its version.');
  return version;
}

export async function get_pcie_devices(): Promise<PCIeDevice[]> {
  const answer = await request_json('/api/1.0/GetPCIEDeviceListForMargin');
  // A machine without devices may answer null.
  if (answer === null) return [];
  if (!Array.isArray(answer)) throw new Error('The device list from the service is not a list.');
  return answer.filter(
    (d): d is PCIeDevice =>
      typeof d === 'object' && d !== null && typeof (d as PCIeDevice).PCIeInfo?.SBDF === 'string',
  );
}

/** Both ends of every hVL link; none on a machine with one socket. */
export async function get_hvl_links(): Promise<HVLLink[]> {
  return hvl_links(await request_json('/api/1.0/GetHVLDeviceListForMargin'));
}

/** PCIe ports and hVL link ends that can be eye scanned. */
export async function get_eye_targets(): Promise<EyeScanTarget[]> {
  return eye_targets(await request_json('/api/1.0/GetDeviceListForEyeScan'));
}

export async function get_eye_data(id: string): Promise<EyeScanResult> {
  return eye_result_of(await request_json(`/api/1.0/GetEyeScanData?id=${encodeURIComponent(id)}`));
}

export async function add_test(record: TestRecord): Promise<QueueAnswer> {
  const answer = (await request_json('/api/1.0/AddTestToQueue', post(record))) as Partial<QueueAnswer> | null;
  if (typeof answer?.OperationStatus !== 'boolean') throw new Error('The service gave no queue status.');
  const reply: QueueAnswer = { OperationStatus: answer.OperationStatus, ErrMsg: typeof answer.ErrMsg === 'string' ? answer.ErrMsg : '' };
  if (typeof answer.TestID === 'number' && Number.isInteger(answer.TestID)) reply.TestID = answer.TestID;
  return reply;
}

export async function get_date_list(): Promise<string[]> {
  const answer = (await request_json('/api/1.0/GetResultsDateRange')) as { DateList?: unknown } | null;
  if (!Array.isArray(answer?.DateList)) throw new Error('The service sent no date list.');
  return answer.DateList.filter((d): d is string => typeof d === 'string');
}

export async function get_results(start: string, end: string): Promise<ResultRecord[]> {
  const answer = await request_json('/api/1.0/GetResultsByDate', post({ start, end }));
  if (!Array.isArray(answer)) throw new Error('The results from the service are not a list.');
  return answer.filter((r): r is ResultRecord => typeof r === 'object' && r !== null);
}

/** Asks the service to cancel a queued or running test; the refusal's reason is the Error's message. */
export async function cancel_test(testId: number): Promise<void> {
  const answer = (await request_json('/api/1.0/CancelTest', post({ TestID: testId }))) as
    | { OperationStatus?: unknown; ErrMsg?: unknown }
    | null;
  if (answer?.OperationStatus === true) return;
  if (answer?.OperationStatus === false) {
    throw new Error(typeof answer.ErrMsg === 'string' && answer.ErrMsg ? answer.ErrMsg : `Test ${testId} could not be cancelled.`);
  }
  throw new Error('The service gave no cancel status.');
}

function count_or_null(value: unknown): number | null {
  return typeof value === 'number' && Number.isFinite(value) && value >= 0 ? value : null;
}

/** The nominal duration of a record on hardware; a refusal's reason is the Error's message. */
export async function estimate_duration(record: TestRecord, signal?: AbortSignal): Promise<DurationEstimate> {
  const answer = (await request_json('/api/1.0/EstimateTestDuration', { ...post(record), signal })) as {
    [key: string]: unknown;
  } | null;
  if (answer?.OperationStatus === false) {
    throw new Error(typeof answer.ErrMsg === 'string' && answer.ErrMsg ? answer.ErrMsg : 'The service could not estimate the duration.');
  }
  const seconds = count_or_null(answer?.Seconds);
  if (answer?.OperationStatus !== true || seconds === null) throw new Error('The service sent no duration estimate.');
  return {
    Seconds: seconds,
    DwellSeconds: count_or_null(answer.DwellSeconds),
    Batches: count_or_null(answer.Batches),
    Lanes: count_or_null(answer.Lanes),
  };
}

// --- Results archive: paged summaries, one result on demand, queue again ---

export interface SummaryQuery {
  offset: number;
  limit: number;
  sbdf?: string;
  /** Archive stamps "YYYY_MM_DD-HH_MM_SS"; empty means open. */
  from?: string;
  to?: string;
}

export function results_summary_url(q: SummaryQuery): string {
  const params = new URLSearchParams({ offset: String(q.offset), limit: String(q.limit) });
  if (q.sbdf) params.set('sbdf', q.sbdf);
  if (q.from) params.set('from', q.from);
  if (q.to) params.set('to', q.to);
  return `/api/1.0/GetResultsSummary?${params.toString().replace(/\+/g, '%20')}`;
}

export async function get_results_summary(q: SummaryQuery): Promise<ResultsPage> {
  return results_page_of(await request_json(results_summary_url(q)));
}

export async function get_result(id: string): Promise<ResultDocument> {
  const answer = (await request_json(`/api/1.0/GetResult?id=${encodeURIComponent(id)}`)) as JsonObject | null;
  if (typeof answer !== 'object' || answer === null || Array.isArray(answer)) throw new Error('The result from the service is not an object.');
  if (answer.OperationStatus === false) throw new Error(typeof answer.ErrMsg === 'string' && answer.ErrMsg ? answer.ErrMsg : 'The service has no such result.');
  return answer as ResultDocument;
}

/** Queues a record again; the answer names the new test or the reason it was refused. */
export async function queue_record(record: JsonObject): Promise<{ ok: true; testId: number | null } | { ok: false; reason: string }> {
  const answer = (await request_json('/api/1.0/AddTestToQueue', post(record))) as JsonObject | null;
  if (typeof answer?.OperationStatus !== 'boolean') throw new Error('The service gave no queue status.');
  if (answer.OperationStatus) return { ok: true, testId: typeof answer.TestID === 'number' ? answer.TestID : null };
  return { ok: false, reason: typeof answer.ErrMsg === 'string' && answer.ErrMsg ? answer.ErrMsg : 'no reason given' };
}

// --- Port status and link control ---

/** A plain-word answer ("success", "yes", "Error"), whether sent bare or as a JSON string. */
async function request_word(path: string, init?: RequestInit): Promise<string> {
  const body = (await request(path, init)).trim();
  try {
    const value: unknown = JSON.parse(body);
    return typeof value === 'string' ? value : body;
  } catch {
    return body;
  }
}

export async function get_port_status(): Promise<PortStatusDoc> {
  return port_status_doc(await request_json('/api/1.0/GetPortSelectionInfo'));
}

/** Selects a port (refused by the service while a run is active) and turns on its LTSSM pushes. */
export async function select_status_port(index: number): Promise<PortStatusDoc> {
  return port_status_doc(await request_json('/api/1.0/GetPortStatusInfo', post({ index })));
}

export async function get_port_registers(): Promise<RegisterGroup[]> {
  return register_groups(await request_json('/api/1.0/GetPortStatusRegistersInfo'));
}

export type PortAction = 'advErrorEnabled' | 'linkDisable' | 'secBusReset';

const ACTION_PATHS: Record<PortAction, string> = {
  advErrorEnabled: '/api/1.0/SetAdvErrorEnabled',
  linkDisable: '/api/1.0/SetPortLinkDisabled',
  secBusReset: '/api/1.0/SetSecBusReset',
};

/** Sets one of the port's three switches; a refusal becomes the Error's message. */
export async function set_port_action(action: PortAction, checked: boolean): Promise<void> {
  const word = await request_word(ACTION_PATHS[action], post({ checked }));
  if (word === 'Error' || word === 'failed') throw new Error('The service could not change the port.');
}

export async function clear_aer_registers(): Promise<void> {
  const word = await request_word('/api/1.0/ClearAdvErrorRegisters');
  if (word !== 'success') throw new Error(`The error registers were not cleared (${word || 'no answer'}).`);
}

export async function set_log_port_status(checked: boolean): Promise<void> {
  await request('/api/1.0/SetLogPortStatus', post({ checked }));
}

/** Starts the stress loop on the selected port; its pushes tell how it goes. */
export async function start_port_loop(settings: JsonObject): Promise<void> {
  await request('/api/1.0/StartPortStatusContinuousRun', post(settings));
}

export async function stop_port_loop(): Promise<void> {
  await request('/api/1.0/StopPortStatusContinuousRun');
}

export async function get_link_ports(): Promise<LinkPort[]> {
  return link_ports(await request_json('/api/1.0/GetLinkInfo'));
}

export async function get_link_port(index: number): Promise<LinkPortInfo> {
  return link_port_info(await request_json('/api/1.0/GetLinkPortInfo', post({ index })));
}

/**
 * Applies a speed (index into the five speeds, by the given method) or a
 * width (into x1…x16) once; the port's row after it.
 */
export async function set_link(what: 'speed' | 'width', index: number, method?: number): Promise<LinkPort | null> {
  const path = what === 'speed' ? '/api/1.0/SetLinkSpeed' : '/api/1.0/SetLinkWidth';
  const answer = (await request_json(path, post(what === 'speed' && method !== undefined ? { index, method } : { index }))) as JsonObject | null;
  if (answer?.OperationStatus === false) {
    throw new Error(typeof answer.ErrMsg === 'string' && answer.ErrMsg ? answer.ErrMsg : `The ${what} was not changed.`);
  }
  if (answer?.OperationStatus !== true) throw new Error(`The service gave no status for the ${what} change.`);
  return link_port(answer.port);
}

export async function set_port_option(index: number, value: boolean): Promise<boolean> {
  const answer = (await request_json('/api/1.0/SetPortOption', post({ index, value }))) as JsonObject | null;
  if (typeof answer?.Error === 'string' && answer.Error) throw new Error(answer.Error);
  return answer?.checked === true;
}

export async function start_link_loop(control: JsonObject): Promise<void> {
  await request('/api/1.0/StartContinuousRun', post(control));
}

export async function stop_link_loop(): Promise<void> {
  await request('/api/1.0/StopContinuousRun');
}

export async function set_link_logging(which: 'errors' | 'status', checked: boolean): Promise<void> {
  await request(which === 'errors' ? '/api/1.0/SetLogLinkErrors' : '/api/1.0/SetLogLinkStatus', post({ checked }));
}

export async function clear_link_errors(): Promise<void> {
  await request('/api/1.0/ClearLinkErrorReport');
}
