// Controls of the port status and link control screens.
import { useState } from 'preact/hooks';

export interface Count {
  label: string;
  value: number;
  /** Shown in the success or error colour when not zero. */
  tone?: 'success' | 'error';
  /** A breakdown of another count: set smaller. */
  minor?: boolean;
  testId?: string;
}

/** A row of labelled counts, as a loop reports them. */
export function CountList({ counts, testId }: { counts: Count[]; testId: string }) {
  return (
    <dl class="counts" data-testid={testId}>
      {counts.map((c) => (
        <div key={c.label} class={c.minor ? 'cause' : undefined}>
          <dt>{c.label}</dt>
          <dd class={c.tone && c.value ? c.tone : undefined} data-testid={c.testId}>
            {c.value}
          </dd>
        </div>
      ))}
    </dl>
  );
}

/** A select over a list of labels whose value is the chosen index. */
export function IndexSelect(props: { id: string; values: string[]; value: number; disabled?: boolean; onChange: (index: number) => void }) {
  return (
    <select id={props.id} disabled={props.disabled} value={props.value} onChange={(e) => props.onChange(Number((e.target as HTMLSelectElement).value))}>
      {props.values.map((v, i) => (
        <option key={`${i}-${v}`} value={i}>
          {v}
        </option>
      ))}
    </select>
  );
}

/** A checkbox whose state lives in the service: it shows the new state once the service has taken it. */
export function RemoteCheck(props: { label: string; checked: boolean; disabled?: boolean; title?: string; onSet: (checked: boolean) => Promise<unknown>; onError: (message: string) => void }) {
  const [sending, setSending] = useState(false);
  return (
    <label class="check" title={props.title}>
      <input
        type="checkbox"
        checked={props.checked}
        disabled={props.disabled || sending}
        onChange={(e) => {
          const target = e.target as HTMLInputElement;
          const wanted = target.checked;
          // Until the service answers, the box shows what it holds.
          target.checked = props.checked;
          setSending(true);
          props
            .onSet(wanted)
            .catch((err: Error) => props.onError(err.message))
            .finally(() => setSending(false));
        }}
      />
      {props.label}
    </label>
  );
}
