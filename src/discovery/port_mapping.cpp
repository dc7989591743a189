#include "discovery/port_mapping.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <optional>
#include <stdexcept>

#include "discovery/esm_handler.h"
#include "discovery/lane_generic_information.h"
#include "discovery/ltssm_state.h"
#include "discovery/pci_config_read.h"
#include "discovery/pci_detection.h"
#include "discovery/pci_readers.h"
#include "discovery/physical_to_logical_lanes.h"
#include "hardware/crn_factory.h"
#include "hardware/file_logger.h"
#include "hardware/resource_lock.h"

namespace {

constexpr const char* kNotAvailable = "Not Available";
constexpr unsigned int kHeaderTypeOffset = 12;
constexpr unsigned int kHeaderTypeBridge = 1;
// A device die's function sits at most this many bridges below its upstream port.
constexpr unsigned int kMaxWalkLevels = 8;

std::string sbdf_text(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function) {
    char text[32];
    std::snprintf(text, sizeof(text), "%04x:%02x:%02x.%x", segment, bus, device, function);
    return text;
}

std::string hex_byte(unsigned int value) {
    char text[8];
    std::snprintf(text, sizeof(text), "0x%02x", value);
    return text;
}

void print_line(const std::string& line) {
    NamedLockGuard console("ConsoleLock");
    std::cout << line << std::endl;
}

// Everything both mapping styles read about one die, gathered once.
struct DieSources {
    std::shared_ptr<RegisterStorage> store;
    std::shared_ptr<PCIECoreGenericInfo> core_info;
    std::shared_ptr<LaneGenericInformation> lane_info;
    std::vector<PCIECoreToLinkName> links;
    std::vector<PCIeBridgeInfo> bridges;
    std::vector<PCIECoreToSubBus> buses;
    std::vector<PCIECoreToPortNumber> ports;
    std::map<std::string, unsigned int> segments;
};

DieSources gather(const VEX_DIE_INFO& die, const std::vector<PCIDeviceDetails>& devices,
                  const std::shared_ptr<ReadPCI>& read) {
    DieSources sources;
    const auto accessor = CRNFactory::instance()->get_crn_accessor(die);
    sources.store = make_register_store(die.name(), std::make_shared<PhyAccessor>(accessor));
    sources.core_info = get_pcie_core_generic_info(die);
    sources.lane_info = get_lane_generic_info(die);
    sources.links = (*get_enumerate_pcie_core_to_link(die))();
    sources.bridges = DetectVEXBridgesInfoList(devices, read)();
    sources.buses = CorvaneEnumerateCoreToBus(*sources.store, *sources.core_info)();
    sources.ports = CorvaneEnumerateCoreToPort(*sources.store, *sources.core_info)();
    sources.segments = GetSegmentForPcieCore(die, sources.links, *sources.store)();
    return sources;
}

std::string port_type_text(const PCIeBridgeInfo& bridge, const std::shared_ptr<ReadPCI>& read) {
    const PCIE::Device_ID id(bridge.segment, bridge.bus, bridge.device, bridge.function);
    switch (PCIE::GetPortType(id, read).detect()) {
        case PCIE::GetPortType::DOWNSTREAM_PORT: return "Downstream";
        case PCIE::GetPortType::UPSTREAM_PORT: return "Upstream";
        case PCIE::GetPortType::ROOT_PORT: return "Root Port";
        default: return "Unkown";
    }
}

// The reader's "8 GT/s" and the rule's "8GT/s" name the same rate.
bool runs_at_8gt(std::string speed) {
    speed.erase(std::remove(speed.begin(), speed.end(), ' '), speed.end());
    return speed == "8GT/s";
}

// A row for the bridge that the core's port `bus` stands for.
PortMap make_row(const VEX_DIE_INFO& die, const DieSources& sources, const PCIeBridgeInfo& bridge,
                 const PCIECoreToSubBus& bus, const std::shared_ptr<ReadPCI>& read) {
    const RegisterStorage& store = *sources.store;
    PortMap row;
    row.device = PCIE::Device_ID(bridge.segment, bridge.bus, bridge.device, bridge.function);
    row.speed = bridge.speed;
    row.width = bridge.width;
    row.secondary_bus = bridge.secondary_bus;
    row.subordinate_bus = bridge.subordinate_bus;
    row.core = bus.core;
    row.function_index = bus.function_index;
    for (const auto& port : sources.ports)
        if (port.core == bus.core && port.function_index == bus.function_index) row.port = port.port_number;

    row.serdes = row.package = row.phy = row.phy_version = kNotAvailable;
    const auto link = std::find_if(sources.links.begin(), sources.links.end(),
                                   [&bus](const PCIECoreToLinkName& entry) { return entry.core == bus.core; });
    if (link != sources.links.end()) {
        row.serdes = link->serdes;
        row.package = link->package;
        row.phy = link->phy;
        row.phy_version = get_phy_version_text(store, link->serdes);

        std::string error;
        try {
            const unsigned int lanes = sources.lane_info->get_no_of_lanes(link->serdes);
            GetPhysicalToLogicalLanes walk(store, get_lane_map_layout(die.name()));
            if (!walk(bus.core, bus.function_index, link->serdes, lanes, row.logical_to_serdes_lane,
                      row.logical_to_controller_lane, error))
                Logger::get().log("Port map: lanes of " + bus.core + " port " + std::to_string(bus.function_index) +
                                  ": " + error);
        } catch (const std::exception& failure) {
            Logger::get().log("Port map: lanes of " + bus.core + ": " + failure.what());
        }
    }

    row.lc_state = GetCurrentLTSSMState().get_current_lc_state_val(store, bus.core, bus.function_index);
    row.port_type = port_type_text(bridge, read);
    const ESMHandler esm;
    if (esm.is_esm_active(die.name(), store, bus.core, bus.function_index)) {
        row.esm_active = true;
        row.esm_speed = runs_at_8gt(row.speed) ? esm.get_esm_data_rate0(store, bus.core, bus.function_index)
                                               : esm.get_esm_data_rate1(store, bus.core, bus.function_index);
    }
    return row;
}

unsigned int segment_of(const DieSources& sources, const std::string& core) {
    const auto found = sources.segments.find(core);
    // A core outside the link list has no known segment; no bridge can match it.
    return found == sources.segments.end() ? ~0u : found->second;
}

PortMapData& port_map_data() {
    static PortMapData data;
    return data;
}

bool& port_map_done() {
    static bool done = false;
    return done;
}

std::vector<PCIDeviceDetails> own_functions(const VEX_DIE_INFO& die) {
    if (die.is_gpu) return {die.gpu.device};
    if (die.is_apu) return {die.apu.gfx_device};
    return {};
}

}  // namespace

DetectVEXBridgesInfoList::DetectVEXBridgesInfoList(std::vector<PCIDeviceDetails> devices,
                                                   std::shared_ptr<ReadPCI> read)
    : _devices(std::move(devices)), _read(std::move(read)) {}

std::vector<PCIeBridgeInfo> DetectVEXBridgesInfoList::operator()() const {
    std::vector<PCIeBridgeInfo> bridges;
    for (const auto& device : _devices) {
        unsigned int dword = 0;
        PCIE::read_config_dword(*_read, PCIE::Device_ID(device), kHeaderTypeOffset, dword);
        if (PCIE::header_type_of(dword) == kHeaderTypeBridge) bridges.push_back(read_bridge_info(device, *_read));
    }
    return bridges;
}

CorvaneEnumerateCoreToBus::CorvaneEnumerateCoreToBus(const RegisterStorage& store, const PCIECoreGenericInfo& cores)
    : _store(store), _cores(cores) {}

std::vector<PCIECoreToSubBus> CorvaneEnumerateCoreToBus::operator()() const {
    std::vector<PCIECoreToSubBus> rows;
    for (const std::string& core : _cores.get_core_names())
        for (unsigned int index : _cores.get_function_indexes(core)) {
            const unsigned int value = _store.get_pcie_core_func_register("SUB_BUS_NUMBER_LATENCY", core, index)->read();
            PCIECoreToSubBus row{core, index, value & 0xFF, (value >> 8) & 0xFF, (value >> 16) & 0xFF, value >> 24};
            if (row.secondary_bus != 0 || row.subordinate_bus != 0) rows.push_back(row);
        }
    return rows;
}

CorvaneEnumerateCoreToPort::CorvaneEnumerateCoreToPort(const RegisterStorage& store,
                                                       const PCIECoreGenericInfo& cores)
    : _store(store), _cores(cores) {}

std::vector<PCIECoreToPortNumber> CorvaneEnumerateCoreToPort::operator()() const {
    std::vector<PCIECoreToPortNumber> rows;
    for (const std::string& core : _cores.get_core_names())
        for (unsigned int index : _cores.get_function_indexes(core))
            rows.push_back({core, index, _store.get_pcie_core_func_register("LINK_CAP", core, index)->read() >> 24});
    return rows;
}

GetSegmentForPcieCore::GetSegmentForPcieCore(const VEX_DIE_INFO& die, const std::vector<PCIECoreToLinkName>& links,
                                             const RegisterStorage& store)
    : _die(die), _links(links), _store(store) {}

std::map<std::string, unsigned int> GetSegmentForPcieCore::operator()() const {
    std::map<std::string, unsigned int> segments;
    const bool one_segment = _die.pcie_segment_count() <= 1;
    for (const auto& link : _links) {
        if (one_segment) {
            segments[link.core] = _die.segment_pcie();
            continue;
        }
        try {
            segments[link.core] = _store.get_pcie_core_register("NB_BUS_NUM_CNTL", link.core)->read() >> 16;
        } catch (const std::exception&) {
            throw std::runtime_error("Error: Unable to find segment for pcie core " + link.core);
        }
    }
    return segments;
}

std::string get_phy_version_text(const RegisterStorage& store, const std::string& link) {
    unsigned int first = 0, second = 0;
    try {
        first = store.get_link_register("PHY_FW_VERSION0", link)->read();
        second = store.get_link_register("PHY_FW_VERSION1", link)->read();
    } catch (const std::exception&) {
        return kNotAvailable;
    }
    if (first == 0 && second == 0) return kNotAvailable;
    return std::to_string((first >> 24) & 0xCF) + "." + std::to_string((second >> 8) & 0xCF) + "." +
           std::to_string((second >> 16) & 0xCF);
}

std::vector<PortMap> get_port_mapping_corvane_style(const VEX_DIE_INFO& die,
                                                    const std::vector<PCIDeviceDetails>& devices,
                                                    std::shared_ptr<ReadPCI> read) {
    const DieSources sources = gather(die, devices, read);
    std::vector<PortMap> rows;
    for (const auto& bridge : sources.bridges)
        for (const auto& bus : sources.buses)
            if (segment_of(sources, bus.core) == bridge.segment && bus.secondary_bus == bridge.secondary_bus)
                rows.push_back(make_row(die, sources, bridge, bus, read));
    return rows;
}

std::vector<PortMap> get_port_mapping_kx930x_style(const VEX_DIE_INFO& die,
                                                   const std::vector<PCIDeviceDetails>& devices,
                                                   std::shared_ptr<ReadPCI> read) {
    const DieSources sources = gather(die, devices, read);
    const PCIE::FindParentDevice parents(devices, read);
    std::vector<PortMap> rows;
    for (const auto& device : own_functions(die)) {
        const std::string name = sbdf_text(device.segment, device.bus, device.device, device.function);
        std::optional<PCIeBridgeInfo> upstream;
        for (unsigned int level = 1; level <= kMaxWalkLevels && !upstream; ++level) {
            const auto found = parents.find_parent(device, level);
            if (!found.found) break;
            const PCIeBridgeInfo& parent = found.parents.back();
            const std::string type = port_type_text(parent, read);
            if (type == "Upstream") upstream = parent;
            else if (type != "Downstream") break;
        }
        if (!upstream) {
            print_line("Error: Unable to traverse and find the upstream port of " + name + " (port type different).");
            continue;
        }
        if (sources.buses.size() > 1) {
            print_line("Error: Two non-zero entries found in PCie controllers port list for : " + name);
            continue;
        }
        if (sources.buses.empty()) continue;
        rows.push_back(make_row(die, sources, *upstream, sources.buses.front(), read));
    }
    return rows;
}

PortMapData get_all_port_data(const std::vector<VEX_DIE_INFO>& dies, const std::vector<PCIDeviceDetails>& devices,
                              std::shared_ptr<ReadPCI> read) {
    NamedLockGuard guard("PORT_MAP_DATA");
    if (!port_map_done()) {
        for (const auto& die : dies) {
            try {
                auto rows = get_port_mapping_corvane_style(die, devices, read);
                if (rows.empty() && die.name() == "KX900X") rows = get_port_mapping_kx930x_style(die, devices, read);
                if (!rows.empty()) port_map_data()[die] = std::move(rows);
            } catch (const std::exception& error) {
                Logger::get().log("Port map: " + die.full_name() + " left out: " + error.what());
            }
        }
        port_map_done() = true;
    }
    return port_map_data();
}

void reset_all_port_data() {
    NamedLockGuard guard("PORT_MAP_DATA");
    port_map_data().clear();
    port_map_done() = false;
}

bool is_device_mapped(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                      const PortMapData& map) {
    const PCIE::Device_ID wanted(segment, bus, device, function);
    for (const auto& [die, rows] : map)
        for (const auto& row : rows)
            if (row.device == wanted) return true;
    return false;
}

std::pair<VEX_DIE_INFO, PortMap> get_mapped_device(unsigned int segment, unsigned int bus, unsigned int device,
                                                   unsigned int function, const PortMapData& map) {
    const PCIE::Device_ID wanted(segment, bus, device, function);
    for (const auto& [die, rows] : map)
        for (const auto& row : rows)
            if (row.device == wanted) return {die, row};
    throw std::runtime_error("Unexpected scenario in get_mapped_device");
}

std::vector<std::string> port_mapping_lines(const std::vector<PortMap>& rows) {
    if (rows.empty()) return {"    No PCIe ports detected."};
    const auto lanes = [](const std::map<unsigned int, unsigned int>& map) {
        std::string text;
        for (const auto& [logical, physical] : map)
            text += (text.empty() ? "" : " ") + ("[" + std::to_string(logical) + ":" + std::to_string(physical) + "]");
        return text;
    };
    std::vector<std::string> lines;
    for (const auto& row : rows) {
        const auto& d = row.device;
        lines.push_back("PCIe Bridge               : " + sbdf_text(d.segment, d.bus, d.device, d.function));
        lines.push_back("    Speed                     : " +
                        (row.esm_active ? std::to_string(row.esm_speed) + "GT/s (ESM Speed)" : row.speed));
        lines.push_back("    Width                     : " + row.width);
        lines.push_back("    Secondary Bus             : " + hex_byte(row.secondary_bus));
        lines.push_back("    Subordinate Bus           : " + hex_byte(row.subordinate_bus));
        lines.push_back("    PCIe Core & Func          : " + row.core + " & " + std::to_string(row.function_index));
        lines.push_back("    SERDES & Port             : " + row.serdes + " & " + std::to_string(row.port));
        lines.push_back("    Package                   : " + row.package);
        lines.push_back("    Phy & Version             : " + row.phy + " & " + row.phy_version);
        lines.push_back("    Port Type                 : " + row.port_type);
        lines.push_back("    LC_STATE                  : " + row.lc_state);
        lines.push_back("    Logical to SERDES Lane    : " + lanes(row.logical_to_serdes_lane));
        lines.push_back("    Logical to Controller Lane: " + lanes(row.logical_to_controller_lane));
    }
    return lines;
}

void print_port_mapping(const std::vector<PortMap>& rows, std::ostream& out) {
    for (const auto& line : port_mapping_lines(rows)) out << line << '\n';
}

void print_port_mapping(const std::vector<PortMap>& rows) {
    NamedLockGuard console("ConsoleLock");
    print_port_mapping(rows, std::cout);
    std::cout.flush();
}
