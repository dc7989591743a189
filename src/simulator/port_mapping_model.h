// The lane mapping a die presents for its root ports: which run of its
// core's controller lanes each port owns, and which SerDes lane of the
// core's link each controller lane drives (layout:
// chips::server_io::LaneMapLayout).
//
// Ports of one core take the core's link lanes in function index order,
// each as many as its width; a port that no longer fits gets none. A port's
// "lane_reversal" reverses its lanes on the controller; "serdes_lane_reversal"
// wires its run of controller lanes to the SerDes in reverse order (a board
// or package swizzle). The SerDes lane registers answer only while the link's
// TX power-down is deasserted, and read 0 otherwise.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "simulator/platform_model.h"
#include "simulator/profile.h"
#include "simulator/register_space.h"

namespace sim {

// The SerDes lanes of a die's root ports: per port that has lanes, its
// link and the port's logical lane on each SerDes lane it drives.
struct PortSerdesLanes {
    const PortProfile* port = nullptr;
    std::string link;
    std::map<unsigned, unsigned> serdes_to_logical;
};
std::vector<PortSerdesLanes> root_port_serdes_lanes(const std::string& die_type,
                                                    const std::vector<const PortProfile*>& root_ports);

// Places the registers on the die's network. Port registers go where the
// locator says; link and lane registers where the chip's register store
// looks for them. Dies whose chip has no lane mapping get nothing.
void place_lane_map_registers(RegisterSpace& registers, const std::string& die_type,
                              const std::vector<const PortProfile*>& root_ports, const RegisterLocator& locator);

}  // namespace sim
