// Small text helpers shared by the screens.

/** "12" -> "1e-12"; the service takes the negative exponent as text. */
export function ber_label(exponent: string): string {
  // Eye scan choices are fractional exponents ("7.65"): the same reading.
  return /^\d+(\.\d+)?$/.test(exponent) ? `1e-${exponent}` : exponent;
}

/** "32Gts" -> "32 GT/s"; other forms as they came. */
export function rate_label(speed: unknown): string {
  const m = typeof speed === 'string' ? /^\s*([\d.]+)\s*Gts\s*$/.exec(speed) : null;
  return m ? `${m[1]} GT/s` : text_of(speed);
}

/** Lane numbers as short text: [0,1,2,3,5] -> "0-3, 5". */
export function lanes_label(lanes: readonly number[]): string {
  const sorted = [...new Set(lanes)].sort((a, b) => a - b);
  const parts: string[] = [];
  for (let i = 0; i < sorted.length; ) {
    let j = i;
    while (j + 1 < sorted.length && sorted[j + 1] === sorted[j] + 1) j++;
    parts.push(j > i ? `${sorted[i]}-${sorted[j]}` : `${sorted[i]}`);
    i = j + 1;
  }
  return parts.join(', ');
}

/** Seconds as "42s", "3m 05s" or "1h 02m". */
export function duration_label(seconds: number): string {
  const s = Math.max(0, Math.round(seconds));
  if (s < 60) return `${s}s`;
  const m = Math.floor(s / 60);
  if (m < 60) return `${m}m ${String(s % 60).padStart(2, '0')}s`;
  return `${Math.floor(m / 60)}h ${String(m % 60).padStart(2, '0')}m`;
}

/** A figure with a fixed number of decimals, or a dash when absent. */
export function figure(value: unknown, decimals: number): string {
  return typeof value === 'number' && Number.isFinite(value) ? value.toFixed(decimals) : '–';
}

export function text_of(value: unknown): string {
  if (value === undefined || value === null) return '';
  return typeof value === 'string' ? value : JSON.stringify(value);
}

/**
 * A voltage figure of "TestOutput" in millivolts. The keys say "(mv)", but a
 * PCIe margin writes them in volts (the receiver reports its offsets in
 * volts), so those are scaled; other kinds are shown as they come.
 */
export function voltage_figure_mv(operation: unknown, value: unknown): string {
  if (typeof value !== 'number' || !Number.isFinite(value)) return '–';
  return operation === 'PCIe Margin' ? (value * 1000).toFixed(1) : value.toFixed(1);
}
