// Small pieces shared by the screens.

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
