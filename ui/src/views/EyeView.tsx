// The eye scan form: a PCIe port or hVL link end, its lanes and the bits
// compared per point (BER), with the service's duration estimate.
import { useEffect, useState } from 'preact/hooks';
import { get_eye_targets } from '../api';
import { build_eye_record, default_eye_form, eye_ber_label, eye_record_text, target_key, target_label, type EyeForm } from '../eye';
import type { FormErrors } from '../record';
import type { EyeScanTarget } from '../types';
import { AnswerLine, SubmitRow, EstimateLine, FieldError, useQueueAnswer } from './form_parts';

const QUAD = [0, 1, 2, 3];

export function EyeView() {
  const [targets, setTargets] = useState<EyeScanTarget[] | null>(null);
  const [error, setError] = useState<string | null>(null);
  const [form, setForm] = useState<EyeForm>(default_eye_form(undefined));
  const [checked, setChecked] = useState(false);
  const queue = useQueueAnswer();

  const load = () => {
    setError(null);
    get_eye_targets()
      .then(setTargets)
      .catch((e: Error) => setError(e.message));
  };
  useEffect(load, []);

  const all = targets ?? [];
  const target = all.find((t) => target_key(t) === form.target);
  const offered = target?.EyeScanData?.Lanes ?? [];
  const result = build_eye_record(all, form);
  const errors: FormErrors = checked ? result.errors : {};
  const update = (change: Partial<EyeForm>) => setForm({ ...form, ...change });
  const pick = (key: string) => {
    setForm(default_eye_form(all.find((t) => target_key(t) === key)));
    queue.clear();
  };
  const submit = (event: Event) => {
    event.preventDefault();
    setChecked(true);
    if (result.record) void queue.send(result.record, eye_record_text(result.record));
  };
  const group = (kind: 'pcie' | 'hvl') => all.filter((t) => (kind === 'hvl') === Boolean(t.HVLCtrlInfo));

  return (
    <div class="screen">
      <div class="toolbar">
        <h1>Eye scan</h1>
        <span class="muted">Each lane's receiver eye, sampled over phase and voltage; lanes are scanned one after another.</span>
        <button type="button" onClick={load}>
          Reload
        </button>
      </div>
      {error && <p class="error">Eye scan targets: {error}</p>}
      <form class="form" onSubmit={submit} noValidate>
        <label for="ey-target">Port or link</label>
        <div>
          <select id="ey-target" value={form.target} onChange={(e) => pick((e.target as HTMLSelectElement).value)}>
            <option value="">{targets === null ? 'Loading…' : all.length ? 'Choose a port or link' : 'Nothing can be eye scanned'}</option>
            {(['pcie', 'hvl'] as const).map((kind) => {
              const members = group(kind);
              return (
                members.length > 0 && (
                  <optgroup key={kind} label={kind === 'pcie' ? 'PCIe ports' : 'hVL link ends'}>
                    {members.map((t) => (
                      <option key={target_key(t)} value={target_key(t)}>
                        {target_label(t)}
                      </option>
                    ))}
                  </optgroup>
                )
              );
            })}
          </select>
          <FieldError id="ey-error-device" text={errors.device} />
        </div>

        <span class="label">Lanes</span>
        <div>
          <div class="quick">
            <button type="button" class="small" disabled={!offered.length} onClick={() => update({ lanes: [...offered] })} data-testid="ey-lanes-all">
              All
            </button>
            <button
              type="button"
              class="small"
              disabled={!QUAD.every((l) => offered.includes(l))}
              onClick={() => update({ lanes: QUAD })}
              data-testid="ey-lanes-quad"
            >
              0–3
            </button>
            <button type="button" class="small" disabled={!form.lanes.length} onClick={() => update({ lanes: [] })}>
              None
            </button>
          </div>
          <div class="lanes" data-testid="ey-lane-choices">
            {offered.map((lane) => (
              <label key={lane} class="lane">
                <input
                  type="checkbox"
                  checked={form.lanes.includes(lane)}
                  onChange={(e) =>
                    update({ lanes: (e.target as HTMLInputElement).checked ? [...form.lanes, lane] : form.lanes.filter((l) => l !== lane) })
                  }
                />
                {lane}
              </label>
            ))}
          </div>
          <FieldError id="ey-error-lanes" text={errors.lanes} />
        </div>

        <label for="ey-ber">Target BER</label>
        <div>
          <select id="ey-ber" value={form.ber} onChange={(e) => update({ ber: (e.target as HTMLSelectElement).value })}>
            <option value="">Choose a BER</option>
            {(target?.EyeScanData?.BER ?? []).map((b) => (
              <option key={b} value={b}>
                {eye_ber_label(b)}
              </option>
            ))}
          </select>
          <span class="muted"> compared at each point of the eye</span>
          <FieldError id="ey-error-ber" text={errors.ber} />
        </div>

        <EstimateLine record={result.record} chosen={form.target !== ''} testid="ey-estimate" lanesNote=" one after another" />

        <SubmitRow label="Queue eye scan" sending={queue.sending} testid="ey-submit" />
      </form>
      <AnswerLine answer={queue.answer} testid="ey-queue-answer" />
    </div>
  );
}
