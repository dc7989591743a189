// Equalisation a die presents for its PCIe ports and E32 PHY lanes: the
// presets each lane negotiated, the link controller's local and best
// settings behind its lane-select and rate-selector registers, and each
// PHY lane's transmitter coefficients with the PCS's copy. Values are
// plausible, fixed by the seed and the lane, and encoded by the chip's own
// field layout (chips/equalisation_fields.h).
#pragma once

#include <string>
#include <vector>

#include "simulator/noise.h"
#include "simulator/platform_model.h"
#include "simulator/profile.h"
#include "simulator/register_space.h"

namespace sim {

// What one controller lane of a root port presents for one rate selector.
struct ModelPortLaneEq {
    unsigned dsp_preset = 0, usp_preset = 0;
    unsigned local_preset = 0, local_pre = 0, local_cursor = 0, local_post = 0;
    unsigned best_preset = 0, best_pre = 0, best_cursor = 0, best_post = 0, best_fom = 0;
};
ModelPortLaneEq model_port_lane_eq(const Noise& noise, unsigned socket, const std::string& core, unsigned port,
                                   unsigned lane, unsigned selector);

// One E32 PHY lane's transmitter: pre and post cursor, and the main cursor.
struct ModelPhyLaneEq {
    unsigned pre = 0, post = 0, main = 0;
};
ModelPhyLaneEq model_phy_lane_eq(const Noise& noise, unsigned socket, const std::string& link, unsigned lane);

// Places the registers on the die's network: port registers where the
// locator says, lane registers where the chip's register store looks.
// Dies whose chip has no such tables get nothing.
void place_equalisation_registers(RegisterSpace& registers, const std::string& die_type, unsigned socket,
                                  const std::vector<const PortProfile*>& root_ports, const RegisterLocator& locator,
                                  const Noise& noise);

}  // namespace sim
