// The offset records of one lane, a table per direction: each offset in
// steps and in UI (ps) or mV, its errors, its dwell where the report keeps
// one per record, and what the walk noted there ("Margin found at boundary").
import { useMemo, useState } from 'preact/hooks';
import { ERROR_MAPS, error_map, lane_number, step_sizes } from '../chart_data';
import { dwell_label, mv_label, timing_label } from '../results';
import type { LaneMargin } from '../types';
import { EmptyRow } from './common';

export function ErrorMaps({ lanes, first, uiPs }: { lanes: LaneMargin[]; first: number; uiPs: number | null }) {
  const [lane, setLane] = useState(first);
  const at_lane = Math.min(lane, lanes.length - 1);
  const chosen = lanes[at_lane];
  const steps = useMemo(() => ({ timing: step_sizes(lanes, true), voltage: step_sizes(lanes, false) }), [lanes]);
  if (!chosen) return null;
  return (
    <div class="error-maps" data-testid="error-maps">
      <label>
        Lane{' '}
        <select value={String(at_lane)} onChange={(e) => setLane(Number((e.target as HTMLSelectElement).value))}>
          {lanes.map((l, i) => (
            <option key={i} value={String(i)}>
              {lane_number(l, i)}
            </option>
          ))}
        </select>
      </label>
      <div class="maps">
        {ERROR_MAPS.map((map) => {
          const entries = error_map(chosen, map.key);
          const dwell = entries.some((e) => e.DwellTime !== null);
          const noted = entries.some((e) => e.OffsetStatus !== null);
          const columns = 3 + (dwell ? 1 : 0) + (noted ? 1 : 0);
          const step = (map.timing ? steps.timing : steps.voltage)[at_lane];
          const at = (offset: number) =>
            step === null ? '–' : map.timing ? timing_label(offset * step, uiPs) : mv_label(offset * step);
          return (
            <table class="grid map" key={map.key} data-map={map.key}>
              <caption>{map.label}</caption>
              <thead>
                <tr>
                  <th class="num">Step</th>
                  <th class="num">{map.timing ? 'Offset (UI, ps)' : 'Offset (mV)'}</th>
                  {dwell && <th class="num">Dwell</th>}
                  <th class="num">Errors</th>
                  {noted && <th>Note</th>}
                </tr>
              </thead>
              <tbody>
                {entries.map((e, i) => (
                  <tr key={i} class={`${e.ErrCnt > 0 ? 'has-errors' : ''}${e.OffsetStatus ? ' noted' : ''}`}>
                    <td class="num">{e.Offset}</td>
                    <td class="num">{at(e.Offset)}</td>
                    {dwell && <td class="num">{dwell_label(e.DwellTime)}</td>}
                    <td class="num">{e.ErrCnt}</td>
                    {noted && <td data-testid="offset-status">{e.OffsetStatus ?? ''}</td>}
                  </tr>
                ))}
                {entries.length === 0 && <EmptyRow columns={columns} text="empty" />}
              </tbody>
            </table>
          );
        })}
      </div>
    </div>
  );
}
