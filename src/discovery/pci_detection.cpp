#include "discovery/pci_detection.h"

#include <algorithm>
#include <stdexcept>

#include "discovery/pci_capability.h"
#include "discovery/pci_config_read.h"
#include "discovery/pci_readers.h"
#include "hardware/chips/pcie_bridge_ids.h"

namespace {

using PCIE::Device_ID;
using PCIE::read_config_dword;

constexpr unsigned int kSegments = 8;
constexpr unsigned int kBuses = 256;
constexpr unsigned int kDevices = 32;
constexpr unsigned int kFunctions = 8;

constexpr unsigned int kHeaderTypeDwordOffset = 12;
constexpr unsigned int kHeaderTypeByteOffset = 14;
constexpr unsigned int kMultiFunctionBit = 0x80;
constexpr unsigned int kBusNumbersOffset = 24;

enum class Next { Function, Device };

// Calls visit(address, present, dword 0) for every address in order; the
// visitor decides whether the device's remaining functions are tried.
template <typename Visit>
void scan_all_functions(const ReadPCI& read, Visit visit) {
    for (unsigned int segment = 0; segment < kSegments; ++segment)
        for (unsigned int bus = 0; bus < kBuses; ++bus)
            for (unsigned int device = 0; device < kDevices; ++device)
                for (unsigned int function = 0; function < kFunctions; ++function) {
                    const Device_ID address(segment, bus, device, function);
                    unsigned int ids = 0;
                    const bool read_ok = read_config_dword(read, address, 0, ids);
                    const bool present = read_ok && ids != 0 && ids != 0xFFFFFFFF;
                    if (visit(address, present, ids) == Next::Device) break;
                }
}

PCIDeviceDetails make_record(const Device_ID& address, unsigned int ids) {
    PCIDeviceDetails record;
    record.segment = address.segment;
    record.bus = address.bus;
    record.device = address.device;
    record.function = address.function;
    record.vendor_id = ids & 0xFFFF;
    record.device_id = ids >> 16;
    return record;
}

unsigned int header_type(const ReadPCI& read, const Device_ID& address) {
    unsigned int dword = 0;
    read_config_dword(read, address, kHeaderTypeDwordOffset, dword);
    return PCIE::header_type_of(dword);
}

// A shared pointer that doesn't own: for readers that want one from a plain reference.
std::shared_ptr<ReadPCI> unowned(ReadPCI* read) { return std::shared_ptr<ReadPCI>(std::shared_ptr<ReadPCI>(), read); }

}  // namespace

std::vector<PCIDeviceDetails> DetectPCIDevices::operator()(std::shared_ptr<ReadPCI> read) const {
    std::vector<PCIDeviceDetails> found;
    scan_all_functions(*read, [&](const Device_ID& address, bool present, unsigned int ids) {
        if (!present) return address.function == 0 ? Next::Device : Next::Function;
        found.push_back(make_record(address, ids));
        return Next::Function;
    });
    return found;
}

DetectVEXPCIeDevices::DetectVEXPCIeDevices(std::shared_ptr<ReadPCI> read)
    : _read(std::move(read)), _vendor_ids{chips::kProcessorVendorId, chips::kGraphicsVendorId} {}

std::vector<PCIDeviceDetails> DetectVEXPCIeDevices::operator()() const {
    std::vector<PCIDeviceDetails> found;
    scan_all_functions(*_read, [&](const Device_ID& address, bool present, unsigned int ids) {
        if (!present) return address.function == 0 ? Next::Device : Next::Function;
        const unsigned int vendor = ids & 0xFFFF;
        if (std::find(_vendor_ids.begin(), _vendor_ids.end(), vendor) == _vendor_ids.end()) return Next::Function;
        found.push_back(make_record(address, ids));
        if (address.function != 0) return Next::Function;
        unsigned int header = 0;
        read_config_dword(*_read, address, kHeaderTypeByteOffset, header);
        return (header & kMultiFunctionBit) ? Next::Function : Next::Device;
    });
    return found;
}

DetectEPPCIeDevices::DetectEPPCIeDevices(ReadPCI* read) : _read(read) {}

std::vector<DetectEPPCIeDevices::DeviceDetails> DetectEPPCIeDevices::operator()() const {
    std::vector<DeviceDetails> found;
    scan_all_functions(*_read, [&](const Device_ID& address, bool present, unsigned int ids) {
        if (!present) return Next::Device;
        if (header_type(*_read, address) == 0 && address.function == 0 &&
            PCIE::GetPortType(address, unowned(_read)).detect() != PCIE::GetPortType::ROOT_COMPLEX_INTEGERATED_ENDPOINT)
            found.push_back(make_record(address, ids));
        return Next::Function;
    });
    return found;
}

DetectRCPCIeDevices::DetectRCPCIeDevices(ReadPCI* read) : _read(read) {}

std::vector<DetectRCPCIeDevices::DeviceDetails> DetectRCPCIeDevices::operator()() const {
    std::vector<DeviceDetails> found;
    scan_all_functions(*_read, [&](const Device_ID& address, bool present, unsigned int ids) {
        if (!present) return Next::Device;
        if (PCIE::is_vex_vendor_id(ids & 0xFFFF) && header_type(*_read, address) == 1)
            found.push_back(make_record(address, ids));
        return Next::Function;
    });
    return found;
}

FilterPCIDevices::FilterPCIDevices(FilterType type, std::shared_ptr<ReadPCI> read)
    : _type(type), _read(std::move(read)) {}

bool FilterPCIDevices::operator()(PCIDeviceDetails const& device) const {
    const Device_ID address(device);
    const auto current_speed = [&](PCIE::LINK_SPEEDS& speed) {
        PCIE::DetectThisPCIECapability capability(address, *_read);
        std::string error;
        return PCIE::GetCurrentLinkSpeed(address, *_read, capability).get(speed, error);
    };
    PCIE::LINK_SPEEDS speed{};
    switch (_type) {
        case ENDPOINT_DEVICE:
            return header_type(*_read, address) == 0;
        case BRIDGE_DEVICE:
            return header_type(*_read, address) == 1;
        case VEX_DEVICE: {
            unsigned int ids = 0;
            read_config_dword(*_read, address, 0, ids);
            return PCIE::is_vex_vendor_id(ids & 0xFFFF);
        }
        case GEN4_AND_ABOVE:
            return current_speed(speed) && (speed == PCIE::SPEED_16_GT || speed == PCIE::SPEED_32_GT);
        case LINK_SPEED_KNOWN:
            return current_speed(speed);
        case GEN3_AND_ABOVE:
            return current_speed(speed) &&
                   (speed == PCIE::SPEED_8_GT || speed == PCIE::SPEED_16_GT || speed == PCIE::SPEED_32_GT);
    }
    throw std::runtime_error("Error in FilterPCIDevices::operator()");
}

FilterPCIVEXExternalBridge::FilterPCIVEXExternalBridge(std::shared_ptr<ReadPCI> read) : _read(std::move(read)) {}

bool FilterPCIVEXExternalBridge::operator()(PCIDeviceDetails const& device) const {
    const bool vex_bridge = FilterPCIDevices(FilterPCIDevices::BRIDGE_DEVICE, _read)(device) &&
                            FilterPCIDevices(FilterPCIDevices::VEX_DEVICE, _read)(device);
    if (!vex_bridge) return true;
    for (const auto* list : {&chips::corvane::kExternalBridgeDeviceIds, &chips::dellmar::kExternalBridgeDeviceIds,
                             &chips::kx900::kExternalBridgeDeviceIds})
        if (std::find(list->begin(), list->end(), device.device_id) != list->end()) return true;
    return false;
}

PCIeBridgeInfo read_bridge_info(const PCIDeviceDetails& bridge, ReadPCI& read) {
    const PCIE::Device_ID address(bridge);
    unsigned int buses = 0;
    PCIE::read_config_dword(read, address, kBusNumbersOffset, buses);
    PCIeBridgeInfo info{bridge.segment, bridge.bus, bridge.device, bridge.function, "", "", buses & 0xFF,
                        (buses >> 8) & 0xFF, (buses >> 16) & 0xFF, buses >> 24};
    PCIE::DetectThisPCIECapability capability(address, read);
    std::string error;
    std::string text;
    if (PCIE::GetCurrentLinkSpeed(address, read, capability).get(text, error)) info.speed = text;
    if (PCIE::GetCurrentLinkWidth(address, read, capability).get(text, error)) info.width = text;
    return info;
}

namespace PCIE {

FindParentDevice::FindParentDevice(std::vector<PCIDeviceDetails> devices, std::shared_ptr<ReadPCI> read)
    : _read(std::move(read)) {
    const FilterPCIDevices is_bridge(FilterPCIDevices::BRIDGE_DEVICE, _read);
    std::copy_if(devices.begin(), devices.end(), std::back_inserter(_bridges), is_bridge);
}

FindParentDevice::Output FindParentDevice::find_parent(PCIDeviceDetails device, unsigned int levels) const {
    std::vector<PCIeBridgeInfo> parents;
    for (const auto& bridge : _bridges) {
        if (bridge.segment != device.segment) continue;
        const PCIeBridgeInfo info = read_bridge_info(bridge, *_read);
        if (device.bus < info.secondary_bus || device.bus > info.subordinate_bus) continue;
        parents.push_back(info);
    }

    // Nearest first: a bridge lies below every other parent whose range holds
    // its bus, so the more ranges hold it the nearer it is. Counting keeps the
    // order well defined even for bus numbers that don't nest.
    const auto enclosing = [&parents](const PCIeBridgeInfo& bridge) {
        return std::count_if(parents.begin(), parents.end(), [&bridge](const PCIeBridgeInfo& other) {
            return bridge.bus >= other.secondary_bus && bridge.bus <= other.subordinate_bus;
        });
    };
    std::vector<std::pair<long, PCIeBridgeInfo>> ranked;
    for (const auto& parent : parents) ranked.emplace_back(enclosing(parent), parent);
    std::stable_sort(ranked.begin(), ranked.end(),
                     [](const auto& first, const auto& second) { return first.first > second.first; });

    Output output;
    output.device = device;
    if (ranked.size() < levels) return output;
    for (unsigned int i = 0; i < levels; ++i) output.parents.push_back(ranked[i].second);
    output.found = true;
    return output;
}

}  // namespace PCIE
