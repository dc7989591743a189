#include "panels/pcie_perf_counters.h"

#include <algorithm>
#include <cstdio>
#include <span>
#include <iostream>
#include <map>

#include "hardware/chips/pcie_cores.h"
#include "hardware/chips/pcie_perf_counters.h"

namespace perf = chips::perf;

bool CPerformanceCounters::SetPort(unsigned int counter, unsigned int port) {
    if (counter >= _stats.size() || port >= GetPortSelectionEntries(counter).size()) return false;
    _stats[counter].selected_port = port;
    return true;
}

bool CPerformanceCounters::SetEntry(unsigned int counter, unsigned int entry) {
    if (counter >= _stats.size() || entry >= GetNumberOfSelectionEntries(counter)) return false;
    _stats[counter].selected_entry = entry;
    return true;
}

bool CPerformanceCounters::IsChangeDetected(unsigned int counter) const {
    const CounterStatistics& s = _stats.at(counter);
    return s.last_low != s.previous_low || s.last_high != s.previous_high;
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
    if (s.samples++ == 0) return;  // the first read only sets the start
    const uint64_t previous = static_cast<uint64_t>(s.previous_high) << 32 | s.previous_low;
    const uint64_t last = LastValue(counter);
    const unsigned int bits = GetCounterBits();
    const uint64_t modulus_mask = bits >= 64 ? ~uint64_t{0} : (uint64_t{1} << bits) - 1;
    const uint64_t difference = (last - previous) & modulus_mask;  // wraps at the counter's width
    const double seconds = std::chrono::duration<double>(s.last_time - s.previous_time).count();
    s.rate = seconds > 0 ? static_cast<double>(difference) / seconds : 0;
    if (s.rate > s.max_rate) s.max_rate = s.rate;
}

void CPerformanceCounters::CleanupStatisticsInformation(unsigned int counter) {
    CounterStatistics& s = _stats.at(counter);
    const bool enabled = s.enabled;
    const unsigned int port = s.selected_port, entry = s.selected_entry;
    s = CounterStatistics{};
    s.enabled = enabled;
    s.selected_port = port;
    s.selected_entry = entry;
}

namespace {
std::string port_text(const PCIE::Device_ID& d) {
    char text[32];
    std::snprintf(text, sizeof text, "%x:%x:%x.%x", d.segment, d.bus, d.device, d.function);
    return text;
}
}  // namespace

CPC_PCIE_CORVANE::CPC_PCIE_CORVANE(const VEX_DIE_INFO& die, std::shared_ptr<CRNAccessor> accessor,
                                   const std::vector<PortMap>& ports)
    : _name(die.full_name()), _accessor(std::move(accessor)) {
    const bool dellmar = die.name() == "Dellmar";
    const std::span<const chips::PcieCore> cores =
        dellmar ? std::span<const chips::PcieCore>(chips::dellmar::kPcieCores) : std::span<const chips::PcieCore>(chips::corvane::kPcieCores);
    std::map<unsigned int, std::vector<std::pair<unsigned int, std::string>>> by_core;  // index into cores
    for (const PortMap& port : ports)
        for (size_t i = 0; i < cores.size(); ++i)
            if (port.core == cores[i].name) by_core[i].emplace_back(port.function_index, port_text(port.device));
    for (auto& [index, list] : by_core) {
        std::sort(list.begin(), list.end());
        _spaces.push_back({cores[index].name, cores[index].core_base, list});
    }
    CreateStatisticsStructure(GetNumberOfCounters());
}

unsigned int CPC_PCIE_CORVANE::GetNumberOfCounters() const {
    return static_cast<unsigned int>(_spaces.size()) * perf::kSlotsPerCore;
}

unsigned int CPC_PCIE_CORVANE::GetCounterBits() const { return perf::kCountBits; }

std::string CPC_PCIE_CORVANE::GetSpaceName(unsigned int counter) const {
    const unsigned int space = counter / perf::kSlotsPerCore, slot = counter % perf::kSlotsPerCore;
    if (space >= _spaces.size()) return "NA" + std::to_string(space);
    return _spaces[space].core + (slot == 0 ? " NAK" : " EVENT" + std::to_string(slot));
}

bool CPC_PCIE_CORVANE::IsPortSelectionSupported(unsigned int counter) const {
    return counter < GetNumberOfCounters();
}

std::vector<std::string> CPC_PCIE_CORVANE::GetPortSelectionEntries(unsigned int counter) const {
    std::vector<std::string> entries;
    if (counter >= GetNumberOfCounters()) return entries;
    for (const auto& [index, text] : _spaces[counter / perf::kSlotsPerCore].ports) entries.push_back(text);
    return entries;
}

unsigned int CPC_PCIE_CORVANE::GetNumberOfSelectionEntries(unsigned int counter) const {
    return counter % perf::kSlotsPerCore == 0 ? 1 : perf::kEventCount;
}

std::string CPC_PCIE_CORVANE::GetSelectionEntry(unsigned int counter, unsigned int entry) const {
    const unsigned int event = counter % perf::kSlotsPerCore == 0 ? perf::naks : entry;
    if (event >= perf::kEventCount) return "";
    return std::to_string(entry) + ". " + perf::kEventNames[event];
}

unsigned int CPC_PCIE_CORVANE::_slot_address(unsigned int counter) const {
    return perf::slot_address(_spaces.at(counter / perf::kSlotsPerCore).core_base, counter % perf::kSlotsPerCore);
}

void CPC_PCIE_CORVANE::InitCounter(unsigned int counter) {
    CleanupStatisticsInformation(counter);
    const unsigned int base = _slot_address(counter);
    const Space& space = _spaces.at(counter / perf::kSlotsPerCore);
    const unsigned int port = space.ports.at(GetSelectedPort(counter)).first;
    const unsigned int event = counter % perf::kSlotsPerCore == 0 ? perf::naks : GetSelectedEntry(counter);
    _accessor->write32(base + perf::kSelect, port | event << 8);
    // A toggle of bit 0 resets the count; the control is left as it was.
    const unsigned int control = _accessor->read32(base + perf::kControl);
    _accessor->write32(base + perf::kControl, control ^ 1);
    _accessor->write32(base + perf::kControl, control);
}

void CPC_PCIE_CORVANE::GetCounter(unsigned int counter, uint32_t* low, uint32_t* high) {
    const unsigned int base = _slot_address(counter);
    // The halves are two reads: read high again so a carry between them is seen.
    uint32_t h = _accessor->read32(base + perf::kCountHigh), l = 0;
    for (int attempt = 0; attempt < 3; ++attempt) {
        l = _accessor->read32(base + perf::kCountLow);
        const uint32_t again = _accessor->read32(base + perf::kCountHigh);
        if (again == h) break;
        h = again;
    }
    *low = l;
    *high = h;
}

void CPC_PCIEList::InitPCList(const std::vector<std::pair<VEX_DIE_INFO, std::vector<PortMap>>>& dies,
                              const std::function<std::shared_ptr<CRNAccessor>(const VEX_DIE_INFO&)>& accessor_for) {
    _list.clear();
    for (const auto& [die, ports] : dies) {
        const std::string name = die.name();
        if (name == "Corvane" || name == "Dellmar") {
            auto accessor = accessor_for(die);
            if (accessor) _list.push_back(std::make_unique<CPC_PCIE_CORVANE>(die, accessor, ports));
        } else {
            std::cout << "Error! PCIE Perf counter is not supported for Program: " << name << std::endl;
        }
    }
}
