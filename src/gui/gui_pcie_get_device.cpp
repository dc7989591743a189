#include "gui/gui_pcie_get_device.h"

#include <optional>
#include <sstream>
#include <string>

#include "discovery/pci_capability.h"
#include "discovery/pci_detection.h"
#include "discovery/pci_names.h"
#include "discovery/pci_readers.h"
#include "hardware/pci_std.h"
#include "hardware/resource_lock.h"
#include "margin_pcie/margin_device_checks.h"

using nlohmann::json;

namespace {

constexpr const char* kListLock = "GUIPCIEGetDevice";

// The cache; read and written only under kListLock. An empty list stays an
// empty array rather than null, so the browser always gets an array.
bool init_done = false;
json json_dev_list = json::array();
// Per element of the cached list: its function and, for a mapped port, the
// port's lanes, so the live fields can be read again without a new walk.
struct ListedFunction {
    PCIDeviceDetails device;
    std::optional<PortMap> port;
};
std::vector<ListedFunction> listed_functions;

// Negative exponents of the target bit error rate a margin test may ask for.
json margin_ber_choices() { return json::array({"8", "9", "10", "11", "12", "13", "14"}); }

// Compared bits of an eye scan, as powers of two, from the longest scan down.
json eye_scan_ber_choices() {
    return json::array({"7.65", "7.345", "7.045", "6.745", "6.445", "6.145", "5.84", "5.54", "5.24", "4.94", "4.64",
                        "4.335", "4.035", "3.735"});
}

// segment:bus:device.function in lower-case hexadecimal without padding.
std::string sbdf_text(const PCIDeviceDetails& device) {
    std::ostringstream text;
    text << std::hex << device.segment << ":" << device.bus << ":" << device.device << "." << device.function;
    return text.str();
}

// The negotiated lane count; 0 when it can't be read.
unsigned int current_width(const PCIE::Device_ID& id, ReadPCI& read) {
    PCIE::DetectThisPCIECapability capability(id, read);
    PCIE::GetCurrentLinkWidth::WIDTH width{};
    std::string error;
    if (!PCIE::GetCurrentLinkWidth(id, read, capability).get(width, error)) return 0;
    return width;
}

// Whether a margin test can run on the function; when not, reason says why
// (the pre-check's own text), so the browser can tell the user.
bool margin_supported(const PCIDeviceDetails& device, ReadPCI& read, bool fast_enough, std::string& reason) {
    const PCIE::Device_ID id(device.segment, device.bus, device.device, device.function);
    PCIE::DetectThisPCIECapability capability(id, read);
    PCIE::DetectThisPCIEExtendedCapability extended(id, read);
    std::string error;
    const bool passed = PCIE::MarginDeviceChecks(id, {read, capability, extended}).run_pre_check(error);
    if (passed && fast_enough) return true;
    reason = passed ? "PCIe device speed is lower than 16 GT/s" : error;
    // The pre-check appends its sentences to the search's own text, which
    // may leave ". " at the start or ".." between them.
    while (!reason.empty() && (reason.front() == '.' || reason.front() == ' ')) reason.erase(0, 1);
    for (auto at = reason.find(".."); at != std::string::npos; at = reason.find("..")) reason.erase(at, 1);
    if (reason.empty()) reason = "The margin pre-check failed";
    return false;
}

// The SerDes lanes the trained link runs on. The port's logical lanes follow
// the link, its lane reversal included, so a link narrower than the port runs
// on logical lanes 0 to width - 1; each is offered as its SerDes lane.
json trained_serdes_lanes(const PortMap& port, unsigned int width) {
    json lanes = json::array();
    for (const auto& [logical, serdes] : port.logical_to_serdes_lane)
        if (logical < width) lanes.push_back(serdes);
    return lanes;
}

// A link that is up but runs slower or narrower than the function's link
// capabilities allow (the far end may be what holds it back). A link that is
// down, or a reader that fails, doesn't count as downtrained.
bool downtrained(const PCIE::Device_ID& id, ReadPCI& read) {
    PCIE::DetectThisPCIECapability capability(id, read);
    PCIE::LINK_SPEEDS speed{}, max_speed{};
    PCIE::GetCurrentLinkWidth::WIDTH width{}, max_width{};
    std::string error;
    if (!PCIE::GetCurrentLinkWidth(id, read, capability).get(width, error)) return false;
    const bool slower = PCIE::GetCurrentLinkSpeed(id, read, capability).get(speed, error) &&
                        PCIE::GetMaxLinkSpeed(id, read, capability).get(max_speed, error) && speed < max_speed;
    const bool narrower = PCIE::GetMaxLinkWidth(id, read, capability).get(max_width, error) && width < max_width;
    return slower || narrower;
}

// Platform functions carry IDs no public database names; they get ours.
constexpr const char* kPlatformVendorName = "Platform";

// Receiver numbers of Lane Margining at the Receiver a test may ask for: the
// port's own receiver (1) on root and downstream ports, the far end's (6) on
// upstream ports and endpoints.
json receivers_for(PCIE::GetPortType::PORT_TYPE type) {
    switch (type) {
        case PCIE::GetPortType::ROOT_PORT:
        case PCIE::GetPortType::DOWNSTREAM_PORT:
            return json::array({1});
        case PCIE::GetPortType::UPSTREAM_PORT:
        case PCIE::GetPortType::PCI_EXPRESS_ENDPOINT:
            return json::array({6});
        default:
            return json::array();
    }
}

}  // namespace

GUIPCIEGetDevice::GUIPCIEGetDevice(GUIResourceStore& store) : _store(store) {}

json GUIPCIEGetDevice::get_device_list(std::vector<PCIDeviceDetails> devices) const {
    NamedLockGuard guard(kListLock);
    std::shared_ptr<ReadPCI> read = _store.get_read_accessor();
    if (!read) read = std::make_shared<ReadPCIStd>();
    if (!init_done) {
        listed_functions.clear();
        json_dev_list = _build(devices, read);
        init_done = true;
        return json_dev_list;
    }
    _refresh_link_state(read);
    return json_dev_list;
}

// The walk that builds the list is slow and its other parts stay true, but a
// link panel or a retrain changes speed and width at any time: those, and
// the lanes offered (which the queue checks records against), are read again
// at each answer, a few configuration reads per function.
void GUIPCIEGetDevice::_refresh_link_state(const std::shared_ptr<ReadPCI>& read) const {
    for (size_t i = 0; i < listed_functions.size() && i < json_dev_list.size(); ++i) {
        const PCIDeviceDetails& device = listed_functions[i].device;
        json& element = json_dev_list[i];
        const PCIE::Device_ID id(device.segment, device.bus, device.device, device.function);
        PCIE::DetectThisPCIECapability capability(id, *read);
        std::string speed, width_text, error;
        PCIE::GetCurrentLinkSpeed(id, *read, capability).get(speed, error);
        PCIE::GetCurrentLinkWidth(id, *read, capability).get(width_text, error);
        element["PCIeInfo"]["Speed"] = speed;
        element["PCIeInfo"]["Width"] = width_text;
        element["PCIeInfo"]["Downtrained"] = downtrained(id, *read);
        if (const auto& port = listed_functions[i].port) {
            const unsigned int width = current_width(port->device, *read);
            element["PCIeMarginData"]["Lanes"] = trained_serdes_lanes(*port, width);
            element["NonDestMarginData"] = _get_nd_margin_data(*port, width);
        } else {
            json lanes = json::array();
            for (unsigned int lane = 0, width = current_width(id, *read); lane < width; ++lane) lanes.push_back(lane);
            element["PCIeMarginData"]["Lanes"] = std::move(lanes);
        }
    }
}

void GUIPCIEGetDevice::forget_cached_list() {
    NamedLockGuard guard(kListLock);
    init_done = false;
    json_dev_list = json::array();
    listed_functions.clear();
}

json GUIPCIEGetDevice::_build(const std::vector<PCIDeviceDetails>& devices,
                              const std::shared_ptr<ReadPCI>& read) const {
    const FilterPCIDevices speed_known(FilterPCIDevices::LINK_SPEED_KNOWN, read);
    const FilterPCIDevices gen4_and_above(FilterPCIDevices::GEN4_AND_ABOVE, read);
    const FilterPCIDevices bridge(FilterPCIDevices::BRIDGE_DEVICE, read);
    const FilterPCIDevices vex_device(FilterPCIDevices::VEX_DEVICE, read);

    std::vector<PCIDeviceDetails> listed;
    for (const auto& device : devices) {
        if (speed_known(device)) listed.push_back(device);
    }
    const PortMapData port_map = get_all_port_data(_store.get_die_list(), devices, read);

    json list = json::array();
    for (const auto& device : listed) {
        json element;
        element["PCIeInfo"] = _get_pcie_info(device, read);
        std::string unsupported;
        element["PCIeMarginSupported"] = margin_supported(device, *read, gen4_and_above(device), unsupported);
        if (!unsupported.empty()) element["PCIeMarginUnsupportedReason"] = unsupported;
        element["PCIeMarginData"] = _get_pcie_margin_data(device, read);
        std::optional<PortMap> mapped_port;
        if (bridge(device) && vex_device(device) &&
            is_device_mapped(device.segment, device.bus, device.device, device.function, port_map)) {
            const auto [die, port] =
                get_mapped_device(device.segment, device.bus, device.device, device.function, port_map);
            mapped_port = port;
            const unsigned int width = current_width(port.device, *read);
            if (!port.lc_state.empty()) element["PCIeInfo"]["LTSSM"] = port.lc_state;
            element["EyeScanSupported"] = !port.logical_to_serdes_lane.empty();
            element["PCIeMarginData"]["Lanes"] = trained_serdes_lanes(port, width);
            element["SERDES"] = _get_serdes_data(die, port);
            element["PCIeCtrlInfo"] = _get_pcie_ctrl_data(die, port);
            element["EyeScanData"] = _get_eyescan_data(port);
            element["NonDestMarginSupported"] = false;
            element["NonDestMarginData"] = _get_nd_margin_data(port, width);
        } else {
            element["EyeScanSupported"] = false;
            element["NonDestMarginSupported"] = false;
        }
        list.push_back(std::move(element));
        listed_functions.push_back({device, mapped_port});
    }
    return list;
}

json GUIPCIEGetDevice::_get_pcie_info(const PCIDeviceDetails& device, const std::shared_ptr<ReadPCI>& read) const {
    const PCIE::Device_ID id(device.segment, device.bus, device.device, device.function);
    PCIE::DetectThisPCIECapability capability(id, *read);
    // A reader that fails leaves its text empty; the list shows no errors.
    std::string speed, width, max_speed, max_width, error;
    PCIE::GetCurrentLinkSpeed(id, *read, capability).get(speed, error);
    PCIE::GetCurrentLinkWidth(id, *read, capability).get(width, error);
    PCIE::GetMaxLinkSpeed(id, *read, capability).get(max_speed, error);
    PCIE::GetMaxLinkWidth(id, *read, capability).get(max_width, error);
    const bool is_bridge = FilterPCIDevices(FilterPCIDevices::BRIDGE_DEVICE, read)(device);
    const bool is_platform = FilterPCIDevices(FilterPCIDevices::VEX_DEVICE, read)(device);

    json info = {{"SBDF", sbdf_text(device)},
                 {"VendorName", is_platform ? kPlatformVendorName : PCIE::GetVendorName(id, *read)().first},
                 {"Speed", speed},
                 {"Width", width},
                 {"MaxSpeed", max_speed},
                 {"MaxWidth", max_width},
                 {"Downtrained", downtrained(id, *read)},
                 {"DeviceType", is_bridge ? "Bridge" : "Endpoint"}};
    if (is_bridge) {
        const auto [secondary, subordinate] = GetSecondarySubordinateBus()(device, read);
        info["BridgeInfo"] = {{"SecondaryBus", secondary}, {"SubordinateBus", subordinate}};
    }
    return info;
}

json GUIPCIEGetDevice::_get_pcie_margin_data(const PCIDeviceDetails& device,
                                             const std::shared_ptr<ReadPCI>& read) const {
    const PCIE::Device_ID id(device.segment, device.bus, device.device, device.function);
    json lanes = json::array();
    const unsigned int width = current_width(id, *read);
    for (unsigned int lane = 0; lane < width; ++lane) lanes.push_back(lane);
    return {{"BER", margin_ber_choices()},
            {"ErrCnt", {{"Max", 63}, {"Min", 1}}},
            {"Lanes", std::move(lanes)},
            {"Receivers", receivers_for(PCIE::GetPortType(id, read).detect())}};
}

json GUIPCIEGetDevice::_get_serdes_data(const VEX_DIE_INFO& die, const PortMap& port) const {
    return {{"DeviceName", die.full_name()}, {"SERDES", port.serdes}};
}

json GUIPCIEGetDevice::_get_pcie_ctrl_data(const VEX_DIE_INFO& die, const PortMap& port) const {
    return {{"PCIeCore", port.core},
            {"Function", port.function_index},
            {"DeviceName", die.full_name()},
            {"Port", port.port}};
}

json GUIPCIEGetDevice::_get_eyescan_data(const PortMap& port) const {
    json lanes = json::array();
    for (const auto& [logical, serdes] : port.logical_to_serdes_lane) lanes.push_back(logical);
    return {{"BER", eye_scan_ber_choices()}, {"Lanes", std::move(lanes)}};
}

json GUIPCIEGetDevice::_get_nd_margin_data(const PortMap& port, unsigned int width) const {
    // For each SerDes lane the link uses, the logical lane that lands on it.
    json lanes = json::array();
    for (unsigned int serdes_lane = 0; serdes_lane < width; ++serdes_lane) {
        for (const auto& [logical, serdes] : port.logical_to_serdes_lane) {
            if (serdes == serdes_lane) {
                lanes.push_back(logical);
                break;
            }
        }
    }
    return {{"BER", eye_scan_ber_choices()}, {"Lanes", std::move(lanes)}};
}
