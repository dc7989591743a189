#include "discovery/lane_generic_information.h"

#include <stdexcept>
#include <utility>

#include "hardware/chips/corvane_lanes.h"
#include "hardware/chips/kx900_lanes.h"
#include "hardware/chips/other_chip_lanes.h"

TableLaneGenericInformation::TableLaneGenericInformation(const chips::ChipLanes& table, std::string class_name)
    : _table(table), _name(std::move(class_name)) {}

const chips::LinkLanes& TableLaneGenericInformation::_link(const std::string& link, const char* error) const {
    const chips::LinkLanes* found = _table.find(link);
    if (!found) throw std::runtime_error(error);
    return *found;
}

unsigned int TableLaneGenericInformation::get_base_address(const std::string& link, unsigned int chiplet) const {
    static const char* const kError = "Unable to find base address for given link and chiplet";
    const auto& bases = _link(link, kError).chiplet_base;
    auto it = bases.find(chiplet);
    if (it == bases.end()) throw std::runtime_error(kError);
    return it->second;
}

unsigned int TableLaneGenericInformation::get_pcs_base_address(const std::string& link) const {
    static const char* const kError = "Unable to find pcs base address for given link";
    const auto& pcs = _link(link, kError).pcs_base;
    if (!pcs) throw std::runtime_error(kError);
    return *pcs;
}

std::vector<std::string> TableLaneGenericInformation::get_link_names() const {
    std::vector<std::string> names;
    for (const auto& link : _table.links) names.push_back(link.name);
    return names;
}

unsigned int TableLaneGenericInformation::get_port_no(const std::string& link, unsigned int lane) const {
    static const char* const kError = "Unable to find port number for given link and lane";
    const auto& entry = _link(link, kError);
    if (lane >= entry.lanes || entry.lanes_per_port == 0) throw std::runtime_error(kError);
    return entry.first_port + lane / entry.lanes_per_port;
}

unsigned int TableLaneGenericInformation::get_no_of_lanes(const std::string& link) const {
    return _link(link, "Unable to find number of lanes for given link").lanes;
}

std::string TableLaneGenericInformation::get_phy_name(const std::string& link) const {
    return _link(link, "Unable to find phy name for given link").phy;
}

unsigned int TableLaneGenericInformation::get_power_gating_address(const std::string& link) const {
    static const char* const kError = "Unable to find power gating address for given link";
    const auto& address = _link(link, kError).power_gating_address;
    if (!address) throw std::runtime_error(kError);
    return *address;
}

bool TableLaneGenericInformation::is_mux_present(const std::string& link) const {
    const chips::LinkLanes* found = _table.find(link);
    return found && found->mux;
}

unsigned int TableLaneGenericInformation::which_protocol(const std::string& link) const {
    const chips::LinkLanes* found = _table.find(link);
    if (!found || found->protocol == chips::kProtocolNone)
        throw std::runtime_error(_name + "::which_protocol should not be called.");
    return found->protocol;
}

std::vector<unsigned int> TableLaneGenericInformation::get_usb4_router_device_ids() const {
    return _table.usb4_router_device_ids;
}

unsigned int TableLaneGenericInformation::get_usb4_port_crn_base_addr(USB::USB4Port port) const {
    if (_table.usb4_port_base.empty())
        throw std::runtime_error("Not implemented " + _name + "::get_usb4_port_crn_base_addr");
    auto it = _table.usb4_port_base.find(port);
    if (it == _table.usb4_port_base.end()) throw std::runtime_error("Unable to find base address for given USB4 port");
    return it->second;
}

CorvaneLaneGenericInformation::CorvaneLaneGenericInformation()
    : TableLaneGenericInformation(chips::corvane_lanes(), "CorvaneLaneGenericInformation") {}

KX900ALaneGenericInformation::KX900ALaneGenericInformation()
    : TableLaneGenericInformation(chips::kx900_lanes(), "KX900ALaneGenericInformation") {}

KX800LaneGenericInformation::KX800LaneGenericInformation()
    : TableLaneGenericInformation(chips::kx800_lanes(), "KX800LaneGenericInformation") {}

unsigned int KX800LaneGenericInformation::get_pcs_base_address(const std::string&) const {
    throw std::runtime_error("Not implemented KX800LaneGenericInformation::get_pcs_base_address");
}

FerrowLaneGenericInformation::FerrowLaneGenericInformation()
    : TableLaneGenericInformation(chips::ferrow_lanes(), "FerrowLaneGenericInformation") {}

unsigned int FerrowLaneGenericInformation::get_pcs_base_address(const std::string&) const {
    throw std::runtime_error("FerrowLaneGenericInformation::get_pcs_base_address Not implemented");
}

Ferrow2LaneGenericInformation::Ferrow2LaneGenericInformation()
    : TableLaneGenericInformation(chips::ferrow2_lanes(), "Ferrow2LaneGenericInformation") {}

unsigned int Ferrow2LaneGenericInformation::get_pcs_base_address(const std::string&) const {
    throw std::runtime_error("Ferrow2LaneGenericInformation::get_pcs_base_address Not implemented");
}

Sabrel1LaneGenericInformation::Sabrel1LaneGenericInformation()
    : TableLaneGenericInformation(chips::sabrel_lanes(), "Sabrel1LaneGenericInformation") {}

TamblinLaneGenericInformation::TamblinLaneGenericInformation()
    : TableLaneGenericInformation(chips::tamblin_lanes(), "TamblinLaneGenericInformation") {}

Hesk31LaneGenericInformation::Hesk31LaneGenericInformation()
    : TableLaneGenericInformation(chips::hesk31_lanes(), "Hesk31LaneGenericInformation") {}

Hesk48LaneGenericInformation::Hesk48LaneGenericInformation()
    : TableLaneGenericInformation(chips::hesk48_lanes(), "Hesk48LaneGenericInformation") {}

OmbrelLaneGenericInformation::OmbrelLaneGenericInformation()
    : TableLaneGenericInformation(chips::ombrel_lanes(), "OmbrelLaneGenericInformation") {}

std::shared_ptr<LaneGenericInformation> get_lane_generic_info(const VEX_DIE_INFO& die) {
    const std::string name = die.name();
    if (name == "Corvane" || name == "Dellmar") return std::make_shared<CorvaneLaneGenericInformation>();
    if (name == "KX900A" || name == "KX900X" || name == "KX900C") return std::make_shared<KX900ALaneGenericInformation>();
    if (name == "KX800") return std::make_shared<KX800LaneGenericInformation>();
    if (name == "Ferrow") return std::make_shared<FerrowLaneGenericInformation>();
    if (name == "Ferrow2") return std::make_shared<Ferrow2LaneGenericInformation>();
    if (name == "Sabrel1" || name == "Sabrel2" || name == "Sabrel Crown")
        return std::make_shared<Sabrel1LaneGenericInformation>();
    if (name == "Tamblin1" || name == "Rusk") return std::make_shared<TamblinLaneGenericInformation>();
    if (name == "Hesk31") return std::make_shared<Hesk31LaneGenericInformation>();
    if (name == "Hesk48" || name == "Hesk44") return std::make_shared<Hesk48LaneGenericInformation>();
    if (name == "Ombrel" || name == "Cobalt Bay") return std::make_shared<OmbrelLaneGenericInformation>();
    throw std::runtime_error("Error in get_lane_generic_info. Did not handle " + name);
}

unsigned int get_lane_base_address(const LaneGenericInformation& info, const std::string& link, unsigned int lane) {
    return info.get_base_address(link, lane / chips::kLanesPerChiplet);
}

SerdesLaneSectionParam make_serdes_lane_section_param(const VEX_DIE_INFO& die, const std::string& link,
                                                      const std::vector<unsigned int>& lanes,
                                                      const LaneGenericInformation& info) {
    SerdesLaneSectionParam param{die, link, lanes, {}};
    for (unsigned int lane : lanes) {
        const unsigned int chiplet = lane / chips::kLanesPerChiplet;
        param.lane_section[lane] = LaneSection{chiplet, info.get_base_address(link, chiplet)};
    }
    return param;
}
