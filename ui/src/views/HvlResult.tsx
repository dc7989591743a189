// One hVL margin result: per-lane margins in steps and in UI (ps) or mV, the
// lanes that failed and why, each lane's equalisation, and the offset
// records of every direction. A test that ended early still shows the lanes
// it finished.
import { useMemo } from 'preact/hooks';
import { margin_chart_data } from '../chart_data';
import { ber_label, lanes_label, rate_label, text_of } from '../format';
import { equalisation, hvl_lane_rows, measured_lanes, RX_EQ, TX_EQ } from '../hvl';
import { lanes_of } from '../push';
import type { LaneMargin, ResultDocument } from '../types';
import { MarginChart } from './MarginChart';

function LaneMargins({ rows }: { rows: ReturnType<typeof hvl_lane_rows> }) {
  const sides = ['left', 'right', 'top', 'bottom'] as const;
  return (
    <div class="table-wrap">
      <table class="grid lanes-table hvl-lanes" data-testid="hvl-lanes">
        <thead>
          <tr>
            <th />
            <th colSpan={2}>Left</th>
            <th colSpan={2}>Right</th>
            <th>Eye width</th>
            <th colSpan={2}>Top</th>
            <th colSpan={2}>Bottom</th>
            <th>Eye height</th>
            <th />
          </tr>
          <tr>
            <th class="num">Lane</th>
            <th class="num">steps</th>
            <th class="num">UI (ps)</th>
            <th class="num">steps</th>
            <th class="num">UI (ps)</th>
            <th class="num">UI (ps)</th>
            <th class="num">steps</th>
            <th class="num">mV</th>
            <th class="num">steps</th>
            <th class="num">mV</th>
            <th class="num">mV</th>
            <th>Lane status</th>
          </tr>
        </thead>
        <tbody>
          {rows.map((r) => (
            <tr key={r.lane} data-lane={r.lane} class={r.error ? 'failed-lane' : ''}>
              <td class="num">{r.lane}</td>
              {sides.slice(0, 2).flatMap((side) => [
                <td class="num" key={`${side}s`}>{r[side][0]}</td>,
                <td class="num" key={side}>{r[side][1]}</td>,
              ])}
              <td class="num">{r.eyeWidth}</td>
              {sides.slice(2).flatMap((side) => [
                <td class="num" key={`${side}s`}>{r[side][0]}</td>,
                <td class="num" key={side}>{r[side][1]}</td>,
              ])}
              <td class="num">{r.eyeHeight}</td>
              <td title={r.error ?? ''}>{r.error ? <span class="error">{r.error}</span> : <span class="muted">margined</span>}</td>
            </tr>
          ))}
        </tbody>
      </table>
    </div>
  );
}

function Equalisation({ lanes }: { lanes: ReturnType<typeof equalisation>[] }) {
  return (
    <div class="table-wrap">
      <table class="grid lanes-table" data-testid="hvl-equalisation">
        <thead>
          <tr>
            <th />
            <th colSpan={TX_EQ.length}>Partner transmitter</th>
            <th colSpan={RX_EQ.length}>Receiver adaptation</th>
          </tr>
          <tr>
            <th class="num">Lane</th>
            {[...TX_EQ, ...RX_EQ].map((key) => (
              <th class="num" key={key}>
                {key}
              </th>
            ))}
          </tr>
        </thead>
        <tbody>
          {lanes.map((eq) => (
            <tr key={eq.lane}>
              <td class="num">{eq.lane}</td>
              {[...eq.tx, ...eq.rx].map((v, i) => (
                <td class="num" key={i}>
                  {v}
                </td>
              ))}
            </tr>
          ))}
        </tbody>
      </table>
    </div>
  );
}

/** The figures of an hVL result; the caller shows the status line and the offset records. */
export function HvlResult({ doc, full, uiPs }: { doc: ResultDocument; full: LaneMargin[]; uiPs: number | null }) {
  const chart = useMemo(() => margin_chart_data(measured_lanes(full), uiPs), [full, uiPs]);
  const rows = useMemo(() => hvl_lane_rows(full, uiPs), [full, uiPs]);
  const status = text_of(doc.TestOutput?.Status);
  const params = doc.TestParams ?? {};
  const info = doc.HVLCtrlInfo ?? {};
  const asked = lanes_of(Array.isArray(params.Lanes) ? params.Lanes : [params.Lanes]);
  return (
    <div data-testid="hvl-result">
      <p class="muted limits">
        {rate_label(info.Speed)} {text_of(info.Width).trim()} · lanes {lanes_label(asked)} · BER {ber_label(text_of(params.BER))} · error count{' '}
        {text_of(params.ErrCnt)}
        {uiPs !== null ? ` · 1 UI = ${+uiPs.toFixed(3)} ps` : ''}
      </p>
      {full.length === 0 && <p class="muted">This test has no per-lane data.</p>}
      {full.length > 0 && status !== 'complete' && (
        <p class="note">
          The test ended before it finished: lanes {lanes_label(rows.map((r) => r.lane))} were reached; a failed lane shows why below.
        </p>
      )}
      {full.length > 0 && (
        <>
          <MarginChart data={chart} />
          <LaneMargins rows={rows} />
          <h3>Equalisation</h3>
          <Equalisation lanes={full.map(equalisation)} />
        </>
      )}
    </div>
  );
}
