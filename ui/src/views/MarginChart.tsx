// Per-lane bar charts of PCIe margins. The side charts draw right (top)
// above and left (bottom) below a zero line, so each lane's eye opens around
// zero; the eye charts draw width and height against their minimum and
// recommended lines. Timing charts carry UI on one axis and ps on the other.
import type { ComponentChildren } from 'preact';
import { useEffect, useRef } from 'preact/hooks';
import uPlot from 'uplot';
import { mirrored, type MarginChartData } from '../chart_data';
import { figure } from '../format';
import type { Thresholds } from '../types';

// Chart sizes follow the page's root font size, which grows on large screens,
// so axis text stays as readable as the tables around it.
export function root_font_px(): number {
  return parseFloat(getComputedStyle(document.documentElement).fontSize) || 14;
}

export interface BarSeries {
  label: string;
  values: (number | null)[];
  color: string;
}

export interface LevelLine {
  value: number;
  label: string;
  color: string;
  /** Dashed for recommended levels, solid for minimums. */
  dashed?: boolean;
}

export interface LaneBarsProps {
  title: string;
  unit: string;
  /** Lane numbers, one per group of bars at x = 0, 1, ... */
  lanes: number[];
  /** Positions of the values when not one per lane (grouped bars). */
  x?: number[];
  series: BarSeries[];
  /** Symmetric bounds ±range around zero, or [min, max]; derived from the data when absent. */
  range?: number | [number, number];
  lines?: LevelLine[];
  /** Lane indexes shaded behind the bars (worst lane, lanes that differ). */
  shaded?: number[];
  /** A second value axis on the right: the same scale read in another unit. */
  secondAxis?: { unit: string; per: number; decimals: number };
  decimals: number;
  testid: string;
  children?: ComponentChildren;
}

export function LaneBars(props: LaneBarsProps) {
  const { title, unit, lanes, x, series, range, lines = [], shaded = [], secondAxis, decimals, testid, children } = props;
  const box = useRef<HTMLDivElement>(null);
  // The page re-renders on every queue push; redraw only when what is drawn changed.
  const drawn = JSON.stringify([lanes, x, series, range, lines, shaded, secondAxis, decimals, unit]);

  useEffect(() => {
    const element = box.current;
    if (!element) return;
    const rem = root_font_px();
    const height = Math.round(17 * rem);
    const font = `${Math.round(0.8 * rem)}px system-ui, sans-serif`;
    const labelFont = `600 ${Math.round(0.85 * rem)}px system-ui, sans-serif`;
    const xs = x ?? lanes.map((_, i) => i);
    const bars = uPlot.paths.bars!({ size: [x ? 0.92 : 0.7, Math.round(8 * rem)], gap: 1 });
    const axisLabel = { font, labelFont, labelSize: Math.round(1.3 * rem), size: Math.round(4.2 * rem) };
    const fixed: [number, number] | null = range === undefined ? null : typeof range === 'number' ? [-range, range] : range;
    const axes: uPlot.Axis[] = [
      {
        label: 'Lane',
        font,
        labelFont,
        labelSize: Math.round(1.3 * rem),
        size: Math.round(2.2 * rem),
        incrs: [1, 2, 4, 8],
        values: (_u, splits) => splits.map((s) => (Number.isInteger(s) && lanes[s] !== undefined ? String(lanes[s]) : '')),
      },
      { label: unit, ...axisLabel, values: (_u, splits) => splits.map((s) => s.toFixed(decimals)) },
    ];
    if (secondAxis) {
      axes.push({
        label: secondAxis.unit,
        ...axisLabel,
        side: 1,
        scale: 'y',
        grid: { show: false },
        values: (_u, splits) => splits.map((s) => (s / secondAxis.per).toFixed(secondAxis.decimals)),
      });
    }
    const opts: uPlot.Options = {
      width: Math.max(200, element.clientWidth),
      height,
      legend: { show: false },
      cursor: { drag: { x: false, y: false }, points: { show: false } },
      scales: {
        x: { time: false, range: () => [-0.6, lanes.length - 0.4] },
        y: {
          range: (_u, min, max) => {
            if (fixed) return fixed;
            const top = Math.max(Math.abs(min ?? 0), Math.abs(max ?? 0), ...lines.map((l) => Math.abs(l.value))) * 1.15 || 1;
            return [Math.min(0, min ?? 0) < 0 ? -top : 0, top];
          },
        },
      },
      axes,
      series: [{}, ...series.map((s) => ({ label: s.label, stroke: s.color, fill: s.color, paths: bars, points: { show: false } }))],
      hooks: {
        drawClear: [
          (u) => {
            u.ctx.save();
            u.ctx.fillStyle = 'rgba(214, 40, 40, 0.12)';
            for (const lane of shaded) {
              const x0 = u.valToPos(lane - 0.5, 'x', true);
              const x1 = u.valToPos(lane + 0.5, 'x', true);
              u.ctx.fillRect(x0, u.bbox.top, x1 - x0, u.bbox.height);
            }
            u.ctx.restore();
          },
        ],
        draw: [
          (u) => {
            const ctx = u.ctx;
            const px = Math.max(1, devicePixelRatio);
            const line = (y: number, color: string, dash: number[]) => {
              ctx.strokeStyle = color;
              ctx.setLineDash(dash);
              ctx.beginPath();
              ctx.moveTo(u.bbox.left, y);
              ctx.lineTo(u.bbox.left + u.bbox.width, y);
              ctx.stroke();
            };
            ctx.save();
            ctx.lineWidth = px;
            // The zero line: where the eye's centre sits.
            line(u.valToPos(0, 'y', true), '#555', []);
            ctx.lineWidth = 1.5 * px;
            const fontPx = Math.round(0.75 * rem * px);
            ctx.font = `${fontPx}px system-ui, sans-serif`;
            ctx.textAlign = 'right';
            const right = u.bbox.left + u.bbox.width - 4 * px;
            for (const l of lines) {
              const y = u.valToPos(l.value, 'y', true);
              line(y, l.color, l.dashed ? [6 * px, 4 * px] : []);
              // Recommended above its line, minimum below, so close levels don't overlap.
              const base = l.dashed ? y - 3 * px : y + fontPx + 2 * px;
              const w = ctx.measureText(l.label).width;
              ctx.fillStyle = 'rgba(255,255,255,0.8)';
              ctx.fillRect(right - w - 2 * px, base - fontPx, w + 4 * px, fontPx + 3 * px);
              ctx.fillStyle = l.color;
              ctx.fillText(l.label, right, base);
            }
            ctx.restore();
          },
        ],
      },
    };
    const plot = new uPlot(opts, [xs, ...series.map((s) => s.values)] as uPlot.AlignedData, element);
    // Follow the width of the panel: a hidden screen reports 0, so wait for a real size.
    const resize = new ResizeObserver(() => {
      if (element.clientWidth > 0) plot.setSize({ width: element.clientWidth, height });
    });
    resize.observe(element);
    return () => {
      resize.disconnect();
      plot.destroy();
    };
  }, [drawn]);

  return (
    <figure class="chart-figure" data-testid={testid}>
      <figcaption>
        <strong>{title}</strong>
        {series.map((s) => (
          <span class="key" key={s.label}>
            <i style={{ background: s.color }} />
            {s.label}
          </span>
        ))}
        {children}
      </figcaption>
      <div class="chart" ref={box} />
    </figure>
  );
}

const ABOVE = 'rgba(31,111,178,0.75)';
const BELOW = 'rgba(196,106,20,0.75)';
const EYE = 'rgba(70,90,120,0.7)';
export const MIN_COLOR = '#b42318';
export const REC_COLOR = '#1d7a3a';

export function threshold_lines(thresholds: Thresholds | undefined, timing: boolean): LevelLine[] {
  if (!thresholds) return [];
  const min = timing ? thresholds.EyeWidthMinPs : thresholds.EyeHeightMinMV;
  const rec = timing ? thresholds.EyeWidthRecPs : thresholds.EyeHeightRecMV;
  const unit = timing ? 'ps' : 'mV';
  const lines: LevelLine[] = [];
  if (typeof min === 'number') lines.push({ value: min, label: `minimum ${min} ${unit}`, color: MIN_COLOR });
  if (typeof rec === 'number') lines.push({ value: rec, label: `recommended ${rec} ${unit}`, color: REC_COLOR, dashed: true });
  return lines;
}

interface Props {
  data: MarginChartData;
  thresholds?: Thresholds;
}

export function MarginChart({ data, thresholds }: Props) {
  const { lanes, uiPs } = data;
  const wt = data.worstTiming;
  const wv = data.worstVoltage;
  return (
    <div class="charts pairs">
      <LaneBars
        title="Timing margin"
        unit="UI"
        lanes={lanes}
        series={[
          { label: 'Right', values: data.right, color: ABOVE },
          { label: 'Left', values: mirrored(data.left), color: BELOW },
        ]}
        shaded={wt === null ? [] : [wt]}
        secondAxis={uiPs === null ? undefined : { unit: 'ps', per: 1 / uiPs, decimals: 1 }}
        decimals={3}
        testid="timing-chart"
      >
        <span class="worst-note">
          {wt === null ? 'no lane has both margins' : `worst lane ${lanes[wt]}: left ${figure(data.left[wt], 3)}, right ${figure(data.right[wt], 3)} UI`}
        </span>
        {wt !== null && uiPs !== null && data.eyeWidthPs[wt] !== null && (
          <span class="worst-ps">eye {figure(data.eyeWidthPs[wt], 1)} ps</span>
        )}
      </LaneBars>
      <LaneBars
        title="Eye width"
        unit="ps"
        lanes={lanes}
        series={[{ label: 'Left + right', values: data.eyeWidthPs, color: EYE }]}
        lines={threshold_lines(thresholds, true)}
        secondAxis={uiPs === null ? undefined : { unit: 'UI', per: uiPs, decimals: 2 }}
        decimals={1}
        testid="eye-width-chart"
      />
      <LaneBars
        title="Voltage margin"
        unit="mV"
        lanes={lanes}
        series={[
          { label: 'Top', values: data.top, color: ABOVE },
          { label: 'Bottom', values: mirrored(data.bottom), color: BELOW },
        ]}
        shaded={wv === null ? [] : [wv]}
        decimals={1}
        testid="voltage-chart"
      >
        <span class="worst-note">
          {wv === null ? 'no lane has both margins' : `worst lane ${lanes[wv]}: bottom ${figure(data.bottom[wv], 1)}, top ${figure(data.top[wv], 1)} mV`}
        </span>
      </LaneBars>
      <LaneBars
        title="Eye height"
        unit="mV"
        lanes={lanes}
        series={[{ label: 'Top + bottom', values: data.eyeHeightMV, color: EYE }]}
        lines={threshold_lines(thresholds, false)}
        decimals={1}
        testid="eye-height-chart"
      />
    </div>
  );
}
