#include "panels/pcie_perf_counter_gui_interface.h"

nlohmann::json PCIEPerfCounterGUIInterface::GetPCIEPerfCounterInfo() {
    return nlohmann::json{{"ports", nlohmann::json::array()}, {"counters", nlohmann::json::array()}};
}
nlohmann::json PCIEPerfCounterGUIInterface::OnSelectPerfCounter(int) { return nlohmann::json::object(); }
void PCIEPerfCounterGUIInterface::OnPortSelectionCurrentIndexChanged(int) {}
void PCIEPerfCounterGUIInterface::OnCounterSelectionCurrentIndexChanged(int) {}
void PCIEPerfCounterGUIInterface::OnEnableCounterClicked(bool) {}
void PCIEPerfCounterGUIInterface::OnInitCountersClicked() {}
nlohmann::json PCIEPerfCounterGUIInterface::OnReadCountersClicked() { return nlohmann::json::object(); }
void PCIEPerfCounterGUIInterface::OnStartMonitorClicked() { _stop_requested = false; }
void PCIEPerfCounterGUIInterface::OnStopMonitorClicked() { _stop_requested = true; }
void PCIEPerfCounterGUIInterface::OnDecimalDisplayClicked(bool status) { _decimal_display = status; }
void PCIEPerfCounterGUIInterface::OnLogToCountTxtClicked(bool status) { _log_to_count_txt = status; }
void PCIEPerfCounterGUIInterface::OnChangesOnlyClicked(bool status) { _changes_only = status; }
