#include "panels/pcie_aspm_interface.h"

#include <algorithm>

#include "discovery/pci_detection.h"
#include "discovery/port_mapping.h"
#include "hardware/chips/aspm_timers.h"
#include "hardware/crn_factory.h"
#include "hardware/register_storage.h"

namespace aspm = chips::aspm;

namespace {

constexpr unsigned int kPciExpressId = 0x10, kL1SubstatesId = 0x1E;
constexpr unsigned int kLinkControl = 0x10;
constexpr unsigned int kAspmL0s = 1u << 0, kAspmL1 = 1u << 1;
constexpr unsigned int kL1SubCapabilities = 0x04, kL1SubControl1 = 0x08;
constexpr unsigned int kL1SubSupported = 1u << 4, kAspmL12 = 1u << 2, kAspmL11 = 1u << 3;

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

// --- Entry timers ---------------------------------------------------------------

namespace {
const std::array<unsigned int, aspm::kTimerCodes>& timer_table(bool l1) { return l1 ? aspm::kL1EntryNs : aspm::kL0sEntryNs; }
const chips::IdentityField& timer_field(bool l1) { return l1 ? aspm::kL1Field : aspm::kL0sField; }
}  // namespace

// The list is the chip's: it holds even while the end can't be read (its
// selection then can't be told).
unsigned int CASPMGeneric::GetL0sNumberOfEntries() { return timer_end().empty() ? 0 : aspm::kTimerCodes; }
unsigned int CASPMGeneric::GetL1NumberOfEntries() { return GetL0sNumberOfEntries(); }

bool CASPMGeneric::GetASPML0sInactivityEntry(unsigned int index, unsigned int* value) {
    if (index >= GetL0sNumberOfEntries()) return false;
    *value = aspm::kL0sEntryNs[index];
    return true;
}
bool CASPMGeneric::GetASPML1InactivityEntry(unsigned int index, unsigned int* value) {
    if (index >= GetL1NumberOfEntries()) return false;
    *value = aspm::kL1EntryNs[index];
    return true;
}

bool CASPMGeneric::_selected(bool l1, unsigned int* index) const {
    unsigned int control = 0;
    if (!_read_timer_control(control)) return false;
    *index = timer_field(l1).extract(control);
    return true;
}

bool CASPMGeneric::_select(bool l1, unsigned int index) {
    unsigned int control = 0;
    if (index >= timer_table(l1).size() || !_read_timer_control(control)) return false;
    const chips::IdentityField& field = timer_field(l1);
    _write_timer_control((control & ~(field.mask << field.shift)) | field.place(index));
    unsigned int now = 0;
    return _selected(l1, &now) && now == index;
}

CASPM_OPL_RC_LANTERN::CASPM_OPL_RC_LANTERN(CPCIDevice port, std::vector<CPCIDevice> device_functions,
                                           std::shared_ptr<Register> timers)
    : CASPMGeneric(std::move(port), std::move(device_functions)), _timers(std::move(timers)) {}

// A die that can't be reached reads all ones, like an absent function.
bool CASPM_OPL_RC_LANTERN::_read_timer_control(unsigned int& control) const {
    try {
        control = _timers->read();
    } catch (const std::exception&) {
        return false;
    }
    return control != 0xFFFFFFFFu;
}
void CASPM_OPL_RC_LANTERN::_write_timer_control(unsigned int control) {
    try {
        _timers->write(control);
    } catch (const std::exception&) {
    }
}

CASPM_OPL_INTERNAL_EP::CASPM_OPL_INTERNAL_EP(CPCIDevice port, std::vector<CPCIDevice> device_functions,
                                             unsigned int capability)
    : CASPMGeneric(std::move(port), std::move(device_functions)), _capability(capability) {}

// Behind a link that is down the endpoint reads all ones.
bool CASPM_OPL_INTERNAL_EP::_read_timer_control(unsigned int& control) const {
    control = _functions.front().read(_capability + aspm::kEndpointControl, 4);
    return control != 0xFFFFFFFFu;
}
void CASPM_OPL_INTERNAL_EP::_write_timer_control(unsigned int control) {
    _functions.front().write(_capability + aspm::kEndpointControl, 4, control);
}

// --- ASPM enables ----------------------------------------------------------------

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

// --- Factories and detection ------------------------------------------------------

std::unique_ptr<CASPMGeneric> CASPMRCFactory::make(const LinkPort& where, CPCIDevice port,
                                                   std::vector<CPCIDevice> device_functions) const {
    std::shared_ptr<Register> timers;
    if (where.platform_port) {
        try {
            const auto accessor = CRNFactory::instance()->get_crn_accessor(where.die);
            timers = make_register_store(where.die.name(), std::make_shared<PhyAccessor>(accessor))
                         ->get_pcie_core_func_register(aspm::kRootPortRegister, where.core, where.function_index);
        } catch (const std::exception&) {
            timers.reset();  // a chip without the register: a plain link
        }
    }
    if (!timers) return std::make_unique<CASPMGeneric>(std::move(port), std::move(device_functions));
    return std::make_unique<CASPM_OPL_RC_LANTERN>(std::move(port), std::move(device_functions), std::move(timers));
}

namespace {
// The timer capability of a platform endpoint's function 0, if it has one.
std::optional<unsigned int> endpoint_timer_capability(const CPCIDevice& function) {
    for (const CPCICaps& c : function.extended_capabilities()) {
        if (c.GetCapsID() != aspm::kExtCapVendorSpecific) continue;
        const unsigned int header = function.read(c.GetCapsOffset() + aspm::kEndpointVsecHeader, 4);
        if ((header & 0xFFFF) == aspm::kEndpointVsecId && ((header >> 16) & 0xF) == aspm::kEndpointVsecRevision)
            return c.GetCapsOffset();
    }
    return std::nullopt;
}
}  // namespace

std::unique_ptr<CASPMGeneric> CASPMGfxFactory::make(CPCIDevice port, std::vector<CPCIDevice> device_functions) const {
    const auto at = device_functions.empty() ? std::nullopt : endpoint_timer_capability(device_functions.front());
    if (!at) return std::make_unique<CASPMGeneric>(std::move(port), std::move(device_functions));
    return std::make_unique<CASPM_OPL_INTERNAL_EP>(std::move(port), std::move(device_functions), *at);
}

CASPMDeviceList::CASPMDeviceList(const PanelMachine& machine) : _machine(machine) {
    if (!_machine.read) return;
    // Without dies or a port map no port counts as the platform's: plain links only.
    PortMapData maps;
    try {
        if (!_machine.dies.empty()) maps = get_all_port_data(_machine.dies, _machine.devices, _machine.read);
    } catch (const std::exception&) {
    }
    _ports = detect_link_ports(_machine, maps);
    DetectOPLRC();
    DetectOPLGfx();
    DetectNonOPLRC();
}

std::vector<CPCIDevice> CASPMDeviceList::_below(const LinkPort& port) const {
    std::vector<CPCIDevice> below;
    const PCIDeviceDetails& d = port.device;
    if (port.secondary_bus <= d.bus) return below;
    for (const PCIDeviceDetails& f : _machine.devices)
        if (f.segment == d.segment && f.bus == port.secondary_bus && f.device == 0)
            below.emplace_back(PCIE::Device_ID(f), _machine.read, _machine.write);
    if (!below.empty() && below.front().address().function != 0) below.clear();
    return below;
}

bool CASPMDeviceList::_listed(const LinkPort& port) const {
    return std::find(_listed_ports.begin(), _listed_ports.end(), PCIE::Device_ID(port.device)) != _listed_ports.end();
}

// An endpoint of the platform's graphics vendor at the far end: DetectOPLGfx lists that link.
bool CASPMDeviceList::_to_platform_endpoint(const LinkPort& port) const {
    const std::vector<CPCIDevice> below = _below(port);
    if (below.empty()) return false;
    const unsigned int ids = below.front().read(0, 4);
    return (ids & 0xFFFF) == chips::kGraphicsVendorId && !below.front().is_bridge();
}

void CASPMDeviceList::DetectOPLRC() {
    const FilterPCIDevices platform(FilterPCIDevices::VEX_DEVICE, _machine.read);
    const CASPMRCFactory factory;
    for (const LinkPort& port : _ports) {
        if (!port.platform_port || !platform(port.device) || _listed(port) || _to_platform_endpoint(port)) continue;
        std::vector<CPCIDevice> below = _below(port);
        if (below.empty()) continue;
        _entries.push_back(factory.make(port, CPCIDevice(PCIE::Device_ID(port.device), _machine.read, _machine.write),
                                        std::move(below)));
        _listed_ports.emplace_back(port.device);
    }
}

void CASPMDeviceList::DetectOPLGfx() {
    const FilterPCIDevices endpoint(FilterPCIDevices::ENDPOINT_DEVICE, _machine.read);
    const CASPMGfxFactory factory;
    for (const PCIDeviceDetails& f : DetectVEXPCIeDevices(_machine.read)()) {
        if (f.vendor_id != chips::kGraphicsVendorId || f.function != 0 || f.device != 0 || !endpoint(f)) continue;
        const auto port = std::find_if(_ports.begin(), _ports.end(), [&f](const LinkPort& p) {
            return p.device.segment == f.segment && p.secondary_bus == f.bus && p.secondary_bus > p.device.bus;
        });
        if (port == _ports.end() || _listed(*port)) continue;
        std::vector<CPCIDevice> below = _below(*port);
        if (below.empty()) continue;
        _entries.push_back(factory.make(CPCIDevice(PCIE::Device_ID(port->device), _machine.read, _machine.write),
                                        std::move(below)));
        _listed_ports.emplace_back(port->device);
    }
}

void CASPMDeviceList::DetectNonOPLRC() {
    for (const LinkPort& port : _ports) {
        if (_listed(port)) continue;
        std::vector<CPCIDevice> below = _below(port);
        if (below.empty()) continue;
        _entries.push_back(std::make_unique<CASPMGeneric>(
            CPCIDevice(PCIE::Device_ID(port.device), _machine.read, _machine.write), std::move(below)));
        _listed_ports.emplace_back(port.device);
    }
}

bool CASPMDeviceList::GetListEntry(unsigned int index, CASPMGeneric** entry) const {
    if (index >= _entries.size()) return false;
    *entry = _entries[index].get();
    return true;
}
