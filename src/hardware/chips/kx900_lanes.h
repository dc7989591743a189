// SerDes link layout of a KX900 die (the A, X and C parts share it).
#pragma once

#include "hardware/chips/lane_layout.h"

namespace chips {

// G0-G3: x16 E32 hVL links between the dies and sockets; P0, P1: the x16
// E32 PCIe links of cores PCIE0 and PCIE1.
const ChipLanes& kx900_lanes();

}  // namespace chips
