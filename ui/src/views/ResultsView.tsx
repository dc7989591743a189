// The archive, newest first, a page at a time: a finish range and a device
// narrow it, a row opens its result, checked rows of one device compare.
import { useEffect, useRef, useState } from 'preact/hooks';
import { get_results_summary } from '../api';
import { export_csv_url, export_range } from '../dates';
import { archive_sbdf } from '../address';
import { link_label } from '../hvl';
import { input_of_stamp, stamp_of_input, summary_cells } from '../results';
import type { ResultSummary, ResultsPage } from '../types';
import { CompareView } from './CompareView';
import { GradeBadge, ResultDetail } from './ResultDetail';
import { EmptyRow } from './common';

const PAGE = 50;
const COLUMNS = 14;

interface Props {
  /** Grows whenever a test ends or leaves the queue: a new result may exist. */
  generation: number;
  visible: boolean;
  /** A result named by the page's address ("#/results/<ResultId>"), opened when it changes. */
  linked: string | null;
}

interface Filter {
  /** Archive stamps; '' is open. An open end follows new results. */
  from: string;
  to: string;
  sbdf: string;
}

function status_class(status: string): string {
  if (status === 'complete') return 'status complete';
  if (status === 'Failed') return 'status failed';
  if (status === 'Cancelled') return 'status cancelled';
  return 'status';
}

const comparable = (s: ResultSummary) => s.Operation === 'PCIe Margin' && s.Status === 'complete';

export function ResultsView({ generation, visible, linked }: Props) {
  const [filter, setFilter] = useState<Filter>({ from: '', to: '', sbdf: '' });
  const [draft, setDraft] = useState<Filter>(filter);
  const [offset, setOffset] = useState(0);
  const [page, setPage] = useState<ResultsPage | null>(null);
  // Oldest and newest finish within the shown range.
  const [ends, setEnds] = useState<{ oldest: string | null; newest: string | null }>({ oldest: null, newest: null });
  const [error, setError] = useState<string | null>(null);
  const [loading, setLoading] = useState(false);
  // The opened result; until the operator opens one, the newest is shown.
  const [opened, setOpened] = useState<ResultSummary | null>(null);
  // A linked result may lie outside the shown page: it opens by id alone.
  const [openedId, setOpenedId] = useState<string | null>(null);
  const picked = useRef(false);
  const [checked, setChecked] = useState<Map<string, ResultSummary>>(new Map());
  const [comparing, setComparing] = useState<ResultSummary[] | null>(null);
  // Newest finish in the whole archive, as of the last load.
  const newest = useRef<string | null>(null);
  const request = useRef(0);

  const load = (f: Filter, at: number) => {
    const mine = ++request.current;
    setLoading(true);
    setError(null);
    const query = { sbdf: archive_sbdf(f.sbdf), from: f.from, to: f.to };
    const filtered = Boolean(query.sbdf || query.from || query.to);
    const one = (q: object, offset: number) =>
      get_results_summary({ ...q, offset, limit: 1 }).then((p) => p.Results[0]?.Stamp ?? null);
    get_results_summary({ ...query, offset: at, limit: PAGE })
      .then(async (p) => {
        const onLast = p.Offset + p.Results.length >= p.Total;
        // The ends of the range for the export, and the archive's newest for following it.
        const [first, last, archiveNewest] = await Promise.all([
          p.Total === 0 ? null : onLast ? (p.Results[p.Results.length - 1]?.Stamp ?? null) : one(query, p.Total - 1),
          at === 0 ? (p.Results[0]?.Stamp ?? null) : one(query, 0),
          filtered ? one({}, 0) : at === 0 ? (p.Results[0]?.Stamp ?? null) : one({}, 0),
        ]);
        if (mine !== request.current) return;
        setPage(p);
        setEnds({ oldest: first, newest: last });
        newest.current = archiveNewest;
        if (!picked.current) setOpened(p.Results[0] ?? null);
      })
      .catch((e: Error) => mine === request.current && setError(e.message))
      .finally(() => mine === request.current && setLoading(false));
  };

  // New results: a range that reached the archive's newest result keeps following it.
  useEffect(() => {
    let f = filter;
    if (generation > 0 && f.to && newest.current && f.to >= newest.current) {
      f = { ...f, to: '' };
      setFilter(f);
      setDraft((d) => ({ ...d, to: '' }));
    }
    load(f, offset);
  }, [generation]);

  const apply = (e: Event) => {
    e.preventDefault();
    setFilter(draft);
    setOffset(0);
    load(draft, 0);
  };
  const go = (at: number) => {
    setOffset(at);
    load(filter, at);
  };
  const open = (s: ResultSummary) => {
    picked.current = true;
    setOpenedId(null);
    setOpened(s);
  };
  useEffect(() => {
    if (!linked) return;
    picked.current = true;
    setComparing(null);
    const onPage = page?.Results.find((r) => r.ResultId === linked) ?? null;
    setOpened(onPage);
    setOpenedId(onPage ? null : linked);
  }, [linked]);
  const toggle = (s: ResultSummary) => {
    setChecked((old) => {
      const next = new Map(old);
      if (next.has(s.ResultId)) next.delete(s.ResultId);
      else next.set(s.ResultId, s);
      return next;
    });
  };
  const onRowKey = (e: KeyboardEvent, s: ResultSummary) => {
    const row = e.currentTarget as HTMLTableRowElement;
    if (e.key === 'Enter') open(s);
    else if (e.key === 'ArrowDown') (row.nextElementSibling as HTMLElement | null)?.focus();
    else if (e.key === 'ArrowUp') (row.previousElementSibling as HTMLElement | null)?.focus();
    else return;
    e.preventDefault();
  };

  const chosen = [...checked.values()];
  const devices = new Set(chosen.map((s) => s.SBDF));
  const compareProblem =
    chosen.length < 2 ? 'Check two or more complete PCIe margins to compare them.' : devices.size > 1 ? 'Compared results must be of one device.' : null;
  const range = export_range(filter.from, filter.to, ends.oldest, ends.newest);
  const results = page?.Results ?? [];
  const total = page?.Total ?? 0;

  return (
    <div class="screen">
      <form class="toolbar" onSubmit={apply}>
        <h1>Results</h1>
        <label>
          From{' '}
          <input
            type="datetime-local"
            step={1}
            id="results-from"
            value={input_of_stamp(draft.from)}
            onInput={(e) => setDraft({ ...draft, from: stamp_of_input((e.target as HTMLInputElement).value) })}
          />
        </label>
        <label title="Empty: up to the newest result, following new ones">
          to{' '}
          <input
            type="datetime-local"
            step={1}
            id="results-to"
            value={input_of_stamp(draft.to)}
            onInput={(e) => setDraft({ ...draft, to: stamp_of_input((e.target as HTMLInputElement).value) })}
          />
        </label>
        <label>
          Device{' '}
          <input
            type="search"
            id="results-sbdf"
            class="narrow-search"
            placeholder="all"
            value={draft.sbdf}
            onInput={(e) => setDraft({ ...draft, sbdf: (e.target as HTMLInputElement).value })}
          />
        </label>
        <button type="submit" disabled={loading}>
          Show
        </button>
        {range ? (
          <a class="button" href={export_csv_url(range[0], range[1])} download="pcie_margin_report.csv" data-testid="export-csv" title={`Finished ${range[0]} to ${range[1]}`}>
            Export PCIe CSV
          </a>
        ) : (
          <span class="button disabled">Export PCIe CSV</span>
        )}
        <button type="button" disabled={compareProblem !== null} title={compareProblem ?? ''} onClick={() => setComparing(chosen)} data-testid="compare">
          Compare ({chosen.length})
        </button>
      </form>
      <div class="status-line">
        {error && <span class="error">Results: {error}</span>}
        {!error && page && total === 0 && <span class="muted">No result in this range.</span>}
        {page && total > 0 && (
          <span class="muted" data-testid="results-count">
            {offset + 1}–{offset + results.length} of {total}, newest first
          </span>
        )}
        {page && total > PAGE && (
          <>
            <button type="button" class="small" disabled={offset === 0} onClick={() => go(Math.max(0, offset - PAGE))}>
              Newer
            </button>
            <button type="button" class="small" disabled={offset + PAGE >= total} onClick={() => go(offset + PAGE)}>
              Older
            </button>
          </>
        )}
        {loading && <span class="muted">Loading…</span>}
      </div>
      {page && (
        <div class="table-wrap results-wrap">
          <table class="grid results" data-testid="results-table">
            <thead>
              <tr>
                <th class="num">Test</th>
                <th>Finished</th>
                <th>Device</th>
                <th>Status</th>
                <th class="num">Receiver</th>
                <th>Lanes</th>
                <th>BER</th>
                <th>Speed / width</th>
                <th class="num">Left</th>
                <th class="num">Right</th>
                <th class="num">Top</th>
                <th class="num">Bottom</th>
                <th>Grade</th>
                <th>Compare</th>
              </tr>
            </thead>
            <tbody>
              {results.map((s) => {
                const c = summary_cells(s);
                const selected = opened?.ResultId === s.ResultId;
                return (
                  <tr
                    key={s.ResultId}
                    tabIndex={0}
                    data-result={s.ResultId}
                    class={selected ? 'selected clickable' : 'clickable'}
                    aria-selected={selected}
                    onClick={() => open(s)}
                    onKeyDown={(e) => onRowKey(e, s)}
                  >
                    <td class="num">{s.TestID ?? ''}</td>
                    <td>{c.date}</td>
                    <td title={s.Operation}>{s.SBDF || (s.Link ? link_label(s.Link) : s.Operation)}</td>
                    <td title={s.FailureReason ?? ''}>
                      <span class={status_class(s.Status)}>{s.Status}</span>
                      {s.FailureReason && <span class="reason"> {s.FailureReason}</span>}
                    </td>
                    <td class="num">{c.receiver}</td>
                    <td title={c.lanes}>{c.lanes}</td>
                    <td>{c.ber}</td>
                    <td>{c.link}</td>
                    <td class="num">{c.left}</td>
                    <td class="num">{c.right}</td>
                    <td class="num">{c.top}</td>
                    <td class="num">{c.bottom}</td>
                    <td data-testid="grade">
                      <GradeBadge grade={s.Grade} />
                    </td>
                    <td onClick={(e) => e.stopPropagation()}>
                      <input
                        type="checkbox"
                        aria-label={`Compare test ${s.TestID ?? ''}`}
                        disabled={!comparable(s)}
                        checked={checked.has(s.ResultId)}
                        onChange={() => toggle(s)}
                        onKeyDown={(e) => e.stopPropagation()}
                      />
                    </td>
                  </tr>
                );
              })}
              {results.length === 0 && <EmptyRow columns={COLUMNS} text="No results in this range." />}
            </tbody>
          </table>
        </div>
      )}
      {visible && comparing && <CompareView chosen={comparing} onClose={() => setComparing(null)} />}
      {visible && !comparing && opened && <ResultDetail key={opened.ResultId} id={opened.ResultId} summary={opened} />}
      {visible && !comparing && !opened && openedId && <ResultDetail key={openedId} id={openedId} summary={null} />}
    </div>
  );
}
