// ASPM of every link: what both ends offer and have on, toggles that ask
// before they change a link, the ends' exit latencies, and the L0s/L1 entry
// timers where a platform end of the link has them.
import { useEffect, useState } from 'preact/hooks';
import * as api from '../panels_api';
import type { AspmLink, AspmState, AspmTimer } from '../panels_api';

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
  const [note, setNote] = useState<{ text: string; error: boolean } | null>(null);
  const say = (text: string, error = false) => setNote({ text, error });
  const load = () => api.get_aspm().then(setLinks).catch((e: Error) => say(e.message, true));
  useEffect(() => {
    if (visible) load();
  }, [visible]);

  const toggle = (link: AspmLink, state: AspmState, label: string, value: boolean) => {
    const what = `${value ? 'Enable' : 'Disable'} ${label} on ${link.Port.SBDF} and ${link.Device.SBDF}?`;
    if (!window.confirm(what)) return;
    api.set_aspm(state, link.id, value)
      .then((done) =>
        done
          ? say(`${label} ${value ? 'enabled' : 'disabled'} on link ${link.Port.SBDF}`)
          : say(`Error: the service refused ${label} on ${link.Port.SBDF}`, true),
      )
      .catch((e: Error) => say(e.message, true))
      .finally(load);
  };

  const set_timer = (link: AspmLink, timer: AspmTimer, entry: number) => {
    const label = timer === 'L0' ? 'L0s' : 'L1';
    const value = (timer === 'L0' ? link.L0TimerValues : link.L1TimerValues)[entry];
    api.set_aspm_timer(timer, link.id, entry, value)
      .then((done) =>
        done
          ? say(`${label} entry timer of ${link.Port.SBDF} set to ${value}`)
          : say(`Error: the service refused the ${label} entry timer ${value} on ${link.Port.SBDF}`, true),
      )
      .catch((e: Error) => say(e.message, true))
      .finally(load);
  };

  const timer_select = (link: AspmLink, timer: AspmTimer) => {
    const label = timer === 'L0' ? 'L0s' : 'L1';
    const values = timer === 'L0' ? link.L0TimerValues : link.L1TimerValues;
    const selected = timer === 'L0' ? link.L0TimerIndex : link.L1TimerIndex;
    return (
      <label>
        {label}{' '}
        <select
          aria-label={`${label} timer ${link.Port.SBDF}`}
          value={String(selected)}
          onChange={(e) => set_timer(link, timer, Number((e.target as HTMLSelectElement).value))}
        >
          {selected < 0 && <option value="-1">unreadable</option>}
          {values.map((v, i) => <option key={i} value={String(i)}>{v}</option>)}
        </select>
      </label>
    );
  };

  return (
    <div class="aspm">
      <h2>ASPM</h2>
      {note && <p class={note.error ? 'error' : 'note'} data-testid="aspm-note">{note.text}</p>}
      <p class="muted">
        Entry timers: how long an end waits idle before it enters L0s or asks for L1. Only the platform's own root ports
        and endpoints have them; a plain PCI Express link has none, and the service answers "Error" to a timer change there.
      </p>
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
              <td data-testid="aspm-timers">
                {link.L0TimerValues.length + link.L1TimerValues.length === 0 ? (
                  <small>none (plain PCI Express link)</small>
                ) : (
                  <>
                    {timer_select(link, 'L0')} {timer_select(link, 'L1')}
                    <br /><small>{link.TimerEnd === 'Port' ? "the port's timers" : "the device's timers"}</small>
                  </>
                )}
              </td>
            </tr>
          ))}
          {links !== null && links.length === 0 && <tr><td colSpan={8}>No PCI Express links.</td></tr>}
        </tbody>
      </table>
    </div>
  );
}
