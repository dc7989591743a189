#include "panels/pcie_link.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <mutex>
#include <set>
#include <sstream>

#include "discovery/pci_capability.h"
#include "discovery/pci_readers.h"
#include "discovery/pcie_core_info.h"
#include "hardware/chips/server_registers.h"
#include "hardware/crn_factory.h"
#include "hardware/os_specific.h"

namespace {

constexpr unsigned kLinkControl = 0x10, kLinkStatus = 0x12, kLinkCapabilities = 0x0C, kLinkControl2 = 0x30;
constexpr unsigned kLinkCapabilities2 = 0x2C;
constexpr unsigned kBridgeControl = 0x3E;

// Link controller registers, in the port's window and the core's block.
constexpr unsigned kWidthControl = 0x288, kSpeedControl = 0x290, kAdvertise = 0x2D4, kSpeedChange = 0x414;

std::string hex(unsigned value, int width = 0) {
    std::ostringstream text;
    text << std::hex << std::uppercase;
    if (width) text << std::setw(width) << std::setfill('0');
    text << value;
    return text.str();
}

}  // namespace

unsigned lanes_of(PCIE_LINK_WIDTH width) {
    switch (width) {
        case PCIE_X1: return 1;
        case PCIE_X2: return 2;
        case PCIE_X4: return 4;
        case PCIE_X8: return 8;
        case PCIE_X12: return 12;
        case PCIE_X16: return 16;
        default: return 0;
    }
}

PCIE_LINK_WIDTH width_of_lanes(unsigned lanes) {
    for (int code = PCIE_X1; code <= PCIE_X16; ++code)
        if (lanes_of(static_cast<PCIE_LINK_WIDTH>(code)) == lanes) return static_cast<PCIE_LINK_WIDTH>(code);
    return PCIE_WIDTH_UNKNOWN;
}

std::string speed_text(int speed) {
    static const char* texts[] = {"2.5 GT/s", "5 GT/s", "8 GT/s", "16 GT/s", "32 GT/s"};
    return speed >= 0 && speed < 5 ? texts[speed] : "-";
}

std::string speed_choice_text(int speed) {
    static const char* texts[] = {"2.5 Gt/s", "5 Gt/s", "8 Gt/s", "16 Gt/s", "32 Gt/s"};
    return speed >= 0 && speed < 5 ? texts[speed] : "-";
}

std::vector<LinkPort> detect_link_ports(const PanelMachine& machine, const PortMapData& maps) {
    std::vector<LinkPort> platform, other_root, downstream;
    for (const PCIDeviceDetails& device : machine.devices) {
        const PCIE::Device_ID id(device);
        PCIE::GetPortType type(id, machine.read);
        const auto kind = type.detect();
        if (kind != PCIE::GetPortType::ROOT_PORT && kind != PCIE::GetPortType::DOWNSTREAM_PORT) continue;
        LinkPort port;
        port.device = device;
        port.type = type.get_as_str();
        const auto [secondary, subordinate] = GetSecondarySubordinateBus()(device, machine.read);
        port.secondary_bus = secondary;
        port.subordinate_bus = subordinate;
        std::ostringstream name;
        name << device.segment << ":" << hex(device.bus, 2) << ":" << hex(device.device, 2) << "." << device.function;
        if (is_device_mapped(device.segment, device.bus, device.device, device.function, maps)) {
            const auto [die, row] = get_mapped_device(device.segment, device.bus, device.device, device.function, maps);
            port.platform_port = true;
            port.die = die;
            port.core = row.core;
            port.function_index = row.function_index;
            name << " " << row.core << " P" << row.function_index << " (socket " << die.socket() << ")";
        } else {
            name << " " << port.type;
        }
        // What sits below: the first function on the secondary bus.
        std::string below = "no device";
        for (const PCIDeviceDetails& child : machine.devices)
            if (child.segment == device.segment && child.bus == secondary && secondary != 0) {
                below = hex(child.vendor_id, 4) + ":" + hex(child.device_id, 4);
                break;
            }
        name << " - " << below;
        port.name = name.str();
        (port.platform_port ? platform : kind == PCIE::GetPortType::ROOT_PORT ? other_root : downstream).push_back(port);
    }
    platform.insert(platform.end(), other_root.begin(), other_root.end());
    platform.insert(platform.end(), downstream.begin(), downstream.end());
    return platform;
}

namespace {
std::mutex claimed_mutex;
std::set<PCIE::Device_ID> claimed_ports;
}  // namespace

bool claim_link_port(const PCIDeviceDetails& port) {
    std::lock_guard<std::mutex> lock(claimed_mutex);
    return claimed_ports.insert(PCIE::Device_ID(port)).second;
}

void release_link_port(const PCIDeviceDetails& port) {
    std::lock_guard<std::mutex> lock(claimed_mutex);
    claimed_ports.erase(PCIE::Device_ID(port));
}

CPCIELink::CPCIELink(LinkPort port, std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write)
    : _port(std::move(port)), _read(std::move(read)), _write(std::move(write)) {
    PCIE::Device_ID id(_port.device);
    std::string error;
    unsigned offset = 0;
    if (PCIE::DetectThisPCIECapability(id, *_read).detect(static_cast<PCIE::PCIE_CAPABILTTIES_IDS>(0x10), offset, error))
        _pcie = offset;
}

bool CPCIELink::_read16(unsigned offset, unsigned& value) const {
    const PCIDeviceDetails& d = _port.device;
    if (!_pcie && offset != kBridgeControl) return false;
    _read->read16(d.segment, d.bus, d.device, d.function, offset, value);
    return value != 0xFFFF;
}

bool CPCIELink::_write16(unsigned offset, unsigned value) const {
    const PCIDeviceDetails& d = _port.device;
    return _write->write16(d.segment, d.bus, d.device, d.function, offset, value);
}

bool CPCIELink::GetPCIELinkSpeed(int& speed) {
    unsigned status = 0;
    if (!_read16(_pcie + kLinkStatus, status) || !(status & (1u << 13))) return false;
    const unsigned code = status & 0xF;
    if (code < 1 || code > 5) return false;
    speed = static_cast<int>(code) - 1;
    return true;
}

bool CPCIELink::GetLinkWidth(unsigned& lanes) {
    unsigned status = 0;
    if (!_read16(_pcie + kLinkStatus, status) || !(status & (1u << 13))) return false;
    lanes = (status >> 4) & 0x3F;
    return lanes != 0;
}

bool CPCIELink::IsLinkUp() {
    unsigned status = 0;
    return _read16(_pcie + kLinkStatus, status) && (status & (1u << 13));
}

int CPCIELink::GetLinkSpeedGenFromCap() {
    unsigned low = 0, high = 0;
    if (!_read16(_pcie + kLinkCapabilities, low)) return PCIE_SPEED_UNKNOWN;
    _read16(_pcie + kLinkCapabilities2, high);
    // The supported speeds vector where there is one, else the maximum speed field.
    for (int bit = 5; bit >= 1 && high; --bit)
        if (high & (1u << bit)) return bit - 1;
    const unsigned code = low & 0xF;
    return code >= 1 && code <= 5 ? static_cast<int>(code) - 1 : PCIE_SPEED_UNKNOWN;
}

unsigned CPCIELink::GetMaxLinkWidth() {
    unsigned low = 0;
    return _read16(_pcie + kLinkCapabilities, low) ? (low >> 4) & 0x3F : 0;
}

int CPCIELink::GetLinkPartnerMaxSpeed() {
    const int own = GetLinkSpeedGenFromCap();
    const PCIDeviceDetails& d = _port.device;
    const PCIE::Device_ID below(d.segment, _port.secondary_bus, 0, 0);
    unsigned offset = 0;
    std::string error;
    if (!_port.secondary_bus ||
        !PCIE::DetectThisPCIECapability(below, *_read).detect(static_cast<PCIE::PCIE_CAPABILTTIES_IDS>(0x10), offset, error))
        return own;
    unsigned cap = 0;
    _read->read32(d.segment, _port.secondary_bus, 0, 0, offset + kLinkCapabilities, cap);
    const unsigned code = cap & 0xF;
    return code >= 1 && code <= 5 ? std::min(own, static_cast<int>(code) - 1) : own;
}

bool CPCIELink::IsLinkSupported(PCIE_LINK_WIDTH width) {
    if (width != PCIE_X1 && width != PCIE_X2 && width != PCIE_X4 && width != PCIE_X8 && width != PCIE_X16) return false;
    return lanes_of(width) <= GetMaxLinkWidth();
}

bool CPCIELink::SetPCIELinkSpeed(int speed, std::string& error) {
    if (speed < PCIE_GEN1 || speed > PCIE_GEN5) {
        error = "Unknown link speed " + std::to_string(speed);
        return false;
    }
    if (!_pcie) {
        error = "The port has no PCI Express capability";
        return false;
    }
    if (_port.type == "VEX Upstream") return SetPCIELinkSpeedUpstream(speed, error);
    const unsigned target = static_cast<unsigned>(speed) + 1;
    unsigned control = 0, control2 = 0;
    _read16(_pcie + kLinkControl, control);
    _read16(_pcie + kLinkControl2, control2);
    _write16(_pcie + kLinkControl2, (control2 & ~0xFu) | target);
    _write16(_pcie + kLinkControl, control | (1u << 5));
    // The status is read once: set training skips the wait, else the link gets its full second.
    unsigned status = 0;
    _read16(_pcie + kLinkStatus, status);
    for (int i = 0; i < 200; ++i) {
        if (status & (1u << 11)) break;
        OSSpecific().milli_secs_sleep(5);
    }
    OSSpecific().milli_secs_sleep(10);
    int now = PCIE_SPEED_UNKNOWN;
    if (!GetPCIELinkSpeed(now)) {
        error = "Link is down after the retrain";
        return false;
    }
    if (now != speed) {
        error = "Link trained to " + speed_text(now) + ", " + speed_text(speed) + " was requested";
        return false;
    }
    return true;
}

bool CPCIELink::_port_block(unsigned& core_block, unsigned& port_block, std::string& error) const {
    if (!_port.platform_port) {
        error = "Not a port of the platform's own cores";
        return false;
    }
    try {
        const auto cores = get_pcie_core_generic_info(_port.die);
        core_block = cores->get_core_base_address(_port.core);
        port_block = cores->get_port_base_address(_port.core, _port.function_index);
    } catch (const std::exception& e) {
        error = e.what();
        return false;
    }
    if (!core_block || !port_block) {
        error = "No register block for " + _port.core;
        return false;
    }
    port_block += chips::server_io::kPortLinkControlWindow;
    core_block += chips::server_io::kCoreLinkReconfigureOffset;
    return true;
}

namespace {
std::shared_ptr<CRNAccessor> die_accessor(const VEX_DIE_INFO& die, std::string& error) {
    try {
        return CRNFactory::instance()->get_crn_accessor(die);
    } catch (const std::exception& e) {
        error = e.what();
        return nullptr;
    }
}
}  // namespace

bool CPCIELink::ForceRCtoAdvertiseMaxSupportedSpeed(std::string& error) {
    unsigned core = 0, block = 0;
    if (!_port_block(core, block, error)) return false;
    const auto crn = die_accessor(_port.die, error);
    if (!crn) return false;
    const int max = GetLinkSpeedGenFromCap();
    if (max == PCIE_SPEED_UNKNOWN) {
        error = "Cannot read the port's link capabilities";
        return false;
    }
    unsigned value = crn->read32(block + kSpeedControl);
    value = (value & ~0xF000u) | static_cast<unsigned>(max) << 12 | 1u << 11;
    crn->write32(block + kSpeedControl, value);
    crn->write32(block + kAdvertise, crn->read32(block + kAdvertise) | 1u << 30);
    for (int i = 0; i < 100; ++i) {
        if (!(crn->read32(block + kAdvertise) & (1u << 30))) return true;
        OSSpecific().milli_secs_sleep(1);
    }
    error = "The port did not take the advertisement of its maximum speed";
    return false;
}

bool CPCIELink::SetPCIELinkSpeedUpstream(int speed, std::string& error) {
    if (speed < PCIE_GEN1 || speed > PCIE_GEN5) {
        error = "Unknown link speed " + std::to_string(speed);
        return false;
    }
    if (!ForceRCtoAdvertiseMaxSupportedSpeed(error)) {
        std::cerr << "Error! ForceRCtoAdvertiseMaxSupportedSpeed Failed" << std::endl;
        if (error.empty()) error = "Error! ForceRCtoAdvertiseMaxSupportedSpeed Failed";
        return false;
    }
    unsigned core = 0, block = 0;
    if (!_port_block(core, block, error)) return false;
    const auto crn = die_accessor(_port.die, error);
    if (!crn) return false;
    unsigned change = crn->read32(block + kSpeedChange);
    change = (change | 1u | 1u << 3) & ~(1u << 1 | 1u << 2);
    crn->write32(block + kSpeedChange, change);
    unsigned control = crn->read32(block + kSpeedControl);
    control = (control & ~0xF000u) | static_cast<unsigned>(speed) << 12 | 1u << 11;
    crn->write32(block + kSpeedControl, control);
    crn->write32(block + kSpeedChange, crn->read32(block + kSpeedChange) | 1u << 6);
    int now = PCIE_SPEED_UNKNOWN;
    for (int i = 0; i < 5; ++i) {
        OSSpecific().milli_secs_sleep(1);
        if (GetPCIELinkSpeed(now) && now == speed) return true;
    }
    static const char* gens[] = {"GEN1", "GEN2", "GEN3", "GEN4", "GEN5"};
    error = std::string("Error! Link speed switch to ") + gens[speed] + " failed";
    std::cerr << error << std::endl;
    return false;
}

bool CPCIELink::SetLinkWidth(PCIE_LINK_WIDTH width, std::string& error) {
    if (!IsLinkSupported(width)) {
        error = "Width x" + std::to_string(lanes_of(width)) + " is not supported by this port";
        return false;
    }
    unsigned core = 0, block = 0;
    if (!_port_block(core, block, error)) return false;
    const auto crn = die_accessor(_port.die, error);
    if (!crn) return false;
    const unsigned at = block + kWidthControl;
    unsigned value = crn->read32(at);
    value = (value & ~(1u << 8)) | 1u << 12;
    crn->write32(at, value);
    value = crn->read32(at) & ~(1u << 13 | 1u << 11);
    crn->write32(at, value);
    const unsigned core_before = crn->read32(core);
    crn->write32(core, core_before | 1u);
    value = (value & ~7u) | static_cast<unsigned>(width);
    crn->write32(at, value);
    const unsigned modes = value & (1u << 10 | 1u << 17);
    value |= 0x20400;
    crn->write32(at, value);
    crn->write32(at, value | 1u << 8);
    bool settled = false;
    for (int i = 0; i < 1000 && !settled; ++i) {
        unsigned status = 0;
        settled = _read16(_pcie + kLinkStatus, status) && !(status & (1u << 11)) && !(crn->read32(at) & (1u << 8));
        if (!settled) OSSpecific().milli_secs_sleep(1);
    }
    crn->write32(core, core_before);
    crn->write32(at, (crn->read32(at) & ~0x20400u & ~(1u << 8)) | modes);
    if (!settled) {
        error = "The width reconfiguration did not finish within a second";
        return false;
    }
    unsigned lanes = 0;
    if (!GetLinkWidth(lanes)) {
        error = "Link is down after the width change";
        return false;
    }
    if (lanes != lanes_of(width)) {
        error = "Link runs at x" + std::to_string(lanes) + ", x" + std::to_string(lanes_of(width)) + " was requested";
        return false;
    }
    return true;
}

bool CPCIELink::PCIeLinkRetrain(std::string& error) {
    unsigned control = 0;
    if (!_read16(_pcie + kLinkControl, control)) {
        error = "Cannot read Link Control";
        return false;
    }
    return _write16(_pcie + kLinkControl, control | 1u << 5);
}

bool CPCIELink::SetLinkDisable(bool disable, std::string& error) {
    unsigned control = 0;
    if (!_read16(_pcie + kLinkControl, control)) {
        error = "Cannot read Link Control";
        return false;
    }
    control = disable ? control | 1u << 4 : control & ~(1u << 4);
    _write16(_pcie + kLinkControl, control);
    unsigned check = 0;
    return _read16(_pcie + kLinkControl, check) && ((check & (1u << 4)) != 0) == disable;
}

bool CPCIELink::IsLinkDisabled() {
    unsigned control = 0;
    return _read16(_pcie + kLinkControl, control) && (control & (1u << 4));
}

bool CPCIELink::SetSecondaryBusReset(bool assert, std::string& error) {
    unsigned control = 0;
    if (!_read16(kBridgeControl, control)) {
        error = "Cannot read Bridge Control";
        return false;
    }
    control = assert ? control | 1u << 6 : control & ~(1u << 6);
    _write16(kBridgeControl, control);
    unsigned check = 0;
    return _read16(kBridgeControl, check) && ((check & (1u << 6)) != 0) == assert;
}
