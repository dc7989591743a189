// The pushes of the port status and link control screens, and the hub that
// hands them to the screens: every push reaches every listener in order, so
// a log line carried by one push is never lost to the next.
import type { JsonObject } from './types';
import { is_record, parse_ltssm, port_status_doc, register_groups, run_counts } from './port_status';
import type { LtssmState, PortStatusDoc, RegisterGroup, RunCounts } from './port_status';
import { link_port, loop_counter, type LinkPort, type LoopCounter } from './link_control';

export type LinkPush =
  /** "PortStatusUpdate" (after an action) or "PortStatusUpdatePartial" (a run starting or ending). */
  | { kind: 'port-doc'; doc: PortStatusDoc; clearLogs: boolean }
  /** "contRunPortStatusUpdates": a tick of the stress loop. */
  | { kind: 'port-run'; registers: RegisterGroup[]; logs: string; counts: RunCounts | null }
  | { kind: 'ltssm'; states: LtssmState[] }
  | ({ kind: 'link-run'; running: boolean; port: LinkPort | null; errorReport: string[] | null; log: string } & LoopCounter);

export const LINK_PUSH_KEYS = ['PortStatusUpdate', 'PortStatusUpdatePartial', 'contRunPortStatusUpdates', 'PortLTSSMUpdate', 'LinkControlUpdate'];

/** One of the pushes above, or the reason it can't be read. */
export function parse_link_push(message: JsonObject): LinkPush | { invalid: string } {
  switch (message.key) {
    case 'PortStatusUpdate':
    case 'PortStatusUpdatePartial': {
      if (!is_record(message.port_status_data)) return { invalid: '"port_status_data" is not an object' };
      const data = message.port_status_data;
      const doc = port_status_doc(data);
      // A run's start and end say so in the document or beside it.
      const running = typeof message.TestRunning === 'boolean' ? message.TestRunning : data.TestRunning;
      if (typeof running === 'boolean') doc.running = running;
      return { kind: 'port-doc', doc, clearLogs: (message.clearlogs ?? data.clearlogs) === true };
    }
    case 'contRunPortStatusUpdates': {
      const run = message.contRunPortStatusUpdates;
      if (!is_record(run)) return { invalid: '"contRunPortStatusUpdates" is not an object' };
      return {
        kind: 'port-run',
        registers: register_groups(run.portStatusRegister),
        logs: typeof run.logs === 'string' ? run.logs : '',
        counts: run_counts(run.counts),
      };
    }
    case 'PortLTSSMUpdate':
      if (!Array.isArray(message.ltssmdata)) return { invalid: '"ltssmdata" is not an array' };
      return { kind: 'ltssm', states: message.ltssmdata.filter((s): s is string => typeof s === 'string').map(parse_ltssm) };
    case 'LinkControlUpdate': {
      const data = message.linkControlData;
      if (!is_record(data)) return { invalid: '"linkControlData" is not an object' };
      return {
        kind: 'link-run',
        running: data.running === true,
        ...loop_counter(data),
        port: link_port(data.port),
        errorReport: Array.isArray(data.errorReport) ? data.errorReport.filter((e): e is string => typeof e === 'string') : null,
        log: typeof data.log === 'string' ? data.log : '',
      };
    }
    default:
      return { invalid: `"${String(message.key)}" is not a link push` };
  }
}

export type LinkPushListener = (push: LinkPush) => void;

export class LinkPushHub {
  private readonly listeners = new Set<LinkPushListener>();

  subscribe(listener: LinkPushListener): () => void {
    this.listeners.add(listener);
    return () => this.listeners.delete(listener);
  }

  emit(push: LinkPush): void {
    for (const listener of this.listeners) listener(push);
  }
}

/**
 * Hands the pushes that `accept` takes over as batches, in order, at most one
 * batch every `ms`: a loop can push faster than the page can draw, and one
 * drawing per batch keeps the page up to date instead of ever further behind.
 */
export function subscribe_batched(hub: LinkPushHub, accept: (push: LinkPush) => boolean, onBatch: (pushes: LinkPush[]) => void, ms = 100): () => void {
  let pending: LinkPush[] = [];
  let timer: ReturnType<typeof setTimeout> | null = null;
  const flush = () => {
    timer = null;
    const batch = pending;
    pending = [];
    onBatch(batch);
  };
  const unsubscribe = hub.subscribe((push) => {
    if (!accept(push)) return;
    pending.push(push);
    timer ??= setTimeout(flush, ms);
  });
  return () => {
    unsubscribe();
    if (timer !== null) clearTimeout(timer);
  };
}

/** A log kept to its last `max` lines, so a long loop doesn't grow the page without end. */
export function append_log(log: string, more: string, max = 2000): string {
  if (!more) return log;
  const joined = log + more;
  const lines = joined.split('\n');
  return lines.length > max + 1 ? lines.slice(lines.length - max - 1).join('\n') : joined;
}
