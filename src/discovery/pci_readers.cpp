#include "discovery/pci_readers.h"

#include <iostream>

#include "discovery/pci_config_read.h"

namespace PCIE {

namespace {

constexpr unsigned int kLinkCapabilitiesOffset = 12;
constexpr unsigned int kLinkControlStatusOffset = 16;
constexpr unsigned int kLinkCapabilities2Offset = 44;
constexpr unsigned int kPowerManagementStatusOffset = 4;

// A speed code is accepted only when the supported-speeds vector lists it.
bool speed_from_code(unsigned int code, unsigned int supported, LINK_SPEEDS& speed) {
    if (code < 1 || code > 5) return false;
    if ((supported & (1u << (code - 1))) == 0) return false;
    speed = static_cast<LINK_SPEEDS>(code - 1);
    return true;
}

// Bits 1 to 7 of link capabilities 2.
unsigned int supported_speeds_vector(unsigned int link_capabilities2) {
    return ((link_capabilities2 & 0xFFFF) >> 1) & 0x7F;
}

// The PCI Express capability's dword at a relative offset.
bool read_express_dword(const ReadPCI& read, const Device_ID& device, DetectThisPCIECapability& capability,
                        unsigned int relative, unsigned int& value, std::string& error) {
    unsigned int base = 0;
    if (!capability.detect(PCI_EXPRESS, base, error)) return false;
    if (!read_config_dword(read, device, base + relative, value)) {
        error = "read pci failed.";
        return false;
    }
    return true;
}

// A link width field: 1, 2, 4, 8, 16 or 32 lanes.
bool width_from_field(unsigned int field, GetCurrentLinkWidth::WIDTH& value, std::string& error) {
    switch (field) {
        case GetCurrentLinkWidth::X1: case GetCurrentLinkWidth::X2: case GetCurrentLinkWidth::X4:
        case GetCurrentLinkWidth::X8: case GetCurrentLinkWidth::X16: case GetCurrentLinkWidth::X32:
            value = static_cast<GetCurrentLinkWidth::WIDTH>(field);
            return true;
        default:
            error = "Unable to detect width value";
            return false;
    }
}

// Reads the speed code at the given offset and checks it against the supported vector.
bool read_link_speed(const ReadPCI& read, const Device_ID& device, DetectThisPCIECapability& capability,
                     unsigned int relative, unsigned int shift, LINK_SPEEDS& value, std::string& error,
                     bool print_unknown) {
    unsigned int base = 0;
    if (!capability.detect(PCI_EXPRESS, base, error)) return false;
    unsigned int dword = 0;
    unsigned int capabilities2 = 0;
    if (!read_config_dword(read, device, base + relative, dword) ||
        !read_config_dword(read, device, base + kLinkCapabilities2Offset, capabilities2)) {
        error = "read pci failed.";
        return false;
    }
    const unsigned int code = (dword >> shift) & 0xF;
    const unsigned int supported = supported_speeds_vector(capabilities2);
    if (!speed_from_code(code, supported, value)) {
        if (print_unknown) std::cout << code << ":" << supported << std::endl;
        error = "Unknown link speed.";
        return false;
    }
    return true;
}

}  // namespace

bool link_speed_to_string(LINK_SPEEDS speed, std::string& text, std::string& error) {
    static const char* const kTexts[] = {"2.5 GT/s", "5 GT/s", "8 GT/s", "16 GT/s", "32 GT/s"};
    if (speed > SPEED_32_GT) {
        error = "Unknown speed value";
        return false;
    }
    text = kTexts[speed];
    return true;
}

bool GetCurrentLinkSpeed::get(SPEEDS& value, std::string& error) const {
    // The current speed is the low nibble of the link status word.
    return read_link_speed(_read, _device, _capability, kLinkControlStatusOffset, 16, value, error, false);
}

bool GetCurrentLinkSpeed::get(std::string& value, std::string& error) const {
    SPEEDS speed{};
    return get(speed, error) && link_speed_to_string(speed, value, error);
}

bool GetMaxLinkSpeed::get(SPEEDS& value, std::string& error) const {
    return read_link_speed(_read, _device, _capability, kLinkCapabilitiesOffset, 0, value, error, true);
}

bool GetMaxLinkSpeed::get(std::string& value, std::string& error) const {
    SPEEDS speed{};
    return get(speed, error) && link_speed_to_string(speed, value, error);
}

bool GetCurrentLinkWidth::get(WIDTH& value, std::string& error) const {
    unsigned int dword = 0;
    if (!read_express_dword(_read, _device, _capability, kLinkControlStatusOffset, dword, error)) return false;
    return width_from_field((dword >> 20) & 0x3F, value, error);
}

bool GetCurrentLinkWidth::get(std::string& value, std::string& error) const {
    WIDTH width{};
    if (!get(width, error)) return false;
    switch (width) {
        case X1: case X2: case X4: case X8: case X16: case X32:
            value = "x" + std::to_string(static_cast<unsigned int>(width));
            return true;
    }
    error = "Unknown width value";
    return false;
}

bool GetMaxLinkWidth::get(WIDTH& value, std::string& error) const {
    unsigned int dword = 0;
    if (!read_express_dword(_read, _device, _capability, kLinkCapabilitiesOffset, dword, error)) return false;
    return width_from_field((dword >> 4) & 0x3F, value, error);
}

bool GetMaxLinkWidth::get(std::string& value, std::string& error) const {
    WIDTH width{};
    if (!get(width, error)) return false;
    value = "x" + std::to_string(static_cast<unsigned int>(width));
    return true;
}

bool GetPowerState::get_power_state(POWER_STATE& value, std::string& error) const {
    unsigned int base = 0;
    if (!_capability.detect(PCI_POWER_MANAGEMENT, base, error)) {
        error += "Could not detect the PCI Power Management Capability Structure";
        return false;
    }
    unsigned int dword = 0;
    if (!read_config_dword(_read, _device, base + kPowerManagementStatusOffset, dword)) {
        error = "read pci failed.";
        return false;
    }
    value = static_cast<POWER_STATE>(dword & 0x3);
    return true;
}

bool GetPowerState::get_aspm_state(ASPM_STATE& value, std::string& error) const {
    unsigned int base = 0;
    if (!_capability.detect(PCI_EXPRESS, base, error)) {
        error += "Could not detect the PCI Express Capability Structure";
        return false;
    }
    unsigned int dword = 0;
    if (!read_config_dword(_read, _device, base + kLinkControlStatusOffset, dword)) {
        error = "read pci failed.";
        return false;
    }
    value = static_cast<ASPM_STATE>(dword & 0x3);
    return true;
}

PCIeRegAccessor::PCIeRegAccessor(Device_ID device, ReadPCI& read, WritePCI& write,
                                 DetectThisPCIECapability& capability, unsigned int offset)
    : PCIeCapabilityReader(device, read, capability), _write(write), _offset(offset) {}

bool PCIeRegAccessor::get(unsigned int& value, std::string& error) const {
    unsigned int base = 0;
    if (!_capability.detect(PCI_EXPRESS, base, error)) return false;
    if (!read_config_dword(_read, _device, base + _offset, value)) {
        std::cout << "read pci failed" << std::endl;
        error = "read pci failed.";
        return false;
    }
    return true;
}

bool PCIeRegAccessor::set(const unsigned int& value, std::string& error) const {
    unsigned int base = 0;
    if (!_capability.detect(PCI_EXPRESS, base, error)) return false;
    unsigned int dword = 0;
    if (!read_config_dword(_read, _device, base + _offset, dword)) {
        std::cout << "read pci failed" << std::endl;
        error = "read pci failed.";
        return false;
    }
    dword = (dword & 0xFFFF0000) | (value & 0xFFFF);
    if (!_write.write32(_device.segment, _device.bus, _device.device, _device.function, base + _offset, dword)) {
        std::cout << "write pci failed" << std::endl;
        error = "write pci failed.";
        return false;
    }
    return true;
}

GetPortType::GetPortType(Device_ID device, std::shared_ptr<ReadPCI> read) : _device(device), _read(std::move(read)) {}

GetPortType::PORT_TYPE GetPortType::detect() const {
    DetectThisPCIECapability capability(_device, *_read);
    unsigned int base = 0;
    std::string error;
    if (!capability.detect(PCI_EXPRESS, base, error)) return UNKNOWN_PORT_TYPE;
    unsigned int dword = 0;
    read_config_dword(*_read, _device, base, dword);
    switch ((dword >> 20) & 0xF) {
        case 0: return PCI_EXPRESS_ENDPOINT;
        case 1: return LEGACY_PCI_EXPRESS_ENDPOINT;
        case 4: return ROOT_PORT;
        case 5: return UPSTREAM_PORT;
        case 6: return DOWNSTREAM_PORT;
        case 7: return EXPRESS_TO_PCI_BRIDGE;
        case 8: return PCI_TO_EXPRESS_BRIDGE;
        case 9: return ROOT_COMPLEX_INTEGERATED_ENDPOINT;
        case 10: return ROOT_COMPLEX_EVENT_CONTROLLER;
        default: return UNKNOWN_PORT_TYPE;
    }
}

std::string GetPortType::get_as_str() const {
    unsigned int ids = 0;
    read_config_dword(*_read, _device, 0, ids);
    const std::string vex = is_vex_vendor_id(ids & 0xFFFF) ? "VEX " : "";
    switch (detect()) {
        case ROOT_PORT: return vex + "RootPort";
        case UPSTREAM_PORT: return vex + "Upstream";
        case DOWNSTREAM_PORT: return vex + "Downstream";
        case PCI_EXPRESS_ENDPOINT: return "PCI_EXPRESS_ENDPOINT";
        case LEGACY_PCI_EXPRESS_ENDPOINT: return "LEGACY_PCI_EXPRESS_ENDPOINT";
        case EXPRESS_TO_PCI_BRIDGE: return "EXPRESS_TO_PCI_BRIDGE";
        case PCI_TO_EXPRESS_BRIDGE: return "PCI_TO_EXPRESS_BRIDGE";
        case ROOT_COMPLEX_INTEGERATED_ENDPOINT: return "ROOT_COMPLEX_INTEGERATED_ENDPOINT";
        case ROOT_COMPLEX_EVENT_CONTROLLER: return "ROOT_COMPLEX_EVENT_CONTROLLER";
        case UNKNOWN_PORT_TYPE: break;
    }
    return " ";
}

}  // namespace PCIE

std::pair<unsigned int, unsigned int> GetSecondarySubordinateBus::operator()(PCIDeviceDetails device,
                                                                             std::shared_ptr<ReadPCI> read) const {
    unsigned int buses = 0;
    PCIE::read_config_dword(*read, PCIE::Device_ID(device), 24, buses);
    return {(buses >> 8) & 0xFF, (buses >> 16) & 0xFF};
}
