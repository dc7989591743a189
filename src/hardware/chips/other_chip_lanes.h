// SerDes link layouts of the families that are recognised but not served
// in depth: enough for lane information to answer about their links.
#pragma once

#include "hardware/chips/lane_layout.h"

namespace chips {

const ChipLanes& kx800_lanes();    // KX800
const ChipLanes& ferrow_lanes();   // Ferrow
const ChipLanes& ferrow2_lanes();  // Ferrow2
const ChipLanes& sabrel_lanes();   // Sabrel1, Sabrel2, Sabrel Crown
const ChipLanes& tamblin_lanes();  // Tamblin1, Rusk
const ChipLanes& hesk31_lanes();   // Hesk31
const ChipLanes& hesk48_lanes();   // Hesk48, Hesk44
const ChipLanes& ombrel_lanes();   // Ombrel, Cobalt Bay

}  // namespace chips
