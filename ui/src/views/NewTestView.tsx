import { useEffect, useMemo, useState } from 'preact/hooks';
import { add_test, estimate_duration } from '../api';
import { ber_label, duration_label, lanes_label } from '../format';
import { about_duration } from '../progress';
import { build_margin_record, default_form, errcnt_range, margin_capable, type FormErrors, type MarginForm } from '../record';
import type { DurationEstimate, PCIeDevice } from '../types';

interface Props {
  devices: PCIeDevice[] | null;
  error: string | null;
  /** A device picked on the device screen; the form switches to it at each pick. */
  chosen: { sbdf: string; seq: number };
}

type Answer = { ok: true; text: string } | { ok: false; text: string } | { sending: true };

type Estimate = { ok: true; value: DurationEstimate } | { ok: false; text: string } | null;

// Waits this long after the last change before asking, so typing an error
// count sends one request, not one per key.
const ESTIMATE_DELAY_MS = 300;

function estimate_text(e: DurationEstimate): string {
  const details: string[] = [];
  if (e.DwellSeconds !== null) details.push(`dwell ${duration_label(e.DwellSeconds)} per offset`);
  if (e.Lanes !== null) details.push(`${e.Lanes} ${e.Lanes === 1 ? 'lane' : 'lanes'}`);
  if (e.Batches !== null) details.push(`${e.Batches} ${e.Batches === 1 ? 'batch' : 'batches'}`);
  return `${about_duration(e.Seconds)} on hardware${details.length ? ` (${details.join(', ')})` : ''}`;
}

/**
 * The service's estimate of how long the record would take, asked again after
 * every change; the previous figure stays (dimmed) while a new one is asked,
 * so the line doesn't flicker.
 */
function useEstimate(recordKey: string): { estimate: Estimate; updating: boolean } {
  const [estimate, setEstimate] = useState<Estimate>(null);
  const [updating, setUpdating] = useState(false);
  useEffect(() => {
    if (!recordKey) {
      setEstimate(null);
      setUpdating(false);
      return;
    }
    setUpdating(true);
    const controller = new AbortController();
    const timer = setTimeout(() => {
      estimate_duration(JSON.parse(recordKey), controller.signal)
        .then((value) => !controller.signal.aborted && setEstimate({ ok: true, value }))
        .catch((e: Error) => !controller.signal.aborted && setEstimate({ ok: false, text: e.message }))
        .finally(() => !controller.signal.aborted && setUpdating(false));
    }, ESTIMATE_DELAY_MS);
    return () => {
      clearTimeout(timer);
      controller.abort();
    };
  }, [recordKey]);
  return { estimate, updating };
}

function FieldError({ text, id }: { text?: string; id: string }) {
  // The line is always there so a message appearing doesn't move the form.
  return (
    <div class="field-error" id={id} data-testid={id} role={text ? 'alert' : undefined}>
      {text ?? ''}
    </div>
  );
}

export function NewTestView({ devices, error, chosen }: Props) {
  const capable = useMemo(() => margin_capable(devices ?? []), [devices]);
  const [form, setForm] = useState<MarginForm>(default_form(undefined));
  const [checked, setChecked] = useState(false);
  const [answer, setAnswer] = useState<Answer | null>(null);

  const pick = (sbdf: string) => setForm(default_form((devices ?? []).find((d) => d.PCIeInfo.SBDF === sbdf)));

  useEffect(() => {
    if (chosen.sbdf) {
      pick(chosen.sbdf);
      setAnswer(null);
    }
  }, [chosen.seq]);

  const device = (devices ?? []).find((d) => d.PCIeInfo.SBDF === form.sbdf);
  const data = device?.PCIeMarginData ?? {};
  const result = build_margin_record(devices ?? [], form);
  const errors: FormErrors = checked ? result.errors : {};
  const { min, max } = errcnt_range(device);
  const update = (change: Partial<MarginForm>) => setForm({ ...form, ...change });
  const { estimate, updating } = useEstimate(result.record ? JSON.stringify(result.record) : '');

  const submit = async (event: Event) => {
    event.preventDefault();
    setChecked(true);
    if (!result.record) return;
    const record = result.record;
    setAnswer({ sending: true });
    try {
      const reply = await add_test(record);
      if (reply.OperationStatus) {
        const p = record.TestParams;
        setAnswer({
          ok: true,
          text: `${reply.TestID !== undefined ? `Queued as test ${reply.TestID}` : 'Queued'}: PCIe margin of ${record.PCIeInfo.SBDF}, receiver ${p.Receiver}, lanes ${lanes_label(p.Lanes)}, BER ${ber_label(p.BER)}, error count ${p.ErrCnt}.`,
        });
      } else {
        setAnswer({ ok: false, text: `The service refused the test: ${reply.ErrMsg || 'no reason given'}` });
      }
    } catch (e) {
      setAnswer({ ok: false, text: (e as Error).message });
    }
  };

  const toggleLane = (lane: number, on: boolean) =>
    update({ lanes: on ? [...form.lanes, lane] : form.lanes.filter((l) => l !== lane) });

  return (
    <div class="screen">
      <div class="toolbar">
        <h1>New PCIe margin test</h1>
      </div>
      {error && <p class="error">Device list: {error}</p>}
      <form class="form" onSubmit={submit} noValidate>
        <label for="nt-device">Device</label>
        <div>
          <select
            id="nt-device"
            value={form.sbdf}
            onChange={(e) => {
              pick((e.target as HTMLSelectElement).value);
              setAnswer(null);
            }}
          >
            <option value="">{devices === null ? 'Loading…' : capable.length ? 'Choose a device' : 'No device supports margining'}</option>
            {capable.map((d) => (
              <option key={d.PCIeInfo.SBDF} value={d.PCIeInfo.SBDF}>
                {d.PCIeInfo.SBDF} — {d.PCIeInfo.VendorName ?? ''} {d.PCIeInfo.DeviceType ?? ''}, {d.PCIeInfo.Speed ?? ''} {d.PCIeInfo.Width ?? ''}
                {d.PCIeCtrlInfo?.Port !== undefined ? `, port ${String(d.PCIeCtrlInfo.Port)}` : ''}
              </option>
            ))}
          </select>
          <FieldError id="error-device" text={errors.device} />
        </div>

        <label for="nt-receiver">Receiver</label>
        <div>
          <select id="nt-receiver" value={form.receiver} onChange={(e) => update({ receiver: (e.target as HTMLSelectElement).value })}>
            <option value="">Choose a receiver</option>
            {(data.Receivers ?? []).map((r) => (
              <option key={r} value={String(r)}>
                Receiver {r}
              </option>
            ))}
          </select>
          <FieldError id="error-receiver" text={errors.receiver} />
        </div>

        <span class="label">Lanes</span>
        <div>
          <label class="check">
            <input
              type="checkbox"
              id="nt-all-lanes"
              checked={form.allLanes}
              onChange={(e) => update({ allLanes: (e.target as HTMLInputElement).checked })}
            />
            All lanes
            {data.Lanes?.length
              ? ` (${lanes_label(data.Lanes)}${device?.PCIeInfo.Width ? `, trained width ${device.PCIeInfo.Width}` : ''})`
              : ''}
          </label>
          <div class={form.allLanes ? 'lanes disabled' : 'lanes'} data-testid="lane-choices">
            {(data.Lanes ?? []).map((lane) => (
              <label key={lane} class="lane">
                <input
                  type="checkbox"
                  disabled={form.allLanes}
                  checked={form.allLanes || form.lanes.includes(lane)}
                  onChange={(e) => toggleLane(lane, (e.target as HTMLInputElement).checked)}
                />
                {lane}
              </label>
            ))}
          </div>
          <FieldError id="error-lanes" text={errors.lanes} />
        </div>

        <label for="nt-ber">Target BER</label>
        <div>
          <select id="nt-ber" value={form.ber} onChange={(e) => update({ ber: (e.target as HTMLSelectElement).value })}>
            <option value="">Choose a BER</option>
            {(data.BER ?? []).map((b) => (
              <option key={b} value={b}>
                {ber_label(b)}
              </option>
            ))}
          </select>
          <FieldError id="error-ber" text={errors.ber} />
        </div>

        <label for="nt-errcnt">Error count limit</label>
        <div>
          <input
            id="nt-errcnt"
            type="text"
            inputMode="numeric"
            class="narrow"
            value={form.errCnt}
            onInput={(e) => update({ errCnt: (e.target as HTMLInputElement).value })}
          />
          <span class="muted"> {min} to {max}</span>
          <FieldError id="error-errCnt" text={errors.errCnt} />
        </div>

        <span class="label">Duration</span>
        <div class={updating ? 'estimate updating' : 'estimate'} data-testid="estimate" aria-live="polite">
          {estimate === null && <span class="muted">{updating ? 'Estimating…' : form.sbdf ? 'Complete the choices to see how long the test takes.' : ''}</span>}
          {estimate?.ok === true && estimate_text(estimate.value)}
          {estimate?.ok === false && <span class="muted">No estimate: {estimate.text}</span>}
        </div>

        <span />
        <div class="actions">
          <button type="submit" class="primary" disabled={answer !== null && 'sending' in answer}>
            Queue test
          </button>
        </div>
      </form>
      <div class="answer-line" data-testid="queue-answer">
        {answer && 'sending' in answer && <span class="muted">Sending…</span>}
        {answer && 'ok' in answer && answer.ok && (
          <span class="success">
            {answer.text} <a href="#queue">Follow it on the queue</a>
          </span>
        )}
        {answer && 'ok' in answer && !answer.ok && <span class="error">{answer.text}</span>}
      </div>
    </div>
  );
}
