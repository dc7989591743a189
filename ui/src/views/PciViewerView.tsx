// The PCI viewer: the machine's functions as a tree, the structures one holds,
// any structure as a table of registers and fields (RW fields editable), and
// the raw configuration dump.
import { useEffect, useMemo, useState } from 'preact/hooks';
import * as api from '../panels_api';
import type { PciFunction, PciTable } from '../panels_api';

interface TreeRow {
  fn: PciFunction;
  depth: number;
}

/**
 * Functions in tree order: each after its parent, children by address. A
 * parent that isn't listed (or the function itself) makes a root, and
 * functions caught in a loop of parents are shown as roots too, so every
 * function is shown exactly once.
 */
export function tree_rows(functions: PciFunction[]): TreeRow[] {
  const known = new Set(functions.map((f) => f.SBDF));
  const children = new Map<string, PciFunction[]>();
  for (const f of functions) {
    const parent = known.has(f.ParentSBDF) && f.ParentSBDF !== f.SBDF ? f.ParentSBDF : '';
    children.set(parent, [...(children.get(parent) ?? []), f]);
  }
  const rows: TreeRow[] = [];
  const shown = new Set<string>();
  const walk = (parent: string, depth: number) => {
    for (const f of children.get(parent) ?? []) {
      if (shown.has(f.SBDF)) continue;
      shown.add(f.SBDF);
      rows.push({ fn: f, depth });
      walk(f.SBDF, depth + 1);
    }
  };
  walk('', 0);
  for (const f of functions)
    if (!shown.has(f.SBDF)) {
      shown.add(f.SBDF);
      rows.push({ fn: f, depth: 0 });
      walk(f.SBDF, 1);
    }
  return rows;
}

function FieldEditor({ sbdf, table, register, field, onDone }: {
  sbdf: string; table: PciTable; register: string; field: api.PciField; onDone: (note: string) => void;
}) {
  const [value, setValue] = useState(field.value);
  // A refusal is shown beside the field (the note above may be scrolled
  // away), with what the device still holds; the typed text stays to be fixed.
  const [refused, setRefused] = useState('');
  // A table reload shows the device's value, but never over what the user is typing.
  const [edited, setEdited] = useState(false);
  useEffect(() => { if (!edited) setValue(field.value); }, [field.value]);
  const done = (answer: string) => {
    const ok = answer === 'success';
    if (ok) setEdited(false);
    setRefused(ok ? '' : `${answer}; the device keeps ${field.value}`);
    onDone(ok ? `${register}.${field.name} = ${value}` : answer);
  };
  return (
    <span class="field-edit">
      <input value={value} size={10} aria-label={`${register}.${field.name}`} aria-invalid={refused !== ''}
        onInput={(e) => { setValue((e.target as HTMLInputElement).value); setEdited(true); }} />
      <button onClick={() => api.write_field(sbdf, table, register, field.name, value).then(done).catch((e: Error) => done(e.message))}>
        Write
      </button>
      {refused && <span class="error" data-testid="field-refused">{refused}</span>}
    </span>
  );
}

export function PciViewerView({ visible }: { visible: boolean }) {
  const [functions, setFunctions] = useState<PciFunction[] | null>(null);
  const [error, setError] = useState<string | null>(null);
  const [sbdf, setSbdf] = useState('');
  const [structures, setStructures] = useState<string[]>([]);
  const [tableName, setTableName] = useState('PCIE_HEADER');
  const [table, setTable] = useState<PciTable | null>(null);
  const [raw, setRaw] = useState<{ offset: string; value: string }[] | null>(null);
  const [note, setNote] = useState('');

  useEffect(() => {
    if (visible && functions === null) api.get_pci_functions().then(setFunctions).catch((e: Error) => setError(e.message));
  }, [visible]);
  const rows = useMemo(() => tree_rows(functions ?? []), [functions]);

  const loadTable = (device: string, name: string) => {
    setTableName(name);
    api.get_table(device, name).then(setTable).catch((e: Error) => { setTable(null); setNote(e.message); });
  };
  const open = (device: string) => {
    setSbdf(device);
    setNote('');
    setRaw(null);
    Promise.all([api.get_cap_list(device), api.get_ext_cap_list(device)])
      .then(([caps, ext]) => setStructures(['PCIE_HEADER', ...caps, ...ext]))
      .catch((e: Error) => setNote(e.message));
    loadTable(device, 'PCIE_HEADER');
  };

  return (
    <div class="pci-viewer">
      <h2>PCI viewer</h2>
      {error && <p class="error">{error}</p>}
      <div class="viewer-panes">
        <ul class="pci-tree" data-testid="pci-tree">
          {rows.map(({ fn, depth }) => (
            <li key={fn.SBDF} style={{ paddingLeft: `${depth * 1.2}em` }}>
              <a href="javascript:void 0" class={fn.SBDF === sbdf ? 'active' : ''} onClick={() => open(fn.SBDF)} title={fn.ClassCode}>
                {fn.SBDF} {fn.DeviceDescription}
              </a>
            </li>
          ))}
        </ul>
        {sbdf && (
          <div class="pci-detail">
            <div class="structures" data-testid="structures">
              {structures.map((name) => (
                <button key={name} class={name === tableName && !raw ? 'active' : ''} onClick={() => { setRaw(null); loadTable(sbdf, name); }}>
                  {name}
                </button>
              ))}
              <button onClick={() => api.get_raw_view(sbdf).then((r) => setRaw(r.register)).catch((e: Error) => setNote(e.message))}>Raw dump</button>
            </div>
            {note && <p class="note" data-testid="viewer-note">{note}</p>}
            {raw ? (
              <pre class="raw-dump" data-testid="raw-dump">
                {raw.filter((_, i) => i % 4 === 0).map((_, row) =>
                  `${raw[row * 4].offset.replace('0x', '').padStart(3, '0')}: ${raw.slice(row * 4, row * 4 + 4).map((r) => r.value.replace('0x', '').padStart(8, '0')).join(' ')}`,
                ).join('\n')}
              </pre>
            ) : (
              table && (
                <table class="field-table" data-testid="field-table">
                  <caption>{table.name} at {table.absoluteOffset} (capability {table.capId})</caption>
                  <thead><tr><th>Register</th><th>Offset</th><th>Field</th><th>Bits</th><th>Access</th><th>Value</th><th>Meaning</th></tr></thead>
                  <tbody>
                    {table.register.flatMap((r) =>
                      r.field.map((f, i) => (
                        <tr key={`${r.name}.${f.name}`} data-field={`${r.name}.${f.name}`}>
                          <td>{i === 0 ? r.name : ''}</td>
                          <td>{i === 0 ? r.offset : ''}</td>
                          <td>{f.name}</td>
                          <td>{f.startBit === f.endBit ? f.startBit : `${f.endBit}:${f.startBit}`}</td>
                          <td>{f.access}</td>
                          <td>
                            {f.access === 'RW' ? (
                              <FieldEditor sbdf={sbdf} table={table} register={r.name} field={f} onDone={(n) => { setNote(n); loadTable(sbdf, tableName); }} />
                            ) : (
                              f.value
                            )}
                          </td>
                          <td>{f.text}</td>
                        </tr>
                      )),
                    )}
                  </tbody>
                </table>
              )
            )}
          </div>
        )}
      </div>
    </div>
  );
}
