// Event counters of the PCIe cores of the machine's dies. One family object
// serves one die; its counters are numbered in one row, space by space, a
// space being one core (counter / counters per space = space, the rest the
// slot). Each counter keeps the statistics of its reads.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "discovery/port_map_types.h"
#include "hardware/chips/pcie_cores.h"
#include "hardware/chips/pcie_perf_counters.h"
#include "hardware/crn_accessor.h"
#include "hardware/vex_die_info.h"

// One record per counter (CreateStatisticsStructure).
struct CounterStatistics {
    uint32_t last_low = 0, last_high = 0;          // the last two words read
    uint32_t previous_low = 0, previous_high = 0;  // the two words before them
    // Counts per second between the last two reads: their difference (the
    // wrapped one past the count's width) over the time between them.
    uint64_t rate = 0;
    uint64_t max_rate = 0;
    uint64_t samples = 0;  // reads since InitCounter
    std::chrono::system_clock::time_point last_time, previous_time;
    bool enabled = false;
    unsigned int selected_port = 0, selected_entry = 0;
};

// The operations every counter family offers; declared in the order the
// families' tables rely on.
class CPerformanceCounters {
public:
    // Counters of idle time and graphics load show as percentages; PCIe
    // families have none.
    virtual double GetLDTSTOPEfficiency(unsigned int counter) const;
    virtual bool IsLDTSTOPCounter(unsigned int counter) const;
    virtual double GetGPUUsage(unsigned int counter) const;
    virtual bool IsGPUUsageCounter(unsigned int counter) const;
    // An external release offers only the events marked external.
    virtual void SetExternalReleaseVersion(bool external);
    // Whether the counter's block exists on this die.
    virtual bool IsHWBlockEnable(unsigned int counter) const = 0;
    // The last read differs from the one before.
    virtual bool IsChangeDetected(unsigned int counter) const;
    virtual bool SetEntry(unsigned int counter, unsigned int entry);
    virtual bool SetPort(unsigned int counter, unsigned int port);
    virtual bool IsCounterEnabled(unsigned int counter) const;
    virtual unsigned int GetSelectedEntry(unsigned int counter) const;
    virtual unsigned int GetSelectedPort(unsigned int counter) const;
    // Both return 1 and the stored value.
    virtual int GetCounterMaxRate(unsigned int counter, uint64_t* rate) const;
    virtual int GetCounterRate(unsigned int counter, uint64_t* rate) const;
    // Reads the counter's two words and takes them into its statistics;
    // 1 on success, 0 for a counter that doesn't exist.
    virtual int GetCounter(unsigned int counter, uint32_t* low, uint32_t* high) = 0;
    virtual void DisableCounter(unsigned int counter);
    // Resets the counter with its port and event; its statistics start over.
    virtual void InitCounter(unsigned int counter) = 0;
    // "%x:%x:%x.%x" of the port-th port the counter can watch; false past the end.
    virtual bool GetPortSelectionEntry(unsigned int counter, unsigned int port, std::string* text) const = 0;
    virtual bool IsPortSelectionSupported(unsigned int counter) const = 0;
    // "%d. %s" of the entry-th event the counter offers.
    virtual std::string GetSelectionEntry(unsigned int counter, unsigned int entry) const = 0;
    virtual unsigned int GetNumberOfSelectionEntries(unsigned int counter) const = 0;
    // The row's name; "NA<space>" past the named slots.
    virtual std::string GetSpaceName(unsigned int counter) const = 0;
    virtual unsigned int GetNumberOfCounters() const = 0;
    // Position in the offered entries of an event ID; -1 when not offered.
    virtual int EventIDToNameIndex(unsigned int counter, unsigned int event_id) const = 0;
    virtual ~CPerformanceCounters() = default;
    // Takes a read made at `when`: samples + 1, the rate and max rate, last
    // words become the previous ones.
    virtual void SetStatisticsInformation(unsigned int counter, uint32_t low, uint32_t high,
                                          std::chrono::system_clock::time_point when);
    // Clears what was read; the row's choices stay.
    virtual void CleanupStatisticsInformation(unsigned int counter);

    // The family's own.
    virtual std::string GetName() const = 0;
    // Width of the count; differences wrap at it.
    virtual unsigned int GetCounterBits() const = 0;

    bool IsExternalReleaseVersion() const { return _external; }
    void EnableCounter(unsigned int counter, bool enable);
    unsigned int GetNumberOfPortSelectionEntries(unsigned int counter) const;
    const CounterStatistics& Statistics(unsigned int counter) const { return _stats.at(counter); }
    // The last read as one number.
    uint64_t LastValue(unsigned int counter) const;

protected:
    void CreateStatisticsStructure(unsigned int counters) { _stats.assign(counters, CounterStatistics{}); }
    bool _has(unsigned int counter) const { return counter < _stats.size(); }

private:
    std::vector<CounterStatistics> _stats;
    bool _external = false;
};

// A family whose cores carry the counter block of chips/pcie_perf_counters.h
// at the places its layout gives: only cores with mapped ports get a space.
class CPC_PCIE_Cores : public CPerformanceCounters {
public:
    bool IsHWBlockEnable(unsigned int counter) const override;
    int GetCounter(unsigned int counter, uint32_t* low, uint32_t* high) override;
    void InitCounter(unsigned int counter) override;
    bool GetPortSelectionEntry(unsigned int counter, unsigned int port, std::string* text) const override;
    bool IsPortSelectionSupported(unsigned int counter) const override;
    std::string GetSelectionEntry(unsigned int counter, unsigned int entry) const override;
    unsigned int GetNumberOfSelectionEntries(unsigned int counter) const override;
    std::string GetSpaceName(unsigned int counter) const override;
    unsigned int GetNumberOfCounters() const override;
    int EventIDToNameIndex(unsigned int counter, unsigned int event_id) const override;
    std::string GetName() const override { return _name; }
    unsigned int GetCounterBits() const override { return _layout.count_bits; }

    // The event the counter's selected entry stands for; null past the end.
    const chips::perf::EventEntry* SelectedEvent(unsigned int counter) const;

protected:
    CPC_PCIE_Cores(std::string name, const chips::perf::CounterLayout& layout, std::span<const chips::PcieCore> cores,
                   std::shared_ptr<CRNAccessor> accessor, const std::vector<PortMap>& ports);

private:
    struct Space {
        std::string core;
        unsigned int core_base;
        std::vector<std::pair<unsigned int, std::string>> ports;  // function index, "%x:%x:%x.%x"
    };
    std::vector<const chips::perf::EventEntry*> _offered(unsigned int counter) const;
    // Register network reach of a core register.
    uint32_t CoreRead(const Space& space, unsigned int offset) const;
    void CoreWrite(const Space& space, unsigned int offset, uint32_t value) const;

    std::string _name;
    const chips::perf::CounterLayout& _layout;
    std::shared_ptr<CRNAccessor> _accessor;
    std::vector<Space> _spaces;
};

class CPC_PCIE_CORVANE : public CPC_PCIE_Cores {
public:
    CPC_PCIE_CORVANE(const VEX_DIE_INFO& die, std::shared_ptr<CRNAccessor> accessor, const std::vector<PortMap>& ports);
};
class CPC_PCIE_DELLMAR : public CPC_PCIE_Cores {
public:
    CPC_PCIE_DELLMAR(const VEX_DIE_INFO& die, std::shared_ptr<CRNAccessor> accessor, const std::vector<PortMap>& ports);
};
class CPC_PCIE_KX900 : public CPC_PCIE_Cores {
public:
    // Named "<die>-Die:<n>": a package holds several.
    CPC_PCIE_KX900(const VEX_DIE_INFO& die, std::shared_ptr<CRNAccessor> accessor, const std::vector<PortMap>& ports);
};
// The families below have no core placement in the chip tables yet, so
// their dies offer no counters; the counter block they would carry is
// kHeskLayout.
class CPC_PCIE_HESK48 : public CPC_PCIE_Cores {
public:
    CPC_PCIE_HESK48(const VEX_DIE_INFO& die, std::shared_ptr<CRNAccessor> accessor, const std::vector<PortMap>& ports);
};
class CPC_PCIE_FERROW : public CPC_PCIE_Cores {
public:
    CPC_PCIE_FERROW(const VEX_DIE_INFO& die, std::shared_ptr<CRNAccessor> accessor, const std::vector<PortMap>& ports);
};
class CPC_PCIE_SABREL1 : public CPC_PCIE_Cores {
public:
    CPC_PCIE_SABREL1(const VEX_DIE_INFO& die, std::shared_ptr<CRNAccessor> accessor, const std::vector<PortMap>& ports);
};
class CPC_PCIE_TAMBLIN : public CPC_PCIE_Cores {
public:
    CPC_PCIE_TAMBLIN(const VEX_DIE_INFO& die, std::shared_ptr<CRNAccessor> accessor, const std::vector<PortMap>& ports);
};

// One family object per die that has counters.
class CPC_PCIEList {
public:
    using AccessorFor = std::function<std::shared_ptr<CRNAccessor>(const VEX_DIE_INFO&)>;
    void InitPCList(const std::vector<std::pair<VEX_DIE_INFO, std::vector<PortMap>>>& dies, const AccessorFor& accessor_for);
    // Dies of other names print "Error! PCIE Perf counter is not supported for Program: <name>".
    void AddToPCList(const std::pair<VEX_DIE_INFO, std::vector<PortMap>>& die, const AccessorFor& accessor_for);
    unsigned int GetListSize() const { return static_cast<unsigned int>(_list.size()); }
    bool GetListEntry(int index, CPerformanceCounters** entry) const;
    CPerformanceCounters* GetListEntry(unsigned int index) const { return _list.at(index).get(); }
    void SetExternalReleaseVersion(bool external);
    bool IsExternalReleaseVersion() const { return _external; }

private:
    std::vector<std::unique_ptr<CPerformanceCounters>> _list;
    bool _external = false;
};
