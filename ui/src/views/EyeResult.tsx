// One eye scan result: per lane, the error map as a heatmap of log10 BER
// (hover reads a point; white lines are the BER floor's contour, dashed
// ones the eye opening the analysis found), the bathtub curves through the
// eye's centre and the image the plotting tool drew; then the analysis of
// every lane. Lanes sit two side by side.
import { useEffect, useMemo, useRef, useState } from 'preact/hooks';
import uPlot from 'uplot';
import { get_eye_data } from '../api';
import { bathtubs, bits_per_point, log_ber, sci } from '../eye';
import { figure } from '../format';
import type { EyeLane, EyeScanResult } from '../types';
import { root_font_px } from './MarginChart';

// Viridis: evenly lit from dark (no errors) to yellow (every bit wrong), so
// the open eye reads dark and the map prints sensibly in grey.
const STOPS = ['#440154', '#482878', '#3e4989', '#31688e', '#26828e', '#1f9e89', '#35b779', '#6ece58', '#b5de2b', '#fde725'].map((h) =>
  [1, 3, 5].map((i) => parseInt(h.slice(i, i + 2), 16)),
);

function colour(t: number): string {
  const x = Math.min(1, Math.max(0, t)) * (STOPS.length - 1);
  const i = Math.min(STOPS.length - 2, Math.floor(x));
  const f = x - i;
  const c = STOPS[i].map((v, k) => Math.round(v + (STOPS[i + 1][k] - v) * f));
  return `rgb(${c[0]},${c[1]},${c[2]})`;
}

/** About `count` round tick values over [lo, hi]. */
function ticks(lo: number, hi: number, count: number): number[] {
  const raw = (hi - lo) / count;
  const mag = 10 ** Math.floor(Math.log10(raw));
  const step = [1, 2, 2.5, 5, 10].map((m) => m * mag).find((s) => s >= raw) ?? raw;
  const out: number[] = [];
  for (let v = Math.ceil(lo / step - 1e-9) * step; v <= hi + 1e-9; v += step) out.push(Math.abs(v) < 1e-12 ? 0 : +v.toFixed(6));
  return out;
}

interface Cell {
  p: number;
  r: number;
}

interface Geometry {
  left: number;
  top: number;
  cw: number;
  ch: number;
  /** Rows from the top of the plot: the highest voltage first. */
  rowAt: (y: number) => number;
}

function draw(canvas: HTMLCanvasElement, d: EyeScanResult, lane: EyeLane, hover: Cell | null): Geometry | null {
  const width = canvas.parentElement?.clientWidth ?? 0;
  if (width === 0) return null;
  const rem = root_font_px();
  const height = Math.round(Math.min(Math.max(width * 0.62, 15 * rem), 26 * rem));
  const px = devicePixelRatio || 1;
  canvas.width = Math.round(width * px);
  canvas.height = Math.round(height * px);
  canvas.style.height = `${height}px`;
  const ctx = canvas.getContext('2d')!;
  ctx.setTransform(px, 0, 0, px, 0, 0);
  ctx.clearRect(0, 0, width, height);

  const m = { left: 3.6 * rem, right: 5.4 * rem, top: 0.7 * rem, bottom: 2.8 * rem };
  const plotW = width - m.left - m.right;
  const plotH = height - m.top - m.bottom;
  const P = d.PhaseUI.length;
  const R = d.VoltageMV.length;
  const cw = plotW / P;
  const ch = plotH / R;
  const ascending = d.VoltageMV[R - 1] >= d.VoltageMV[0];
  // Screen row of data row r, 0 at the top.
  const screenRow = (r: number) => (ascending ? R - 1 - r : r);
  const bits = bits_per_point(d);
  // The scale starts at the floor, as in the plotted image: below it the eye counts as open.
  const lo = d.BerFloor > 0 && d.BerFloor < 1 ? Math.log10(d.BerFloor) : Math.log10(1 / bits);
  const t_of = (count: number) => {
    const v = log_ber(count, bits);
    return v === null ? 0 : Math.max(0, (v - lo) / -lo);
  };

  for (let r = 0; r < R; r++) {
    const y = m.top + screenRow(r) * ch;
    for (let p = 0; p < P; p++) {
      ctx.fillStyle = colour(t_of(lane.Counts[r][p]));
      // Half a pixel of overlap keeps seams out of the map.
      ctx.fillRect(m.left + p * cw, y, cw + 0.5, ch + 0.5);
    }
  }

  // The BER floor's contour: edges between a cell at or above the floor and one below it.
  const floorCount = d.BerFloor > 0 ? d.BerFloor * bits : 3;
  const closed = (r: number, p: number) => lane.Counts[r][p] >= floorCount - 1e-9;
  ctx.strokeStyle = '#ffffff';
  ctx.lineWidth = 2;
  ctx.beginPath();
  for (let r = 0; r < R; r++) {
    for (let p = 0; p < P; p++) {
      const x = m.left + p * cw;
      const y = m.top + screenRow(r) * ch;
      if (p + 1 < P && closed(r, p) !== closed(r, p + 1)) {
        ctx.moveTo(x + cw, y);
        ctx.lineTo(x + cw, y + ch);
      }
      if (r + 1 < R && closed(r, p) !== closed(r + 1, p)) {
        const edge = ascending ? y : y + ch;
        ctx.moveTo(x, edge);
        ctx.lineTo(x + cw, edge);
      }
    }
  }
  ctx.stroke();

  // Value to screen position, on cell centres.
  const xOf = (ui: number) => m.left + ((ui - d.PhaseUI[0]) / (d.PhaseUI[P - 1] - d.PhaseUI[0] || 1)) * (plotW - cw) + cw / 2;
  const vFirst = ascending ? d.VoltageMV[R - 1] : d.VoltageMV[0];
  const vLast = ascending ? d.VoltageMV[0] : d.VoltageMV[R - 1];
  const yOf = (mv: number) => m.top + ((vFirst - mv) / (vFirst - vLast || 1)) * (plotH - ch) + ch / 2;

  // The opening the analysis measured, along the two cuts through the centre.
  const f = lane.Figures;
  if (f && f.LeftUI !== null && f.RightUI !== null && f.TopMV !== null && f.BottomMV !== null && f.RightUI > f.LeftUI) {
    ctx.setLineDash([5, 4]);
    ctx.lineWidth = 1.5;
    ctx.strokeStyle = '#ffdd57';
    ctx.beginPath();
    ctx.moveTo(xOf(f.LeftUI), yOf(0));
    ctx.lineTo(xOf(f.RightUI), yOf(0));
    ctx.moveTo(xOf(0), yOf(f.TopMV));
    ctx.lineTo(xOf(0), yOf(f.BottomMV));
    ctx.stroke();
    ctx.setLineDash([]);
  }

  if (hover) {
    ctx.strokeStyle = '#ff3b30';
    ctx.lineWidth = 2;
    ctx.strokeRect(m.left + hover.p * cw + 1, m.top + screenRow(hover.r) * ch + 1, cw - 2, ch - 2);
  }

  // Axes.
  ctx.fillStyle = '#3a4553';
  ctx.strokeStyle = '#3a4553';
  ctx.lineWidth = 1;
  ctx.font = `${Math.round(0.75 * rem)}px system-ui, sans-serif`;
  ctx.textAlign = 'center';
  ctx.textBaseline = 'top';
  for (const ui of ticks(d.PhaseUI[0], d.PhaseUI[P - 1], 5)) {
    const x = xOf(ui);
    ctx.fillRect(x, m.top + plotH, 1, 4);
    ctx.fillText(String(ui), x, m.top + plotH + 6);
  }
  ctx.textAlign = 'right';
  ctx.textBaseline = 'middle';
  for (const mv of ticks(Math.min(vFirst, vLast), Math.max(vFirst, vLast), 8)) {
    const y = yOf(mv);
    ctx.fillRect(m.left - 4, y, 4, 1);
    ctx.fillText(String(mv), m.left - 6, y);
  }
  ctx.strokeRect(m.left, m.top, plotW, plotH);
  ctx.font = `600 ${Math.round(0.8 * rem)}px system-ui, sans-serif`;
  ctx.textAlign = 'center';
  ctx.textBaseline = 'bottom';
  ctx.fillText('Phase (UI)', m.left + plotW / 2, height - 2);
  ctx.save();
  ctx.translate(0.9 * rem, m.top + plotH / 2);
  ctx.rotate(-Math.PI / 2);
  ctx.textBaseline = 'middle';
  ctx.fillText('Voltage (mV)', 0, 0);
  ctx.restore();

  // The colour bar, from the floor in whole decades of BER.
  const barX = m.left + plotW + 0.8 * rem;
  const barW = 0.9 * rem;
  const gradient = ctx.createLinearGradient(0, m.top + plotH, 0, m.top);
  STOPS.forEach((_, i) => gradient.addColorStop(i / (STOPS.length - 1), colour(i / (STOPS.length - 1))));
  ctx.fillStyle = gradient;
  ctx.fillRect(barX, m.top, barW, plotH);
  ctx.strokeRect(barX, m.top, barW, plotH);
  ctx.fillStyle = '#3a4553';
  ctx.font = `${Math.round(0.72 * rem)}px system-ui, sans-serif`;
  ctx.textAlign = 'left';
  ctx.textBaseline = 'middle';
  for (let e = Math.ceil(lo); e <= 0; e++) {
    const y = m.top + plotH * (e / lo);
    // A decade too close to the floor's own label gives way to it.
    if (e !== lo && m.top + plotH - y < 1.2 * rem) continue;
    ctx.fillRect(barX + barW, y, 3, 1);
    ctx.fillText(`1e${e}`, barX + barW + 5, y);
  }
  if (lo !== Math.ceil(lo)) {
    // The bottom of the scale is the BER floor, rarely a whole decade.
    ctx.fillRect(barX + barW, m.top + plotH, 3, 1);
    ctx.fillText(sci(10 ** lo), barX + barW + 5, m.top + plotH - 0.35 * rem);
    ctx.fillText('floor', barX + barW + 5, m.top + plotH + 0.45 * rem);
  }
  ctx.save();
  ctx.translate(width - 0.5 * rem, m.top + plotH / 2);
  ctx.rotate(Math.PI / 2);
  ctx.textAlign = 'center';
  ctx.font = `600 ${Math.round(0.75 * rem)}px system-ui, sans-serif`;
  ctx.fillText('BER (log scale)', 0, 0);
  ctx.restore();

  // Where the map lies in the canvas, for tests that point at a given cell.
  canvas.dataset.plot = [m.left, m.top, plotW, plotH].join(',');
  return { left: m.left, top: m.top, cw, ch, rowAt: (row) => (ascending ? R - 1 - row : row) };
}

function Heatmap({ d, lane }: { d: EyeScanResult; lane: EyeLane }) {
  const canvas = useRef<HTMLCanvasElement>(null);
  const geometry = useRef<Geometry | null>(null);
  const [hover, setHover] = useState<Cell | null>(null);
  const [width, setWidth] = useState(0);

  useEffect(() => {
    const element = canvas.current?.parentElement;
    if (!element) return;
    const resize = new ResizeObserver(() => setWidth(element.clientWidth));
    resize.observe(element);
    return () => resize.disconnect();
  }, []);
  useEffect(() => {
    if (canvas.current) geometry.current = draw(canvas.current, d, lane, hover);
  }, [d, lane, hover, width]);

  const move = (e: MouseEvent) => {
    const g = geometry.current;
    if (!g) return;
    const box = (e.currentTarget as HTMLCanvasElement).getBoundingClientRect();
    const p = Math.floor((e.clientX - box.left - g.left) / g.cw);
    const row = Math.floor((e.clientY - box.top - g.top) / g.ch);
    const inside = p >= 0 && p < d.PhaseUI.length && row >= 0 && row < d.VoltageMV.length;
    const next = inside ? { p, r: g.rowAt(row) } : null;
    if (next?.p !== hover?.p || next?.r !== hover?.r) setHover(next);
  };

  const bits = bits_per_point(d);
  let reading = 'Point at the map to read phase, voltage and BER.';
  if (hover) {
    const count = lane.Counts[hover.r][hover.p];
    const ber = count > 0 ? `BER ${sci(Math.min(1, count / bits))} (${figure(count, Number.isInteger(count) ? 0 : 1)} errors in ${sci(bits)} bits)` : `BER < ${sci(1 / bits)} (no error in ${sci(bits)} bits)`;
    reading = `Phase ${figure(d.PhaseUI[hover.p], 4)} UI · voltage ${figure(d.VoltageMV[hover.r], 1)} mV · ${ber}`;
  }
  return (
    <div class="heatmap">
      <canvas ref={canvas} data-testid="eye-heatmap" onMouseMove={move} onMouseLeave={() => setHover(null)} />
      <div class={hover ? 'reading' : 'reading muted'} data-testid="eye-reading">
        {reading}
      </div>
    </div>
  );
}

function Bathtub({ x, y, label, lo, floor, testid }: { x: number[]; y: (number | null)[]; label: string; lo: number; floor: number | null; testid: string }) {
  const box = useRef<HTMLDivElement>(null);
  useEffect(() => {
    const element = box.current;
    if (!element) return;
    const rem = root_font_px();
    const height = Math.round(11 * rem);
    const font = `${Math.round(0.72 * rem)}px system-ui, sans-serif`;
    const labelFont = `600 ${Math.round(0.75 * rem)}px system-ui, sans-serif`;
    const opts: uPlot.Options = {
      width: Math.max(160, element.clientWidth),
      height,
      legend: { show: false },
      cursor: { drag: { x: false, y: false } },
      scales: { x: { time: false }, y: { range: () => [Math.floor(lo), 0] } },
      axes: [
        { label, font, labelFont, labelSize: Math.round(1.2 * rem), size: Math.round(2 * rem) },
        { font, labelFont, size: Math.round(3 * rem), incrs: [1, 2, 3, 4, 5], values: (_u, splits) => splits.map((s) => (Number.isInteger(s) ? `1e${s}` : '')) },
      ],
      series: [{}, { stroke: '#1f6fb2', width: 2, points: { show: true, size: 5, fill: '#1f6fb2' } }],
      hooks: {
        draw: [
          (u) => {
            if (floor === null) return;
            const ctx = u.ctx;
            const px = devicePixelRatio || 1;
            const py = u.valToPos(floor, 'y', true);
            ctx.save();
            ctx.strokeStyle = '#b42318';
            ctx.lineWidth = 1.5 * px;
            ctx.setLineDash([6 * px, 4 * px]);
            ctx.beginPath();
            ctx.moveTo(u.bbox.left, py);
            ctx.lineTo(u.bbox.left + u.bbox.width, py);
            ctx.stroke();
            ctx.restore();
          },
        ],
      },
    };
    const plot = new uPlot(opts, [x, y] as uPlot.AlignedData, element);
    const resize = new ResizeObserver(() => {
      if (element.clientWidth > 0) plot.setSize({ width: element.clientWidth, height });
    });
    resize.observe(element);
    return () => {
      resize.disconnect();
      plot.destroy();
    };
  }, [x, y, lo, floor]);
  return <div class="bathtub" ref={box} data-testid={testid} />;
}

const mv = (v: number | null) => (v === null ? '–' : `${v.toFixed(1)} mV`);
// Phase figures are whole 1/64 UI: five decimals show them exactly, as the image does.
const ui_figure = (v: number) => String(+v.toFixed(5));
const ui = (v: number | null) => (v === null ? '–' : `${ui_figure(v)} UI`);

function LaneEye({ d, lane, failure }: { d: EyeScanResult; lane: EyeLane; failure: string | null }) {
  const tubs = useMemo(() => bathtubs(d, lane.Counts), [d, lane]);
  const lo = Math.log10(1 / bits_per_point(d));
  const floor = d.BerFloor > 0 ? Math.log10(d.BerFloor) : null;
  const f = lane.Figures;
  return (
    <section class="eye-lane" data-testid="eye-lane" data-lane={lane.Lane}>
      <h3>
        Lane {lane.Lane} <span class="muted">{lane.Link}</span>
      </h3>
      {f ? (
        <p class="eye-figures">
          width <strong>{ui(f.WidthUI)}</strong> ({ui(f.LeftUI)} to {ui(f.RightUI)}) · height <strong>{mv(f.HeightMV)}</strong> ({mv(f.BottomMV)} to {mv(f.TopMV)})
        </p>
      ) : (
        lane.Counts.length > 0 && <p class="eye-figures muted">No eye figures for this lane.</p>
      )}
      {lane.Counts.length > 0 ? (
        <>
          <Heatmap d={d} lane={lane} />
          <div class="bathtubs">
            <figure>
              <figcaption>
                BER against phase at 0 mV <span class="floor-key">BER floor</span>
              </figcaption>
              <Bathtub x={d.PhaseUI} y={tubs.phase} label="Phase (UI)" lo={lo} floor={floor} testid="bathtub-phase" />
            </figure>
            <figure>
              <figcaption>
                BER against voltage at 0 UI <span class="floor-key">BER floor</span>
              </figcaption>
              <Bathtub x={d.VoltageMV} y={tubs.voltage} label="Voltage (mV)" lo={lo} floor={floor} testid="bathtub-voltage" />
            </figure>
          </div>
        </>
      ) : (
        <p class="error" data-testid="eye-lane-missing">
          No error map for this lane{failure ? `: ${failure}` : '.'}
        </p>
      )}
      {lane.Png && (
        <figure class="eye-png">
          <figcaption>
            Eye diagram image{' '}
            <a href={lane.Png} download data-testid="eye-png-download">
              Download PNG
            </a>
          </figcaption>
          <img src={lane.Png} alt={`Eye diagram of lane ${lane.Lane}`} data-testid="eye-png" />
        </figure>
      )}
    </section>
  );
}

// Readable names and units of the analysis columns the plotting tool writes.
const COLUMN_NAMES: Record<string, string> = {
  EyeWidthUI: 'Width (UI)', EyeHeightMV: 'Height (mV)', EyeTopMV: 'Top (mV)', EyeBottomMV: 'Bottom (mV)',
  EyeLeftUI: 'Left (UI)', EyeRightUI: 'Right (UI)', BERFloor: 'BER floor', EyeAreaUImV: 'Area (UI·mV)',
};

function cell_text(header: string, value: string | number | null): string {
  if (typeof value !== 'number') return value ?? '–';
  if (header === 'BERFloor') return sci(value);
  if (header.endsWith('UI')) return ui_figure(value);
  return Number.isInteger(value) ? String(value) : value.toFixed(2);
}

function Analysis({ d }: { d: EyeScanResult }) {
  const { Header: header, Rows: rows } = d.Analysis;
  return (
    <>
      <h3>
        Eye figures at the BER floor{' '}
        {d.AnalysisCsv && (
          <a href={d.AnalysisCsv} download="analysis.csv" data-testid="analysis-csv">
            Download analysis.csv
          </a>
        )}
      </h3>
      {rows.length === 0 ? (
        <p class="muted">The scan wrote no analysis.</p>
      ) : (
        <div class="table-wrap">
          <table class="grid lanes-table" data-testid="eye-analysis">
            <thead>
              <tr>
                {header.map((h) => (
                  <th key={h} class={h in COLUMN_NAMES || h === 'Lane' ? 'num' : ''}>
                    {COLUMN_NAMES[h] ?? h}
                  </th>
                ))}
              </tr>
            </thead>
            <tbody>
              {rows.map((row, i) => (
                <tr key={i}>
                  {row.map((c, j) => (
                    <td key={j} class={typeof c === 'number' ? 'num' : ''}>
                      {cell_text(header[j] ?? '', c)}
                    </td>
                  ))}
                </tr>
              ))}
            </tbody>
          </table>
        </div>
      )}
    </>
  );
}

/**
 * asked: the lanes the test was to scan; one the scan left no files for
 * still gets its place, saying why (failure: why the test did not complete).
 */
export function EyeResult({ id, asked, failure }: { id: string; asked: number[]; failure: string | null }) {
  const [data, setData] = useState<EyeScanResult | null>(null);
  const [error, setError] = useState<string | null>(null);
  useEffect(() => {
    let current = true;
    get_eye_data(id)
      .then((d) => current && setData(d))
      .catch((e: Error) => current && setError(e.message));
    return () => {
      current = false;
    };
  }, [id]);

  if (error) return <p class="error" data-testid="eye-result">No eye data: {error}</p>;
  if (!data) return <p class="muted" data-testid="eye-result">Loading the eye scan data…</p>;
  const p = data.PhaseUI;
  const v = data.VoltageMV;
  const link = data.Lanes[0]?.Link ?? '';
  const missing = asked.filter((l) => !data.Lanes.some((lane) => lane.Lane === l));
  const lanes = [...data.Lanes, ...missing.map((l) => ({ Lane: l, Link: link, Device: '', Name: '', Counts: [], Figures: null, Png: null }))];
  lanes.sort((a, b) => a.Lane - b.Lane);
  return (
    <div data-testid="eye-result">
      <p class="muted limits">
        2<sup>{data.Nbits}</sup> bits per point and tap, {data.Taps} {data.Taps === 1 ? 'tap' : 'taps'} · BER floor {sci(data.BerFloor)} · phase {figure(p[0], 3)} to{' '}
        {figure(p[p.length - 1], 3)} UI ({p.length} points) · voltage {figure(v[0], 1)} to {figure(v[v.length - 1], 1)} mV ({v.length} bins)
      </p>
      {lanes.length === 0 && <p class="muted">This scan holds no lane.</p>}
      <div class="eye-grid">
        {lanes.map((lane) => (
          <LaneEye key={`${lane.Link}-${lane.Lane}`} d={data} lane={lane} failure={failure} />
        ))}
      </div>
      <Analysis d={data} />
    </div>
  );
}
