// Parts both new-test forms (PCIe device, hVL link) are made of: a field's
// error line, the lane choices, BER and error count, the duration estimate
// and the queue's answer. ids and test ids carry a prefix per form, since
// every screen stays mounted.
import { useEffect, useState } from 'preact/hooks';
import { add_test, estimate_duration } from '../api';
import { ber_label, duration_label, lanes_label } from '../format';
import { about_duration } from '../progress';
import type { FormErrors } from '../record';
import type { DurationEstimate, MarginChoices, TestRecord } from '../types';

type Estimate = { ok: true; value: DurationEstimate } | { ok: false; text: string } | null;

// Waits this long after the last change before asking, so typing an error
// count sends one request, not one per key.
const ESTIMATE_DELAY_MS = 300;

function estimate_text(e: DurationEstimate, note: string): string {
  const details: string[] = [];
  if (e.DwellSeconds !== null) details.push(`dwell ${duration_label(e.DwellSeconds)} per offset`);
  if (e.Lanes !== null) details.push(`${e.Lanes} ${e.Lanes === 1 ? 'lane' : 'lanes'}${note}`);
  if (e.Batches !== null && !note) details.push(`${e.Batches} ${e.Batches === 1 ? 'batch' : 'batches'}`);
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

/** The duration line; lanesNote follows the lane count ("one after another"). */
export function EstimateLine({ record, chosen, testid, lanesNote = '' }: { record?: TestRecord; chosen: boolean; testid: string; lanesNote?: string }) {
  const { estimate, updating } = useEstimate(record ? JSON.stringify(record) : '');
  return (
    <>
      <span class="label">Duration</span>
      <div class={updating ? 'estimate updating' : 'estimate'} data-testid={testid} aria-live="polite">
        {estimate === null && <span class="muted">{updating ? 'Estimating…' : chosen ? 'Complete the choices to see how long the test takes.' : ''}</span>}
        {estimate?.ok === true && estimate_text(estimate.value, lanesNote)}
        {estimate?.ok === false && <span class="muted">No estimate: {estimate.text}</span>}
      </div>
    </>
  );
}

export function FieldError({ text, id }: { text?: string; id: string }) {
  // The line is always there so a message appearing doesn't move the form.
  return (
    <div class="field-error" id={id} data-testid={id} role={text ? 'alert' : undefined}>
      {text ?? ''}
    </div>
  );
}

/** The part of a form every margin has: lanes, BER and error count. */
export interface ChoiceForm {
  allLanes: boolean;
  lanes: number[];
  ber: string;
  errCnt: string;
}

interface ChoiceProps {
  data: MarginChoices;
  form: ChoiceForm;
  errors: FormErrors;
  update: (change: Partial<ChoiceForm>) => void;
  /** "nt-" or "hv-": ids of the fields and their error lines. */
  prefix: string;
  /** Said after the lane list, e.g. the trained width. */
  lanesNote?: string;
  range: { min: number; max: number };
}

export function MarginChoiceFields({ data, form, errors, update, prefix, lanesNote = '', range }: ChoiceProps) {
  const toggleLane = (lane: number, on: boolean) =>
    update({ lanes: on ? [...form.lanes, lane] : form.lanes.filter((l) => l !== lane) });
  // The PCIe form's ids came first and stay as they were.
  const testid = (name: string) => (prefix === 'nt-' ? name : `${prefix}${name}`);
  return (
    <>
      <span class="label">Lanes</span>
      <div>
        <label class="check">
          <input
            type="checkbox"
            id={`${prefix}all-lanes`}
            checked={form.allLanes}
            onChange={(e) => update({ allLanes: (e.target as HTMLInputElement).checked })}
          />
          All lanes
          {data.Lanes?.length ? ` (${lanes_label(data.Lanes)}${lanesNote})` : ''}
        </label>
        <div class={form.allLanes ? 'lanes disabled' : 'lanes'} data-testid={testid('lane-choices')}>
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
        <FieldError id={testid('error-lanes')} text={errors.lanes} />
      </div>

      <label for={`${prefix}ber`}>Target BER</label>
      <div>
        <select id={`${prefix}ber`} value={form.ber} onChange={(e) => update({ ber: (e.target as HTMLSelectElement).value })}>
          <option value="">Choose a BER</option>
          {(data.BER ?? []).map((b) => (
            <option key={b} value={b}>
              {ber_label(b)}
            </option>
          ))}
        </select>
        <FieldError id={testid('error-ber')} text={errors.ber} />
      </div>

      <label for={`${prefix}errcnt`}>Error count limit</label>
      <div>
        <input
          id={`${prefix}errcnt`}
          type="text"
          inputMode="numeric"
          class="narrow"
          value={form.errCnt}
          onInput={(e) => update({ errCnt: (e.target as HTMLInputElement).value })}
        />
        <span class="muted">
          {' '}
          {range.min} to {range.max}
        </span>
        <FieldError id={testid('error-errCnt')} text={errors.errCnt} />
      </div>
    </>
  );
}

type Answer = { ok: true; text: string } | { ok: false; text: string } | { sending: true };

/**
 * Sends a record to the queue and keeps the answer: the new TestID with what
 * was queued, or the service's reason for refusing it.
 */
export function useQueueAnswer() {
  const [answer, setAnswer] = useState<Answer | null>(null);
  const send = async (record: TestRecord, what: string) => {
    setAnswer({ sending: true });
    try {
      const reply = await add_test(record);
      if (reply.OperationStatus) {
        setAnswer({ ok: true, text: `${reply.TestID !== undefined ? `Queued as test ${reply.TestID}` : 'Queued'}: ${what}.` });
      } else {
        setAnswer({ ok: false, text: `The service refused the test: ${reply.ErrMsg || 'no reason given'}` });
      }
    } catch (e) {
      setAnswer({ ok: false, text: (e as Error).message });
    }
  };
  return { answer, sending: answer !== null && 'sending' in answer, send, clear: () => setAnswer(null) };
}

/** The form's last grid row: an empty label cell and the submit button. */
export function SubmitRow({ label, sending, testid }: { label: string; sending: boolean; testid?: string }) {
  return (
    <>
      <span />
      <div class="actions">
        <button type="submit" class="primary" disabled={sending} data-testid={testid}>
          {label}
        </button>
      </div>
    </>
  );
}

export function AnswerLine({ answer, testid }: { answer: Answer | null; testid: string }) {
  return (
    <div class="answer-line" data-testid={testid}>
      {answer && 'sending' in answer && <span class="muted">Sending…</span>}
      {answer && 'ok' in answer && answer.ok && (
        <span class="success">
          {answer.text} <a href="#queue">Follow it on the queue</a>
        </span>
      )}
      {answer && 'ok' in answer && !answer.ok && <span class="error">{answer.text}</span>}
    </div>
  );
}
