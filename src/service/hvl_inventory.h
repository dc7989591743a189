// The start-up inventory's hVL section: each wired link once, both ends,
// the rate it runs at and whether its lanes are reversed.
#pragma once

#include <string>
#include <vector>

#include "hardware/vex_die_info.h"

// "hVL links: <count>" and one line a link, e.g.
// "  socket 0 die 0 G1 <-> socket 1 die 0 G3  32 Gb/s  lanes reversed".
// A link whose PCS runs no hVL shows "not running"; one whose registers
// can't be read shows why.
std::vector<std::string> hvl_inventory_lines(const std::vector<VEX_DIE_INFO>& dies);
