// hVL links: both ends of every link with where it leads, and the form that
// queues a destructive margin of one end's lanes.
import { useEffect, useRef, useState } from 'preact/hooks';
import { get_hvl_links } from '../api';
import { errcnt_range, type FormErrors } from '../record';
import { build_hvl_record, default_hvl_form, hvl_record_text, link_key, link_label, link_row, LINK_COLUMNS, partner_label, type HvlForm } from '../hvl';
import { rate_label } from '../format';
import type { HVLLink } from '../types';
import { EmptyRow } from './common';
import { AnswerLine, SubmitRow, EstimateLine, FieldError, MarginChoiceFields, useQueueAnswer } from './form_parts';

const DIE = LINK_COLUMNS.indexOf('Die');
const MARGINING = LINK_COLUMNS.indexOf('Margining');

function LinkTable({ links, onPick }: { links: HVLLink[]; onPick: (key: string) => void }) {
  const rows = links.map(link_row);
  return (
    <div class="table-wrap">
      <table class="grid" data-testid="hvl-link-table">
        <thead>
          <tr>
            {LINK_COLUMNS.map((c) => (
              <th key={c}>{c}</th>
            ))}
            <th />
          </tr>
        </thead>
        <tbody>
          {rows.map((row) => (
            <tr key={row.key} class={row.link.HVLDestMarginSupported ? '' : 'dim'} data-link={row.key} data-end={row.cells[0]}>
              {row.cells.map((cell, i) => (
                <td
                  key={i}
                  class={`${i === MARGINING && row.link.HVLDestMarginSupported ? 'ok' : ''}${i === DIE ? ' clip' : ''}`}
                  title={i === 3 ? row.link.HVLCtrlInfo.PartnerDeviceName ?? cell : cell}
                >
                  {cell}
                </td>
              ))}
              <td class="action">
                {row.link.HVLDestMarginSupported && (
                  <button type="button" class="small" onClick={() => onPick(row.key)}>
                    Margin…
                  </button>
                )}
              </td>
            </tr>
          ))}
          {rows.length === 0 && <EmptyRow columns={LINK_COLUMNS.length + 1} text="The service lists no hVL link (a machine with one socket has none)." />}
        </tbody>
      </table>
    </div>
  );
}

export function HvlView() {
  const [links, setLinks] = useState<HVLLink[] | null>(null);
  const [error, setError] = useState<string | null>(null);
  const [form, setForm] = useState<HvlForm>(default_hvl_form(undefined));
  const [checked, setChecked] = useState(false);
  const queue = useQueueAnswer();
  const formBox = useRef<HTMLFormElement>(null);

  const load = () => {
    setError(null);
    get_hvl_links()
      .then(setLinks)
      .catch((e: Error) => setError(e.message));
  };
  useEffect(load, []);

  const all = links ?? [];
  const capable = all.filter((l) => l.HVLDestMarginSupported === true);
  const pick = (key: string) => {
    setForm(default_hvl_form(all.find((l) => link_key(l) === key)));
    queue.clear();
  };
  const link = all.find((l) => link_key(l) === form.link);
  const data = link?.HVLDestMarginData ?? {};
  const result = build_hvl_record(all, form);
  const errors: FormErrors = checked ? result.errors : {};
  const update = (change: Partial<HvlForm>) => setForm({ ...form, ...change });

  const submit = (event: Event) => {
    event.preventDefault();
    setChecked(true);
    if (result.record) void queue.send(result.record, hvl_record_text(result.record));
  };

  return (
    <div class="screen">
      <div class="toolbar">
        <h1>hVL links</h1>
        <span class="muted">Both ends of every link between sockets.</span>
        <button type="button" onClick={load}>
          Reload
        </button>
      </div>
      {error && <p class="error">hVL link list: {error}</p>}
      {!links && !error && <p class="muted">Loading the link list…</p>}
      {links && (
        <LinkTable
          links={links}
          onPick={(key) => {
            pick(key);
            formBox.current?.scrollIntoView({ block: 'nearest' });
          }}
        />
      )}

      <h2>New hVL margin test</h2>
      <form class="form" onSubmit={submit} noValidate ref={formBox}>
        <label for="hv-link">Die and link</label>
        <div>
          <select id="hv-link" value={form.link} onChange={(e) => pick((e.target as HTMLSelectElement).value)}>
            <option value="">{links === null ? 'Loading…' : capable.length ? 'Choose a link' : 'No link supports margining'}</option>
            {capable.map((l) => {
              const info = l.HVLCtrlInfo;
              return (
                <option key={link_key(l)} value={link_key(l)}>
                  {link_label(info)}
                  {info.PartnerSERDES ? ` to ${partner_label(info)}` : ''}, {rate_label(info.Speed)} {String(info.Width ?? '').trim()} — {info.DeviceName}
                </option>
              );
            })}
          </select>
          <FieldError id="hv-error-device" text={errors.device} />
        </div>

        <MarginChoiceFields
          data={data}
          form={form}
          errors={errors}
          update={update}
          prefix="hv-"
          lanesNote={link?.HVLCtrlInfo.LaneReversed ? ', reversed at the partner' : ''}
          range={errcnt_range(data)}
        />

        <EstimateLine record={result.record} chosen={form.link !== ''} testid="hv-estimate" lanesNote=" one after another" />

        <SubmitRow label="Queue hVL test" sending={queue.sending} testid="hv-submit" />
      </form>
      <AnswerLine answer={queue.answer} testid="hv-queue-answer" />
    </div>
  );
}
