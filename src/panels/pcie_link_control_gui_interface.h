// The link control panel: speed and width changes and continuous link runs.
// Until port discovery feeds it, its port list is empty.
#pragma once

#include <atomic>
#include <vector>

#include <nlohmann/json.hpp>

class PCIELinkControlGUIInterface {
public:
    nlohmann::json GetPCIELinkControlInfo();
    nlohmann::json GetPCIELinkPortInfo(int index);
    nlohmann::json OnLinkWidthChange(int index);
    nlohmann::json OnLinkSpeedChange(int index);
    nlohmann::json OnPortOptionChanged(int index, bool value);
    // Blocks for the whole run; returns at once when there is nothing to run.
    void OnContinuousRunToggled(const nlohmann::json& settings);
    void StopContinuousRun();
    bool SetLogLinkStatus(bool checked);
    bool SetLogLinkErrors(bool checked);
    nlohmann::json ClearErrorReport();

private:
    std::vector<nlohmann::json> _ports;
    std::atomic<bool> _stop_requested{false};
    bool _log_link_status = false;
    bool _log_link_errors = false;
};
