import { useEffect, useMemo, useRef, useState } from 'preact/hooks';
import { get_date_list, get_results } from '../api';
import { ERROR_MAPS, error_map, margin_chart_data } from '../chart_data';
import { export_csv_url, ordered_range } from '../dates';
import { figure, text_of, voltage_figure_mv } from '../format';
import type { LaneMargin, ResultRecord } from '../types';
import { MarginChart } from './MarginChart';
import { EmptyRow } from './common';

interface Props {
  /** Grows whenever a test leaves the queue: a new result may exist. */
  generation: number;
  visible: boolean;
}

function device_of(r: ResultRecord): string {
  if (r.PCIeInfo?.SBDF) return r.PCIeInfo.SBDF;
  if (r.HVLCtrlInfo) return `${text_of(r.HVLCtrlInfo.DeviceName)} ${text_of(r.HVLCtrlInfo.SERDES)}`.trim();
  if (r.SERDES) return `${text_of(r.SERDES.DeviceName)} ${text_of(r.SERDES.SERDES)}`.trim();
  return '';
}

function status_class(status: string): string {
  if (status === 'complete') return 'status complete';
  if (status === 'Failed') return 'status failed';
  return 'status';
}

function ErrorMaps({ lanes, first }: { lanes: LaneMargin[]; first: number }) {
  const [lane, setLane] = useState(first);
  const chosen = lanes[Math.min(lane, lanes.length - 1)];
  if (!chosen) return null;
  return (
    <div class="error-maps" data-testid="error-maps">
      <label>
        Lane{' '}
        <select value={String(lane)} onChange={(e) => setLane(Number((e.target as HTMLSelectElement).value))}>
          {lanes.map((l, i) => (
            <option key={i} value={String(i)}>
              {text_of(l.LanePCIeNo ?? l.LaneSerialID ?? i)}
            </option>
          ))}
        </select>
      </label>
      <div class="maps">
        {ERROR_MAPS.map((map) => {
          const entries = error_map(chosen, map.key);
          return (
            <table class="grid map" key={map.key}>
              <caption>{map.label}</caption>
              <thead>
                <tr>
                  <th class="num">Offset</th>
                  <th class="num">Dwell (ms)</th>
                  <th class="num">Errors</th>
                </tr>
              </thead>
              <tbody>
                {entries.map((e, i) => (
                  <tr key={i} class={e.ErrCnt > 0 ? 'has-errors' : ''}>
                    <td class="num">{e.Offset}</td>
                    <td class="num">{e.DwellTime}</td>
                    <td class="num">{e.ErrCnt}</td>
                  </tr>
                ))}
                {entries.length === 0 && <EmptyRow columns={3} text="empty" />}
              </tbody>
            </table>
          );
        })}
      </div>
    </div>
  );
}

function ResultDetail({ result }: { result: ResultRecord }) {
  const [showMaps, setShowMaps] = useState(false);
  const output = result.TestOutput ?? {};
  const full = Array.isArray(output.FullMarginData) ? (output.FullMarginData as LaneMargin[]) : [];
  const chart = useMemo(() => margin_chart_data(full), [result]);
  const isPcie = result.Operation === 'PCIe Margin';
  return (
    <div class="detail" data-testid="result-detail">
      <h2>
        Test {text_of(result.TestID)} · {text_of(result.Operation)} · {device_of(result)}
      </h2>
      <p class="muted">
        {text_of(output.Time)} {output.ResultsFolder ? `· ${text_of(output.ResultsFolder)}` : ''}
      </p>
      {output.Status === 'Failed' && <p class="error">Failed: {text_of(output.FailureReason) || 'no reason given'}</p>}
      {isPcie && full.length > 0 && (
        <>
          <MarginChart data={chart} />
          <button type="button" onClick={() => setShowMaps(!showMaps)}>
            {showMaps ? 'Hide raw error maps' : 'Show raw error maps'}
          </button>
          {showMaps && <ErrorMaps lanes={full} first={chart.worstTiming ?? 0} />}
        </>
      )}
      {isPcie && full.length === 0 && <p class="muted">This test has no per-lane data.</p>}
      {!isPcie && <p class="muted">Per-lane charts are drawn for PCIe margin tests.</p>}
    </div>
  );
}

export function ResultsView({ generation, visible }: Props) {
  const [dates, setDates] = useState<string[] | null>(null);
  const [datesError, setDatesError] = useState<string | null>(null);
  const [start, setStart] = useState('');
  const [end, setEnd] = useState('');
  const [results, setResults] = useState<ResultRecord[] | null>(null);
  const [resultsError, setResultsError] = useState<string | null>(null);
  const [loading, setLoading] = useState(false);
  const [selected, setSelected] = useState<number | null>(null);
  const range = useRef({ start: '', end: '' });

  const loadResults = (a: string, b: string, list: string[]) => {
    const ordered = ordered_range(list, a, b);
    if (!ordered) {
      setResultsError('Choose a start and an end date from the list.');
      return;
    }
    setLoading(true);
    setResultsError(null);
    get_results(ordered[0], ordered[1])
      .then((r) => {
        setResults(r);
        setSelected(r.length > 0 ? r.length - 1 : null);
      })
      .catch((e: Error) => setResultsError(e.message))
      .finally(() => setLoading(false));
  };

  const loadDates = () => {
    setDatesError(null);
    get_date_list()
      .then((list) => {
        setDates(list);
        // Keep the operator's range while it still exists; start on the newest run.
        const newest = list[list.length - 1] ?? '';
        const a = list.includes(range.current.start) ? range.current.start : newest;
        const b = list.includes(range.current.end) ? range.current.end : newest;
        range.current = { start: a, end: b };
        setStart(a);
        setEnd(b);
        if (a && b) loadResults(a, b, list);
      })
      .catch((e: Error) => setDatesError(e.message));
  };

  useEffect(loadDates, [generation]);

  const ordered = dates ? ordered_range(dates, start, end) : null;
  const choose = (which: 'start' | 'end', value: string) => {
    range.current = { ...range.current, [which]: value };
    if (which === 'start') setStart(value);
    else setEnd(value);
  };

  return (
    <div class="screen">
      <div class="toolbar">
        <h1>Results</h1>
        {(['start', 'end'] as const).map((which) => (
          <label key={which}>
            {which === 'start' ? 'From' : 'to'}{' '}
            <select
              id={`results-${which}`}
              value={which === 'start' ? start : end}
              onChange={(e) => choose(which, (e.target as HTMLSelectElement).value)}
            >
              {(dates ?? []).map((d) => (
                <option key={d}>{d}</option>
              ))}
            </select>
          </label>
        ))}
        <button type="button" disabled={!ordered || loading} onClick={() => dates && loadResults(start, end, dates)}>
          Show
        </button>
        <button type="button" onClick={loadDates}>
          Refresh dates
        </button>
        {ordered ? (
          <a class="button" href={export_csv_url(ordered[0], ordered[1])} download="pcie_margin_report.csv" data-testid="export-csv">
            Export PCIe CSV
          </a>
        ) : (
          <span class="button disabled">Export PCIe CSV</span>
        )}
      </div>
      <div class="status-line">
        {datesError && <span class="error">Date list: {datesError}</span>}
        {resultsError && <span class="error">Results: {resultsError}</span>}
        {!datesError && dates !== null && dates.length === 0 && <span class="muted">No test has finished on this service yet.</span>}
        {loading && <span class="muted">Loading…</span>}
      </div>
      {results && (
        <div class="table-wrap results-wrap">
          <table class="grid results" data-testid="results-table">
            <thead>
              <tr>
                <th class="num">Test</th>
                <th>Operation</th>
                <th>Device</th>
                <th>Status</th>
                <th>Failure reason</th>
                <th class="num">Left (UI)</th>
                <th class="num">Right (UI)</th>
                <th class="num">Top (mV)</th>
                <th class="num">Bottom (mV)</th>
                <th>Time</th>
              </tr>
            </thead>
            <tbody>
              {results.map((r, i) => {
                const o = r.TestOutput ?? {};
                return (
                  <tr key={i} class={i === selected ? 'selected clickable' : 'clickable'} onClick={() => setSelected(i)}>
                    <td class="num">{text_of(r.TestID)}</td>
                    <td>{text_of(r.Operation)}</td>
                    <td>{device_of(r)}</td>
                    <td>
                      <span class={status_class(text_of(o.Status))}>{text_of(o.Status)}</span>
                    </td>
                    <td title={text_of(o.FailureReason)}>{text_of(o.FailureReason)}</td>
                    <td class="num">{figure(o['PhaseLeft (UI)'], 3)}</td>
                    <td class="num">{figure(o['PhaseRight (UI)'], 3)}</td>
                    <td class="num">{voltage_figure_mv(r.Operation, o['VrefTop (mv)'])}</td>
                    <td class="num">{voltage_figure_mv(r.Operation, o['VrefBot (mv)'])}</td>
                    <td>{text_of(o.Time)}</td>
                  </tr>
                );
              })}
              {results.length === 0 && <EmptyRow columns={10} text="No results in this range." />}
            </tbody>
          </table>
        </div>
      )}
      {visible && results && selected !== null && results[selected] && <ResultDetail key={selected} result={results[selected]} />}
    </div>
  );
}
