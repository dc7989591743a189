// Small pieces shared by the screens.
import type { ComponentChildren } from 'preact';
import { useEffect, useRef } from 'preact/hooks';

/** The single row a table shows when it has nothing to list. */
export function EmptyRow({ columns, text }: { columns: number; text: string }) {
  return (
    <tr>
      <td colSpan={columns} class="muted">
        {text}
      </td>
    </tr>
  );
}

interface ConfirmProps {
  testId: string;
  title: string;
  children: ComponentChildren;
  /** The button that leaves things as they are; Escape answers the same. */
  keepLabel: string;
  goLabel: string;
  onAnswer: (yes: boolean) => void;
}

/** A modal question before a step that can't be taken back; the safe answer has the focus. */
export function Confirm({ testId, title, children, keepLabel, goLabel, onAnswer }: ConfirmProps) {
  const dialog = useRef<HTMLDialogElement>(null);
  useEffect(() => {
    const d = dialog.current;
    if (d && !d.open) d.showModal();
  }, []);
  return (
    <dialog
      ref={dialog}
      class="confirm"
      data-testid={testId}
      aria-labelledby={`${testId}-title`}
      onCancel={(e) => {
        e.preventDefault();
        onAnswer(false);
      }}
    >
      <h2 id={`${testId}-title`}>{title}</h2>
      {children}
      <div class="dialog-actions">
        <button type="button" autofocus onClick={() => onAnswer(false)}>
          {keepLabel}
        </button>
        <button type="button" class="danger" data-testid="confirm-go" onClick={() => onAnswer(true)}>
          {goLabel}
        </button>
      </div>
    </dialog>
  );
}
