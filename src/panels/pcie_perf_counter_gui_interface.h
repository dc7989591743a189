// The performance counter panel of the PCIe cores. Until the cores are
// discovered there are no counters to select, read or monitor.
#pragma once

#include <atomic>

#include <nlohmann/json.hpp>

class PCIEPerfCounterGUIInterface {
public:
    nlohmann::json GetPCIEPerfCounterInfo();
    nlohmann::json OnSelectPerfCounter(int index);
    void OnPortSelectionCurrentIndexChanged(int index);
    void OnCounterSelectionCurrentIndexChanged(int index);
    void OnEnableCounterClicked(bool status);
    void OnInitCountersClicked();
    nlohmann::json OnReadCountersClicked();
    bool is_running() const { return _running; }
    // Blocks while monitoring; returns at once when there is nothing to monitor.
    void OnStartMonitorClicked();
    void OnStopMonitorClicked();
    void OnDecimalDisplayClicked(bool status);
    void OnLogToCountTxtClicked(bool status);
    void OnChangesOnlyClicked(bool status);

private:
    std::atomic<bool> _running{false};
    std::atomic<bool> _stop_requested{false};
    bool _decimal_display = false;
    bool _log_to_count_txt = false;
    bool _changes_only = false;
};
