// The performance counter panel of the PCIe cores: one table row per
// counter of every die's family object; rows are picked, given a port and an
// event, enabled, read once or watched by the monitor, which reads every
// enabled row each second (model time under the simulator) and pushes the
// table every 2 seconds.
//
// Files, all in the panel's folder (the results root):
// - "count.txt": the monitor's log, appended to while logging is on.
// - "PCIePerfCounterOptions.txt": the display and log options, one
//   "Name=0|1" a line.
// - "PCIePerfCounterPortSel.txt": "row<TAB>row name<TAB>port S:B:D.F", one
//   line per row watching another port than its first.
// - "PCIePerfCounterSelections.txt": "row<TAB>row name<TAB>enabled 0|1<TAB>event"
//   for each row that is enabled or has another event than its first.
//   These three are rewritten on every change and read back at start, so an
//   operator's set-up survives a restart. A line whose row name no longer
//   matches (another machine), or whose port or event is no longer offered,
//   is skipped: a stale line never points a row at the wrong port.
// - "perfcnt.txt": the enabled rows as the table last showed them (the seven
//   columns, tab-separated, with their titles), rewritten at every read.
// - "perfcnt.int": the same rows as plain decimal integers for scripts,
//   "row<TAB>value<TAB>rate<TAB>maxRate<TAB>samples", whatever the display.
// - "perfCommand.txt": every command the panel took, with its time, so a
//   reading can be traced to its set-up; started afresh above 1 MiB.
// All but the logs are written to a temporary file and renamed into place.
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
    // The family list, the folder of the panel's files (empty: no files)
    // and where pushes go; restores the saved set-up.
    void Initialize(std::unique_ptr<CPC_PCIEList> list, std::string folder, Push push);

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
    // Ends a monitor and refuses later starts: a start whose thread had not
    // yet begun when the service stopped must not run on for ever.
    void Shutdown();
    void OnDecimalDisplayClicked(bool status);
    void OnLogToCountTxtClicked(bool status);
    void OnChangesOnlyClicked(bool status);
    // {"decimalDisplay", "logToCountTxt", "changesOnly", "running"}: what a
    // screen opened later (or after a restart) must show.
    nlohmann::json GetOptions() const;

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
    void _command(const std::string& text);  // under _mutex
    void _save_settings() const;             // under _mutex
    void _restore_settings();                // under _mutex
    void _save_snapshot() const;             // under _mutex
    std::string _number(uint64_t value) const;
    std::string _percent(double value) const;

    std::unique_ptr<CPC_PCIEList> _list;
    std::vector<Row> _rows;
    std::string _folder;
    Push _push;
    mutable std::mutex _mutex;
    int _selected = -1;
    std::atomic<bool> _running{false};
    std::atomic<bool> _keep_running{false};
    bool _shut_down = false;  // under _mutex
    bool _decimal_display = true;
    bool _log_to_count_txt = false;
    bool _changes_only = false;
};
