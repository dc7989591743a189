#include "panels/pcie_aspm_interface.h"

namespace {

constexpr unsigned int kPciExpressId = 0x10, kL1SubstatesId = 0x1E;
constexpr unsigned int kLinkControl = 0x10;
constexpr unsigned int kAspmL0s = 1u << 0, kAspmL1 = 1u << 1;
constexpr unsigned int kL1SubCapabilities = 0x04, kL1SubControl1 = 0x08;
constexpr unsigned int kL1SubSupported = 1u << 4, kAspmL12 = 1u << 2, kAspmL11 = 1u << 3;
constexpr unsigned int kPortRoot = 4, kPortDownstream = 6;

}  // namespace

CASPMGeneric::CASPMGeneric(CPCIDevice port, std::vector<CPCIDevice> device_functions)
    : _port(std::move(port)), _functions(std::move(device_functions)) {}

ASPMEndState CASPMGeneric::_state(const CPCIDevice& function) const {
    ASPMEndState s;
    s.sbdf = sbdf_string(function.address());
    CPCIDevice device = function;
    toollib::CPCIECaps caps(device);
    if (caps.present()) {
        s.l0s_capable = caps.GetASPML0sSupported();
        s.l1_capable = caps.GetASPML1Supported();
        s.l0s_enabled = caps.GetASPML0sEnabled();
        s.l1_enabled = caps.GetASPML1Enabled();
        s.l0s_exit_latency_ns = caps.GetL0sExitLatencyNs();
        s.l1_exit_latency_ns = caps.GetL1ExitLatencyNs();
    }
    if (const auto at = function.find_extended_capability(kL1SubstatesId)) {
        const unsigned int offered = function.read(*at + kL1SubCapabilities, 4);
        const unsigned int control = function.read(*at + kL1SubControl1, 4);
        const bool substates = offered & kL1SubSupported;
        s.l11_capable = substates && (offered & kAspmL11);
        s.l12_capable = substates && (offered & kAspmL12);
        s.l11_enabled = control & kAspmL11;
        s.l12_enabled = control & kAspmL12;
    }
    return s;
}

std::vector<const CPCIDevice*> CASPMGeneric::_ends(bool device_first) const {
    std::vector<const CPCIDevice*> ends;
    if (!device_first) ends.push_back(&_port);
    for (const CPCIDevice& f : _functions) ends.push_back(&f);
    if (device_first) ends.push_back(&_port);
    return ends;
}

bool CASPMGeneric::_set_link_control(unsigned int bit, bool enable) {
    bool all = true;
    for (const CPCIDevice* end : _ends(enable)) {
        const auto at = end->find_capability(kPciExpressId);
        if (!at) return false;
        const unsigned int control = end->read(*at + kLinkControl, 2);
        end->write(*at + kLinkControl, 2, enable ? control | bit : control & ~bit);
        all = all && (((end->read(*at + kLinkControl, 2) & bit) != 0) == enable);
    }
    return all;
}

bool CASPMGeneric::_set_substate(unsigned int bit, bool enable) {
    bool all = true;
    for (const CPCIDevice* end : _ends(!enable)) {
        const auto at = end->find_extended_capability(kL1SubstatesId);
        if (!at) {
            // Functions other than 0 carry no substates of their own.
            if (end == &_port || end == &_functions.front()) return false;
            continue;
        }
        const unsigned int control = end->read(*at + kL1SubControl1, 4);
        end->write(*at + kL1SubControl1, 4, enable ? control | bit : control & ~bit);
        all = all && (((end->read(*at + kL1SubControl1, 4) & bit) != 0) == enable);
    }
    return all;
}

bool CASPMGeneric::IsASPML0sCapable() { return port_state().l0s_capable && device_state().l0s_capable; }
bool CASPMGeneric::IsASPML1Capable() { return port_state().l1_capable && device_state().l1_capable; }
bool CASPMGeneric::IsASPML1_1Capable() { return port_state().l11_capable && device_state().l11_capable; }
bool CASPMGeneric::IsASPML1_2Capable() { return port_state().l12_capable && device_state().l12_capable; }
bool CASPMGeneric::IsASPML0sEnabled() { return port_state().l0s_enabled && device_state().l0s_enabled; }
bool CASPMGeneric::IsASPML1Enabled() { return port_state().l1_enabled && device_state().l1_enabled; }
bool CASPMGeneric::IsASPML1_1Enabled() { return port_state().l11_enabled && device_state().l11_enabled; }
bool CASPMGeneric::IsASPML1_2Enabled() { return port_state().l12_enabled && device_state().l12_enabled; }

bool CASPMGeneric::EnableASPML0s(bool enable) {
    if (enable && !IsASPML0sCapable()) return false;
    return _set_link_control(kAspmL0s, enable);
}
bool CASPMGeneric::EnableASPML1(bool enable) {
    if (enable && !IsASPML1Capable()) return false;
    return _set_link_control(kAspmL1, enable);
}
// The substates only take effect with ASPM L1 on; they may be set before it.
bool CASPMGeneric::EnableASPML1_1(bool enable) {
    if (enable && !IsASPML1_1Capable()) return false;
    return _set_substate(kAspmL11, enable);
}
bool CASPMGeneric::EnableASPML1_2(bool enable) {
    if (enable && !IsASPML1_2Capable()) return false;
    return _set_substate(kAspmL12, enable);
}

CASPMDeviceList::CASPMDeviceList(const std::vector<PCIDeviceDetails>& devices, std::shared_ptr<ReadPCI> read,
                                 std::shared_ptr<WritePCI> write) {
    if (!read) return;
    for (const PCIDeviceDetails& d : devices) {
        CPCIDevice port(PCIE::Device_ID(d), read, write);
        toollib::CPCIECaps caps(port);
        const unsigned int type = caps.GetPortType();
        if (!caps.present() || (type != kPortRoot && type != kPortDownstream)) continue;
        const unsigned int secondary = (port.read(0x18, 4) >> 8) & 0xFF;
        std::vector<CPCIDevice> below;
        for (const PCIDeviceDetails& f : devices)
            if (f.segment == d.segment && f.bus == secondary && f.device == 0 && secondary > d.bus)
                below.emplace_back(PCIE::Device_ID(f), read, write);
        if (below.empty() || below.front().address().function != 0) continue;
        _entries.push_back(std::make_unique<CASPMGeneric>(port, std::move(below)));
    }
}

bool CASPMDeviceList::GetListEntry(unsigned int index, CASPMGeneric** entry) const {
    if (index >= _entries.size()) return false;
    *entry = _entries[index].get();
    return true;
}
