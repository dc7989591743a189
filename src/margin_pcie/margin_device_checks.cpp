#include "margin_pcie/margin_device_checks.h"

#include "discovery/pci_readers.h"

namespace PCIE {

MarginDeviceChecks::MarginDeviceChecks(Device_ID device, InParams in) : _device(device), _in(in) {}

bool MarginDeviceChecks::run_pre_check(std::string& err) const {
    LINK_SPEEDS speed = SPEED_2_5_GT;
    if (!GetCurrentLinkSpeed(_device, _in.read, _in.capability).get(speed, err)) return false;
    if (speed != SPEED_16_GT && speed != SPEED_32_GT) {
        err = "PCIe device speed is lower than 16 GT/s";
        return false;
    }

    GetCurrentLinkWidth::WIDTH width = GetCurrentLinkWidth::X1;
    if (!GetCurrentLinkWidth(_device, _in.read, _in.capability).get(width, err)) return false;

    unsigned int offset = 0;
    if (!_in.extended_capability.detect(LANE_MARGINING_AT_RECEIVER, offset, err)) {
        err += ". PCIe device lacking Lane Margining feature Capability.";
        return false;
    }

    const GetPowerState power(_device, _in.read, _in.capability);
    GetPowerState::POWER_STATE state = GetPowerState::D3;
    GetPowerState::ASPM_STATE aspm = GetPowerState::ASPM_DISABLED;
    if (!power.get_power_state(state, err) || !power.get_aspm_state(aspm, err)) return false;
    if (state != GetPowerState::D0) {
        err += "Not in D0 power state. Cannot margin";
        return false;
    }
    return true;
}

}  // namespace PCIE
