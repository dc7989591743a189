// The link control panel: a table of the ports whose links can be changed,
// speed and width changes once, and a continuous run that walks the speed
// (and width) up and down between two limits counting failures.
// CPCIELinkControlInterface keeps the panel's model; the GUI interface
// turns it into the routes' JSON.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "panels/pcie_link.h"

class CPCIELinkControlInterface {
public:
    explicit CPCIELinkControlInterface(PanelMachineSource machine) : _source(std::move(machine)) {}

    void Initialize();
    void RefreshPortList();
    nlohmann::json row(size_t index);
    size_t port_count() const { return _links.size(); }
    std::shared_ptr<CPCIELink> link(size_t index) const { return index < _links.size() ? _links[index] : nullptr; }
    void on_PortList_selected(int index);
    bool OptionChanged(int index, bool checked);
    // One tick of the continuous run on the selected port.
    void TimerPortControl();
    void TimerInterfaceUpdate();
    void add_error(const std::string& text);

    int selected_port = -1;
    int current_speed = 9;   // 9: not set
    int target_width = 6;
    unsigned loop_count = 0, loop_limit = 0;
    std::atomic<bool> running{false};
    bool speed_in_loop = true, width_in_loop = false;
    bool log_errors = false, log_status = false;
    int speed_lower = 0, speed_upper = 4;
    unsigned width_lower = 1, width_upper = 16;
    unsigned failure_count = 0, speed_failures = 0, width_failures = 0, failure_retry = 3;
    int speed_method = 0;
    std::vector<std::string> errors;
    std::string log_text;
    std::string error_file = "LinkControlErrors.txt", status_file = "LinkControlStatus.txt";
    std::recursive_mutex mutex;  // the model, between the routes and the run

private:
    PanelMachineSource _source;
    bool _initialized = false;
    std::optional<PanelMachine> _machine;
    std::vector<LinkPort> _ports;
    std::vector<std::shared_ptr<CPCIELink>> _links;
    int _next_speed = -1;
    unsigned _next_width = 0;
};

class PCIELinkControlGUIInterface {
public:
    explicit PCIELinkControlGUIInterface(PanelMachineSource machine = nullptr)
        : _panel(std::make_shared<CPCIELinkControlInterface>(std::move(machine))) {}

    nlohmann::json GetPCIELinkControlInfo();
    nlohmann::json GetPCIELinkPortInfo(int index);
    nlohmann::json OnLinkWidthChange(int index);
    nlohmann::json OnLinkSpeedChange(int index);
    nlohmann::json OnPortOptionChanged(int index, bool value);
    void OnLinkSpeedMethodChange(int index);
    // Blocks for the whole run; returns at once when there is nothing to run.
    void OnContinuousRunToggled(const nlohmann::json& settings);
    void StopContinuousRun();
    // The service is stopping: ends a run and refuses new ones.
    void Shutdown() {
        _shut_down = true;
        StopContinuousRun();
    }
    bool SetLogLinkStatus(bool checked);
    bool SetLogLinkErrors(bool checked);
    nlohmann::json ClearErrorReport();
    nlohmann::json GenerateErrorReport();
    void set_push(std::function<void(const nlohmann::json&)> push) { _push = std::move(push); }
    CPCIELinkControlInterface& panel() { return *_panel; }

private:
    void _continuous_run(const nlohmann::json& settings);
    nlohmann::json _link_control_info();
    nlohmann::json _update_message(const std::string& log);

    std::shared_ptr<CPCIELinkControlInterface> _panel;
    std::function<void(const nlohmann::json&)> _push;
    std::atomic<bool> _stop_requested{false};
    int _interval_index = 4;
    std::atomic<bool> _shut_down{false};
    std::optional<PCIDeviceDetails> _claimed;  // the port a run holds
};
