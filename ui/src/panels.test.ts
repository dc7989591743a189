import { describe, expect, it } from 'vitest';
import { tree_rows } from './views/PciViewerView';
import { samples_csv } from './views/CountersView';
import type { CounterRow, PciFunction } from './panels_api';

const fn = (SBDF: string, ParentSBDF: string): PciFunction => ({
  SBDF, ParentSBDF, DeviceID: '', VendorID: '', ClassCode: '', DeviceDescription: '',
});

describe('tree_rows', () => {
  it.each([
    ['children follow their parent, deeper by one', [fn('0:0:0.0', ''), fn('0:1:0.0', '0:0:1.0'), fn('0:0:1.0', '0:0:0.0')],
      ['0:0:0.0@0', '0:0:1.0@1', '0:1:0.0@2']],
    ['a parent not in the list makes a root', [fn('0:41:0.0', '0:40:1.0')], ['0:41:0.0@0']],
    ['a function naming itself as parent is shown once', [fn('0:0:0.0', '0:0:0.0')], ['0:0:0.0@0']],
    ['a loop of parents still shows each once', [fn('0:1:0.0', '0:2:0.0'), fn('0:2:0.0', '0:1:0.0')], ['0:1:0.0@0', '0:2:0.0@1']],
  ])('%s', (_name, functions, expected) => {
    expect(tree_rows(functions).map((r) => `${r.fn.SBDF}@${r.depth}`)).toEqual(expected);
  });
});

describe('samples_csv', () => {
  it('quotes every cell and keeps one line per sample', () => {
    const row: CounterRow = {
      key: 9, space: 'die', name: 'PCIE0 "x"', port: '0:40:1.0', event: '2. TX Bytes', value: '10', rate: '5', maxRate: '5', enabled: true,
    };
    expect(samples_csv([{ at: 'T', row }])).toBe(
      'Time,Counter,Port,Event,Value,Rate (/s),Max Rate (/s)\n"T","PCIE0 ""x""","0:40:1.0","2. TX Bytes","10","5","5"\n',
    );
  });
});
