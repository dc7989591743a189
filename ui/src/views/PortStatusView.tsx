// Port status: one port's eight register groups with their fields decoded,
// its LTSSM history as a timeline, the three switches of the port, and the
// stress loop with its live counts and log.
import { useEffect, useRef, useState } from 'preact/hooks';
import {
  clear_aer_registers,
  get_port_registers,
  get_port_status,
  select_status_port,
  set_log_port_status,
  set_port_action,
  start_port_loop,
  stop_port_loop,
  type PortAction,
} from '../api';
import { append_log, subscribe_batched, type LinkPushHub } from '../link_push';
import {
  FAILURE_CAUSES,
  changed_rows,
  field_value,
  loop_request,
  ltssm_timeline,
  type LoopChoices,
  type LtssmState,
  type PortStatusDoc,
  type RegisterGroup,
  type RunCounts,
  type TimelineEntry,
} from '../port_status';
import { Confirm } from './common';
import { CountList, IndexSelect, RemoteCheck } from './controls';

interface Props {
  hub: LinkPushHub;
  visible: boolean;
}

interface Registers {
  groups: RegisterGroup[];
  /** Per group key, the rows that changed at the last update. */
  changed: Map<string, Set<number>>;
  at: string;
}

function next_registers(old: Registers, groups: RegisterGroup[]): Registers {
  if (groups.length === 0) return old;
  const before = new Map(old.groups.map((g) => [g.key, g]));
  return { groups, changed: new Map(groups.map((g) => [g.key, changed_rows(before.get(g.key), g)])), at: new Date().toLocaleTimeString() };
}

interface History {
  states: LtssmState[];
  entries: TimelineEntry[];
  /** States entered since the port was chosen, as far as the pushes tell. */
  seen: number;
}

const NO_HISTORY: History = { states: [], entries: [], seen: 0 };

function next_history(old: History, states: LtssmState[]): History {
  const { entries, added } = ltssm_timeline(old.states, states);
  return { states, entries, seen: old.seen + added };
}

const ABBREVIATIONS: Record<string, string> = {
  detect: 'Det', polling: 'Pol', configuration: 'Cfg', recovery: 'Rcv', disabled: 'Dis', hotreset: 'HR', loopback: 'LB',
};

function short_name(name: string): string {
  return ABBREVIATIONS[name.toLowerCase().replace(/\s/g, '')] ?? name;
}

function Timeline({ history }: { history: History }) {
  const current = history.entries[history.entries.length - 1];
  return (
    <div class="panel">
      <div class="panel-head">
        <h2>LTSSM history</h2>
        <span class="muted">oldest left, current state right; new states outlined</span>
        <span class="ltssm-current" data-testid="ltssm-current">
          {current ? `Current: ${current.name}${current.code !== null ? ` (0x${current.code.toString(16)})` : ''}` : 'This port reports no LTSSM history'}
        </span>
        <span class="muted" data-testid="ltssm-seen" data-seen={history.seen}>
          {history.seen} new since the port was chosen
        </span>
      </div>
      <ol class="timeline" data-testid="ltssm-timeline" data-history={history.states.map((s) => `${s.name}:${s.code}`).join(',')}>
        {history.entries.map((e) => (
          <li
            key={e.age}
            class={`ltssm ${e.family}${e.fresh ? ' fresh' : ''}`}
            title={`State ${e.age}: ${e.name}${e.code !== null ? ` (0x${e.code.toString(16)})` : ''}`}
          >
            {short_name(e.name)}
          </li>
        ))}
      </ol>
      <div class="legend muted">
        <span class="ltssm l0">L0</span> trained <span class="ltssm recovery">Rcv</span> recovery
        <span class="ltssm training">Det</span> detect, polling, configuration <span class="ltssm down">Dis</span> disabled, hot
        reset, loopback <span class="ltssm power">L1</span> low power
      </div>
    </div>
  );
}

function GroupCard({ group, changed }: { group: RegisterGroup; changed: Set<number> }) {
  const errors = /Err/.test(group.key);
  return (
    <div class="panel register" data-testid={`group-${group.key}`} data-changed={changed.size}>
      <div class={`register-head${group.value === null ? ' error' : ''}`} title={group.label}>
        {group.label || group.name}
        {changed.size > 0 && <span class="mark changed">{changed.size} changed</span>}
      </div>
      {group.rows.length === 0 ? (
        <p class="muted">{group.value === null ? 'Not available on this port.' : 'No fields.'}</p>
      ) : (
        <table class="grid fields">
          <tbody>
            {group.rows.map((row, i) => (
              <tr key={row.field} class={`${changed.has(i) ? 'changed' : ''}${errors && row.value ? ' flagged' : ''}`}>
                <td class="field" title={row.field}>
                  {row.field}
                </td>
                <td class="bits muted">{row.bits}</td>
                <td class="num">{field_value(row)}</td>
                <td class="meaning" title={row.text}>
                  {row.text}
                </td>
              </tr>
            ))}
          </tbody>
        </table>
      )}
    </div>
  );
}

const ACTIONS: { action: PortAction; on: string; off: string; warn: (on: boolean) => string }[] = [
  {
    action: 'advErrorEnabled',
    on: 'Enable error reporting',
    off: 'Disable error reporting',
    warn: (on) =>
      on
        ? 'Correctable, non-fatal, fatal and unsupported-request errors of this port will be reported to the root.'
        : 'Errors of this port will no longer be reported; they stay in the status registers.',
  },
  {
    action: 'linkDisable',
    on: 'Disable link',
    off: 'Enable link',
    warn: (on) =>
      on
        ? 'The link goes down: every device below this port disappears until the link is enabled again.'
        : 'The link trains again and the devices below come back.',
  },
  {
    action: 'secBusReset',
    on: 'Assert bus reset',
    off: 'Release bus reset',
    warn: (on) =>
      on
        ? 'Every device below this port is reset and unreachable while the reset is held.'
        : 'The reset is released; the devices below come back after their reset time.',
  },
];

function Counts({ counts }: { counts: RunCounts | null }) {
  const c = counts;
  return (
    <CountList
      testId="loop-counts"
      counts={[
        { label: 'Loops', value: c?.loopCount ?? 0, testId: 'count-loops' },
        { label: 'Success', value: c?.successCount ?? 0, tone: 'success', testId: 'count-success' },
        { label: 'Failure', value: c?.failureCount ?? 0, tone: 'error', testId: 'count-failure' },
        ...FAILURE_CAUSES.map(({ key, label }) => ({ label, value: c ? Number(c[key]) : 0, tone: 'error' as const, minor: true })),
      ]}
    />
  );
}

function initial_choices(doc: PortStatusDoc): LoopChoices {
  return {
    mode: doc.modeIndex >= 0 && doc.modeIndex < Math.max(1, doc.modes.length) ? doc.modeIndex : 0,
    speed: doc.speed.selectedIndex >= 0 ? doc.speed.selectedIndex : doc.speed.values.length - 1,
    interval: Math.max(0, doc.interval.selectedIndex),
    maxWait: doc.maxWait ? Math.max(0, doc.maxWait.selectedIndex) : null,
    loopCount: doc.loopCount,
    stopOnError: doc.stopOnError,
    stopOnAERError: doc.stopOnAERError,
  };
}

export function PortStatusView({ hub, visible }: Props) {
  const [doc, setDoc] = useState<PortStatusDoc | null>(null);
  const [error, setError] = useState<string | null>(null);
  const [note, setNote] = useState<string | null>(null);
  const [registers, setRegisters] = useState<Registers>({ groups: [], changed: new Map(), at: '' });
  const [history, setHistory] = useState<History>(NO_HISTORY);
  const [choices, setChoices] = useState<LoopChoices | null>(null);
  const [counts, setCounts] = useState<RunCounts | null>(null);
  const [log, setLog] = useState('');
  const [running, setRunning] = useState(false);
  const [autoRefresh, setAutoRefresh] = useState(false);
  const [confirm, setConfirm] = useState<{ action: PortAction; checked: boolean } | null>(null);
  const loaded = useRef(false);
  const shownPort = useRef(-1);
  const logView = useRef<HTMLPreElement>(null);

  const take_doc = (d: PortStatusDoc, portChanged: boolean) => {
    shownPort.current = d.selectedIndex;
    setDoc(d);
    setRegisters((old) => next_registers(portChanged ? { groups: [], changed: new Map(), at: '' } : old, d.registers));
    // Once the pushes run they keep the history; a document read in between may be older than the last push.
    setHistory((old) => (portChanged || old.states.length === 0 ? next_history(NO_HISTORY, d.ltssm) : old));
    setRunning(d.running);
    if (d.counts) setCounts(d.counts);
    setChoices((old) => (old && !portChanged ? old : initial_choices(d)));
  };

  const choose_port = async (index: number, first = false) => {
    setError(null);
    setNote(null);
    try {
      const d = await select_status_port(index);
      take_doc(d, true);
      if (!first && d.selectedIndex !== index) setError('The port was not changed: a stress loop is running.');
    } catch (e) {
      setError((e as Error).message);
    }
  };

  // The first look loads the ports and selects one, which also starts the LTSSM pushes.
  useEffect(() => {
    if (!visible || loaded.current) return;
    loaded.current = true;
    get_port_status()
      .then((d) => {
        if (d.ports.length > 0) void choose_port(Math.max(0, d.selectedIndex), true);
        else take_doc(d, true);
      })
      .catch((e: Error) => setError(e.message));
  }, [visible]);

  useEffect(
    () =>
      subscribe_batched(
        hub,
        (push) => push.kind === 'ltssm' || push.kind === 'port-run' || push.kind === 'port-doc',
        (pushes) => {
          // Loop ticks between two documents are taken together: their log lines, their last registers and counts.
          let logs = '';
          let registers: RegisterGroup[] = [];
          let tick: RunCounts | null = null;
          const take_ticks = () => {
            const groups = registers;
            setRegisters((old) => next_registers(old, groups));
            if (tick) {
              setCounts(tick);
              // The run's last tick says it ended, should the closing document be late.
              setRunning(tick.running);
            }
            const more = logs;
            setLog((old) => append_log(old, more));
            [logs, registers, tick] = ['', [], null];
          };
          for (const push of pushes) {
            if (push.kind === 'ltssm') setHistory((old) => next_history(old, push.states));
            else if (push.kind === 'port-run') {
              logs += push.logs;
              if (push.registers.length > 0) registers = push.registers;
              tick = push.counts ?? tick;
            } else if (push.kind === 'port-doc') {
              take_ticks();
              if (push.clearLogs) setLog('');
              // A push for another port (another page chose it) starts the comparisons afresh.
              take_doc(push.doc, shownPort.current !== push.doc.selectedIndex);
            }
          }
          take_ticks();
        },
      ),
    [hub],
  );

  // A question left open behind another screen would still hold the page.
  useEffect(() => {
    if (!visible) setConfirm(null);
  }, [visible]);

  useEffect(() => {
    if (logView.current) logView.current.scrollTop = logView.current.scrollHeight;
  }, [log]);

  // Between runs the registers are read on request, or each second with auto refresh; a run pushes them.
  const refresh = () =>
    get_port_registers()
      .then((groups) => setRegisters((old) => next_registers(old, groups)))
      .catch((e: Error) => setError(e.message));
  useEffect(() => {
    if (!autoRefresh || !visible || running) return;
    const timer = setInterval(() => void refresh(), 1000);
    return () => clearInterval(timer);
  }, [autoRefresh, visible, running]);

  const act = async (action: PortAction, checked: boolean) => {
    setError(null);
    try {
      await set_port_action(action, checked);
      const d = await get_port_status();
      take_doc(d, false);
      setNote(d.message || null);
    } catch (e) {
      setError((e as Error).message);
    }
  };

  const start = async () => {
    if (!doc || !choices) return;
    setError(null);
    setNote(null);
    setRunning(true);
    try {
      // The run goes on in the service; its pushes show it and say when it ends.
      await start_port_loop(loop_request(doc.loop, choices));
    } catch (e) {
      setError(`The stress loop: ${(e as Error).message}`);
      setRunning(false);
    }
  };

  const stop = () => stop_port_loop().catch((e: Error) => setError(e.message));

  const set = <K extends keyof LoopChoices>(key: K, value: LoopChoices[K]) => setChoices((old) => (old ? { ...old, [key]: value } : old));
  const selected = doc !== null && doc.selectedIndex >= 0;
  const controlsOff = !selected || running;
  const retrain = choices !== null && doc?.modes[choices.mode]?.label === 'Retrain';

  return (
    <div class="screen">
      <div class="toolbar">
        <h1>Port status</h1>
        <select
          class="port-select"
          data-testid="status-port"
          aria-label="Port"
          disabled={!doc || running || !doc.selectionEnabled}
          value={doc?.selectedIndex ?? -1}
          onChange={(e) => void choose_port(Number((e.target as HTMLSelectElement).value))}
        >
          {doc?.selectedIndex === -1 && <option value={-1}>Choose a port</option>}
          {doc?.ports.map((p, i) => (
            <option key={p} value={i}>
              {p}
            </option>
          ))}
        </select>
        <button type="button" disabled={!selected} onClick={() => void refresh()}>
          Read registers
        </button>
        <label class="check">
          <input type="checkbox" checked={autoRefresh} onChange={(e) => setAutoRefresh((e.target as HTMLInputElement).checked)} />
          Auto refresh
        </label>
        <RemoteCheck
          label="Log port status"
          title="Append each read to the service's port status log file"
          checked={doc?.logPortStatus.checked ?? false}
          disabled={!selected}
          onSet={(checked) => set_log_port_status(checked).then(() => setDoc((d) => (d ? { ...d, logPortStatus: { ...d.logPortStatus, checked } } : d)))}
          onError={setError}
        />
        <span class="muted">{registers.at && `read ${registers.at}`}</span>
      </div>
      <div class="message-line" data-testid="status-message" role={error ? 'alert' : 'status'}>
        {error ? <span class="error">{error}</span> : note && <span>{note}</span>}
      </div>
      {!doc && !error && <p class="muted">Loading the ports…</p>}
      {doc && doc.ports.length === 0 && <p class="muted">The service lists no port.</p>}
      {selected && (
        <>
          <Timeline history={history} />
          <div class="port-layout">
            <div class="registers" data-testid="registers">
              {registers.groups.map((g) => (
                <GroupCard key={g.key} group={g} changed={registers.changed.get(g.key) ?? new Set()} />
              ))}
            </div>
            <div class="side">
              <div class="panel">
                <h2>Port</h2>
                {ACTIONS.map(({ action, on, off }) => {
                  const state = doc[action];
                  return (
                    <div class="switch-line" key={action}>
                      <span>
                        {state.label}: <b data-testid={`state-${action}`}>{state.checked ? 'on' : 'off'}</b>
                      </span>
                      <button
                        type="button"
                        class="small"
                        data-testid={`action-${action}`}
                        disabled={controlsOff || !state.enabled}
                        onClick={() => setConfirm({ action, checked: !state.checked })}
                      >
                        {state.checked ? off : on}…
                      </button>
                    </div>
                  );
                })}
                <div class="switch-line">
                  <span>Error status registers</span>
                  <button
                    type="button"
                    class="small"
                    disabled={controlsOff}
                    onClick={() =>
                      clear_aer_registers()
                        .then(() => get_port_registers())
                        .then((groups) => setRegisters((old) => next_registers(old, groups)))
                        .catch((e: Error) => setError(e.message))
                    }
                  >
                    Clear
                  </button>
                </div>
              </div>
              {choices && (
                <div class="panel loop" data-testid="stress-loop">
                  <h2>Stress loop</h2>
                  <div class="modes" role="radiogroup" aria-label="Loop mode">
                    {doc.modes.map((m, i) => (
                      <label class="check" key={m.label}>
                        <input
                          type="radio"
                          name="loop-mode"
                          value={i}
                          checked={choices.mode === i}
                          disabled={running || !m.enabled}
                          onChange={() => set('mode', i)}
                        />
                        {m.label}
                      </label>
                    ))}
                  </div>
                  <div class="loop-form">
                    <label for="ps-speed">{doc.speed.label || 'Retrain Speed'}</label>
                    <IndexSelect id="ps-speed" values={doc.speed.values} value={choices.speed} disabled={running || !retrain} onChange={(i) => set('speed', i)} />
                    <label for="ps-interval">Interval</label>
                    <IndexSelect id="ps-interval" values={doc.interval.values} value={choices.interval} disabled={running} onChange={(i) => set('interval', i)} />
                    {doc.maxWait && choices.maxWait !== null && (
                      <>
                        <label for="ps-maxwait" title="How long the link may stay away before the loop gives up">
                          Max wait
                        </label>
                        <IndexSelect id="ps-maxwait" values={doc.maxWait.values} value={choices.maxWait} disabled={running} onChange={(i) => set('maxWait', i)} />
                      </>
                    )}
                    <label for="ps-count">Loop count</label>
                    <span>
                      <input
                        id="ps-count"
                        type="number"
                        class="narrow"
                        min={0}
                        disabled={running}
                        value={choices.loopCount}
                        onInput={(e) => set('loopCount', Math.max(0, Math.floor(Number((e.target as HTMLInputElement).value) || 0)))}
                      />{' '}
                      <span class="muted">0: until stopped</span>
                    </span>
                  </div>
                  <label class="check">
                    <input type="checkbox" checked={choices.stopOnError} disabled={running} onChange={(e) => set('stopOnError', (e.target as HTMLInputElement).checked)} />
                    Stop on error
                  </label>{' '}
                  <label class="check">
                    <input type="checkbox" checked={choices.stopOnAERError} disabled={running} onChange={(e) => set('stopOnAERError', (e.target as HTMLInputElement).checked)} />
                    Stop on AER error
                  </label>
                  <div class="actions">
                    <button type="button" class="primary" data-testid="loop-start" disabled={running || !doc.loopEnabled} onClick={() => void start()}>
                      Start
                    </button>{' '}
                    <button type="button" class="danger" data-testid="loop-stop" disabled={!running} onClick={() => void stop()}>
                      Stop
                    </button>{' '}
                    <span class={running ? 'status running' : 'status'} data-testid="loop-state">
                      {running ? 'Running' : 'Idle'}
                    </span>
                  </div>
                  <Counts counts={counts} />
                </div>
              )}
            </div>
          </div>
          <h2>Loop log</h2>
          <pre class="log" ref={logView} data-testid="loop-log">
            {log || 'No loop has run since this page was opened.'}
          </pre>
        </>
      )}
      {confirm && doc && (
        <Confirm
          testId="confirm-port-action"
          title={`${ACTIONS.find((a) => a.action === confirm.action)![confirm.checked ? 'on' : 'off']} on ${doc.ports[doc.selectedIndex] ?? 'this port'}?`}
          keepLabel="Leave it"
          goLabel={ACTIONS.find((a) => a.action === confirm.action)![confirm.checked ? 'on' : 'off']}
          onAnswer={(yes) => {
            const c = confirm;
            setConfirm(null);
            if (yes) void act(c.action, c.checked);
          }}
        >
          <p>{ACTIONS.find((a) => a.action === confirm.action)!.warn(confirm.checked)}</p>
        </Confirm>
      )}
    </div>
  );
}
