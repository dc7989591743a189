// SerDes link layout of the Corvane die. Dellmar shares this I/O layout:
// its links, PHYs and addresses are the same.
#pragma once

#include "hardware/chips/lane_layout.h"

namespace chips {

// G0-G3 and P0-P3 are x16 E32 links that carry hVL between dies and
// sockets (or PCIe, as the lane controllers say); P4 is x8 PCIe, P5 the x8
// TEXL link; the four USB links are single-lane C10 ports behind a mux.
const ChipLanes& corvane_lanes();

}  // namespace chips
