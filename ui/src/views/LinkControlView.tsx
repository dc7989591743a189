// Link control: the ports whose link can be changed, a speed or width applied
// once, and the loop that steps the link up and down between two limits and
// counts the changes that did not take.
import { Fragment } from 'preact';
import { useEffect, useRef, useState } from 'preact/hooks';
import {
  clear_link_errors,
  get_link_port,
  get_link_ports,
  set_link,
  set_link_logging,
  set_port_option,
  start_link_loop,
  stop_link_loop,
} from '../api';
import { LIMIT_KEYS, link_loop_request, with_port, type LimitKey, type LinkPort, type LinkPortInfo, type LoopCounter } from '../link_control';
import { append_log, subscribe_batched, type LinkPushHub } from '../link_push';
import { EmptyRow } from './common';
import { CountList, IndexSelect, RemoteCheck } from './controls';

interface Props {
  hub: LinkPushHub;
  visible: boolean;
}

const COLUMNS = ['Type', 'B/D/F', 'Widths', 'Speed', 'Width', 'Capability', 'Buses', 'LTSSM'];

function chosen_limits(info: LinkPortInfo): Record<LimitKey, string> {
  const chosen = {} as Record<LimitKey, string>;
  for (const key of LIMIT_KEYS) chosen[key] = info.limits[key].selected;
  return chosen;
}

function PortTable({ ports, selected, onSelect }: { ports: LinkPort[]; selected: number | null; onSelect: (key: number) => void }) {
  return (
    <div class="table-wrap">
      <table class="grid" data-testid="link-ports">
        <thead>
          <tr>
            <th>Port</th>
            {COLUMNS.map((c) => (
              <th key={c}>{c}</th>
            ))}
          </tr>
        </thead>
        <tbody>
          {ports.map((p) => (
            <tr
              key={p.key}
              class={`clickable${p.key === selected ? ' selected' : ''}`}
              tabIndex={0}
              data-sbdf={p.sbdf}
              onClick={() => onSelect(p.key)}
              onKeyDown={(e) => {
                if (e.key === 'Enter' || e.key === ' ') {
                  e.preventDefault();
                  onSelect(p.key);
                }
              }}
            >
              <td title={p.name}>{p.sbdf}</td>
              <td>{p.type}</td>
              <td>{p.bdf}</td>
              <td>{p.widths.join(' ')}</td>
              <td data-testid="link-speed">{p.speed}</td>
              <td data-testid="link-width">{p.width}</td>
              <td class="muted">{[p.maxSpeed, p.maxWidth].filter(Boolean).join(' ')}</td>
              <td>{p.buses}</td>
              <td>{p.ltssm}</td>
            </tr>
          ))}
          {ports.length === 0 && <EmptyRow columns={COLUMNS.length + 1} text="No port with a link that can be changed." />}
        </tbody>
      </table>
    </div>
  );
}

function LoopCounts({ counter }: { counter: LoopCounter }) {
  return (
    <CountList
      testId="link-counts"
      counts={[
        { label: 'Loops', value: counter.loopCount, testId: 'link-count-loops' },
        { label: 'Failures', value: counter.failureCount, tone: 'error' },
        { label: 'speed', value: counter.speedFailures, tone: 'error', minor: true },
        { label: 'width', value: counter.widthFailures, tone: 'error', minor: true },
      ]}
    />
  );
}

export function LinkControlView({ hub, visible }: Props) {
  const [ports, setPorts] = useState<LinkPort[] | null>(null);
  const [info, setInfo] = useState<LinkPortInfo | null>(null);
  const [error, setError] = useState<string | null>(null);
  const [note, setNote] = useState<string | null>(null);
  const [speed, setSpeed] = useState(-1);
  const [width, setWidth] = useState(-1);
  const [method, setMethod] = useState(0);
  const [limits, setLimits] = useState<Record<LimitKey, string> | null>(null);
  const [loopCount, setLoopCount] = useState(0);
  const [running, setRunning] = useState(false);
  const [counter, setCounter] = useState<LoopCounter>({ loopCount: 0, failureCount: 0, speedFailures: 0, widthFailures: 0 });
  const [report, setReport] = useState<string[]>([]);
  const [log, setLog] = useState('');
  const [busy, setBusy] = useState(false);
  const loaded = useRef(false);
  const logView = useRef<HTMLPreElement>(null);

  const load_ports = () =>
    get_link_ports()
      .then(setPorts)
      .catch((e: Error) => setError(e.message));

  useEffect(() => {
    if (!visible || loaded.current) return;
    loaded.current = true;
    void load_ports();
  }, [visible]);

  useEffect(
    () =>
      subscribe_batched(
        hub,
        (push) => push.kind === 'link-run',
        (pushes) => {
          for (const push of pushes) {
            if (push.kind !== 'link-run') continue;
            setRunning(push.running);
            setCounter({ loopCount: push.loopCount, failureCount: push.failureCount, speedFailures: push.speedFailures, widthFailures: push.widthFailures });
            if (push.port) setPorts((old) => (old ? with_port(old, push.port) : old));
            if (push.errorReport) setReport(push.errorReport);
            setLog((old) => append_log(old, push.log));
          }
        },
      ),
    [hub],
  );

  // The newest lines stay in view.
  useEffect(() => {
    if (logView.current) logView.current.scrollTop = logView.current.scrollHeight;
  }, [log]);

  const take_info = (i: LinkPortInfo) => {
    setInfo(i);
    setSpeed(i.speeds.selectedIndex);
    setWidth(i.widths.selectedIndex);
    setMethod(i.method);
    setLimits(chosen_limits(i));
    setLoopCount(i.loopCount);
    setRunning(i.running);
    setCounter(i.counter);
    setReport(i.errorReport);
    if (i.port) setPorts((old) => (old ? with_port(old, i.port) : old));
  };

  const select = (key: number) => {
    if (running) {
      setError('Stop the loop before choosing another port.');
      return;
    }
    setError(null);
    setNote(null);
    get_link_port(key)
      .then(take_info)
      .catch((e: Error) => setError(e.message));
  };

  const apply = async (what: 'speed' | 'width') => {
    if (!info) return;
    const index = what === 'speed' ? speed : width;
    const label = (what === 'speed' ? info.speeds : info.widths).options[index]?.label ?? '';
    setError(null);
    setNote(`Setting the ${what} to ${label}…`);
    setBusy(true);
    try {
      const port = await set_link(what, index, info.methods.length > 0 ? method : undefined);
      if (port) setPorts((old) => (old ? with_port(old, port) : old));
      setNote(port ? `The link is now at ${port.speed} ${port.width}.` : `The ${what} was set.`);
      // The other rows may have moved with it (a device below retrained too).
      await load_ports();
    } catch (e) {
      setNote(null);
      setError(`${what === 'speed' ? 'Speed' : 'Width'} ${label}: ${(e as Error).message}`);
    } finally {
      setBusy(false);
    }
  };

  const start = async () => {
    if (!info || !limits) return;
    setError(null);
    setNote(null);
    setLog('');
    try {
      await start_link_loop(link_loop_request(info.control, limits, loopCount));
      setRunning(true);
    } catch (e) {
      setError(`The loop did not start: ${(e as Error).message}`);
    }
  };

  const stop = () => stop_link_loop().catch((e: Error) => setError(e.message));

  const port = info?.port ? (ports?.find((p) => p.key === info.port!.key) ?? info.port) : null;

  return (
    <div class="screen">
      <div class="toolbar">
        <h1>Link control</h1>
        <span class="muted">Root and downstream ports; choose one to change its link.</span>
        <button type="button" disabled={running} onClick={() => void load_ports()}>
          Reload
        </button>
      </div>
      {!ports && !error && <p class="muted">Loading the ports…</p>}
      {ports && <PortTable ports={ports} selected={info?.port?.key ?? null} onSelect={select} />}
      <div class="message-line" data-testid="link-message" role={error ? 'alert' : 'status'}>
        {error ? <span class="error">{error}</span> : note && <span>{note}</span>}
      </div>
      {info && port && limits && (
        <div class="link-layout">
          <div class="panel" data-testid="link-once">
            <h2>{port.name || port.sbdf}</h2>
            <p>
              Now at <b data-testid="link-now">{[port.speed, port.width].filter(Boolean).join(' ') || 'unknown'}</b>
              {port.ltssm && <span class="muted"> · {port.ltssm}</span>}
            </p>
            <div class="loop-form">
              <label for="lc-speed">Speed</label>
              <span>
                <select id="lc-speed" value={speed} disabled={running || busy || !info.speeds.enabled} onChange={(e) => setSpeed(Number((e.target as HTMLSelectElement).value))}>
                  {info.speeds.options.map((o, i) => (
                    <option key={o.label} value={i} disabled={!o.enabled}>
                      {o.label}
                    </option>
                  ))}
                </select>{' '}
                <button type="button" data-testid="apply-speed" disabled={running || busy || speed < 0} onClick={() => void apply('speed')}>
                  Apply speed
                </button>
              </span>
              <label for="lc-width">Width</label>
              <span>
                <select id="lc-width" value={width} disabled={running || busy || !info.widths.enabled} onChange={(e) => setWidth(Number((e.target as HTMLSelectElement).value))}>
                  {info.widths.options.map((o, i) => (
                    <option key={o.label} value={i} disabled={!o.enabled}>
                      {o.label}
                    </option>
                  ))}
                </select>{' '}
                <button type="button" data-testid="apply-width" disabled={running || busy || width < 0} onClick={() => void apply('width')}>
                  Apply width
                </button>
              </span>
              <label for="lc-method">Speed method</label>
              {/* Sent with each speed applied; the service keeps it for the loop too. */}
              <span>
                <IndexSelect id="lc-method" values={info.methods} value={method} disabled={running || busy || info.methods.length < 2} onChange={setMethod} />
              </span>
            </div>
            <RemoteCheck
              label="Log link status"
              checked={info.logLinkStatus}
              onSet={(checked) => set_link_logging('status', checked).then(() => setInfo({ ...info, logLinkStatus: checked }))}
              onError={setError}
            />{' '}
            <RemoteCheck
              label="Log link errors"
              checked={info.logErrors}
              onSet={(checked) => set_link_logging('errors', checked).then(() => setInfo({ ...info, logErrors: checked }))}
              onError={setError}
            />
          </div>
          <div class="panel loop" data-testid="link-loop">
            <h2>Up/down loop</h2>
            <div class="loop-form">
              {LIMIT_KEYS.map((key) => (
                <Fragment key={key}>
                  <label for={`lc-${key}`}>
                    {info.limits[key].label}
                  </label>
                  <select
                    id={`lc-${key}`}
                    disabled={running}
                    value={limits[key]}
                    onChange={(e) => setLimits({ ...limits, [key]: (e.target as HTMLSelectElement).value })}
                  >
                    {info.limits[key].values.map((v) => (
                      <option key={v} value={v}>
                        {v}
                      </option>
                    ))}
                  </select>
                </Fragment>
              ))}
              <label for="lc-count">Loop count</label>
              <span>
                <input
                  id="lc-count"
                  type="number"
                  class="narrow"
                  min={0}
                  disabled={running}
                  value={loopCount}
                  onInput={(e) => setLoopCount(Math.max(0, Math.floor(Number((e.target as HTMLInputElement).value) || 0)))}
                />{' '}
                <span class="muted">0: until stopped</span>
              </span>
            </div>
            {info.portOptions.map((o, i) => (
              <div class="option" key={o.label}>
                <RemoteCheck
                  label={o.label}
                  checked={o.checked}
                  disabled={running || !o.enabled}
                  onSet={(value) =>
                    set_port_option(i, value).then((checked) =>
                      setInfo({ ...info, portOptions: info.portOptions.map((p, j) => (j === i ? { ...p, checked } : p)) }),
                    )
                  }
                  onError={setError}
                />
              </div>
            ))}
            <div class="actions">
              <button type="button" class="primary" data-testid="link-loop-start" disabled={running || busy} onClick={() => void start()}>
                Start
              </button>{' '}
              <button type="button" class="danger" data-testid="link-loop-stop" disabled={!running} onClick={() => void stop()}>
                Stop
              </button>{' '}
              <span class={running ? 'status running' : 'status'}>{running ? 'Running' : 'Idle'}</span>
            </div>
            <LoopCounts counter={counter} />
          </div>
          <div class="panel report">
            <div class="panel-head">
              <h2>Error report</h2>
              <button
                type="button"
                class="small"
                disabled={report.length === 0}
                onClick={() =>
                  clear_link_errors()
                    .then(() => {
                      setReport([]);
                      setCounter((c) => ({ ...c, failureCount: 0 }));
                    })
                    .catch((e: Error) => setError(e.message))
                }
              >
                Clear
              </button>
            </div>
            <ul class="error-report" data-testid="link-errors">
              {report.length === 0 && <li class="muted">No errors reported.</li>}
              {report.map((line, i) => (
                <li key={i}>{line}</li>
              ))}
            </ul>
            {log && (
              <pre class="log" ref={logView}>
                {log}
              </pre>
            )}
          </div>
        </div>
      )}
    </div>
  );
}
