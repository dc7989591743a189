import { useEffect, useMemo, useState } from 'preact/hooks';
import { ber_label, lanes_label } from '../format';
import { build_margin_record, default_form, errcnt_range, margin_capable, type FormErrors, type MarginForm } from '../record';
import type { PCIeDevice } from '../types';
import { AnswerLine, SubmitRow, EstimateLine, FieldError, MarginChoiceFields, useQueueAnswer } from './form_parts';

interface Props {
  devices: PCIeDevice[] | null;
  error: string | null;
  /** A device picked on the device screen; the form switches to it at each pick. */
  chosen: { sbdf: string; seq: number };
}

export function NewTestView({ devices, error, chosen }: Props) {
  const capable = useMemo(() => margin_capable(devices ?? []), [devices]);
  const [form, setForm] = useState<MarginForm>(default_form(undefined));
  const [checked, setChecked] = useState(false);
  const queue = useQueueAnswer();

  const pick = (sbdf: string) => setForm(default_form((devices ?? []).find((d) => d.PCIeInfo.SBDF === sbdf)));

  useEffect(() => {
    if (chosen.sbdf) {
      pick(chosen.sbdf);
      queue.clear();
    }
  }, [chosen.seq]);

  const device = (devices ?? []).find((d) => d.PCIeInfo.SBDF === form.sbdf);
  const data = device?.PCIeMarginData ?? {};
  const result = build_margin_record(devices ?? [], form);
  const errors: FormErrors = checked ? result.errors : {};
  const update = (change: Partial<MarginForm>) => setForm({ ...form, ...change });

  const submit = (event: Event) => {
    event.preventDefault();
    setChecked(true);
    const record = result.record;
    if (!record) return;
    const p = record.TestParams;
    void queue.send(
      record,
      `PCIe margin of ${record.PCIeInfo.SBDF}, receiver ${p.Receiver}, lanes ${lanes_label(p.Lanes)}, BER ${ber_label(p.BER)}, error count ${p.ErrCnt}`,
    );
  };

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
              queue.clear();
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

        <MarginChoiceFields
          data={data}
          form={form}
          errors={errors}
          update={update}
          prefix="nt-"
          lanesNote={device?.PCIeInfo.Width ? `, trained width ${device.PCIeInfo.Width}` : ''}
          range={errcnt_range(data)}
        />

        <EstimateLine record={result.record} chosen={form.sbdf !== ''} testid="estimate" />

        <SubmitRow label="Queue test" sending={queue.sending} />
      </form>
      <AnswerLine answer={queue.answer} testid="queue-answer" />
    </div>
  );
}
