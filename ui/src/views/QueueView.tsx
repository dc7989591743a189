import { useEffect, useState } from 'preact/hooks';
import { cancel_test } from '../api';
import { progress_text, type FinishedTest } from '../progress';
import { result_hash } from '../route';
import type { Progress, QueuedTest } from '../types';
import { Confirm, EmptyRow } from './common';

interface Props {
  /** null until the service has pushed the queue once. */
  queue: QueuedTest[] | null;
  finished: FinishedTest[];
  note: string | null;
}

const COLUMNS = 9;

function ProgressCell({ test }: { test: QueuedTest }) {
  if (test.Status !== 'Running') {
    return (
      <div class="progress-cell muted" data-testid="waiting">
        {test.WaitingFor !== null ? `waits for test ${test.WaitingFor}` : 'waiting for a free slot'}
      </div>
    );
  }
  const progress: Progress | null = test.Progress;
  if (!progress) return <div class="progress-cell muted">running, no progress reported</div>;
  const text = progress_text(progress);
  return (
    <div class="progress-cell" data-testid="progress">
      <div class="bar" role="progressbar" aria-valuemin={0} aria-valuemax={100} aria-valuenow={Math.round(progress.Percent)}>
        <div class="fill" style={{ width: `${progress.Percent}%` }} />
        <span class="bar-text">{Math.round(progress.Percent)}%</span>
      </div>
      <span class="progress-text" title={text}>
        {text}
      </span>
    </div>
  );
}

function status_class(status: string): string {
  return `status ${status.toLowerCase()}`;
}

/** Asks before stopping a running test: what it measured so far is kept, but the run can't go on. */
function ConfirmCancel({ test, onAnswer }: { test: QueuedTest; onAnswer: (yes: boolean) => void }) {
  return (
    <Confirm testId="confirm-cancel" title={`Cancel test ${test.TestID}?`} keepLabel="Keep it running" goLabel={`Cancel test ${test.TestID}`} onAnswer={onAnswer}>
      <p>
        The running {test.Operation} of {test.SBDF} stops at its next safe point, with its lanes back at their normal
        settings. What it has measured so far is kept in its result, marked "Cancelled".
      </p>
    </Confirm>
  );
}

export function QueueView({ queue, finished, note }: Props) {
  // Tests a cancel was sent for, until the push says so or they leave.
  const [asked, setAsked] = useState<Set<number>>(new Set());
  const [confirming, setConfirming] = useState<QueuedTest | null>(null);
  const [cancelError, setCancelError] = useState<string | null>(null);

  // A test that ends while its confirmation is open needs no answer; its end
  // is listed under "Recently finished".
  useEffect(() => {
    if (confirming && !(queue ?? []).some((t) => t.TestID === confirming.TestID && t.Status === 'Running')) setConfirming(null);
  }, [queue, confirming]);

  const send_cancel = async (id: number) => {
    setCancelError(null);
    setAsked((old) => new Set(old).add(id));
    try {
      await cancel_test(id);
    } catch (e) {
      setCancelError(`Test ${id} was not cancelled: ${(e as Error).message}`);
      setAsked((old) => {
        const next = new Set(old);
        next.delete(id);
        return next;
      });
    }
  };

  const cancel = (t: QueuedTest) => {
    if (t.TestID === null) return;
    // A queued test has measured nothing, so it goes without asking.
    if (t.Status === 'Running') setConfirming(t);
    else void send_cancel(t.TestID);
  };

  return (
    <div class="screen">
      <div class="toolbar">
        <h1>Queue</h1>
        <span class="muted">Queued and running tests, live from the service.</span>
      </div>
      <div class="table-wrap">
        <table class="grid queue" data-testid="queue-table">
          <thead>
            <tr>
              <th class="num">Test</th>
              <th>Operation</th>
              <th>Device</th>
              <th class="num">Receiver</th>
              <th>Lanes</th>
              <th>BER</th>
              <th class="status-col">Status</th>
              <th class="progress-col">Progress</th>
              <th />
            </tr>
          </thead>
          <tbody>
            {(queue ?? []).map((t) => {
              const cancelling = t.Cancelling || (t.TestID !== null && asked.has(t.TestID));
              return (
                <tr key={t.TestID ?? `${t.Operation}-${t.SBDF}`} data-status={t.Status} data-cancelling={cancelling ? 'true' : undefined}>
                  <td class="num">{t.TestID ?? ''}</td>
                  <td>{t.Operation}</td>
                  <td title={t.SBDF}>{t.SBDF}</td>
                  <td class="num">{t.Receiver}</td>
                  <td title={t.Lanes}>{t.Lanes}</td>
                  <td>{t.BER}</td>
                  <td class="status-col">
                    {cancelling ? (
                      <span class="status cancelling">Cancelling…</span>
                    ) : (
                      <span class={status_class(t.Status)}>{t.Status}</span>
                    )}
                  </td>
                  <td class="progress-col">
                    <ProgressCell test={t} />
                  </td>
                  <td class="action">
                    <button
                      type="button"
                      class="small"
                      data-testid="cancel"
                      disabled={t.TestID === null || cancelling}
                      title={t.Status === 'Running' ? 'Stop this test (asks first)' : 'Take this test off the queue'}
                      onClick={() => cancel(t)}
                    >
                      Cancel
                    </button>
                  </td>
                </tr>
              );
            })}
            {(queue === null || queue.length === 0) && (
              <EmptyRow
                columns={COLUMNS}
                text={
                  queue === null
                    ? 'No test is queued or running. (The service reports the queue while it holds tests.)'
                    : 'No test is queued or running.'
                }
              />
            )}
          </tbody>
        </table>
      </div>
      <div class="message-line" data-testid="cancel-error" role={cancelError ? 'alert' : undefined}>
        {cancelError && <span class="error">{cancelError}</span>}
      </div>
      {confirming && (
        <ConfirmCancel
          test={confirming}
          onAnswer={(yes) => {
            const id = confirming.TestID;
            setConfirming(null);
            if (yes && id !== null) void send_cancel(id);
          }}
        />
      )}
      <h2>Recently finished</h2>
      <ul class="finished" data-testid="finished">
        {finished.length === 0 && <li class="muted">None since this page was opened.</li>}
        {finished.map((f) => (
          <li key={`${f.TestID}-${f.at}`} data-testid="finished-item" data-test={f.TestID ?? ''} data-status={f.Status}>
            <span class="muted">{f.at}</span> test {f.TestID ?? '?'}: {f.Operation}
            {f.SBDF ? ` of ${f.SBDF}` : ''} <span class={status_class(f.Status)}>{f.Status}</span>
            {f.FailureReason && <span class="reason"> {f.FailureReason}</span>}{' '}
            {f.ResultId ? (
              <a href={result_hash(f.ResultId)} data-testid="open-result">
                Open result
              </a>
            ) : (
              <span class="muted">no result stored</span>
            )}
          </li>
        ))}
      </ul>
      {note && <p class="note">{note}</p>}
    </div>
  );
}
