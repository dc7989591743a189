// hVL links of the simulated machine: which link of one die is cabled to
// which link of another, the rate they run at and whether the lanes come up
// reversed. Both ends show it in their link's hVL PCS, where the product's
// link discovery reads it:
//
//   PCS_HVL3X16_PCS_STATUS1        bit 25: lanes reversed (read-only)
//   PCS_HVL3X16_PCS_PSTATE_SELECT  P-state 1 selected
//   PCS_HVL3X16_PCS_PSTATE_CONTEXT2  P-state 0: 16 Gb/s (training),
//                                  P-state 1: the link's rate
//   PCS_HVL3X16_PCS_STATE_HIST1    0x81 (L0)
//   KPMX_SERDES_LANE_LN_Controller every lane: enabled, hVL controller
//
// A link no entry names keeps all of these at 0: its lanes report no
// controller and its PCS runs no P-state.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "simulator/profile.h"
#include "simulator/register_space.h"

namespace sim {

struct HvlLinkEnd {
    unsigned socket = 0, die = 0;
    std::string link;
};

// A receiver's eye in margin steps of its PHY (timing: 1/64 UI, voltage:
// about 3.9 mV), and the spread of each edge as a fraction of it.
struct HvlEye {
    double left = 12, right = 12, top = 16, bottom = 16, noise = 0.05;
};

struct HvlLinkProfile {
    HvlLinkEnd end, partner;
    double rate = 32;  // Gb/s
    bool lane_reversed = false;
    HvlEye eye;                           // every lane of both ends
    std::map<unsigned, HvlEye> lane_eyes;  // lanes that differ
    unsigned drop_past_edge = 6;          // steps past the edge that take the link out of L0
};

// Reads the profile's "hvl_links" against its sockets. Throws ProfileError
// naming the field: an unknown socket, die or link, a link a root port's
// PCIe core uses, a link named twice or joined to itself, a rate the PCS
// cannot run.
std::vector<HvlLinkProfile> parse_hvl_links(const nlohmann::json& links, const std::vector<SocketProfile>& sockets);

// The register space of a die; null when the model has no such die.
using DieRegisterSpace = std::function<RegisterSpace*(unsigned socket, unsigned die)>;

// Defines the registers of both ends of every link, at the addresses of the
// die type's register tables.
void place_hvl_links(const std::vector<HvlLinkProfile>& links, const std::vector<SocketProfile>& sockets,
                     const DieRegisterSpace& die_space);

}  // namespace sim
