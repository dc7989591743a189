import { describe, expect, it } from 'vitest';
import { voltage_figure_mv } from './format';

describe('voltage_figure_mv', () => {
  it.each([
    ['PCIe Margin', 0.0390625, '39.1'],
    ['PCIe Margin', 0, '0.0'],
    ['HVL Destructive Margin', 42.25, '42.3'],
    ['PCIe Margin', undefined, '–'],
    ['PCIe Margin', Number.NaN, '–'],
  ])('%s %s -> %s', (operation, value, shown) => {
    expect(voltage_figure_mv(operation, value)).toBe(shown);
  });
});
