// The port status panel: a port's registers, LTSSM states and stress loops.
// Until port discovery feeds it, its port list is empty.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

class PCIEPortStatusGUIInterface {
public:
    nlohmann::json GetPCIEPortInfo();
    void GetRegistersInfo(nlohmann::json& registers);
    void GetPortStatusControlOptions(nlohmann::json& document);
    void GetContLoopSettingsInfo(nlohmann::json& settings);
    nlohmann::json GetPortStatusRegisterInfo();
    void OnPortSelectCurrentIndexChanged(int index);
    void OnAdvErrorEnabledClicked(bool checked);
    void OnLinkDisableClicked(bool checked);
    bool OnSecBusResetClicked(bool checked);
    void OnClearAdvErrosClicked();
    // Blocks for the whole run; returns at once when there is nothing to run.
    void StartContinuousRun(const nlohmann::json& settings);
    void StopContinuousRun();
    bool SetLogPortStatus(bool checked);
    nlohmann::json get_ltssm_states();
    void clear_log_lines() { _log_lines.clear(); }

private:
    std::vector<nlohmann::json> _ports;
    int _selected = -1;
    bool _log_port_status = false;
    std::atomic<bool> _stop_requested{false};
    std::string _log_lines;
};
