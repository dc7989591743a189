#include "gui/gui_pcie_get_device.h"

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

// The pre-check's reason is of no use to the list: only whether it passed.
bool passes_margin_pre_check(const PCIDeviceDetails& device, ReadPCI& read) {
    const PCIE::Device_ID id(device.segment, device.bus, device.device, device.function);
    PCIE::DetectThisPCIECapability capability(id, read);
    PCIE::DetectThisPCIEExtendedCapability extended(id, read);
    std::string error;
    return PCIE::MarginDeviceChecks(id, {read, capability, extended}).run_pre_check(error);
}

bool contains(const std::vector<PCIDeviceDetails>& devices, const PCIDeviceDetails& device) {
    for (const auto& listed : devices) {
        if (listed == device) return true;
    }
    return false;
}

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
    if (init_done) return json_dev_list;
    std::shared_ptr<ReadPCI> read = _store.get_read_accessor();
    if (!read) read = std::make_shared<ReadPCIStd>();
    json_dev_list = _build(devices, read);
    init_done = true;
    return json_dev_list;
}

void GUIPCIEGetDevice::forget_cached_list() {
    NamedLockGuard guard(kListLock);
    init_done = false;
    json_dev_list = json::array();
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
    std::vector<PCIDeviceDetails> margin_devices;
    for (const auto& device : listed) {
        if (gen4_and_above(device) && passes_margin_pre_check(device, *read)) margin_devices.push_back(device);
    }

    const PortMapData port_map = get_all_port_data(_store.get_die_list(), devices, read);

    json list = json::array();
    for (const auto& device : listed) {
        json element;
        element["PCIeInfo"] = _get_pcie_info(device, read);
        element["PCIeMarginSupported"] = contains(margin_devices, device);
        element["PCIeMarginData"] = _get_pcie_margin_data(device, read);
        if (bridge(device) && vex_device(device) &&
            is_device_mapped(device.segment, device.bus, device.device, device.function, port_map)) {
            const auto [die, port] =
                get_mapped_device(device.segment, device.bus, device.device, device.function, port_map);
            json lanes = json::array();
            for (const auto& [logical, serdes] : port.logical_to_serdes_lane) lanes.push_back(serdes);
            element["EyeScanSupported"] = !lanes.empty();
            element["PCIeMarginData"]["Lanes"] = std::move(lanes);
            element["SERDES"] = _get_serdes_data(die, port);
            element["PCIeCtrlInfo"] = _get_pcie_ctrl_data(die, port);
            element["EyeScanData"] = _get_eyescan_data(port);
            element["NonDestMarginSupported"] = false;
            element["NonDestMarginData"] = _get_nd_margin_data(port, current_width(port.device, *read));
        } else {
            element["EyeScanSupported"] = false;
            element["NonDestMarginSupported"] = false;
        }
        list.push_back(std::move(element));
    }
    return list;
}

json GUIPCIEGetDevice::_get_pcie_info(const PCIDeviceDetails& device, const std::shared_ptr<ReadPCI>& read) const {
    const PCIE::Device_ID id(device.segment, device.bus, device.device, device.function);
    PCIE::DetectThisPCIECapability capability(id, *read);
    // A reader that fails leaves its text empty; the list shows no errors.
    std::string speed, width, error;
    PCIE::GetCurrentLinkSpeed(id, *read, capability).get(speed, error);
    PCIE::GetCurrentLinkWidth(id, *read, capability).get(width, error);
    const bool is_bridge = FilterPCIDevices(FilterPCIDevices::BRIDGE_DEVICE, read)(device);

    json info = {{"SBDF", sbdf_text(device)},
                 {"VendorName", PCIE::GetVendorName(id, *read)().first},
                 {"Speed", speed},
                 {"Width", width},
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
