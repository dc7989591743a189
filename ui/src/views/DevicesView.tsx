import { useMemo, useState } from 'preact/hooks';
import type { PCIeDevice } from '../types';
import { text_of } from '../format';
import { EmptyRow } from './common';

interface Props {
  devices: PCIeDevice[] | null;
  error: string | null;
  onReload: () => void;
  onNewTest: (sbdf: string) => void;
}

interface Row {
  device: PCIeDevice;
  cells: string[];
}

const COLUMNS = ['SBDF', 'Vendor', 'Type', 'Speed', 'Width', 'Margining', 'Die', 'Core', 'Port', 'SERDES'];

function row_of(device: PCIeDevice): Row {
  const info = device.PCIeInfo;
  const ctrl = device.PCIeCtrlInfo;
  return {
    device,
    cells: [
      info.SBDF,
      text_of(info.VendorName),
      text_of(info.DeviceType),
      text_of(info.Speed),
      text_of(info.Width),
      device.PCIeMarginSupported ? 'Supported' : 'No',
      text_of(ctrl?.DeviceName ?? device.SERDES?.DeviceName),
      text_of(ctrl?.PCIeCore),
      text_of(ctrl?.Port),
      text_of(device.SERDES?.SERDES),
    ],
  };
}

export function DevicesView({ devices, error, onReload, onNewTest }: Props) {
  const [filter, setFilter] = useState('');
  const [marginOnly, setMarginOnly] = useState(false);
  const rows = useMemo(() => (devices ?? []).map(row_of), [devices]);
  const words = filter.toLowerCase().split(/\s+/).filter(Boolean);
  const shown = rows.filter(
    (row) =>
      (!marginOnly || row.device.PCIeMarginSupported === true) &&
      words.every((w) => row.cells.some((cell) => cell.toLowerCase().includes(w))),
  );

  return (
    <div class="screen">
      <div class="toolbar">
        <h1>PCIe devices</h1>
        <input
          type="search"
          class="filter"
          placeholder="Filter: SBDF, vendor, speed, port…"
          value={filter}
          onInput={(e) => setFilter((e.target as HTMLInputElement).value)}
          aria-label="Filter devices"
        />
        <label class="check">
          <input type="checkbox" checked={marginOnly} onChange={(e) => setMarginOnly((e.target as HTMLInputElement).checked)} />
          Margining only
        </label>
        <span class="muted">{devices ? `${shown.length} of ${rows.length}` : ''}</span>
        <button type="button" onClick={onReload}>
          Reload
        </button>
      </div>
      {error && <p class="error">Device list: {error}</p>}
      {!devices && !error && <p class="muted">Loading the device list…</p>}
      {devices && (
        <div class="table-wrap">
          <table class="grid" data-testid="device-table">
            <thead>
              <tr>
                {COLUMNS.map((c) => (
                  <th key={c}>{c}</th>
                ))}
                <th />
              </tr>
            </thead>
            <tbody>
              {shown.map((row) => (
                <tr key={row.cells[0]} class={row.device.PCIeMarginSupported ? '' : 'dim'}>
                  {row.cells.map((cell, i) => (
                    <td key={i} class={i === 5 ? (row.device.PCIeMarginSupported ? 'ok' : '') : ''} title={cell}>
                      {cell}
                    </td>
                  ))}
                  <td class="action">
                    {row.device.PCIeMarginSupported && (
                      <button type="button" class="small" onClick={() => onNewTest(row.device.PCIeInfo.SBDF)}>
                        Margin…
                      </button>
                    )}
                  </td>
                </tr>
              ))}
              {shown.length === 0 && (
                <EmptyRow
                  columns={COLUMNS.length + 1}
                  text={rows.length === 0 ? 'The service lists no PCIe device.' : 'No device matches the filter.'}
                />
              )}
            </tbody>
          </table>
        </div>
      )}
    </div>
  );
}
