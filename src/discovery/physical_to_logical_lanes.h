// Which lanes of its core and of its SerDes link a PCIe port uses, read from
// the chip's lane-mapping registers (layout: chips::server_io::LaneMapLayout).
//
// Three lane numberings meet here:
//   logical    the lane number the port's link uses (what margining names);
//   controller the lane of the PCIe core;
//   SerDes     the lane of the PHY link the core drives.
// The walk:
//   1. The port's lane map register gives its run of controller lanes: the
//      first lane f and width w (0: the port has no lanes). Logical lane l is
//      controller lane f + l, or f + w - 1 - l when the port runs reversed.
//   2. With the link's TX power-down deasserted (set_deassert_tx_pdnb_bit),
//      each SerDes lane of the link names the controller lane that drives it,
//      when valid; the bit is released afterwards (reset_deassert_tx_pdnb_bit)
//      unless it was set before, on every path.
//   3. Logical lane l goes to the SerDes lane that its controller lane drives.
// Chips without the layout (or without the registers in their store) have
// no lane mapping: the call fails and the maps stay empty.
#pragma once

#include <map>
#include <string>

#include "hardware/chips/server_registers.h"
#include "hardware/register_storage.h"

class GetPhysicalToLogicalLanes {
public:
    using LaneMap = std::map<unsigned int, unsigned int>;

    // layout may be null: the chip has no lane mapping.
    GetPhysicalToLogicalLanes(const RegisterStorage& store, const chips::server_io::LaneMapLayout* layout);

    // Fills both maps (cleared first) for the port `function_index` of `core`
    // on `serdes`, a link of `serdes_lanes` lanes. False with a text when
    // there is no mapping or a register can't be read (both maps empty), or
    // when a controller lane drives no SerDes lane (that logical lane is left
    // out of the SerDes map only).
    bool operator()(const std::string& core, unsigned int function_index, const std::string& serdes,
                    unsigned int serdes_lanes, LaneMap& logical_to_serdes, LaneMap& logical_to_controller,
                    std::string& error) const;

    // Deasserts the link's TX power-down; true when it was deasserted already.
    bool set_deassert_tx_pdnb_bit(const std::string& link) const;
    void reset_deassert_tx_pdnb_bit(const std::string& link) const;

private:
    // SerDes lane of each controller lane, read with the power-down deasserted.
    LaneMap _controller_to_serdes(const std::string& link, unsigned int serdes_lanes) const;

    const RegisterStorage& _store;
    const chips::server_io::LaneMapLayout* _layout;
};

// The lane map layout of a die name: Corvane and Dellmar have one; null for the rest.
const chips::server_io::LaneMapLayout* get_lane_map_layout(const std::string& die_name);
