import { describe, expect, it } from 'vitest';
import { long_address, row_matches } from './address';

describe('long_address', () => {
  it.each([
    ['0:3:0.0', '0000:03:00.0'],
    ['0000:03:00.0', '0000:03:00.0'],
    ['3:0.0', '0000:03:00.0'],
    ['ff:C1:1f.7', '00ff:c1:1f.7'],
    ['0:3:20.0', null],
    ['0:3:0.8', null],
    ['0:3:0', null],
  ])('%s -> %s', (text, long) => {
    expect(long_address(text)).toBe(long);
  });
});

describe('row_matches', () => {
  const cells = ['0:3:0.0', 'Platform', 'Root Port', 'L0', '16.0 GT/s', 'x8'];
  it.each([
    ['short form', '0:3:0.0', true],
    ['kernel form', '0000:03:00.0', true],
    ['without segment', '03:00.0', true],
    ['partly typed kernel form', '0000:03', true],
    ['other function', '0000:03:00.1', false],
    ['other segment', '0001:03:00.0', false],
    ['a longer address containing the short form', '10:3:0.0', false],
    ['words of other cells, any case', 'platform x8', true],
    ['one word missing', 'platform x16', false],
    ['empty filter', '  ', true],
  ])('%s: "%s"', (_name, filter, expected) => {
    expect(row_matches(filter, '0:3:0.0', cells)).toBe(expected);
  });
});
