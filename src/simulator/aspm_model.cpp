#include "simulator/aspm_model.h"

#include <algorithm>

#include "hardware/chips/aspm_timers.h"

namespace sim {

namespace aspm = chips::aspm;

void define_l1_pm_substates(ConfigSpace& c, unsigned at) {
    // PCI-PM and ASPM L1.1/L1.2, substates supported; common mode restore
    // 10 us; T_POWER_ON 5 x 10 us.
    c.define(at + cfg::kL1SubCapabilities, 4, 0x1F | 10u << 8 | 1u << 16 | 5u << 19);
    // Enables, common mode restore time, LTR L1.2 threshold value and scale.
    c.define(at + cfg::kL1SubControl1, 4, 0, 0xE3FFFF0F);
    c.define(at + cfg::kL1SubControl2, 4, 0x28 | 1, 0xFB);  // T_POWER_ON as offered
    c.define(at + cfg::kL1SubStatus, 4, 0, 0, 0x1);        // link activation status
}

void define_endpoint_aspm_timers(ConfigSpace& c, unsigned at) {
    c.define(at + aspm::kEndpointVsecHeader, 4,
             aspm::kEndpointVsecId | aspm::kEndpointVsecRevision << 16 | aspm::kEndpointVsecLength << 20);
    c.define(at + aspm::kEndpointControl, 4, aspm::kBootControl, aspm::kTimerBits);
}

void place_root_port_aspm_timers(RegisterSpace& r, uint32_t address) {
    r.define(address, aspm::kBootControl, aspm::kTimerBits);
}

std::optional<int64_t> l1_entry_delay_ns(std::optional<uint32_t> port_control, std::optional<uint32_t> device_control) {
    int64_t delay = device_control ? 0 : kPlainDeviceIdleNs;
    for (const auto& control : {port_control, device_control}) {
        if (!control) continue;
        const unsigned ns = aspm::kL1EntryNs[aspm::kL1Field.extract(*control)];
        if (ns == aspm::kTimerOff) return std::nullopt;
        delay = std::max<int64_t>(delay, ns);
    }
    return delay;
}

}  // namespace sim
