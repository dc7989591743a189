// Several results of one device side by side: grouped bars per lane on
// scales shared by every run, and a table whose highlighted cells differ
// from the first (oldest) run by a margin step or more, or in grade.
import { useEffect, useMemo, useState } from 'preact/hooks';
import { get_result } from '../api';
import { compare_results, grouped, type CompareInput } from '../compare';
import { figure } from '../format';
import { stamp_label } from '../results';
import type { ResultSummary } from '../types';
import { LaneBars, threshold_lines } from './MarginChart';

// Colour-blind-safe run colours (Okabe–Ito).
const RUN_COLORS = ['#0072b2', '#e69f00', '#009e73', '#cc79a7', '#56b4e9', '#d55e00', '#000000', '#f0e442'];

export function CompareView({ chosen, onClose }: { chosen: ResultSummary[]; onClose: () => void }) {
  const [inputs, setInputs] = useState<CompareInput[] | null>(null);
  const [error, setError] = useState<string | null>(null);
  const key = chosen.map((s) => s.ResultId).join('|');

  useEffect(() => {
    let current = true;
    setInputs(null);
    setError(null);
    const ordered = [...chosen].sort((a, b) => a.Stamp.localeCompare(b.Stamp));
    Promise.all(ordered.map((s) => get_result(s.ResultId)))
      .then((docs) => current && setInputs(docs.map((doc, i) => ({ label: `test ${ordered[i].TestID ?? '?'} · ${stamp_label(ordered[i].Stamp)}`, doc }))))
      .catch((e: Error) => current && setError(e.message));
    return () => {
      current = false;
    };
  }, [key]);

  const cmp = useMemo(() => (inputs ? compare_results(inputs) : null), [inputs]);
  const thresholds = inputs?.[0]?.doc.Grades?.Thresholds;

  const header = (
    <div class="toolbar">
      <h2>
        Comparison of {chosen.length} results of {chosen[0]?.SBDF}
      </h2>
      <button type="button" onClick={onClose}>
        Close comparison
      </button>
    </div>
  );
  if (error) return <div class="detail">{header}<p class="error">{error}</p></div>;
  if (!cmp) return <div class="detail">{header}<p class="muted">Loading the results…</p></div>;

  const eyes = [
    { title: 'Eye width', unit: 'ps', values: cmp.runs.map((r) => r.eyeWidthPs), max: cmp.widthMaxPs, timing: true, testid: 'compare-width-chart' },
    { title: 'Eye height', unit: 'mV', values: cmp.runs.map((r) => r.eyeHeightMV), max: cmp.heightMaxMV, timing: false, testid: 'compare-height-chart' },
  ];
  const differing = cmp.lanes
    .map((_, i) => i)
    .filter((i) => cmp.runs.some((r) => r.widthDiffers[i] || r.heightDiffers[i] || r.gradeDiffers[i]));
  const colored = (values: (number | null)[][]) =>
    cmp.runs.map((r, k) => ({ label: r.label, values: values[k], color: RUN_COLORS[k % RUN_COLORS.length] }));

  return (
    <div class="detail" data-testid="comparison">
      {header}
      <p class="muted">
        Lanes shaded red differ from the first run by at least one margin step or in grade ({differing.length} of {cmp.lanes.length}).
      </p>
      <div class="charts">
        {eyes.map((eye) => {
          const bars = grouped(eye.values);
          const lines = threshold_lines(thresholds, eye.timing);
          // Headroom above the tallest bar or threshold line, whichever is higher.
          const top = Math.max(eye.max, ...lines.map((l) => l.value)) * 1.15 || 1;
          return (
            <LaneBars
              key={eye.testid}
              title={eye.title}
              unit={eye.unit}
              lanes={cmp.lanes}
              x={bars.x}
              series={colored(bars.series)}
              range={[0, top]}
              lines={lines}
              shaded={differing}
              decimals={1}
              testid={eye.testid}
            />
          );
        })}
      </div>
      <div class="table-wrap">
        <table class="grid compare" data-testid="compare-table">
          <thead>
            <tr>
              <th class="num" rowSpan={2}>
                Lane
              </th>
              {cmp.runs.map((r, k) => (
                <th colSpan={3} key={k} style={{ borderTop: `3px solid ${RUN_COLORS[k % RUN_COLORS.length]}` }}>
                  {r.label}
                </th>
              ))}
              <th class="num" rowSpan={2}>
                Spread width (ps)
              </th>
              <th class="num" rowSpan={2}>
                Spread height (mV)
              </th>
            </tr>
            <tr>
              {cmp.runs.map((_, k) => [
                <th class="num" key={`w${k}`}>
                  Width (ps)
                </th>,
                <th class="num" key={`h${k}`}>
                  Height (mV)
                </th>,
                <th key={`g${k}`}>Grade</th>,
              ])}
            </tr>
          </thead>
          <tbody>
            {cmp.lanes.map((lane, i) => (
              <tr key={lane} class={differing.includes(i) ? 'differs' : ''}>
                <td class="num">{lane}</td>
                {cmp.runs.map((r, k) => [
                  <td
                    class={`num${r.widthDiffers[i] ? ' diff' : ''}`}
                    key={`w${k}`}
                    title={`left ${figure(r.left[i], 1)} ps, right ${figure(r.right[i], 1)} ps`}
                  >
                    {figure(r.eyeWidthPs[i], 1)}
                  </td>,
                  <td class={`num${r.heightDiffers[i] ? ' diff' : ''}`} key={`h${k}`} title={`top ${figure(r.top[i], 1)} mV, bottom ${figure(r.bottom[i], 1)} mV`}>
                    {figure(r.eyeHeightMV[i], 1)}
                  </td>,
                  <td class={r.gradeDiffers[i] ? 'diff' : ''} key={`g${k}`}>
                    {r.grade[i] ?? '–'}
                  </td>,
                ])}
                <td class="num">{figure(cmp.widthSpreadPs[i], 1)}</td>
                <td class="num">{figure(cmp.heightSpreadMV[i], 1)}</td>
              </tr>
            ))}
          </tbody>
        </table>
      </div>
    </div>
  );
}
