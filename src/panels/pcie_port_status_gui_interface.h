// The port status panel: for one selected port, eight groups of status
// registers with their bits decoded, the port's LTSSM history, three
// actions (error reporting, link disable, secondary bus reset) and a stress
// loop that disables and enables, resets or retrains the link again and
// again, checking that it comes back with the same speed and width.
//
// Where we do better than a plain loop: a run always ends (stop request,
// the service stopping, loop limit, or a link away longer than the max
// wait), two runs never work on one port (see claim_link_port), and the last
// counts and log lines of a run are always pushed.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "panels/pcie_link.h"

// A small periodic timer: one thread that calls the function once per
// interval (model time where the model runs) until stopped.
class PCIETimer {
public:
    PCIETimer(std::function<void()> function, unsigned interval_ms) : _function(std::move(function)), _interval(interval_ms) {}
    ~PCIETimer() { stopFunc(); }
    void startFunc(unsigned interval_ms);
    void loopFunction();
    void stopFunc();
    bool isActive() const { return _active; }
    void setInterval(unsigned interval_ms) { _interval = interval_ms; }

private:
    std::function<void()> _function;
    std::atomic<unsigned> _interval;
    std::atomic<bool> _active{false};
    std::thread _thread;
};

struct PORT_STATUS_OUTPUT {
    std::string label;
    std::string name;
    bool valid = false;
    unsigned value = 0;
    nlohmann::json rows = nlohmann::json::array();
};

struct PortLinkStatus {
    bool up = false;
    int speed = PCIE_SPEED_UNKNOWN;
    unsigned width = 0;
    bool operator==(const PortLinkStatus& o) const { return up == o.up && speed == o.speed && width == o.width; }
    std::string text() const;
};

// The table of interval and max wait choices.
struct IntervalChoice {
    const char* label;
    unsigned ms;
};
extern const IntervalChoice kPortStatusIntervals[9];

class CPCIEPortStatusInterface {
public:
    explicit CPCIEPortStatusInterface(PanelMachineSource machine, std::string report_folder = "./pcie_reports");
    virtual ~CPCIEPortStatusInterface();

    void Detect();
    void Update();
    const std::vector<LinkPort>& ports() const { return _ports; }
    int selected() const { return _selected; }
    std::shared_ptr<CPCIELink> selected_link() {
        std::lock_guard<std::recursive_mutex> select(_select_mutex);
        return _link;
    }

    void on_PortSelect_currentIndexChanged(int index);
    bool on_AdvErrorEnabled_clicked(bool checked);
    // Correctable, non-fatal, fatal and unsupported request reporting all on.
    bool error_reporting_enabled();
    bool on_LinkDisable_clicked(bool checked);
    bool on_ClearAdvErrors_clicked();
    bool on_SecBusReset_clicked(bool checked);
    void on_LogPortStatus_clicked(bool checked) { _log_to_file = checked; }
    // true: set up and start the timer (false when the link is unfit, with the reason logged);
    // false: stop the timer and write the summary.
    bool on_ContinuousRun_toggled(bool on);
    void on_LinkDisableInLoop_toggled(bool on) { _mode_disable = on; }
    void on_SecBusResetInLoop_toggled(bool on) { _mode_reset = on; }
    void on_LinkRetrainInLoop_toggled(bool on) { _mode_retrain = on; }
    void on_LinkPresetInLoop_toggled(bool on) { _mode_preset = on; }
    void on_ContinuousRunMaxWait_currentIndexChanged(int index);
    void on_ContinuousRunInterval_currentIndexChanged(int index);
    void TimerInterfaceUpdate();

    PortLinkStatus GetLinkStatus();
    void appendCurrentStatus(const std::string& text);
    std::vector<std::string> GetLCState();

    // Copies under the panel's mutex.
    std::vector<PORT_STATUS_OUTPUT> groups();
    std::string take_log();
    nlohmann::json counts();
    std::string message();

    // The run's settings and flags, as the GUI interface sets them.
    std::atomic<bool> running{false};
    std::atomic<bool> stop_request{false};
    std::atomic<bool> failure_seen{false};
    bool stop_on_error = false, stop_on_aer_error = false;
    int retrain_speed = 0;
    int interval_index = 4, max_wait_index = 0;
    unsigned loop_limit = 0x0FFFFFFF;
    std::atomic<unsigned> loop_count{0};
    bool mode_on() const { return _mode_disable || _mode_reset || _mode_retrain || _mode_preset; }
    int mode_index() const { return _mode_disable ? 0 : _mode_reset ? 1 : _mode_retrain ? 2 : _mode_preset ? 3 : -1; }
    bool timer_active() const { return _timer && _timer->isActive(); }

private:
    void _read_groups(std::vector<PORT_STATUS_OUTPUT>& out);
    unsigned _aer_status();
    void _check_toggle(bool reset_mode);
    void _check_retrain();
    void _restore_link();
    void _log(const std::string& text);
    void _fail(const std::string& text, std::atomic<unsigned>& cause);

    PanelMachineSource _source;
    std::optional<PanelMachine> _machine;
    std::vector<LinkPort> _ports;
    int _selected = -1;
    std::shared_ptr<CPCIELink> _link;
    std::string _report_folder;
    std::string _report_file;
    bool _log_to_file = false;
    bool _mode_disable = false, _mode_reset = false, _mode_retrain = false, _mode_preset = false;

    std::mutex _detect_mutex;
    std::recursive_mutex _select_mutex;  // the selected port, between requests, the timer and the LTSSM push
    std::mutex _mutex;  // groups, log text, message
    std::vector<PORT_STATUS_OUTPUT> _groups;
    std::string _log_text;
    std::string _message;

    std::unique_ptr<PCIETimer> _timer;
    PortLinkStatus _start_status, _last_status;
    bool _have_last = false;
    unsigned _waited = 0;
    unsigned _start_aer = 0;
    unsigned _start_control2 = 0;  // Link Control 2 as the run found it
    bool _claimed = false;
    std::atomic<unsigned> _success{0}, _failure{0}, _mismatch{0}, _unstable{0}, _preset_mismatch{0}, _aer_fail{0},
        _max_wait{0};
};

class PCIEPortStatusGUIInterface {
public:
    explicit PCIEPortStatusGUIInterface(PanelMachineSource machine = nullptr, std::string report_folder = "./pcie_reports");

    nlohmann::json GetPCIEPortInfo();
    nlohmann::json OnPortSelectCurrentIndexChanged(int index);
    void GetRegistersInfo(nlohmann::json& registers);
    void GetPortStatusControlOptions(nlohmann::json& document);
    void GetContLoopSettingsInfo(nlohmann::json& settings);
    void GetSettingsSelectionInfo(nlohmann::json& settings);
    void GetContRunIntervalsInfo(nlohmann::json& settings);
    void GetRetrainLinkSpeedInfo(nlohmann::json& settings);
    nlohmann::json GetPortStatusRegisterInfo();
    void SetPortStatus(nlohmann::json& setting);
    void OnAdvErrorEnabledClicked(bool checked);
    void OnLinkDisableClicked(bool checked);
    bool OnSecBusResetClicked(bool checked);
    void OnClearAdvErrosClicked();
    // Blocks for the whole run and pushes its progress.
    void StartContinuousRun(const nlohmann::json& settings);
    void StopContinuousRun();
    // The service is stopping: ends a run and refuses new ones.
    void Shutdown() {
        _shut_down = true;
        StopContinuousRun();
    }
    bool SetLogPortStatus(bool checked);
    nlohmann::json get_ltssm_states();
    nlohmann::json counts() { return _panel->counts(); }
    std::string message() { return _panel->message(); }
    bool is_running() const { return _panel->running || _panel->timer_active(); }
    void clear_log_lines() { _panel->take_log(); }
    // Where the run's pushes go (the web server's broadcast in the service).
    void set_push(std::function<void(const nlohmann::json&)> push) { _push = std::move(push); }
    CPCIEPortStatusInterface& panel() { return *_panel; }

private:
    void _start_continuous_run(const nlohmann::json& settings);

    std::shared_ptr<CPCIEPortStatusInterface> _panel;
    std::function<void(const nlohmann::json&)> _push;
    bool _sec_bus_reset = false;
    std::atomic<bool> _shut_down{false};
};
