#include "panels/pci_device.h"

#include <algorithm>
#include <cstdio>
#include <set>

#include "panels/pci_register_tables.h"

namespace {

constexpr unsigned int kCapabilityPointer = 0x34;
constexpr unsigned int kStatusCapabilityList = 1u << 20;  // in dword 4
constexpr unsigned int kExtendedStart = 0x100;
constexpr unsigned int kPciExpressId = 0x10;

constexpr unsigned int kDeviceControl = 0x08, kLinkCapabilities = 0x0C, kLinkControl = 0x10, kLinkControl2 = 0x30;
constexpr unsigned int kAspmL0s = 1u << 0, kAspmL1 = 1u << 1;
constexpr unsigned int kLinkDisable = 1u << 4;

// Bytes a structure's known registers span; lane registers counted for `lanes`.
unsigned int structure_size(pci_tables::StructureKind kind, unsigned int id, unsigned int lanes) {
    const pci_tables::StructureDef* table = pci_tables::find_structure(kind, id);
    if (!table) return kind == pci_tables::StructureKind::extended_capability ? 4 : 2;
    unsigned int end = 0;
    for (const auto& r : table->registers) {
        const unsigned int copies = r.lane_stride ? lanes : 1;
        if (copies == 0) continue;
        end = std::max(end, r.offset + (copies - 1) * r.lane_stride + r.size_bits / 8);
    }
    return end;
}

bool parse_hex(const std::string& text, unsigned int limit, unsigned int& value) {
    if (text.empty() || text.size() > 4) return false;
    value = 0;
    for (char c : text) {
        const int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
        if (digit < 0) return false;
        value = value * 16 + static_cast<unsigned int>(digit);
    }
    return value <= limit;
}

}  // namespace

std::string sbdf_string(const PCIE::Device_ID& d) {
    char text[32];
    std::snprintf(text, sizeof text, "%x:%x:%x.%x", d.segment, d.bus, d.device, d.function);
    return text;
}

std::optional<PCIE::Device_ID> parse_sbdf_string(const std::string& text) {
    const auto first = text.find(':');
    const auto second = first == std::string::npos ? first : text.find(':', first + 1);
    const auto point = second == std::string::npos ? second : text.find('.', second + 1);
    if (point == std::string::npos) return std::nullopt;
    unsigned int s = 0, b = 0, d = 0, f = 0;
    if (!parse_hex(text.substr(0, first), 0xFFFF, s) || !parse_hex(text.substr(first + 1, second - first - 1), 0xFF, b) ||
        !parse_hex(text.substr(second + 1, point - second - 1), 0x1F, d) || !parse_hex(text.substr(point + 1), 7, f))
        return std::nullopt;
    return PCIE::Device_ID(s, b, d, f);
}

CPCIDevice::CPCIDevice(PCIE::Device_ID address, std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write)
    : _address(address), _read(std::move(read)), _write(std::move(write)) {}

unsigned int CPCIDevice::read(unsigned int offset, unsigned int width) const {
    const auto& a = _address;
    // Preset to all ones: an absent function leaves the value alone.
    unsigned int value = width == 4 ? 0xFFFFFFFFu : width == 2 ? 0xFFFFu : 0xFFu;
    if (!_read) return value;
    if (width == 4) _read->read32(a.segment, a.bus, a.device, a.function, offset, value);
    else if (width == 2) _read->read16(a.segment, a.bus, a.device, a.function, offset, value);
    else _read->read8(a.segment, a.bus, a.device, a.function, offset, value);
    return value;
}

void CPCIDevice::write(unsigned int offset, unsigned int width, unsigned int value) const {
    const auto& a = _address;
    if (!_write) return;
    if (width == 4) _write->write32(a.segment, a.bus, a.device, a.function, offset, value);
    else if (width == 2) _write->write16(a.segment, a.bus, a.device, a.function, offset, value);
    else _write->write8(a.segment, a.bus, a.device, a.function, offset, value);
}

bool CPCIDevice::present() const { return (read(0, 4) & 0xFFFF) != 0xFFFF; }

bool CPCIDevice::is_bridge() const { return ((read(0x0C, 4) >> 16) & 0x7F) == 1; }

std::vector<CPCICaps> CPCIDevice::capabilities() const {
    std::vector<std::pair<unsigned int, unsigned int>> found;  // offset, id
    if (present() && (read(0x04, 4) & kStatusCapabilityList)) {
        std::set<unsigned int> seen;
        unsigned int pointer = read(kCapabilityPointer, 1) & 0xFC;
        while (pointer >= 0x40 && seen.insert(pointer).second && seen.size() <= 48) {
            const unsigned int header = read(pointer, 2);
            found.emplace_back(pointer, header & 0xFF);
            pointer = (header >> 8) & 0xFC;
        }
    }
    unsigned int lanes = 0;
    for (const auto& [offset, id] : found)
        if (id == kPciExpressId) lanes = (read(offset + kLinkCapabilities, 4) >> 4) & 0x3F;
    std::vector<CPCICaps> caps;
    for (const auto& [offset, id] : found)
        caps.emplace_back(offset, id, structure_size(pci_tables::StructureKind::capability, id, lanes), false);
    return caps;
}

std::vector<CPCICaps> CPCIDevice::extended_capabilities() const {
    std::vector<CPCICaps> caps;
    if (config_size() <= kExtendedStart) return caps;
    unsigned int lanes = 0;
    if (const auto pcie = find_capability(kPciExpressId)) lanes = (read(*pcie + kLinkCapabilities, 4) >> 4) & 0x3F;
    std::set<unsigned int> seen;
    unsigned int pointer = kExtendedStart;
    while (pointer >= kExtendedStart && seen.insert(pointer).second && seen.size() <= 960) {
        const unsigned int header = read(pointer, 4);
        // An empty list reads 0 at 0x100; an absent function all ones.
        if (header == 0 || header == 0xFFFFFFFFu) break;
        const unsigned int id = header & 0xFFFF;
        caps.emplace_back(pointer, id, structure_size(pci_tables::StructureKind::extended_capability, id, lanes), true);
        pointer = (header >> 20) & 0xFFC;
    }
    return caps;
}

std::optional<unsigned int> CPCIDevice::find_capability(unsigned int id) const {
    for (const CPCICaps& c : capabilities())
        if (c.GetCapsID() == id) return c.GetCapsOffset();
    return std::nullopt;
}

std::optional<unsigned int> CPCIDevice::find_extended_capability(unsigned int id) const {
    for (const CPCICaps& c : extended_capabilities())
        if (c.GetCapsID() == id) return c.GetCapsOffset();
    return std::nullopt;
}

unsigned int CPCIDevice::config_size() const {
    for (const CPCICaps& c : capabilities())
        if (c.GetCapsID() == kPciExpressId) return 4096;
    return 256;
}

namespace toollib {

CPCIECaps::CPCIECaps(CPCIDevice& device) : _device(device) {
    _offset = device.find_capability(kPciExpressId).value_or(0);
}

bool CPCIECaps::GetASPML0sSupported() const { return present() && (_device.read(_offset + kLinkCapabilities, 4) >> 10) & 1; }
bool CPCIECaps::GetASPML1Supported() const { return present() && (_device.read(_offset + kLinkCapabilities, 4) >> 11) & 1; }

namespace {
bool set_control_bit(CPCIDevice& device, unsigned int at, unsigned int bit, bool enable) {
    const unsigned int control = device.read(at, 2);
    const unsigned int wanted = enable ? control | bit : control & ~bit;
    if (wanted != control) device.write(at, 2, wanted);
    return ((device.read(at, 2) & bit) != 0) == enable;
}
}  // namespace

bool CPCIECaps::SetASPML0sEnabled(bool enable) {
    if (!present() || (enable && !GetASPML0sSupported())) return false;
    return set_control_bit(_device, _offset + kLinkControl, kAspmL0s, enable);
}
bool CPCIECaps::GetASPML0sEnabled() const { return present() && (_device.read(_offset + kLinkControl, 2) & kAspmL0s); }
bool CPCIECaps::SetASPML1Enabled(bool enable) {
    if (!present() || (enable && !GetASPML1Supported())) return false;
    return set_control_bit(_device, _offset + kLinkControl, kAspmL1, enable);
}
bool CPCIECaps::GetASPML1Enabled() const { return present() && (_device.read(_offset + kLinkControl, 2) & kAspmL1); }

unsigned int CPCIECaps::GetL0sExitLatencyNs() const {
    const unsigned int code = (_device.read(_offset + kLinkCapabilities, 4) >> 12) & 7;
    return 64u << code;
}
unsigned int CPCIECaps::GetL1ExitLatencyNs() const {
    const unsigned int code = (_device.read(_offset + kLinkCapabilities, 4) >> 15) & 7;
    return 1000u << code;
}
unsigned int CPCIECaps::GetPortType() const { return present() ? (_device.read(_offset + 2, 2) >> 4) & 0xF : 0; }

void CPCIECaps::SaveControlRegs() {
    if (!present()) return;
    _saved_device_control = _device.read(_offset + kDeviceControl, 2);
    // Retrain always reads 0, so writing back what was read never retrains.
    _saved_link_control = _device.read(_offset + kLinkControl, 2);
    _saved_link_control2 = _device.read(_offset + kLinkControl2, 2);
}

void CPCIECaps::RestoreControlRegs() {
    if (!present()) return;
    if (_saved_device_control) _device.write(_offset + kDeviceControl, 2, *_saved_device_control);
    if (_saved_link_control) _device.write(_offset + kLinkControl, 2, *_saved_link_control);
    if (_saved_link_control2) _device.write(_offset + kLinkControl2, 2, *_saved_link_control2);
}

bool CPCIECaps::SetLinkDisable(unsigned int disable) {
    if (!present()) return false;
    return set_control_bit(_device, _offset + kLinkControl, kLinkDisable, disable != 0);
}

}  // namespace toollib
