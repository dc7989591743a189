import { useMemo, useState } from 'preact/hooks';
import { row_matches } from '../address';
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

const COLUMNS = ['SBDF', 'Vendor', 'Type', 'Link state', 'Trained', 'Capability', 'Margining', 'Die', 'Core', 'Port', 'SERDES'];
const CAPABILITY = COLUMNS.indexOf('Capability');
const MARGINING = COLUMNS.indexOf('Margining');
// The die's long name is cut short (the cell's title has all of it), so the row's button stays in view.
const DIE = COLUMNS.indexOf('Die');

/** "No" with the service's reason, so a greyed-out row says why. */
function margining_text(device: PCIeDevice): string {
  if (device.PCIeMarginSupported) return 'Supported';
  const reason = text_of(device.PCIeMarginUnsupportedReason).trim();
  return reason ? `No: ${reason}` : 'No';
}

function row_of(device: PCIeDevice): Row {
  const info = device.PCIeInfo;
  const ctrl = device.PCIeCtrlInfo;
  return {
    device,
    cells: [
      info.SBDF,
      text_of(info.VendorName),
      text_of(info.DeviceType),
      text_of(info.LTSSM),
      [text_of(info.Speed), text_of(info.Width)].filter(Boolean).join(' '),
      // The link capability; the mark is part of the text so the filter finds it.
      [text_of(info.MaxSpeed), text_of(info.MaxWidth), info.Downtrained ? 'downtrained' : ''].filter(Boolean).join(' '),
      margining_text(device),
      text_of(ctrl?.DeviceName ?? device.SERDES?.DeviceName),
      text_of(ctrl?.PCIeCore),
      text_of(ctrl?.Port),
      text_of(device.SERDES?.SERDES),
    ],
  };
}

function Cell({ row, index }: { row: Row; index: number }) {
  const cell = row.cells[index];
  const info = row.device.PCIeInfo;
  if (index === CAPABILITY && info.Downtrained) {
    return (
      <td title={`Trained at ${text_of(info.Speed)} ${text_of(info.Width)}, capable of ${text_of(info.MaxSpeed)} ${text_of(info.MaxWidth)}`}>
        {[text_of(info.MaxSpeed), text_of(info.MaxWidth)].filter(Boolean).join(' ')}{' '}
        <span class="mark warn" data-testid="downtrained">
          downtrained
        </span>
      </td>
    );
  }
  return (
    <td class={`${index === MARGINING && row.device.PCIeMarginSupported ? 'ok' : ''}${index === DIE ? ' clip' : ''}`} title={cell}>
      {cell}
    </td>
  );
}

export function DevicesView({ devices, error, onReload, onNewTest }: Props) {
  const [filter, setFilter] = useState('');
  const [marginOnly, setMarginOnly] = useState(false);
  const rows = useMemo(() => (devices ?? []).map(row_of), [devices]);
  const shown = rows.filter(
    (row) =>
      (!marginOnly || row.device.PCIeMarginSupported === true) && row_matches(filter, row.device.PCIeInfo.SBDF, row.cells),
  );

  return (
    <div class="screen">
      <div class="toolbar">
        <h1>PCIe devices</h1>
        <input
          type="search"
          class="filter"
          placeholder="Filter: 0000:03:00.0, vendor, speed, port…"
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
                <tr key={row.cells[0]} class={row.device.PCIeMarginSupported ? '' : 'dim'} data-sbdf={row.device.PCIeInfo.SBDF}>
                  {row.cells.map((_cell, i) => (
                    <Cell key={i} row={row} index={i} />
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
