// Per-lane margins of one PCIe margin test as two bar charts around a zero
// line: timing (left below, right above, in UI) and voltage (bottom below,
// top above, in volts). The worst lane of each is shaded and named.
import { useEffect, useRef } from 'preact/hooks';
import uPlot from 'uplot';
import { mirrored, type MarginChartData } from '../chart_data';
import { figure } from '../format';

// Chart sizes follow the page's root font size, which grows on large screens,
// so axis text stays as readable as the tables around it.
function root_font_px(): number {
  return parseFloat(getComputedStyle(document.documentElement).fontSize) || 14;
}

interface BarsProps {
  title: string;
  unit: string;
  lanes: number[];
  above: (number | null)[];
  below: (number | null)[];
  aboveLabel: string;
  belowLabel: string;
  worst: number | null;
  decimals: number;
  testid: string;
}

function LaneBars({ title, unit, lanes, above, below, aboveLabel, belowLabel, worst, decimals, testid }: BarsProps) {
  const box = useRef<HTMLDivElement>(null);

  useEffect(() => {
    const element = box.current;
    if (!element) return;
    const rem = root_font_px();
    const height = Math.round(17 * rem);
    const font = `${Math.round(0.8 * rem)}px system-ui, sans-serif`;
    const labelFont = `600 ${Math.round(0.85 * rem)}px system-ui, sans-serif`;
    const x = lanes.map((_, i) => i);
    const bars = uPlot.paths.bars!({ size: [0.7, Math.round(8 * rem)], gap: 1 });
    const opts: uPlot.Options = {
      width: Math.max(200, element.clientWidth),
      height,
      legend: { show: false },
      cursor: { drag: { x: false, y: false }, points: { show: false } },
      scales: {
        x: { time: false, range: () => [-0.6, lanes.length - 0.4] },
        y: {
          range: (_u, min, max) => {
            const m = Math.max(Math.abs(min ?? 0), Math.abs(max ?? 0)) * 1.15 || 1;
            return [-m, m];
          },
        },
      },
      axes: [
        {
          label: 'Lane',
          font,
          labelFont,
          labelSize: Math.round(1.3 * rem),
          size: Math.round(2.2 * rem),
          incrs: [1, 2, 4, 8],
          values: (_u, splits) => splits.map((s) => (Number.isInteger(s) && lanes[s] !== undefined ? String(lanes[s]) : '')),
        },
        { label: unit, font, labelFont, labelSize: Math.round(1.3 * rem), size: Math.round(4.2 * rem), values: (_u, splits) => splits.map((s) => s.toFixed(decimals > 2 ? 3 : 2)) },
      ],
      series: [
        {},
        { label: aboveLabel, stroke: '#1f6fb2', fill: 'rgba(31,111,178,0.75)', paths: bars, points: { show: false } },
        { label: belowLabel, stroke: '#c46a14', fill: 'rgba(196,106,20,0.75)', paths: bars, points: { show: false } },
      ],
      hooks: {
        drawClear: [
          (u) => {
            if (worst === null) return;
            const x0 = u.valToPos(worst - 0.5, 'x', true);
            const x1 = u.valToPos(worst + 0.5, 'x', true);
            u.ctx.save();
            u.ctx.fillStyle = 'rgba(214, 40, 40, 0.14)';
            u.ctx.fillRect(x0, u.bbox.top, x1 - x0, u.bbox.height);
            u.ctx.restore();
          },
        ],
        draw: [
          (u) => {
            // The zero line: where the eye's centre sits.
            const y0 = u.valToPos(0, 'y', true);
            u.ctx.save();
            u.ctx.strokeStyle = '#555';
            u.ctx.lineWidth = Math.max(1, devicePixelRatio);
            u.ctx.beginPath();
            u.ctx.moveTo(u.bbox.left, y0);
            u.ctx.lineTo(u.bbox.left + u.bbox.width, y0);
            u.ctx.stroke();
            u.ctx.restore();
          },
        ],
      },
    };
    const plot = new uPlot(opts, [x, above, mirrored(below)] as uPlot.AlignedData, element);
    // Follow the width of the panel: a hidden screen reports 0, so wait for a real size.
    const resize = new ResizeObserver(() => {
      if (element.clientWidth > 0) plot.setSize({ width: element.clientWidth, height });
    });
    resize.observe(element);
    return () => {
      resize.disconnect();
      plot.destroy();
    };
  }, [lanes, above, below, worst]);

  return (
    <figure class="chart-figure" data-testid={testid}>
      <figcaption>
        <strong>{title}</strong>
        <span class="key above">{aboveLabel}</span>
        <span class="key below">{belowLabel}</span>
        <span class="worst-note">
          {worst === null
            ? 'no lane has both margins'
            : `worst lane ${lanes[worst]}: ${belowLabel.toLowerCase()} ${figure(below[worst], decimals)}, ${aboveLabel.toLowerCase()} ${figure(above[worst], decimals)} ${unit}`}
        </span>
      </figcaption>
      <div class="chart" ref={box} />
    </figure>
  );
}

export function MarginChart({ data }: { data: MarginChartData }) {
  const charts: Omit<BarsProps, 'lanes' | 'decimals'>[] = [
    { title: 'Timing margin', unit: 'UI', above: data.right, below: data.left, aboveLabel: 'Right', belowLabel: 'Left', worst: data.worstTiming, testid: 'timing-chart' },
    { title: 'Voltage margin', unit: 'V', above: data.top, below: data.bottom, aboveLabel: 'Top', belowLabel: 'Bottom', worst: data.worstVoltage, testid: 'voltage-chart' },
  ];
  return (
    <div class="charts">
      {charts.map((chart) => (
        <LaneBars key={chart.testid} {...chart} lanes={data.lanes} decimals={3} />
      ))}
    </div>
  );
}
