#include "discovery/physical_to_logical_lanes.h"

#include <exception>

GetPhysicalToLogicalLanes::GetPhysicalToLogicalLanes(const RegisterStorage& store,
                                                     const chips::server_io::LaneMapLayout* layout)
    : _store(store), _layout(layout) {}

bool GetPhysicalToLogicalLanes::set_deassert_tx_pdnb_bit(const std::string& link) const {
    const auto control = _store.get_link_register(_layout->control_register, link);
    const unsigned int value = control->read();
    const bool was_set = _layout->deassert_tx_pdnb.extract(value) != 0;
    if (!was_set) control->write(value | _layout->deassert_tx_pdnb.place(1));
    return was_set;
}

void GetPhysicalToLogicalLanes::reset_deassert_tx_pdnb_bit(const std::string& link) const {
    const auto control = _store.get_link_register(_layout->control_register, link);
    control->write(control->read() & ~_layout->deassert_tx_pdnb.place(1));
}

GetPhysicalToLogicalLanes::LaneMap GetPhysicalToLogicalLanes::_controller_to_serdes(
    const std::string& link, unsigned int serdes_lanes) const {
    const bool was_set = set_deassert_tx_pdnb_bit(link);
    // The power-down goes back as it was even when a read throws.
    struct Release {
        const GetPhysicalToLogicalLanes& owner;
        const std::string& link;
        bool keep;
        ~Release() {
            if (keep) return;
            try {
                owner.reset_deassert_tx_pdnb_bit(link);
            } catch (const std::exception&) {
                // Nothing more can be done for a register that won't answer.
            }
        }
    } release{*this, link, was_set};

    LaneMap map;
    for (unsigned int lane = 0; lane < serdes_lanes; ++lane) {
        const unsigned int value = _store.get_lane_register(_layout->lane_register, link, static_cast<int>(lane))->read();
        if (_layout->valid.extract(value)) map[_layout->controller_lane.extract(value)] = lane;
    }
    return map;
}

bool GetPhysicalToLogicalLanes::operator()(const std::string& core, unsigned int function_index,
                                           const std::string& serdes, unsigned int serdes_lanes,
                                           LaneMap& logical_to_serdes, LaneMap& logical_to_controller,
                                           std::string& error) const {
    logical_to_serdes.clear();
    logical_to_controller.clear();
    if (!_layout) {
        error = "No lane mapping for this chip";
        return false;
    }
    LaneMap controller_to_serdes;
    unsigned int first = 0, width = 0;
    bool reversed = false;
    try {
        const unsigned int port = _store.get_pcie_core_func_register(_layout->port_register, core, function_index)->read();
        first = _layout->first_lane.extract(port);
        width = _layout->width.extract(port);
        reversed = _layout->reversed.extract(port) != 0;
        if (width == 0) {
            error = "No lanes assigned to " + core + " port " + std::to_string(function_index);
            return false;
        }
        controller_to_serdes = _controller_to_serdes(serdes, serdes_lanes);
    } catch (const std::exception& failure) {
        error = failure.what();
        return false;
    }

    bool complete = true;
    for (unsigned int logical = 0; logical < width; ++logical) {
        const unsigned int controller = reversed ? first + width - 1 - logical : first + logical;
        logical_to_controller[logical] = controller;
        const auto serdes_lane = controller_to_serdes.find(controller);
        if (serdes_lane == controller_to_serdes.end()) {
            complete = false;
            continue;
        }
        logical_to_serdes[logical] = serdes_lane->second;
    }
    if (!complete) error = "Controller lanes of " + core + " port " + std::to_string(function_index) +
                           " without a SerDes lane on " + serdes;
    return complete;
}

const chips::server_io::LaneMapLayout* get_lane_map_layout(const std::string& die_name) {
    if (die_name == "Corvane" || die_name == "Dellmar") return &chips::server_io::kLaneMap;
    return nullptr;
}
