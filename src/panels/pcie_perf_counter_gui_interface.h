// The performance counter panel of the PCIe cores: one table row per
// counter of every die's family object; rows are picked, given a port and an
// event, enabled, read once or watched by the monitor, which reads every
// enabled row each second (model time under the simulator) and pushes the
// table every 2 seconds.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "panels/pcie_perf_counters.h"

class PCIEPerfCounterGUIInterface {
public:
    using Push = std::function<void(const nlohmann::json&)>;

    PCIEPerfCounterGUIInterface() = default;
    // The family list, the file the log goes to ("count.txt" in some
    // folder) and where pushes go.
    void Initialize(std::unique_ptr<CPC_PCIEList> list, std::string count_txt_path, Push push);

    // [{"key": row, "space", "name", "port", "value", "rate", "maxRate", "enabled"}]
    nlohmann::json GetPCIEPerfCounterInfo();
    // The row's choices: {"index", "name", "portSelection", "selectedPort",
    // "counterSelection", "selectedCounter", "enabled"}; {} for no such row.
    nlohmann::json OnSelectPerfCounter(int index);
    void OnPortSelectionCurrentIndexChanged(int index);
    void OnCounterSelectionCurrentIndexChanged(int index);
    void OnEnableCounterClicked(bool status);
    void OnInitCountersClicked();
    nlohmann::json OnReadCountersClicked();
    bool is_running() const { return _running; }
    // Blocks while monitoring, until OnStopMonitorClicked; a second call
    // while one runs returns at once.
    void OnStartMonitorClicked();
    void OnStopMonitorClicked();
    void OnDecimalDisplayClicked(bool status);
    void OnLogToCountTxtClicked(bool status);
    void OnChangesOnlyClicked(bool status);

private:
    struct Row {
        CPerformanceCounters* family;
        unsigned int counter;
        std::string value = "N/A", rate = "N/A", max_rate = "N/A";
    };
    nlohmann::json _document() const;  // under _mutex
    void _start();                     // under _mutex
    void _stop();                      // under _mutex
    void _update(bool log);            // under _mutex
    void _log(const std::string& text);
    std::string _number(uint64_t value) const;
    std::string _percent(double value) const;

    std::unique_ptr<CPC_PCIEList> _list;
    std::vector<Row> _rows;
    std::string _count_txt;
    Push _push;
    mutable std::mutex _mutex;
    int _selected = -1;
    std::atomic<bool> _running{false};
    std::atomic<bool> _keep_running{false};
    bool _decimal_display = true;
    bool _log_to_count_txt = false;
    bool _changes_only = false;
};
