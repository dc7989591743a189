import { describe, expect, it } from 'vitest';
import { build_margin_record, default_form, type MarginForm } from './record';
import type { PCIeDevice } from './types';

const port: PCIeDevice = {
  PCIeInfo: { SBDF: '0:40:1.1', VendorName: 'Maker', Speed: '32.0 GT/s', Width: 'x16', DeviceType: 'Bridge' },
  PCIeMarginSupported: true,
  PCIeMarginData: { BER: ['8', '9', '10', '11', '12'], ErrCnt: { Max: 63, Min: 1 }, Lanes: [16, 17, 18, 19], Receivers: [1] },
  PCIeCtrlInfo: { PCIeCore: 0, Function: 1, DeviceName: 'Die 0', Port: 2 },
  SERDES: { DeviceName: 'Die 0', SERDES: 'P0' },
};
const slow: PCIeDevice = { ...port, PCIeInfo: { ...port.PCIeInfo, SBDF: '0:3:0.0' }, PCIeMarginSupported: false };
const noReceiver: PCIeDevice = {
  ...port,
  PCIeInfo: { ...port.PCIeInfo, SBDF: '0:5:0.0' },
  PCIeMarginData: { ...port.PCIeMarginData, Receivers: [] },
};
const devices = [port, slow, noReceiver];

const good: MarginForm = { sbdf: '0:40:1.1', receiver: '1', allLanes: false, lanes: [18, 16], ber: '12', errCnt: ' 8 ' };

describe('build_margin_record', () => {
  it('builds the queue record from a valid form', () => {
    const { record, errors } = build_margin_record(devices, good);
    expect(errors).toEqual({});
    expect(record).toEqual({
      Operation: 'PCIe Margin',
      PCIeInfo: port.PCIeInfo,
      PCIeCtrlInfo: port.PCIeCtrlInfo,
      SERDES: port.SERDES,
      // BER stays text; lanes come in the device's order.
      TestParams: { BER: '12', ErrCnt: 8, Receiver: 1, Lanes: [16, 18] },
    });
  });

  it('takes every lane of the device for "all lanes"', () => {
    const { record } = build_margin_record(devices, { ...good, allLanes: true, lanes: [] });
    expect(record?.TestParams.Lanes).toEqual([16, 17, 18, 19]);
  });

  it.each<[string, Partial<MarginForm>, Record<string, string>]>([
    ['no device', { sbdf: '' }, { device: 'Choose a device.' }],
    ['unknown device', { sbdf: '1:0:0.0' }, { device: 'Device 1:0:0.0 is not in the device list.' }],
    ['device without margining', { sbdf: '0:3:0.0' }, { device: 'Device 0:3:0.0 does not support margining.' }],
    ['device without receivers', { sbdf: '0:5:0.0' }, { receiver: 'This device offers no receiver to margin.' }],
    ['no receiver chosen', { receiver: '' }, { receiver: 'Choose a receiver.' }],
    ['receiver not offered', { receiver: '6' }, { receiver: 'Receiver 6 is not offered by this device.' }],
    ['empty lane subset', { lanes: [] }, { lanes: 'Choose at least one lane, or all lanes.' }],
    ['foreign lane', { lanes: [16, 3] }, { lanes: 'Lane 3 is not a lane of this device.' }],
    ['no BER', { ber: '' }, { ber: 'Choose a BER.' }],
    ['BER not offered', { ber: '14' }, { ber: 'BER 1e-14 is not offered for this device.' }],
    ['error count not a number', { errCnt: '4x' }, { errCnt: 'Error count must be a whole number.' }],
    ['negative error count', { errCnt: '-1' }, { errCnt: 'Error count must be a whole number.' }],
    ['error count below range', { errCnt: '0' }, { errCnt: 'Error count must be between 1 and 63.' }],
    ['error count above range', { errCnt: '64' }, { errCnt: 'Error count must be between 1 and 63.' }],
    ['two faults at once', { ber: '', errCnt: '' }, { ber: 'Choose a BER.', errCnt: 'Error count must be a whole number.' }],
  ])('refuses %s', (_name, change, expected) => {
    const { record, errors } = build_margin_record(devices, { ...good, ...change });
    expect(record).toBeUndefined();
    expect(errors).toEqual(expected);
  });
});

describe('default_form', () => {
  it('starts valid on a margin-capable device', () => {
    const form = default_form(port);
    expect(form).toMatchObject({ sbdf: '0:40:1.1', receiver: '1', allLanes: true, ber: '12', errCnt: '4' });
    expect(build_margin_record(devices, form).errors).toEqual({});
  });

  it('keeps the error count inside a narrow range and falls back to the finest BER', () => {
    const narrow: PCIeDevice = { ...port, PCIeMarginData: { ...port.PCIeMarginData, BER: ['8', '9'], ErrCnt: { Min: 1, Max: 2 } } };
    expect(default_form(narrow)).toMatchObject({ errCnt: '2', ber: '9' });
  });
});
