#include "service/startup_inventory.h"

#include <cstdio>
#include <iostream>

#include "discovery/pci_detection.h"
#include "discovery/pci_names.h"
#include "discovery/pci_readers.h"
#include "discovery/port_mapping.h"
#include "hardware/chips/chip_identity.h"
#include "hardware/file_logger.h"
#include "hardware/resource_lock.h"
#include "service/hvl_inventory.h"

namespace {

std::string sbdf_text(const PCIDeviceDetails& device) {
    char text[32];
    std::snprintf(text, sizeof(text), "%04x:%02x:%02x.%x", device.segment, device.bus, device.device, device.function);
    return text;
}

std::string hex4(unsigned int value) {
    char text[8];
    std::snprintf(text, sizeof(text), "%04x", value & 0xFFFF);
    return text;
}

// "16 GT/s x4 (max 32 GT/s)", or nothing for a function without a link.
std::string link_text(const PCIDeviceDetails& device, ReadPCI& read) {
    const PCIE::Device_ID id(device);
    PCIE::DetectThisPCIECapability capability(id, read);
    std::string speed, max_speed, width, error;
    if (!PCIE::GetCurrentLinkSpeed(id, read, capability).get(speed, error)) return "";
    std::string text = speed;
    // A link that is down has no width to show.
    if (PCIE::GetCurrentLinkWidth(id, read, capability).get(width, error)) text += " " + width;
    if (PCIE::GetMaxLinkSpeed(id, read, capability).get(max_speed, error) && max_speed != speed)
        text += " (max " + max_speed + ")";
    return text;
}

std::string function_line(const PCIDeviceDetails& device, const std::shared_ptr<ReadPCI>& read) {
    const PCIE::Device_ID id(device);
    std::string vendor = PCIE::GetVendorName(id, *read)().first;
    // The platform's own IDs aren't in the public database.
    if (device.vendor_id == chips::kProcessorVendorId) vendor = "platform processor";
    if (device.vendor_id == chips::kGraphicsVendorId) vendor = "platform graphics";
    if (vendor.empty()) vendor = "[Unknown vendor]";
    std::string line = "  " + sbdf_text(device) + "  " + hex4(device.vendor_id) + ":" + hex4(device.device_id) + "  " +
                       vendor + "  " + PCIE::GetClassName(id, *read)();
    const std::string port_type = PCIE::GetPortType(id, read).get_as_str();
    if (port_type != " ") line += "  [" + port_type + "]";
    const std::string link = link_text(device, *read);
    if (!link.empty()) line += "  " + link;
    return line;
}

std::string die_line(const VEX_DIE_INFO& die) {
    std::string line = "  " + die.name() + "  socket " + std::to_string(die.socket()) + " die " +
                       std::to_string(die.die()) + "  (" + die.full_name() + ")";
    const std::vector<PCIDeviceDetails>* roots = die.is_cpu ? &die.cpu.iohc_devices : die.is_apu ? &die.apu.iohc_devices : nullptr;
    if (roots) {
        line += "  root functions:";
        for (const auto& root : *roots) line += " " + sbdf_text(root);
    }
    return line;
}

}  // namespace

std::vector<std::string> inventory_lines(const std::vector<PCIDeviceDetails>& devices,
                                         const std::vector<VEX_DIE_INFO>& dies, std::shared_ptr<ReadPCI> read) {
    std::vector<std::string> lines;
    lines.push_back("PCI functions found: " + std::to_string(devices.size()));
    for (const auto& device : devices) lines.push_back(function_line(device, read));

    lines.push_back("Dies found: " + std::to_string(dies.size()));
    for (const auto& die : dies) lines.push_back(die_line(die));

    std::vector<std::string> ports;
    const FilterPCIDevices is_bridge(FilterPCIDevices::BRIDGE_DEVICE, read);
    for (const auto& device : devices) {
        if (!is_bridge(device)) continue;
        const auto buses = GetSecondarySubordinateBus()(device, read);
        char range[48];
        std::snprintf(range, sizeof(range), "buses %02x..%02x", buses.first, buses.second);
        std::string line = "  " + sbdf_text(device) + "  " + PCIE::GetPortType(PCIE::Device_ID(device), read).get_as_str() +
                           "  " + range;
        const std::string link = link_text(device, *read);
        if (!link.empty()) line += "  link " + link;
        ports.push_back(line);
    }
    lines.push_back("PCIe ports found: " + std::to_string(ports.size()));
    lines.insert(lines.end(), ports.begin(), ports.end());
    lines.push_back("Port map:");
    std::vector<PortMap> mapped;
    for (const auto& [die, rows] : get_all_port_data(dies, devices, read))
        mapped.insert(mapped.end(), rows.begin(), rows.end());
    const auto block = port_mapping_lines(mapped);
    lines.insert(lines.end(), block.begin(), block.end());
    const auto hvl = hvl_inventory_lines(dies);
    lines.insert(lines.end(), hvl.begin(), hvl.end());
    return lines;
}

void print_inventory(const std::vector<std::string>& lines) {
    NamedLockGuard console("ConsoleLock");
    for (const auto& line : lines) {
        std::cout << line << '\n';
        Logger::get().log(line);
    }
    std::cout.flush();
}
