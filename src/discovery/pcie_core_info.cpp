#include "discovery/pcie_core_info.h"

#include <algorithm>
#include <stdexcept>

#include "hardware/chips/corvane_lanes.h"
#include "hardware/chips/kx900_lanes.h"
#include "hardware/chips/other_chip_lanes.h"

namespace {

// "PCIE3" of "PCIE3_nbio1"; empty without a digit after "PCIE".
std::string core_group(const std::string& core) {
    if (core.size() < 5 || core.compare(0, 4, "PCIE") != 0 || core[4] < '0' || core[4] > '5') return "";
    return core.substr(0, 5);
}

enum class Family { corvane, dellmar, kx900a, kx800, obl, frw, sabrel1, tamblin, hesk31, hesk48 };

Family family_of(const std::string& name, const char* function) {
    if (name == "Corvane") return Family::corvane;
    if (name == "Dellmar") return Family::dellmar;
    if (name == "KX900A" || name == "KX900X" || name == "KX900C") return Family::kx900a;
    if (name == "KX800") return Family::kx800;
    if (name == "Ombrel" || name == "Cobalt Bay") return Family::obl;
    if (name == "Ferrow" || name == "Ferrow2") return Family::frw;
    if (name == "Sabrel1" || name == "Sabrel2" || name == "Sabrel Crown") return Family::sabrel1;
    if (name == "Tamblin1" || name == "Rusk") return Family::tamblin;
    if (name == "Hesk31" || name == "Hesk32") return Family::hesk31;
    if (name == "Hesk48" || name == "Hesk44") return Family::hesk48;
    throw std::runtime_error(std::string("Error: ") + function + " cannot handle " + name);
}

}  // namespace

TablePCIECoreGenericInfo::TablePCIECoreGenericInfo(std::span<const chips::PcieCore> cores)
    : _cores(cores), _mapper(cores) {}

std::vector<std::string> TablePCIECoreGenericInfo::get_core_names() const {
    std::vector<std::string> names;
    for (const chips::PcieCore& core : _cores) names.push_back(core.name);
    return names;
}

std::vector<unsigned int> TablePCIECoreGenericInfo::get_function_indexes(const std::string& core) const {
    const std::string group = core_group(core);
    const auto same_group = [&group](const chips::PcieCore& row) { return core_group(row.name) == group; };
    const auto found = std::find_if(_cores.begin(), _cores.end(), same_group);
    if (group.empty() || found == _cores.end()) throw std::runtime_error("Unknown PCIe core " + core);
    std::vector<unsigned int> indexes(found->ports);
    for (unsigned int i = 0; i < found->ports; ++i) indexes[i] = i;
    return indexes;
}

unsigned int TablePCIECoreGenericInfo::get_core_base_address(const std::string& core) const {
    return _mapper.get_core_base_address(core);
}

unsigned int TablePCIECoreGenericInfo::get_port_base_address(const std::string& core, unsigned int port) const {
    return _mapper.get_port_base_address(core, port);
}

CorvanePCIECoreGenericInfo::CorvanePCIECoreGenericInfo() : TablePCIECoreGenericInfo(chips::corvane::kPcieCores) {}
DellmarPCIECoreGenericInfo::DellmarPCIECoreGenericInfo() : TablePCIECoreGenericInfo(chips::dellmar::kPcieCores) {}
KX900APCIECoreGenericInfo::KX900APCIECoreGenericInfo() : TablePCIECoreGenericInfo(chips::kx900::kPcieCores) {}
KX800PCIECoreGenericInfo::KX800PCIECoreGenericInfo() : TablePCIECoreGenericInfo(chips::kx800::kPcieCores) {}

TableEnumerateCoreToLink::TableEnumerateCoreToLink(std::span<const chips::PcieCore> cores,
                                                   const chips::ChipLanes* lanes)
    : _cores(cores), _lanes(lanes) {}

std::vector<PCIECoreToLinkName> TableEnumerateCoreToLink::operator()() const {
    std::vector<PCIECoreToLinkName> rows;
    for (const chips::PcieCore& core : _cores) {
        const std::string serdes = core.serdes;
        if (serdes.empty()) continue;
        PCIECoreToLinkName row{core.name, serdes, serdes, "Not Available", 0};
        if (_lanes) {
            const auto& links = _lanes->links;
            const auto link = std::find_if(links.begin(), links.end(),
                                           [&serdes](const chips::LinkLanes& entry) { return entry.name == serdes; });
            if (link != links.end()) {
                row.phy = link->phy;
                row.link_number = static_cast<unsigned int>(link - links.begin());
            }
        }
        rows.push_back(row);
    }
    return rows;
}

CorvaneEnumerateCoreToLink::CorvaneEnumerateCoreToLink()
    : TableEnumerateCoreToLink(chips::corvane::kPcieCores, &chips::corvane_lanes()) {}
// Dellmar shares Corvane's SerDes layout.
DellmarEnumerateCoreToLink::DellmarEnumerateCoreToLink()
    : TableEnumerateCoreToLink(chips::dellmar::kPcieCores, &chips::corvane_lanes()) {}
KX900AEnumerateCoreToLink::KX900AEnumerateCoreToLink()
    : TableEnumerateCoreToLink(chips::kx900::kPcieCores, &chips::kx900_lanes()) {}
KX800EnumerateCoreToLink::KX800EnumerateCoreToLink()
    : TableEnumerateCoreToLink(chips::kx800::kPcieCores, &chips::kx800_lanes()) {}

std::shared_ptr<EnumerateCoreToLink> get_enumerate_pcie_core_to_link(const VEX_DIE_INFO& die) {
    switch (family_of(die.name(), "get_enumerate_pcie_core_to_link")) {
        case Family::corvane: return std::make_shared<CorvaneEnumerateCoreToLink>();
        case Family::dellmar: return std::make_shared<DellmarEnumerateCoreToLink>();
        case Family::kx900a: return std::make_shared<KX900AEnumerateCoreToLink>();
        case Family::kx800: return std::make_shared<KX800EnumerateCoreToLink>();
        case Family::obl: return std::make_shared<OBLEnumerateCoreToLink>();
        case Family::frw: return std::make_shared<FrwEnumerateCoreToLink>();
        case Family::sabrel1: return std::make_shared<Sabrel1EnumerateCoreToLink>();
        case Family::tamblin: return std::make_shared<TamblinEnumerateCoreToLink>();
        case Family::hesk31: return std::make_shared<Hesk31EnumerateCoreToLink>();
        case Family::hesk48: return std::make_shared<Hesk48EnumerateCoreToLink>();
    }
    throw std::runtime_error("Unexpected scenario in get_enumerate_pcie_core_to_link");
}

std::shared_ptr<PCIECoreGenericInfo> get_pcie_core_generic_info(const VEX_DIE_INFO& die) {
    switch (family_of(die.name(), "get_pcie_core_generic_info")) {
        case Family::corvane: return std::make_shared<CorvanePCIECoreGenericInfo>();
        case Family::dellmar: return std::make_shared<DellmarPCIECoreGenericInfo>();
        case Family::kx900a: return std::make_shared<KX900APCIECoreGenericInfo>();
        case Family::kx800: return std::make_shared<KX800PCIECoreGenericInfo>();
        case Family::obl: return std::make_shared<OBLPCIECoreGenericInfo>();
        case Family::frw: return std::make_shared<FrwPCIECoreGenericInfo>();
        case Family::sabrel1: return std::make_shared<Sabrel1PCIECoreGenericInfo>();
        case Family::tamblin: return std::make_shared<TamblinPCIECoreGenericInfo>();
        case Family::hesk31: return std::make_shared<Hesk31PCIECoreGenericInfo>();
        case Family::hesk48: return std::make_shared<Hesk48PCIECoreGenericInfo>();
    }
    throw std::runtime_error("Unexpected scenario in get_pcie_core_generic_info");
}
