// Builds the PCIe margin test record from the new-test form and says, field
// by field, what is wrong with a choice before anything is sent.
import type { MarginChoices, MarginRecord, PCIeDevice } from './types';
import { ber_label } from './format';

export interface MarginForm {
  /** SBDF of the chosen device, '' when none is chosen. */
  sbdf: string;
  /** Receiver number as the select holds it, '' when none is chosen. */
  receiver: string;
  allLanes: boolean;
  /** The chosen subset, used only when allLanes is false. */
  lanes: number[];
  ber: string;
  /** Error count limit as typed. */
  errCnt: string;
}

export type FormField = 'device' | 'receiver' | 'lanes' | 'ber' | 'errCnt';
export type FormErrors = Partial<Record<FormField, string>>;

export interface BuildResult {
  record?: MarginRecord;
  errors: FormErrors;
}

// Used when a device element doesn't state the error count range; these are
// the limits the service offers for every device.
const DEFAULT_ERRCNT_MIN = 1;
const DEFAULT_ERRCNT_MAX = 63;

export function errcnt_range(data: MarginChoices | undefined): { min: number; max: number } {
  const range = data?.ErrCnt;
  return {
    min: typeof range?.Min === 'number' ? range.Min : DEFAULT_ERRCNT_MIN,
    max: typeof range?.Max === 'number' ? range.Max : DEFAULT_ERRCNT_MAX,
  };
}

export function margin_capable(devices: readonly PCIeDevice[]): PCIeDevice[] {
  return devices.filter((d) => d.PCIeMarginSupported === true);
}

/** Starting BER and error count: 1e-12 when offered (else the finest offered), 4 within the range. */
export function default_choices(data: MarginChoices | undefined): { ber: string; errCnt: string } {
  const bers = data?.BER ?? [];
  const { min, max } = errcnt_range(data);
  return { ber: bers.includes('12') ? '12' : (bers[bers.length - 1] ?? ''), errCnt: String(Math.min(max, Math.max(min, 4))) };
}

/**
 * The form's starting values for a device: its first receiver, all lanes,
 * and the default BER and error count.
 */
export function default_form(device: PCIeDevice | undefined): MarginForm {
  const data = device?.PCIeMarginData;
  return {
    sbdf: device?.PCIeInfo.SBDF ?? '',
    receiver: data?.Receivers?.length ? String(data.Receivers[0]) : '',
    allLanes: true,
    lanes: [],
    ...default_choices(data),
  };
}

/** The error count as typed, within the offered range; NaN with its reason in errors otherwise. */
export function check_errcnt(text: string, data: MarginChoices | undefined, errors: FormErrors): number {
  const { min, max } = errcnt_range(data);
  const trimmed = text.trim();
  if (!/^\d+$/.test(trimmed)) {
    errors.errCnt = 'Error count must be a whole number.';
    return NaN;
  }
  const count = Number(trimmed);
  if (count < min || count > max) errors.errCnt = `Error count must be between ${min} and ${max}.`;
  return count;
}

/**
 * Lanes and BER of a form checked against what the target offers ("device"
 * or "link" in the messages). Lanes come in the target's own order, each once.
 */
export function check_lanes_and_ber(
  data: MarginChoices,
  form: { allLanes: boolean; lanes: number[]; ber: string },
  target: string,
  errors: FormErrors,
): number[] {
  const offered = data.Lanes ?? [];
  let lanes: number[] = [];
  if (offered.length === 0) {
    errors.lanes = `This ${target} reports no lanes.`;
  } else if (form.allLanes) {
    lanes = [...offered];
  } else if (form.lanes.length === 0) {
    errors.lanes = 'Choose at least one lane, or all lanes.';
  } else {
    const foreign = form.lanes.filter((lane) => !offered.includes(lane));
    if (foreign.length > 0) errors.lanes = `Lane ${foreign[0]} is not a lane of this ${target}.`;
    else lanes = offered.filter((lane) => form.lanes.includes(lane));
  }
  if (form.ber === '') errors.ber = 'Choose a BER.';
  else if (!(data.BER ?? []).includes(form.ber)) errors.ber = `BER ${ber_label(form.ber)} is not offered for this ${target}.`;
  return lanes;
}

export function build_margin_record(devices: readonly PCIeDevice[], form: MarginForm): BuildResult {
  const errors: FormErrors = {};
  const errCnt = check_errcnt(form.errCnt, devices.find((d) => d.PCIeInfo.SBDF === form.sbdf)?.PCIeMarginData, errors);

  if (form.sbdf === '') {
    errors.device = 'Choose a device.';
    return { errors };
  }
  const device = devices.find((d) => d.PCIeInfo.SBDF === form.sbdf);
  if (!device) {
    errors.device = `Device ${form.sbdf} is not in the device list.`;
    return { errors };
  }
  if (device.PCIeMarginSupported !== true) {
    errors.device = `Device ${form.sbdf} does not support margining.`;
    return { errors };
  }
  const data = device.PCIeMarginData ?? {};

  const receivers = data.Receivers ?? [];
  let receiver = NaN;
  if (receivers.length === 0) {
    errors.receiver = 'This device offers no receiver to margin.';
  } else if (form.receiver === '') {
    errors.receiver = 'Choose a receiver.';
  } else {
    receiver = Number(form.receiver);
    if (!receivers.includes(receiver)) errors.receiver = `Receiver ${form.receiver} is not offered by this device.`;
  }

  const lanes = check_lanes_and_ber(data, form, 'device', errors);

  if (Object.keys(errors).length > 0) return { errors };
  const record: MarginRecord = {
    Operation: 'PCIe Margin',
    PCIeInfo: device.PCIeInfo,
    TestParams: { BER: form.ber, ErrCnt: errCnt, Receiver: receiver, Lanes: lanes },
  };
  // Carried with the record so the archive shows where the device sits.
  if (device.PCIeCtrlInfo) record.PCIeCtrlInfo = device.PCIeCtrlInfo;
  if (device.SERDES) record.SERDES = device.SERDES;
  return { record, errors };
}
