// One archived result, fetched when it is opened: its grade against the
// limits of its speed, per-lane charts and grades, the raw error maps, and
// "Run again", which queues the same record anew. An hVL margin has no
// grades; its lanes show in steps as well (HvlResult). An eye scan shows
// its eyes (EyeResult).
import { useEffect, useMemo, useState } from 'preact/hooks';
import { get_result, queue_record } from '../api';
import { lane_grades, lane_objects, margin_chart_data, type MarginChartData } from '../chart_data';
import { ui_ps_of_doc } from '../compare';
import { figure, text_of } from '../format';
import { grade_detail, grade_name, mv_label, run_again_record, stamp_label, timing_label } from '../results';
import type { Grade, LaneGrade, ResultDocument, ResultSummary, Thresholds } from '../types';
import { MarginChart } from './MarginChart';
import { ErrorMaps } from './ErrorMaps';
import { HvlResult } from './HvlResult';
import { HVL_OPERATION, hvl_ui_ps, link_label, partner_label } from '../hvl';
import { EYE_OPERATION } from '../eye';
import { EyeResult } from './EyeResult';
import { lanes_of } from '../push';

export function GradeBadge({ grade }: { grade: Grade | null | undefined }) {
  const name = grade_name(grade);
  return (
    <span class={`grade ${name ? name.toLowerCase() : 'none'}`} title={grade_detail(grade)}>
      {name ?? '–'}
    </span>
  );
}

function LaneTable({ data, grades }: { data: MarginChartData; grades: (LaneGrade | null)[] }) {
  return (
    <div class="table-wrap">
      <table class="grid lanes-table" data-testid="lane-grades">
        <thead>
          <tr>
            <th class="num">Lane</th>
            <th class="num">Left</th>
            <th class="num">Right</th>
            <th class="num">Eye width</th>
            <th class="num">Top</th>
            <th class="num">Bottom</th>
            <th class="num">Eye height</th>
            <th>Grade</th>
            <th>Note</th>
          </tr>
        </thead>
        <tbody>
          {data.lanes.map((lane, i) => (
            <tr key={lane}>
              <td class="num">{lane}</td>
              <td class="num">{timing_label(data.left[i], data.uiPs)}</td>
              <td class="num">{timing_label(data.right[i], data.uiPs)}</td>
              <td class="num">{data.eyeWidthPs[i] === null ? '–' : `${figure(data.eyeWidthPs[i], 1)} ps`}</td>
              <td class="num">{mv_label(data.top[i])}</td>
              <td class="num">{mv_label(data.bottom[i])}</td>
              <td class="num">{mv_label(data.eyeHeightMV[i])}</td>
              <td>
                <GradeBadge grade={grades[i]} />
              </td>
              <td title={text_of(grades[i]?.Note)}>{text_of(grades[i]?.Note)}</td>
            </tr>
          ))}
        </tbody>
      </table>
    </div>
  );
}

function limits_text(t: Thresholds): string {
  return (
    `Limits: eye width ≥ ${t.EyeWidthMinPs} ps (recommended ${t.EyeWidthRecPs} ps), ` +
    `eye height ≥ ${t.EyeHeightMinMV} mV (recommended ${t.EyeHeightRecMV} mV); 1 UI = ${t.UIps} ps.`
  );
}

function RunAgain({ doc }: { doc: ResultDocument }) {
  const record = useMemo(() => run_again_record(doc), [doc]);
  const [answer, setAnswer] = useState<{ ok: boolean; text: string } | null>(null);
  const [busy, setBusy] = useState(false);
  if (!record) return null;
  const send = () => {
    setBusy(true);
    setAnswer(null);
    queue_record(record)
      .then((a) =>
        setAnswer(
          a.ok
            ? { ok: true, text: a.testId === null ? 'Queued again.' : `Queued again as test ${a.testId}.` }
            : { ok: false, text: `The service refused the test: ${a.reason}` },
        ),
      )
      .catch((e: Error) => setAnswer({ ok: false, text: e.message }))
      .finally(() => setBusy(false));
  };
  return (
    <span class="run-again">
      <button type="button" disabled={busy} onClick={send} data-testid="run-again">
        Run again
      </button>
      <span data-testid="run-again-answer" class={answer ? (answer.ok ? 'success' : 'error') : ''}>
        {answer?.text ?? ''}
      </span>
    </span>
  );
}

export function ResultDetail({ id, summary }: { id: string; summary: ResultSummary | null }) {
  const [doc, setDoc] = useState<ResultDocument | null>(null);
  const [error, setError] = useState<string | null>(null);
  // An hVL result opens with its offset records shown: they carry the walk's notes.
  const [showMaps, setShowMaps] = useState<boolean | null>(null);

  useEffect(() => {
    let current = true;
    get_result(id)
      .then((d) => current && setDoc(d))
      .catch((e: Error) => current && setError(e.message));
    return () => {
      current = false;
    };
  }, [id]);

  const full = useMemo(() => lane_objects(doc?.TestOutput?.FullMarginData), [doc]);
  const isHvl = doc?.Operation === HVL_OPERATION;
  const uiPs = doc ? (isHvl ? hvl_ui_ps(doc, full) : ui_ps_of_doc(doc)) : null;
  const chart = useMemo(() => margin_chart_data(full, uiPs), [full, uiPs]);
  const grades = useMemo(() => lane_grades(chart.lanes, doc?.Grades?.Lanes), [chart, doc]);

  if (error) return <div class="detail error" data-testid="result-detail">Result {id}: {error}</div>;
  if (!doc) return <div class="detail muted" data-testid="result-detail">Loading result {id}…</div>;

  const output = doc.TestOutput ?? {};
  const status = text_of(output.Status);
  // Only a finished measurement has margins; what an ended test wrote stays in the raw maps.
  const measured = status === 'complete';
  const isPcie = doc.Operation === 'PCIe Margin';
  const isEye = doc.Operation === EYE_OPERATION;
  const thresholds = doc.Grades?.Thresholds;
  const partner = partner_label(doc.HVLCtrlInfo);
  const device = doc.HVLCtrlInfo ? `${link_label(doc.HVLCtrlInfo)}${partner ? ` (to ${partner})` : ''}` : (doc.PCIeInfo?.SBDF ?? summary?.SBDF ?? '');
  const mapsShown = showMaps ?? isHvl;
  const failedLane = full.findIndex((l) => l.ErrorPresent === true);
  return (
    <div class="detail" data-testid="result-detail">
      <h2>
        Test {text_of(doc.TestID)} · {text_of(doc.Operation)} · {device} · {stamp_label(output.TimeStamp ?? summary?.Stamp)}
      </h2>
      <div class="detail-line">
        <span class={`status ${status === 'complete' ? 'complete' : 'failed'}`}>{status || 'unknown'}</span>
        {!measured && <span class="error">{text_of(output.FailureReason) || 'no reason given'}</span>}
        {measured && isPcie && (
          <span data-testid="test-grade">
            Grade <GradeBadge grade={doc.Grades?.Test} /> <span class="muted">{grade_detail(doc.Grades?.Test)}</span>
          </span>
        )}
        <RunAgain doc={doc} />
      </div>
      {measured && isPcie && thresholds && <p class="muted limits">{limits_text(thresholds)}</p>}
      {isPcie && measured && full.length > 0 && (
        <>
          <MarginChart data={chart} thresholds={thresholds} />
          <LaneTable data={chart} grades={grades} />
        </>
      )}
      {isPcie && !measured && <p class="muted">This test did not finish measuring, so it has no margins to show.</p>}
      {isPcie && measured && full.length === 0 && <p class="muted">This test has no per-lane data.</p>}
      {isHvl && <HvlResult doc={doc} full={full} uiPs={uiPs} />}
      {isEye && (
        <EyeResult
          id={id}
          asked={lanes_of(doc.TestParams?.Lanes)}
          failure={measured ? null : text_of(output.FailureReason) || 'no reason given'}
        />
      )}
      {(isPcie || isHvl) && full.length > 0 && (
        <p>
          <button type="button" onClick={() => setShowMaps(!mapsShown)}>
            {`${mapsShown ? 'Hide' : 'Show'} ${isHvl ? 'offset records' : 'raw error maps'}`}
          </button>
        </p>
      )}
      {mapsShown && <ErrorMaps lanes={full} first={failedLane >= 0 ? failedLane : (chart.worstTiming ?? 0)} uiPs={uiPs} />}
      {!isPcie && !isHvl && !isEye && summary && (
        <p>
          Top {mv_label(summary.VoltTopMV)}, bottom {mv_label(summary.VoltBotMV)}, left {timing_label(summary.PhaseLeftUI, null)}, right{' '}
          {timing_label(summary.PhaseRightUI, null)}.
        </p>
      )}
    </div>
  );
}
