// Event counters of the PCIe cores of the machine's dies. One family object
// serves one die; its counters are numbered in one row, space by space, a
// space being one core (counter / counters per space = space, the rest the
// slot). Each counter keeps the statistics of its reads.
#pragma once

#include <chrono>
#include <functional>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "discovery/port_map_types.h"
#include "hardware/crn_accessor.h"
#include "hardware/vex_die_info.h"

struct CounterStatistics {
    uint32_t last_low = 0, last_high = 0, previous_low = 0, previous_high = 0;
    double rate = 0;      // events per second between the last two reads
    double max_rate = 0;
    uint64_t samples = 0;  // reads since InitCounter
    std::chrono::system_clock::time_point last_time, previous_time;
    bool enabled = false;
    unsigned int selected_port = 0, selected_entry = 0;
};

class CPerformanceCounters {
public:
    virtual ~CPerformanceCounters() = default;
    virtual std::string GetName() const = 0;
    virtual unsigned int GetNumberOfCounters() const = 0;
    // The row's name: "<core> NAK" for slot 0, "<core> EVENT<n>" for the others.
    virtual std::string GetSpaceName(unsigned int counter) const = 0;
    virtual bool IsPortSelectionSupported(unsigned int counter) const = 0;
    // "%x:%x:%x.%x" of each port the counter's core has, in function index order.
    virtual std::vector<std::string> GetPortSelectionEntries(unsigned int counter) const = 0;
    virtual unsigned int GetNumberOfSelectionEntries(unsigned int counter) const = 0;
    // "%d. %s" of an event.
    virtual std::string GetSelectionEntry(unsigned int counter, unsigned int entry) const = 0;
    virtual void InitCounter(unsigned int counter) = 0;
    // Reads the counter's two words (the panel adds them to the statistics).
    virtual void GetCounter(unsigned int counter, uint32_t* low, uint32_t* high) = 0;
    // Bits the count has before it wraps.
    virtual unsigned int GetCounterBits() const = 0;

    bool SetPort(unsigned int counter, unsigned int port);
    bool SetEntry(unsigned int counter, unsigned int entry);
    unsigned int GetSelectedPort(unsigned int counter) const { return _stats.at(counter).selected_port; }
    unsigned int GetSelectedEntry(unsigned int counter) const { return _stats.at(counter).selected_entry; }
    void EnableCounter(unsigned int counter, bool enable) { _stats.at(counter).enabled = enable; }
    void DisableCounter(unsigned int counter) { EnableCounter(counter, false); }
    bool IsCounterEnabled(unsigned int counter) const { return _stats.at(counter).enabled; }
    bool IsChangeDetected(unsigned int counter) const;
    const CounterStatistics& Statistics(unsigned int counter) const { return _stats.at(counter); }
    // The count of the last read as one number.
    uint64_t LastValue(unsigned int counter) const;
    // Takes a read: rate over the time since the previous one, the wrapped
    // difference when the count ran past its width in between.
    void SetStatisticsInformation(unsigned int counter, uint32_t low, uint32_t high,
                                  std::chrono::system_clock::time_point when);
    void CleanupStatisticsInformation(unsigned int counter);

protected:
    void CreateStatisticsStructure(unsigned int counters) { _stats.assign(counters, CounterStatistics{}); }

private:
    std::vector<CounterStatistics> _stats;
};

// The counter block of the Corvane and Dellmar cores (chips/pcie_perf_counters.h).
class CPC_PCIE_CORVANE : public CPerformanceCounters {
public:
    // ports: the die's mapped ports; only cores with ports get a space.
    CPC_PCIE_CORVANE(const VEX_DIE_INFO& die, std::shared_ptr<CRNAccessor> accessor, const std::vector<PortMap>& ports);

    std::string GetName() const override { return _name; }
    unsigned int GetNumberOfCounters() const override;
    std::string GetSpaceName(unsigned int counter) const override;
    bool IsPortSelectionSupported(unsigned int counter) const override;
    std::vector<std::string> GetPortSelectionEntries(unsigned int counter) const override;
    unsigned int GetNumberOfSelectionEntries(unsigned int counter) const override;
    std::string GetSelectionEntry(unsigned int counter, unsigned int entry) const override;
    void InitCounter(unsigned int counter) override;
    void GetCounter(unsigned int counter, uint32_t* low, uint32_t* high) override;
    unsigned int GetCounterBits() const override;

private:
    struct Space {
        std::string core;
        unsigned int core_base;
        std::vector<std::pair<unsigned int, std::string>> ports;  // function index, "%x:%x:%x.%x"
    };
    unsigned int _slot_address(unsigned int counter) const;

    std::string _name;
    std::shared_ptr<CRNAccessor> _accessor;
    std::vector<Space> _spaces;
};

// One family object per die that has counters.
class CPC_PCIEList {
public:
    // Dies of other names print "Error! PCIE Perf counter is not supported for Program: <name>".
    void InitPCList(const std::vector<std::pair<VEX_DIE_INFO, std::vector<PortMap>>>& dies,
                    const std::function<std::shared_ptr<CRNAccessor>(const VEX_DIE_INFO&)>& accessor_for);
    unsigned int GetListSize() const { return static_cast<unsigned int>(_list.size()); }
    CPerformanceCounters* GetListEntry(unsigned int index) const { return _list.at(index).get(); }

private:
    std::vector<std::unique_ptr<CPerformanceCounters>> _list;
};
