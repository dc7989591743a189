// The platform's PCI bridges that lead off the chip: root ports towards slots
// and other packages. Every other bridge of the platform's vendor IDs is
// internal. Three per family; the platform model presents the same IDs.
#pragma once

#include <array>

#include "hardware/chips/chip_identity.h"

namespace chips {

namespace corvane {
constexpr std::array<unsigned int, 3> kExternalBridgeDeviceIds{kRootPortDeviceId, 0x14A5, 0x14A6};
}  // namespace corvane

namespace dellmar {
constexpr std::array<unsigned int, 3> kExternalBridgeDeviceIds{kRootPortDeviceId, 0x149C, 0x149D};
}  // namespace dellmar

// One list for the whole KX900 line.
namespace kx900 {
constexpr std::array<unsigned int, 3> kExternalBridgeDeviceIds{0x14C1, 0x14C2, 0x14C3};
}  // namespace kx900

}  // namespace chips
