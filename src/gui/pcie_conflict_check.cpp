#include "gui/pcie_conflict_check.h"

#include <set>
#include <stdexcept>

#include "gui/test_record_checks.h"

using nlohmann::json;

namespace {

std::set<uint32_t> bus_set(const PCIEConflictCheck::PCIEDevicDetails& side) {
    std::set<uint32_t> buses{side.bus};
    if (side.is_bridge) {
        for (uint32_t bus = side.secondary_bus; bus <= side.subordinate_bus && bus <= 0xFF; ++bus) buses.insert(bus);
    }
    return buses;
}

uint32_t bus_field(const json& bridge_info, const char* key) {
    const auto it = bridge_info.find(key);
    if (it == bridge_info.end() || !it->is_number_integer()) return 0;
    return it->get<uint32_t>();
}

}  // namespace

bool PCIEConflictCheck::check_if_conflict(PCIEDevicDetails a, PCIEDevicDetails b) const {
    if (a.segment != b.segment) return false;
    // One function has one margining capability: two tests on it would
    // overwrite each other's lane commands.
    if (a.bus == b.bus && a.device == b.device && a.function == b.function) return true;
    if (!a.is_bridge && !b.is_bridge) return false;
    const std::set<uint32_t> first = bus_set(a);
    for (const uint32_t bus : bus_set(b)) {
        if (first.count(bus)) return true;
    }
    return false;
}

PCIEConflictCheck::PCIEDevicDetails pcie_details_of(const json& test) {
    const json& info = test.at("PCIeInfo");
    const auto address = parse_sbdf(info.at("SBDF").get<std::string>());
    if (!address) throw std::runtime_error("malformed \"SBDF\" " + info.at("SBDF").dump());
    PCIEConflictCheck::PCIEDevicDetails details;
    details.segment = address->segment;
    details.bus = address->bus;
    details.device = address->device;
    details.function = address->function;
    const auto type = info.find("DeviceType");
    const auto bridge = info.find("BridgeInfo");
    if (type != info.end() && *type == "Bridge" && bridge != info.end() && bridge->is_object()) {
        details.is_bridge = true;
        details.secondary_bus = bus_field(*bridge, "SecondaryBus");
        details.subordinate_bus = bus_field(*bridge, "SubordinateBus");
    }
    return details;
}

bool GUIPCIECheckConflict::check_conflict(const json& running, const json& queued) const {
    return PCIEConflictCheck().check_if_conflict(pcie_details_of(running), pcie_details_of(queued));
}
