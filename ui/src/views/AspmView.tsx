// ASPM of every link: what both ends offer and have on, toggles that ask
// before they change a link, and the ends' exit latencies.
import { useEffect, useState } from 'preact/hooks';
import * as api from '../panels_api';
import type { AspmLink, AspmState } from '../panels_api';

const STATES: { state: AspmState; label: string }[] = [
  { state: 'L0s', label: 'L0s' },
  { state: 'L1', label: 'L1' },
  { state: 'L11', label: 'L1.1' },
  { state: 'L12', label: 'L1.2' },
];

function end_text(end: api.AspmEnd, state: AspmState): string {
  const capable = end[`${state}Capable` as keyof api.AspmEnd];
  const enabled = end[`${state}Enabled` as keyof api.AspmEnd];
  return !capable ? 'not offered' : enabled ? 'on' : 'off';
}

export function AspmView({ visible }: { visible: boolean }) {
  const [links, setLinks] = useState<AspmLink[] | null>(null);
  const [note, setNote] = useState('');
  const load = () => api.get_aspm().then(setLinks).catch((e: Error) => setNote(e.message));
  useEffect(() => {
    if (visible) load();
  }, [visible]);

  const toggle = (link: AspmLink, state: AspmState, label: string, value: boolean) => {
    const what = `${value ? 'Enable' : 'Disable'} ${label} on ${link.Port.SBDF} and ${link.Device.SBDF}?`;
    if (!window.confirm(what)) return;
    api.set_aspm(state, link.id, value)
      .then((done) => setNote(done ? `${label} ${value ? 'enabled' : 'disabled'} on link ${link.Port.SBDF}` : `The service refused: ${label} on ${link.Port.SBDF}`))
      .catch((e: Error) => setNote(e.message))
      .finally(load);
  };

  return (
    <div class="aspm">
      <h2>ASPM</h2>
      {note && <p class="note" data-testid="aspm-note">{note}</p>}
      <table data-testid="aspm-table">
        <thead>
          <tr>
            <th>Port</th><th>Device</th>
            {STATES.map((s) => <th key={s.state}>{s.label}</th>)}
            <th>Exit latency (port / device)</th><th>Timers</th>
          </tr>
        </thead>
        <tbody>
          {(links ?? []).map((link) => (
            <tr key={link.id} data-link={link.Port.SBDF}>
              <td>{link.Port.SBDF}</td>
              <td>{link.Device.SBDF}</td>
              {STATES.map(({ state, label }) => (
                <td key={state} title={`port ${end_text(link.Port, state)}, device ${end_text(link.Device, state)}`}>
                  <label>
                    <input
                      type="checkbox"
                      aria-label={`${label} ${link.Port.SBDF}`}
                      checked={link[`${state}Enabled`] === true}
                      disabled={link[`${state}Capable`] !== true}
                      onClick={(e) => {
                        e.preventDefault();
                        toggle(link, state, label, link[`${state}Enabled`] !== true);
                      }}
                    />
                    <small> {end_text(link.Port, state)} / {end_text(link.Device, state)}</small>
                  </label>
                </td>
              ))}
              <td>
                L0s {link.Port.L0sExitLatency} / {link.Device.L0sExitLatency}; L1 {link.Port.L1ExitLatency} / {link.Device.L1ExitLatency}
              </td>
              <td>
                {link.L0TimerValues.length + link.L1TimerValues.length === 0
                  ? 'none offered'
                  : `L0s: ${link.L0TimerValues.join(', ')}; L1: ${link.L1TimerValues.join(', ')}`}
              </td>
            </tr>
          ))}
          {links !== null && links.length === 0 && <tr><td colSpan={8}>No PCI Express links.</td></tr>}
        </tbody>
      </table>
    </div>
  );
}
