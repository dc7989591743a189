// The model's ASPM registers: the L1 PM Substates capability (what both ends
// of a link offer for L1.1 and L1.2 and the controls software sets) and the
// ASPM entry timers of the platform's own ends (hardware/chips/aspm_timers.h).
// ASPM L0s and L1 themselves sit in the PCI Express capability's link
// registers.
#pragma once

#include <cstdint>
#include <optional>

#include "simulator/config_space.h"
#include "simulator/register_space.h"

namespace sim {

namespace cfg {
constexpr unsigned kExtCapL1PmSubstates = 0x001E;
constexpr unsigned kL1PmSubstatesSize = 0x14;
// Inside L1 PM Substates.
constexpr unsigned kL1SubCapabilities = 0x04, kL1SubControl1 = 0x08, kL1SubControl2 = 0x0C, kL1SubStatus = 0x10;
constexpr unsigned kAspmL11Enable = 1u << 3, kAspmL12Enable = 1u << 2;
}  // namespace cfg

// Defines the capability's registers at `at` (its header is already placed).
// Every substate is offered; all start disabled, as firmware leaves them when
// the operating system manages ASPM.
void define_l1_pm_substates(ConfigSpace& space, unsigned at);

// The timer capability of a platform endpoint at `at` (header placed): the
// control word starts as firmware leaves it and only the timer fields change.
void define_endpoint_aspm_timers(ConfigSpace& space, unsigned at);

// A root port's timer register on its die, at the address the chip tables give.
void place_root_port_aspm_timers(RegisterSpace& registers, uint32_t address);

// How long a link must be idle before it goes to ASPM L1 (both ends having
// L1 enabled); nullopt: never. The device end asks for L1 after its timer
// (a device without one after kPlainDeviceIdleNs); a root port with a timer
// accepts only once its own timer has run out. A timer that is off on
// either end keeps the link out of L1.
constexpr int64_t kPlainDeviceIdleNs = 10'000;
std::optional<int64_t> l1_entry_delay_ns(std::optional<uint32_t> port_control, std::optional<uint32_t> device_control);

}  // namespace sim
