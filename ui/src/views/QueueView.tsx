import { duration_label } from '../format';
import type { Progress, QueuedTest } from '../types';
import { EmptyRow } from './common';

export interface FinishedTest {
  test: QueuedTest;
  /** Local time at which it left the queue. */
  at: string;
}

interface Props {
  /** null until the service has pushed the queue once. */
  queue: QueuedTest[] | null;
  finished: FinishedTest[];
  note: string | null;
}

function ProgressCell({ status, progress }: { status: string; progress: Progress | null }) {
  if (status !== 'Running') return <div class="progress-cell muted">waiting for a free slot</div>;
  if (!progress) return <div class="progress-cell muted">running, no progress reported</div>;
  const remaining =
    progress.RemainingSeconds === null ? 'estimating' : `~${duration_label(progress.RemainingSeconds)} left`;
  return (
    <div class="progress-cell" data-testid="progress">
      <div class="bar" role="progressbar" aria-valuemin={0} aria-valuemax={100} aria-valuenow={Math.round(progress.Percent)}>
        <div class="fill" style={{ width: `${progress.Percent}%` }} />
        <span class="bar-text">{Math.round(progress.Percent)}%</span>
      </div>
      <span class="progress-text">
        {progress.Direction || '—'} · lanes {progress.LanesDone}/{progress.LanesTotal} · {duration_label(progress.ElapsedSeconds)} ·{' '}
        {remaining}
      </span>
    </div>
  );
}

export function QueueView({ queue, finished, note }: Props) {
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
              <th>Status</th>
              <th class="progress-col">Progress</th>
            </tr>
          </thead>
          <tbody>
            {(queue ?? []).map((t) => (
              <tr key={t.TestID ?? `${t.Operation}-${t.SBDF}`} data-status={t.Status}>
                <td class="num">{t.TestID ?? ''}</td>
                <td>{t.Operation}</td>
                <td title={t.SBDF}>{t.SBDF}</td>
                <td class="num">{t.Receiver}</td>
                <td title={t.Lanes}>{t.Lanes}</td>
                <td>{t.BER}</td>
                <td>
                  <span class={`status ${t.Status.toLowerCase()}`}>{t.Status}</span>
                </td>
                <td class="progress-col">
                  <ProgressCell status={t.Status} progress={t.Progress} />
                </td>
              </tr>
            ))}
            {(queue === null || queue.length === 0) && (
              <EmptyRow
                columns={8}
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
      <h2>Recently finished</h2>
      <ul class="finished" data-testid="finished">
        {finished.length === 0 && <li class="muted">None since this page was opened.</li>}
        {finished.map((f) => (
          <li key={`${f.test.TestID}-${f.at}`}>
            {f.at}: test {f.test.TestID} ({f.test.Operation} of {f.test.SBDF}) left the queue.{' '}
            <a href="#results">See results</a>
          </li>
        ))}
      </ul>
      {note && <p class="note">{note}</p>}
    </div>
  );
}
