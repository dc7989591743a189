// Requests to the service. Every failure becomes an Error whose message can
// be shown as it stands, next to the control that caused it.
import type { DurationEstimate, HVLLink, PCIeDevice, QueueAnswer, ResultRecord, TestRecord } from './types';
import type { JsonObject, ResultDocument, ResultsPage } from './types';
import { results_page_of } from './results';
import { hvl_links } from './hvl';

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
