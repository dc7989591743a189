// Performance counters: 38 rows per PCIe core, grouped by die and core;
// pick a row's port and event, enable rows, start and stop the monitor; the
// table, totals and a rate chart per enabled row follow the monitor's
// pushes, and the samples seen can be saved as CSV.
import { Fragment } from 'preact';
import { useEffect, useRef, useState } from 'preact/hooks';
import * as api from '../panels_api';
import type { CounterOptions, CounterRow, CounterSettings } from '../panels_api';
import { LiveSocket, socket_url } from '../socket';

interface Sample {
  at: string;
  row: CounterRow;
}

/** The samples as CSV, one line per row and push. */
export function samples_csv(samples: Sample[]): string {
  const quote = (s: string) => `"${s.replace(/"/g, '""')}"`;
  const lines = ['Time,Counter,Port,Event,Value,Rate (/s),Max Rate (/s)'];
  for (const { at, row } of samples)
    lines.push([at, row.name, row.port, row.event, row.value, row.rate, row.maxRate].map(quote).join(','));
  return lines.join('\n') + '\n';
}

/** The core a row belongs to: its name up to the slot's words ("PCIE0_nbio1" of "PCIE0_nbio1 TX SCLK"). */
export function core_of(row: CounterRow): string {
  const cut = row.name.indexOf(' ');
  return cut < 0 ? row.name : row.name.slice(0, cut);
}

function Chart({ points }: { points: number[] }) {
  if (points.length < 2) return <span class="chart-empty">…</span>;
  const max = Math.max(...points, 1);
  const step = 160 / (points.length - 1);
  const line = points.map((p, i) => `${(i * step).toFixed(1)},${(38 - (36 * p) / max).toFixed(1)}`).join(' ');
  return (
    <svg class="rate-chart" width="160" height="40" role="img" aria-label="rate over time">
      <polyline points={line} fill="none" stroke="currentColor" stroke-width="1.5" />
    </svg>
  );
}

export function CountersView({ visible }: { visible: boolean }) {
  const [rows, setRows] = useState<CounterRow[] | null>(null);
  const [settings, setSettings] = useState<Record<number, CounterSettings>>({});
  const [running, setRunning] = useState(false);
  const [options, setOptions] = useState<CounterOptions | null>(null);
  // Hundreds of rows: the ones being watched are hard to find without this.
  const [onlyEnabled, setOnlyEnabled] = useState(false);
  const [note, setNote] = useState('');
  const samples = useRef<Sample[]>([]);
  const [history, setHistory] = useState<Record<number, number[]>>({});

  // The options come from the service, and so does the monitor's state when
  // the screen opens (a monitor started before a reload shows as running);
  // later only the pushes move it, as an answer read before a stop ended
  // would put it back to running.
  const load = (opening = false) =>
    Promise.all([api.get_counters().then(setRows), api.get_counter_options().then((o) => {
      setOptions(o);
      if (opening) setRunning(o.running);
    })]).catch((e: Error) => setNote(e.message));
  useEffect(() => {
    if (!visible) return;
    load(true);
    const live = new LiveSocket(
      socket_url(location),
      (text) => {
        let message: { key?: string; perfInfo?: CounterRow[] };
        try {
          message = JSON.parse(text);
        } catch {
          return;
        }
        if (message.key === 'counterStarted') setRunning(true);
        if (message.key === 'counterStopped') setRunning(false);
        if ((message.key === 'perfInfo' || message.key === 'enableCounterClicked') && Array.isArray(message.perfInfo)) {
          const table = message.perfInfo;
          setRows(table);
          if (message.key !== 'perfInfo') return;
          const at = new Date().toISOString();
          for (const row of table) if (row.enabled) samples.current.push({ at, row });
          setHistory((old) => {
            const next = { ...old };
            for (const row of table)
              if (row.enabled && row.rate !== 'N/A') next[row.key] = [...(old[row.key] ?? []), Number(row.rate)].slice(-60);
            return next;
          });
        }
      },
      () => {},
    );
    live.open();
    return () => live.close();
  }, [visible]);

  const choose = async (row: CounterRow) => {
    const s = await api.select_counter(row.key);
    setSettings((old) => ({ ...old, [row.key]: s }));
    return s;
  };
  const act = (what: Promise<unknown>) => what.then(() => load()).catch((e: Error) => setNote(e.message));

  const download = () => {
    const blob = new Blob([samples_csv(samples.current)], { type: 'text/csv' });
    const a = document.createElement('a');
    a.href = URL.createObjectURL(blob);
    a.download = 'counter_samples.csv';
    a.click();
    URL.revokeObjectURL(a.href);
  };

  return (
    <div class="counters">
      <h2>Performance counters</h2>
      <div class="actions">
        <button data-testid="monitor-start" disabled={running} onClick={() => act(api.start_monitor().then(() => setRunning(true)))}>Start monitor</button>
        <button data-testid="monitor-stop" disabled={!running} onClick={() => act(api.stop_monitor())}>Stop</button>
        <label><input type="checkbox" data-testid="log-count-txt" checked={options?.logToCountTxt ?? false}
          onChange={(e) => act(api.set_counter_logging((e.target as HTMLInputElement).checked))} /> Log to count.txt</label>
        <label title="The log skips counters that did not change"><input type="checkbox" checked={options?.changesOnly ?? false}
          onChange={(e) => act(api.set_counter_changes_only((e.target as HTMLInputElement).checked))} /> Changes only</label>
        <label><input type="checkbox" checked={options ? !options.decimalDisplay : false}
          onChange={(e) => act(api.set_counter_decimal(!(e.target as HTMLInputElement).checked))} /> Hexadecimal</label>
        <label><input type="checkbox" data-testid="only-enabled" checked={onlyEnabled}
          onChange={(e) => setOnlyEnabled((e.target as HTMLInputElement).checked)} /> Enabled rows only
          ({(rows ?? []).filter((r) => r.enabled).length})</label>
        <button data-testid="samples-csv" onClick={download}>Samples as CSV</button>
        <span data-testid="monitor-state">{running ? 'Monitoring' : 'Stopped'}</span>
      </div>
      {note && <p class="note">{note}</p>}
      <table data-testid="counter-table">
        <thead><tr><th>On</th><th>Counter</th><th>Port</th><th>Event</th><th>Total</th><th>Rate (/s)</th><th>Max rate (/s)</th><th>Rate chart</th></tr></thead>
        <tbody>
          {(rows ?? []).filter((row) => !onlyEnabled || row.enabled).map((row, i, shown) => {
            const s = settings[row.key];
            // Load a row's choices when its select is first reached.
            const load_choices = () => {
              if (!s) choose(row).catch((e: Error) => setNote(e.message));
            };
            const core = core_of(row);
            const head = i === 0 || shown[i - 1].space !== row.space || core_of(shown[i - 1]) !== core;
            return (
              <Fragment key={row.key}>
                {head && (
                  <tr class="space-head">
                    <th colSpan={8}>{row.space} · {core}</th>
                  </tr>
                )}
                <tr data-counter={row.key}>
                  <td>
                    <input type="checkbox" aria-label={`enable ${row.name} ${row.port}`} checked={row.enabled}
                      onChange={(e) => {
                        // Read before any await: a re-render puts the box back until the service agrees.
                        const on = (e.target as HTMLInputElement).checked;
                        act(choose(row).then(() => api.set_counter_enabled(on)));
                      }} />
                  </td>
                  <td title={row.space}>{row.name}</td>
                  <td>
                    {row.port === '' ? '' : (
                      <select aria-label={`port ${row.name}`} value={s ? s.selectedPort : 0} onFocus={load_choices}
                        onMouseDown={load_choices} onChange={(e) => {
                          const port = Number((e.target as HTMLSelectElement).value);
                          act(choose(row).then(() => api.set_counter_port(port)).then(() => choose(row)));
                        }}>
                        {(s ? s.portSelection : [row.port]).map((p, n) => <option key={p} value={n}>{p}</option>)}
                      </select>
                    )}
                  </td>
                  <td>
                    <select aria-label={`event ${row.name}`} value={s ? s.selectedCounter : 0} onFocus={load_choices}
                      onMouseDown={load_choices} onChange={(e) => {
                        const event = Number((e.target as HTMLSelectElement).value);
                        act(choose(row).then(() => api.set_counter_event(event)).then(() => choose(row)));
                      }}>
                      {(s ? s.counterSelection : [row.event]).map((c, n) => <option key={c} value={n}>{c}</option>)}
                    </select>
                  </td>
                  <td data-testid="total">{row.value}</td>
                  <td data-testid="rate">{row.rate}</td>
                  <td>{row.maxRate}</td>
                  <td>{row.enabled && <Chart points={history[row.key] ?? []} />}</td>
                </tr>
              </Fragment>
            );
          })}
        </tbody>
      </table>
    </div>
  );
}
