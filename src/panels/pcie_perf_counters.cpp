#include "panels/pcie_perf_counters.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <map>

#include "hardware/system_facts.h"

namespace perf = chips::perf;

double CPerformanceCounters::GetLDTSTOPEfficiency(unsigned int) const { return 0; }
bool CPerformanceCounters::IsLDTSTOPCounter(unsigned int) const { return false; }
double CPerformanceCounters::GetGPUUsage(unsigned int) const { return 0; }
bool CPerformanceCounters::IsGPUUsageCounter(unsigned int) const { return false; }

void CPerformanceCounters::SetExternalReleaseVersion(bool external) {
    if (external == _external) return;
    _external = external;
    // The offered entries change, so earlier choices may point elsewhere.
    for (CounterStatistics& s : _stats) s.selected_entry = 0;
}

bool CPerformanceCounters::IsChangeDetected(unsigned int counter) const {
    const CounterStatistics& s = _stats.at(counter);
    return s.last_low != s.previous_low || s.last_high != s.previous_high;
}

bool CPerformanceCounters::SetEntry(unsigned int counter, unsigned int entry) {
    if (!_has(counter) || entry >= GetNumberOfSelectionEntries(counter)) return false;
    _stats[counter].selected_entry = entry;
    return true;
}

bool CPerformanceCounters::SetPort(unsigned int counter, unsigned int port) {
    if (!_has(counter) || port >= GetNumberOfPortSelectionEntries(counter)) return false;
    _stats[counter].selected_port = port;
    return true;
}

bool CPerformanceCounters::IsCounterEnabled(unsigned int counter) const { return _has(counter) && _stats[counter].enabled; }
unsigned int CPerformanceCounters::GetSelectedEntry(unsigned int counter) const { return _stats.at(counter).selected_entry; }
unsigned int CPerformanceCounters::GetSelectedPort(unsigned int counter) const { return _stats.at(counter).selected_port; }

int CPerformanceCounters::GetCounterMaxRate(unsigned int counter, uint64_t* rate) const {
    *rate = _stats.at(counter).max_rate;
    return 1;
}
int CPerformanceCounters::GetCounterRate(unsigned int counter, uint64_t* rate) const {
    *rate = _stats.at(counter).rate;
    return 1;
}

void CPerformanceCounters::DisableCounter(unsigned int counter) { EnableCounter(counter, false); }
void CPerformanceCounters::EnableCounter(unsigned int counter, bool enable) {
    if (_has(counter)) _stats[counter].enabled = enable;
}

unsigned int CPerformanceCounters::GetNumberOfPortSelectionEntries(unsigned int counter) const {
    unsigned int n = 0;
    std::string ignored;
    while (GetPortSelectionEntry(counter, n, &ignored)) ++n;
    return n;
}

uint64_t CPerformanceCounters::LastValue(unsigned int counter) const {
    const CounterStatistics& s = _stats.at(counter);
    return static_cast<uint64_t>(s.last_high) << 32 | s.last_low;
}

void CPerformanceCounters::SetStatisticsInformation(unsigned int counter, uint32_t low, uint32_t high,
                                                    std::chrono::system_clock::time_point when) {
    CounterStatistics& s = _stats.at(counter);
    s.previous_low = s.last_low;
    s.previous_high = s.last_high;
    s.previous_time = s.last_time;
    s.last_low = low;
    s.last_high = high;
    s.last_time = when;
    if (s.samples++ == 0) return;  // the first read after a reset only sets the start
    const uint64_t previous = static_cast<uint64_t>(s.previous_high) << 32 | s.previous_low;
    const unsigned int bits = GetCounterBits();
    const uint64_t mask = bits >= 64 ? ~uint64_t{0} : (uint64_t{1} << bits) - 1;
    const uint64_t difference = (LastValue(counter) - previous) & mask;
    const double seconds = std::chrono::duration<double>(s.last_time - s.previous_time).count();
    s.rate = seconds > 0 ? static_cast<uint64_t>(static_cast<double>(difference) / seconds + 0.5) : 0;
    s.max_rate = std::max(s.max_rate, s.rate);
}

void CPerformanceCounters::CleanupStatisticsInformation(unsigned int counter) {
    CounterStatistics& s = _stats.at(counter);
    CounterStatistics fresh;
    fresh.enabled = s.enabled;
    fresh.selected_port = s.selected_port;
    fresh.selected_entry = s.selected_entry;
    s = fresh;
}

namespace {
std::string port_text(const PCIE::Device_ID& d) {
    char text[48];
    std::snprintf(text, sizeof text, "%x:%x:%x.%x", d.segment, d.bus, d.device, d.function);
    return text;
}
}  // namespace

CPC_PCIE_Cores::CPC_PCIE_Cores(std::string name, const perf::CounterLayout& layout, std::span<const chips::PcieCore> cores,
                               std::shared_ptr<CRNAccessor> accessor, const std::vector<PortMap>& ports)
    : _name(std::move(name)), _layout(layout), _accessor(std::move(accessor)) {
    std::map<size_t, std::vector<std::pair<unsigned int, std::string>>> by_core;  // index into cores
    for (const PortMap& port : ports)
        for (size_t i = 0; i < cores.size(); ++i)
            if (port.core == cores[i].name && port.function_index <= perf::kPortMask)
                by_core[i].emplace_back(port.function_index, port_text(port.device));
    for (auto& [index, list] : by_core) {
        std::sort(list.begin(), list.end());
        _spaces.push_back({cores[index].name, cores[index].core_base, list});
    }
    CreateStatisticsStructure(GetNumberOfCounters());
}

unsigned int CPC_PCIE_Cores::GetNumberOfCounters() const {
    return static_cast<unsigned int>(_spaces.size()) * perf::kSlotsPerSpace;
}

bool CPC_PCIE_Cores::IsHWBlockEnable(unsigned int counter) const { return counter < GetNumberOfCounters(); }

std::string CPC_PCIE_Cores::GetSpaceName(unsigned int counter) const {
    const unsigned int space = counter / perf::kSlotsPerSpace, slot = counter % perf::kSlotsPerSpace;
    const perf::SlotGroup* group = perf::slot_group(_layout, slot);
    if (space >= _spaces.size() || !group) return "NA" + std::to_string(space);
    char text[96];
    std::snprintf(text, sizeof text, group->format, _spaces[space].core.c_str());
    return text;
}

bool CPC_PCIE_Cores::IsPortSelectionSupported(unsigned int counter) const {
    const auto registers = perf::slot_registers(_layout, counter % perf::kSlotsPerSpace);
    return counter < GetNumberOfCounters() && registers && registers->has_port;
}

bool CPC_PCIE_Cores::GetPortSelectionEntry(unsigned int counter, unsigned int port, std::string* text) const {
    if (!IsPortSelectionSupported(counter)) return false;
    const Space& space = _spaces[counter / perf::kSlotsPerSpace];
    if (port >= space.ports.size()) return false;
    *text = space.ports[port].second;
    return true;
}

std::vector<const perf::EventEntry*> CPC_PCIE_Cores::_offered(unsigned int counter) const {
    std::vector<const perf::EventEntry*> offered;
    const perf::SlotGroup* group = perf::slot_group(_layout, counter % perf::kSlotsPerSpace);
    if (counter >= GetNumberOfCounters() || !group) return offered;
    for (const perf::EventEntry& e : group->events)
        if (e.external || !IsExternalReleaseVersion()) offered.push_back(&e);
    return offered;
}

unsigned int CPC_PCIE_Cores::GetNumberOfSelectionEntries(unsigned int counter) const {
    return static_cast<unsigned int>(_offered(counter).size());
}

std::string CPC_PCIE_Cores::GetSelectionEntry(unsigned int counter, unsigned int entry) const {
    const auto offered = _offered(counter);
    if (entry >= offered.size()) return "";
    return std::to_string(offered[entry]->id) + ". " + offered[entry]->name;
}

int CPC_PCIE_Cores::EventIDToNameIndex(unsigned int counter, unsigned int event_id) const {
    const auto offered = _offered(counter);
    for (size_t i = 0; i < offered.size(); ++i)
        if (offered[i]->id == event_id) return static_cast<int>(i);
    return -1;
}

const perf::EventEntry* CPC_PCIE_Cores::SelectedEvent(unsigned int counter) const {
    const auto offered = _offered(counter);
    const unsigned int entry = counter < GetNumberOfCounters() ? GetSelectedEntry(counter) : 0;
    return entry < offered.size() ? offered[entry] : nullptr;
}

uint32_t CPC_PCIE_Cores::CoreRead(const Space& space, unsigned int offset) const {
    return _accessor->read32(space.core_base + offset);
}
void CPC_PCIE_Cores::CoreWrite(const Space& space, unsigned int offset, uint32_t value) const {
    _accessor->write32(space.core_base + offset, value);
}

void CPC_PCIE_Cores::InitCounter(unsigned int counter) {
    const auto registers = perf::slot_registers(_layout, counter % perf::kSlotsPerSpace);
    if (counter >= GetNumberOfCounters() || !registers || !_accessor) return;
    CleanupStatisticsInformation(counter);
    const Space& space = _spaces[counter / perf::kSlotsPerSpace];
    const perf::SlotRegisters& r = *registers;
    uint32_t control = CoreRead(space, r.control);
    if (r.has_port) {
        const unsigned int port = GetSelectedPort(counter) < space.ports.size() ? space.ports[GetSelectedPort(counter)].first : 0;
        control = (control & ~(perf::kPortMask << r.port_shift)) | port << r.port_shift;
    }
    if (r.pair) {
        const perf::EventEntry* event = SelectedEvent(counter);
        control = (control & ~(perf::kEventMask << r.event_shift)) | (event ? event->id : 0) << r.event_shift;
        // Any write of the select resets both counts of the pair, so the
        // other one's statistics start over as well.
        CoreWrite(space, r.control, 0);
        CoreWrite(space, r.control, control);
        CleanupStatisticsInformation(counter ^ 1);
    } else {
        CoreWrite(space, r.control, control ^ 1u << r.reset_bit);
        CoreWrite(space, r.control, control);
    }
}

int CPC_PCIE_Cores::GetCounter(unsigned int counter, uint32_t* low, uint32_t* high) {
    const auto registers = perf::slot_registers(_layout, counter % perf::kSlotsPerSpace);
    if (counter >= GetNumberOfCounters() || !registers || !_accessor) return 0;
    const Space& space = _spaces[counter / perf::kSlotsPerSpace];
    uint32_t h = 0, l = 0;
    if (_layout.count_bits > 32) {
        // Two reads: when the high word moved in between, the low word is
        // read again, so a carry is never half seen.
        h = CoreRead(space, registers->high);
        l = CoreRead(space, registers->low);
        const uint32_t again = CoreRead(space, registers->high);
        if (again != h) {
            h = again;
            l = CoreRead(space, registers->low);
        }
    } else {
        l = CoreRead(space, registers->low);
    }
    *low = l;
    *high = h;
    SetStatisticsInformation(counter, l, h, system_facts().now());
    return 1;
}

namespace {
std::span<const chips::PcieCore> no_cores() { return {}; }
}  // namespace

CPC_PCIE_CORVANE::CPC_PCIE_CORVANE(const VEX_DIE_INFO& die, std::shared_ptr<CRNAccessor> accessor,
                                   const std::vector<PortMap>& ports)
    : CPC_PCIE_Cores(die.full_name(), perf::kCorvaneLayout, chips::corvane::kPcieCores, std::move(accessor), ports) {}
CPC_PCIE_DELLMAR::CPC_PCIE_DELLMAR(const VEX_DIE_INFO& die, std::shared_ptr<CRNAccessor> accessor,
                                   const std::vector<PortMap>& ports)
    : CPC_PCIE_Cores(die.full_name(), perf::kCorvaneLayout, chips::dellmar::kPcieCores, std::move(accessor), ports) {}
CPC_PCIE_KX900::CPC_PCIE_KX900(const VEX_DIE_INFO& die, std::shared_ptr<CRNAccessor> accessor, const std::vector<PortMap>& ports)
    : CPC_PCIE_Cores(die.full_name() + "-Die:" + std::to_string(die.die()), perf::kKX900Layout, chips::kx900::kPcieCores,
                     std::move(accessor), ports) {}
CPC_PCIE_HESK48::CPC_PCIE_HESK48(const VEX_DIE_INFO& die, std::shared_ptr<CRNAccessor> accessor, const std::vector<PortMap>& ports)
    : CPC_PCIE_Cores(die.full_name(), perf::kHeskLayout, no_cores(), std::move(accessor), ports) {}
CPC_PCIE_FERROW::CPC_PCIE_FERROW(const VEX_DIE_INFO& die, std::shared_ptr<CRNAccessor> accessor, const std::vector<PortMap>& ports)
    : CPC_PCIE_Cores(die.full_name(), perf::kHeskLayout, no_cores(), std::move(accessor), ports) {}
CPC_PCIE_SABREL1::CPC_PCIE_SABREL1(const VEX_DIE_INFO& die, std::shared_ptr<CRNAccessor> accessor, const std::vector<PortMap>& ports)
    : CPC_PCIE_Cores(die.full_name(), perf::kHeskLayout, no_cores(), std::move(accessor), ports) {}
CPC_PCIE_TAMBLIN::CPC_PCIE_TAMBLIN(const VEX_DIE_INFO& die, std::shared_ptr<CRNAccessor> accessor, const std::vector<PortMap>& ports)
    : CPC_PCIE_Cores(die.full_name(), perf::kHeskLayout, no_cores(), std::move(accessor), ports) {}

void CPC_PCIEList::InitPCList(const std::vector<std::pair<VEX_DIE_INFO, std::vector<PortMap>>>& dies,
                              const AccessorFor& accessor_for) {
    _list.clear();
    for (const auto& die : dies) AddToPCList(die, accessor_for);
}

void CPC_PCIEList::AddToPCList(const std::pair<VEX_DIE_INFO, std::vector<PortMap>>& entry, const AccessorFor& accessor_for) {
    const auto& [die, ports] = entry;
    const std::string name = die.name();
    const auto is = [&name](std::initializer_list<const char*> names) {
        return std::find(names.begin(), names.end(), name) != names.end();
    };
    std::unique_ptr<CPerformanceCounters> family;
    const auto make = [&](auto tag) {
        using Family = typename decltype(tag)::type;
        auto accessor = accessor_for(die);
        if (accessor) family = std::make_unique<Family>(die, std::move(accessor), ports);
    };
    if (is({"KX900A", "KX900X", "KX900C"})) make(std::type_identity<CPC_PCIE_KX900>{});
    else if (is({"Corvane"})) make(std::type_identity<CPC_PCIE_CORVANE>{});
    else if (is({"Dellmar"})) make(std::type_identity<CPC_PCIE_DELLMAR>{});
    else if (is({"Hesk31", "Hesk48", "Hesk44"})) make(std::type_identity<CPC_PCIE_HESK48>{});
    else if (is({"Ferrow", "Ferrow2"})) make(std::type_identity<CPC_PCIE_FERROW>{});
    else if (is({"Sabrel1", "Sabrel2", "Sabrel Crown"})) make(std::type_identity<CPC_PCIE_SABREL1>{});
    else if (is({"Tamblin1", "Rusk"})) make(std::type_identity<CPC_PCIE_TAMBLIN>{});
    else {
        std::cout << "Error! PCIE Perf counter is not supported for Program: " << name << std::endl;
        return;
    }
    if (!family) return;
    family->SetExternalReleaseVersion(_external);
    _list.push_back(std::move(family));
}

bool CPC_PCIEList::GetListEntry(int index, CPerformanceCounters** entry) const {
    if (index < 0 || static_cast<size_t>(index) >= _list.size()) return false;
    *entry = _list[index].get();
    return true;
}

void CPC_PCIEList::SetExternalReleaseVersion(bool external) {
    _external = external;
    for (auto& family : _list) family->SetExternalReleaseVersion(external);
}
