// Reads the messages the service pushes over the WebSocket. A message that
// can't be read is reported as such and never ends the page.
import type { FinishedPush, JsonObject, Progress, QueuedTest } from './types';
import { ber_label, lanes_label, text_of } from './format';
import { LINK_PUSH_KEYS, parse_link_push, type LinkPush } from './link_push';
import { link_label } from './hvl';

export type Push =
  | { kind: 'tests'; tests: QueuedTest[]; finished: FinishedPush[] }
  | { kind: 'download'; msg: string }
  | { kind: 'links'; push: LinkPush }
  | { kind: 'other'; key: string }
  | { kind: 'invalid'; reason: string };

function is_object(value: unknown): value is JsonObject {
  return typeof value === 'object' && value !== null && !Array.isArray(value);
}

function finite(value: unknown): number | undefined {
  return typeof value === 'number' && Number.isFinite(value) ? value : undefined;
}

/**
 * The "Progress" object of a running test, or null when it is absent or
 * unusable (then no progress is known). A missing "Percent" is derived from
 * the side counts, else the lane counts; every number is held within its
 * sensible range so a confused runner can't draw a bar beyond its track, and
 * the percentage within the span its side count allows, so the bar and the
 * text beside it never disagree.
 */
export function parse_progress(value: unknown): Progress | null {
  if (!is_object(value)) return null;
  const done = finite(value.LanesDone);
  const total = finite(value.LanesTotal);
  if (done === undefined || total === undefined || total < 0) return null;
  const sidesTotal = finite(value.SidesTotal);
  const sidesKnown = sidesTotal !== undefined && sidesTotal > 0 && finite(value.SidesDone) !== undefined;
  const sidesDone = sidesKnown ? Math.max(0, Math.min(finite(value.SidesDone)!, sidesTotal)) : 0;
  let percent = finite(value.Percent);
  if (percent === undefined) {
    percent = sidesKnown ? (100 * sidesDone) / sidesTotal : total > 0 ? (100 * done) / total : 0;
  }
  if (sidesKnown) {
    const low = (100 * sidesDone) / sidesTotal;
    const high = sidesDone < sidesTotal ? (100 * (sidesDone + 1)) / sidesTotal : 100;
    percent = Math.max(low, Math.min(high, percent));
  }
  const remaining = finite(value.RemainingSeconds);
  return {
    LanesDone: Math.max(0, Math.min(done, total)),
    LanesTotal: total,
    Direction: typeof value.Direction === 'string' ? value.Direction : '',
    ElapsedSeconds: Math.max(0, finite(value.ElapsedSeconds) ?? 0),
    RemainingSeconds: remaining === undefined ? null : Math.max(0, remaining),
    Percent: Math.max(0, Math.min(100, percent)),
    SidesDone: sidesKnown ? sidesDone : null,
    SidesTotal: sidesKnown ? sidesTotal : null,
    Lane: Number.isInteger(value.Lane) && (value.Lane as number) >= 0 ? (value.Lane as number) : null,
  };
}

/** "Lanes" elements are numbers or comma-separated texts; anything else is skipped. */
export function lanes_of(value: unknown): number[] {
  if (!Array.isArray(value)) return [];
  const lanes: number[] = [];
  for (const element of value) {
    if (typeof element === 'number' && Number.isInteger(element) && element >= 0) {
      lanes.push(element);
    } else if (typeof element === 'string') {
      for (const part of element.split(',')) {
        if (/^\s*\d+\s*$/.test(part)) lanes.push(Number(part));
      }
    }
  }
  return lanes;
}

function queued_test(value: unknown): QueuedTest | null {
  if (!is_object(value)) return null;
  const params = is_object(value.TestParams) ? value.TestParams : {};
  const pcie = is_object(value.PCIeInfo) ? value.PCIeInfo : undefined;
  const hvl = is_object(value.HVLCtrlInfo) ? value.HVLCtrlInfo : undefined;
  const target = pcie ? text_of(pcie.SBDF) : hvl ? link_label(hvl) : '';
  const status = value.Status === 'Running' ? 'Running' : 'Queued';
  return {
    TestID: finite(value.TestID) ?? null,
    Status: status,
    Operation: text_of(value.Operation),
    SBDF: target,
    Receiver: text_of(params.Receiver),
    Lanes: lanes_label(lanes_of(params.Lanes)),
    BER: typeof params.BER === 'string' ? ber_label(params.BER) : text_of(params.BER),
    Progress: status === 'Running' ? parse_progress(value.Progress) : null,
    WaitingFor: status === 'Queued' ? (finite(value.WaitingFor) ?? null) : null,
    Cancelling: status === 'Running' && value.Cancelling === true,
    ResultId: typeof value.ResultId === 'string' && value.ResultId !== '' ? value.ResultId : null,
  };
}

function finished_test(value: unknown): FinishedPush | null {
  if (!is_object(value)) return null;
  return {
    TestID: finite(value.TestID) ?? null,
    Operation: text_of(value.Operation),
    SBDF: typeof value.SBDF === 'string' ? value.SBDF : '',
    Status: text_of(value.Status),
    FailureReason: typeof value.FailureReason === 'string' && value.FailureReason !== '' ? value.FailureReason : null,
    ResultId: typeof value.ResultId === 'string' && value.ResultId !== '' ? value.ResultId : null,
  };
}

export function parse_push(text: string): Push {
  let message: unknown;
  try {
    message = JSON.parse(text);
  } catch {
    return { kind: 'invalid', reason: 'the message is not JSON' };
  }
  if (!is_object(message) || typeof message.key !== 'string') {
    return { kind: 'invalid', reason: 'the message has no "key"' };
  }
  switch (message.key) {
    case 'RunningTestsUpdate': {
      if (!Array.isArray(message.TestList)) return { kind: 'invalid', reason: '"TestList" is not an array' };
      const tests = message.TestList.map(queued_test).filter((t): t is QueuedTest => t !== null);
      const finished = Array.isArray(message.FinishedTests)
        ? message.FinishedTests.map(finished_test).filter((t): t is FinishedPush => t !== null)
        : [];
      return { kind: 'tests', tests, finished };
    }
    case 'DownloadUpdate':
      return { kind: 'download', msg: text_of(message.msg) };
    default: {
      // Port status and link control.
      if (LINK_PUSH_KEYS.includes(message.key)) {
        const push = parse_link_push(message);
        return 'invalid' in push ? { kind: 'invalid', reason: push.invalid } : { kind: 'links', push };
      }
      return { kind: 'other', key: message.key };
    }
  }
}
