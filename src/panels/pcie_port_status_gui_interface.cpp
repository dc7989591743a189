#include "panels/pcie_port_status_gui_interface.h"

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "discovery/ltssm_state.h"
#include "discovery/pci_capability.h"
#include "hardware/os_specific.h"
#include "hardware/system_facts.h"

using nlohmann::json;

const IntervalChoice kPortStatusIntervals[9] = {{"5 s", 5000},      {"4 s", 4000},      {"3 s", 3000},
                                                {"2 s", 2000},      {"1 s", 1000},      {"750 msec", 750},
                                                {"500 msec", 500},  {"300 msec", 300},  {"50 msec", 50}};

namespace {

constexpr unsigned kSleepSlice = 50;  // a timer's wait is cut in slices so a stop is seen soon

// A register's bit fields: name, low bit, high bit, and how to show the value.
struct Field {
    const char* name;
    unsigned low, high;
    enum Kind { flag, number, speed, width } kind = flag;
};

const std::vector<Field> kPciStatusFields = {
    {"Interrupt Status", 3, 3}, {"Capabilities List", 4, 4}, {"Master Data Parity Error", 8, 8},
    {"Signaled Target Abort", 11, 11}, {"Received Target Abort", 12, 12}, {"Received Master Abort", 13, 13},
    {"Signaled System Error", 14, 14}, {"Detected Parity Error", 15, 15},
    {"Capability Version", 16, 19, Field::number}, {"Device/Port Type", 20, 23, Field::number},
    {"Slot Implemented", 24, 24}, {"Interrupt Message Number", 25, 29, Field::number}};
const std::vector<Field> kDeviceStatusFields = {
    {"Correctable Error Detected", 0, 0}, {"Non-Fatal Error Detected", 1, 1}, {"Fatal Error Detected", 2, 2},
    {"Unsupported Request Detected", 3, 3}, {"AUX Power Detected", 4, 4}, {"Transactions Pending", 5, 5},
    {"Emergency Power Reduction Detected", 6, 6}};
const std::vector<Field> kLinkStatusFields = {
    {"Current Link Speed", 0, 3, Field::speed}, {"Negotiated Link Width", 4, 9, Field::width},
    {"Link Training", 11, 11}, {"Slot Clock Configuration", 12, 12}, {"Data Link Layer Link Active", 13, 13},
    {"Link Bandwidth Management Status", 14, 14}, {"Link Autonomous Bandwidth Status", 15, 15}};
const std::vector<Field> kSlotStatusFields = {
    {"Attention Button Pressed", 0, 0}, {"Power Fault Detected", 1, 1}, {"MRL Sensor Changed", 2, 2},
    {"Presence Detect Changed", 3, 3}, {"Command Completed", 4, 4}, {"MRL Sensor State", 5, 5},
    {"Presence Detect State", 6, 6}, {"Electromechanical Interlock Status", 7, 7},
    {"Data Link Layer State Changed", 8, 8}};
const std::vector<Field> kRootStatusFields = {
    {"PME Requester ID", 0, 15, Field::number}, {"PME Status", 16, 16}, {"PME Pending", 17, 17}};
const std::vector<Field> kUncorrFields = {
    {"Data Link Protocol Error", 4, 4}, {"Surprise Down Error", 5, 5}, {"Poisoned TLP Received", 12, 12},
    {"Flow Control Protocol Error", 13, 13}, {"Completion Timeout", 14, 14}, {"Completer Abort", 15, 15},
    {"Unexpected Completion", 16, 16}, {"Receiver Overflow", 17, 17}, {"Malformed TLP", 18, 18},
    {"ECRC Error", 19, 19}, {"Unsupported Request Error", 20, 20}, {"ACS Violation", 21, 21},
    {"Uncorrectable Internal Error", 22, 22}, {"MC Blocked TLP", 23, 23}, {"AtomicOp Egress Blocked", 24, 24},
    {"TLP Prefix Blocked Error", 25, 25}, {"Poisoned TLP Egress Blocked", 26, 26}};
const std::vector<Field> kCorrFields = {
    {"Receiver Error", 0, 0}, {"Bad TLP", 6, 6}, {"Bad DLLP", 7, 7}, {"REPLAY_NUM Rollover", 8, 8},
    {"Replay Timer Timeout", 12, 12}, {"Advisory Non-Fatal Error", 13, 13}, {"Corrected Internal Error", 14, 14},
    {"Header Log Overflow", 15, 15}};
const std::vector<Field> kRootErrFields = {
    {"ERR_COR Received", 0, 0}, {"Multiple ERR_COR Received", 1, 1}, {"ERR_FATAL/NONFATAL Received", 2, 2},
    {"Multiple ERR_FATAL/NONFATAL Received", 3, 3}, {"First Uncorrectable Fatal", 4, 4},
    {"Non-Fatal Error Messages Received", 5, 5}, {"Fatal Error Messages Received", 6, 6},
    {"Advanced Error Interrupt Message Number", 27, 31, Field::number}};

std::string hex(unsigned value) {
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

PORT_STATUS_OUTPUT decode(const char* name, const std::vector<Field>& fields, bool ok, unsigned value) {
    PORT_STATUS_OUTPUT out;
    out.name = name;
    out.valid = ok;
    out.value = value;
    if (!ok) {
        out.label = std::string(name) + " READ ERROR !!";
        return out;
    }
    out.label = std::string(name) + " (" + hex(value) + ")";
    for (const Field& f : fields) {
        const unsigned width = f.high - f.low + 1;
        const unsigned v = (value >> f.low) & (width >= 32 ? 0xFFFFFFFFu : (1u << width) - 1);
        std::string text;
        if (f.kind == Field::flag) text = v ? "Set" : "";
        else if (f.kind == Field::speed) text = v >= 1 && v <= 5 ? speed_text(static_cast<int>(v) - 1) : "Unknown";
        else if (f.kind == Field::width) text = v ? "x" + std::to_string(v) : "";
        else text = hex(v);
        const std::string bits = f.low == f.high ? std::to_string(f.low) : std::to_string(f.high) + ":" + std::to_string(f.low);
        out.rows.push_back({{"field", f.name}, {"bits", bits}, {"value", v}, {"text", text}});
    }
    return out;
}

PORT_STATUS_OUTPUT not_available(const char* name) {
    PORT_STATUS_OUTPUT out;
    out.name = name;
    out.label = std::string(name) + " (N/A)";
    return out;
}

std::string clock_text(const char* format) {
    const std::time_t now = std::chrono::system_clock::to_time_t(system_facts().now());
    std::tm parts{};
    localtime_r(&now, &parts);
    char text[64] = {};
    std::strftime(text, sizeof text, format, &parts);
    return text;
}

const char* mode_name(int mode) {
    static const char* names[] = {"Disable/Enable", "Sec. Bus Reset", "Retrain", "Preset"};
    return mode >= 0 && mode < 4 ? names[mode] : "";
}

}  // namespace

std::string PortLinkStatus::text() const {
    if (!up) return "Link Down";
    return speed_text(speed) + " x" + std::to_string(width);
}

// --- PCIETimer ----------------------------------------------------------------

void PCIETimer::startFunc(unsigned interval_ms) {
    stopFunc();
    _interval = interval_ms;
    _active = true;
    _thread = std::thread([this] { loopFunction(); });
}

void PCIETimer::loopFunction() {
    WaitScope waiting;  // each tick checks what the one before it started
    while (_active) {
        for (unsigned waited = 0; _active && waited < _interval; waited += kSleepSlice)
            OSSpecific().milli_secs_sleep(std::min(kSleepSlice, _interval - waited));
        if (!_active) break;
        try {
            _function();
        } catch (const std::exception& e) {
            std::cerr << "PCIETimer: " << e.what() << std::endl;
        }
    }
}

void PCIETimer::stopFunc() {
    _active = false;
    if (_thread.joinable() && _thread.get_id() != std::this_thread::get_id()) _thread.join();
}

// --- CPCIEPortStatusInterface ---------------------------------------------------

CPCIEPortStatusInterface::CPCIEPortStatusInterface(PanelMachineSource machine, std::string report_folder)
    : _source(std::move(machine)), _report_folder(std::move(report_folder)) {}

CPCIEPortStatusInterface::~CPCIEPortStatusInterface() {
    running = false;
    if (_timer) _timer->stopFunc();
    if (_claimed && _link) release_link_port(_link->port().device);
}

void CPCIEPortStatusInterface::Detect() {
    std::lock_guard<std::mutex> lock(_detect_mutex);
    if (_machine || !_source) return;
    _machine = _source();
    if (!_machine || !_machine->read) {
        _machine.reset();
        return;
    }
    PortMapData maps;
    try {
        maps = get_all_port_data(_machine->dies, _machine->devices, _machine->read);
    } catch (const std::exception&) {
    }
    _ports = detect_link_ports(*_machine, maps);
    if (!_ports.empty()) on_PortSelect_currentIndexChanged(0);
}

void CPCIEPortStatusInterface::on_PortSelect_currentIndexChanged(int index) {
    std::lock_guard<std::recursive_mutex> select(_select_mutex);
    if (running || timer_active()) return;
    if (index < 0 || static_cast<size_t>(index) >= _ports.size()) {
        _selected = -1;
        _link.reset();
        return;
    }
    _selected = index;
    _link = std::make_shared<CPCIELink>(_ports[index], _machine->read, _machine->write);
    const int max = _link->GetLinkPartnerMaxSpeed();
    retrain_speed = max == PCIE_SPEED_UNKNOWN ? 0 : max;
    _have_last = false;
    Update();
}

void CPCIEPortStatusInterface::_read_groups(std::vector<PORT_STATUS_OUTPUT>& out) {
    out.clear();
    const PCIDeviceDetails& d = _link->port().device;
    ReadPCI& read = *_machine->read;
    auto r = [&](unsigned offset, unsigned width, unsigned& value) {
        value = 0;
        if (width == 2) read.read16(d.segment, d.bus, d.device, d.function, offset, value);
        else read.read32(d.segment, d.bus, d.device, d.function, offset, value);
        return value != (width == 2 ? 0xFFFFu : 0xFFFFFFFFu);
    };
    const unsigned p = _link->pcie_cap();
    // Each register is read before it is decoded (argument order is unspecified).
    auto group = [&](const char* name, const std::vector<Field>& fields, unsigned offset, unsigned width) {
        unsigned value = 0;
        const bool ok = r(offset, width, value);
        out.push_back(decode(name, fields, ok, value));
    };
    unsigned status = 0, caps = 0;
    const bool ok = p && r(0x06, 2, status) && r(p + 0x02, 2, caps);
    out.push_back(decode("PCIE_STATUS", kPciStatusFields, ok, status | caps << 16));
    if (p) {
        group("DEVICE_STATUS", kDeviceStatusFields, p + 0x0A, 2);
        group("LINK_STATUS", kLinkStatusFields, p + 0x12, 2);
        group("SLOT_STATUS", kSlotStatusFields, p + 0x1A, 2);
        group("ROOT_STATUS", kRootStatusFields, p + 0x20, 4);
    } else {
        for (const auto* name : {"DEVICE_STATUS", "LINK_STATUS", "SLOT_STATUS", "ROOT_STATUS"})
            out.push_back(decode(name, {}, false, 0));
    }
    unsigned aer = 0;
    std::string error;
    if (PCIE::DetectThisPCIEExtendedCapability(PCIE::Device_ID(d), read)
            .detect(PCIE::ADVANCED_ERROR_REPORTING, aer, error)) {
        group("PCIE_UNCORR_ERR_STATUS", kUncorrFields, aer + 0x04, 4);
        group("PCIE_CORR_ERR_STATUS", kCorrFields, aer + 0x10, 4);
        group("PCIE_ROOT_ERR_STATUS", kRootErrFields, aer + 0x30, 4);
    } else {
        for (const char* name : {"PCIE_UNCORR_ERR_STATUS", "PCIE_CORR_ERR_STATUS", "PCIE_ROOT_ERR_STATUS"})
            out.push_back(not_available(name));
    }
}

void CPCIEPortStatusInterface::Update() {
    std::lock_guard<std::recursive_mutex> select(_select_mutex);
    if (_selected < 0 || !_link) return;
    std::ofstream file;
    if (_log_to_file) {
        file.open("PCIEPortStatus.log", std::ios::app);
        const std::time_t now = std::chrono::system_clock::to_time_t(system_facts().now());
        file << "\t\t\tPCIE Port Status Registers  " << std::ctime(&now) << "  " << _link->port().name << "\n";
    }
    std::vector<PORT_STATUS_OUTPUT> local;
    _read_groups(local);
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _groups = local;
    }
    if (file.is_open()) {
        for (const auto& g : local) file << g.label << "\n";
        file << "\n\n\n\n";
    }
}

std::vector<PORT_STATUS_OUTPUT> CPCIEPortStatusInterface::groups() {
    std::lock_guard<std::mutex> lock(_mutex);
    return _groups;
}

std::string CPCIEPortStatusInterface::take_log() {
    std::lock_guard<std::mutex> lock(_mutex);
    std::string text;
    text.swap(_log_text);
    return text;
}

std::string CPCIEPortStatusInterface::message() {
    std::lock_guard<std::mutex> lock(_mutex);
    return _message;
}

json CPCIEPortStatusInterface::counts() {
    return {{"loopCount", loop_count.load()},      {"successCount", _success.load()},
            {"failureCount", _failure.load()},     {"linkStatusMismatchFail", _mismatch.load()},
            {"unstableGenFail", _unstable.load()}, {"presetValueMismatchFail", _preset_mismatch.load()},
            {"aerErrorFail", _aer_fail.load()},    {"maxWaitFail", _max_wait.load()},
            {"running", running || timer_active()}};
}

bool CPCIEPortStatusInterface::on_AdvErrorEnabled_clicked(bool checked) {
    bool ok = false;
    if (_link && _link->pcie_cap()) {
        const PCIDeviceDetails& d = _link->port().device;
        unsigned control = 0;
        const unsigned at = _link->pcie_cap() + 0x08;
        _machine->read->read16(d.segment, d.bus, d.device, d.function, at, control);
        // Correctable, non-fatal, fatal and unsupported request reporting.
        control = checked ? control | 0xF : control & ~0xFu;
        _machine->write->write16(d.segment, d.bus, d.device, d.function, at, control);
        unsigned check = 0;
        _machine->read->read16(d.segment, d.bus, d.device, d.function, at, check);
        ok = (check & 0xF) == (checked ? 0xFu : 0u);
    }
    std::lock_guard<std::mutex> lock(_mutex);
    _message = ok ? "advErrorEnabled Succeed." : "advErrorEnabled Failed.";
    return ok;
}

bool CPCIEPortStatusInterface::error_reporting_enabled() {
    if (!_link || !_link->pcie_cap()) return false;
    const PCIDeviceDetails& d = _link->port().device;
    unsigned control = 0;
    _machine->read->read16(d.segment, d.bus, d.device, d.function, _link->pcie_cap() + 0x08, control);
    return control != 0xFFFF && (control & 0xF) == 0xF;
}

bool CPCIEPortStatusInterface::on_LinkDisable_clicked(bool checked) {
    std::string error;
    const bool ok = _link && _link->SetLinkDisable(checked, error);
    std::lock_guard<std::mutex> lock(_mutex);
    _message = checked ? (ok ? "Link Disable Succeed." : "Link Disable Failed.")
                       : (ok ? "Link Enable Succeed." : "Link Enable Failed.");
    return ok;
}

bool CPCIEPortStatusInterface::on_ClearAdvErrors_clicked() {
    bool ok = false;
    if (_link) {
        const PCIDeviceDetails& d = _link->port().device;
        unsigned aer = 0;
        std::string error;
        if (PCIE::DetectThisPCIEExtendedCapability(PCIE::Device_ID(d), *_machine->read)
                .detect(PCIE::ADVANCED_ERROR_REPORTING, aer, error)) {
            for (unsigned offset : {0x04u, 0x10u, 0x30u}) {
                unsigned value = 0;
                _machine->read->read32(d.segment, d.bus, d.device, d.function, aer + offset, value);
                _machine->write->write32(d.segment, d.bus, d.device, d.function, aer + offset, value);
            }
            if (_link->pcie_cap())
                _machine->write->write16(d.segment, d.bus, d.device, d.function, _link->pcie_cap() + 0x0A, 0xF);
            ok = true;
        }
    }
    std::lock_guard<std::mutex> lock(_mutex);
    _message = ok ? "Clear Adv. Error Registers Succeed." : "Clear Adv. Error Registers Failed.";
    return ok;
}

bool CPCIEPortStatusInterface::on_SecBusReset_clicked(bool checked) {
    std::string error;
    const bool ok = _link && _link->SetSecondaryBusReset(checked, error);
    std::lock_guard<std::mutex> lock(_mutex);
    _message = ok ? "Sec. Bus Reset Succeed." : "Sec. Bus Reset Failed.";
    return ok;
}

void CPCIEPortStatusInterface::on_ContinuousRunMaxWait_currentIndexChanged(int index) {
    if (index >= 0 && index < 9) max_wait_index = index;
}

void CPCIEPortStatusInterface::on_ContinuousRunInterval_currentIndexChanged(int index) {
    if (index >= 0 && index < 9) interval_index = index;
}

PortLinkStatus CPCIEPortStatusInterface::GetLinkStatus() {
    PortLinkStatus status;
    if (!_link) return status;
    int speed = PCIE_SPEED_UNKNOWN;
    unsigned width = 0;
    status.up = _link->GetPCIELinkSpeed(speed) && _link->GetLinkWidth(width);
    if (status.up) {
        status.speed = speed;
        status.width = width;
    }
    return status;
}

std::vector<std::string> CPCIEPortStatusInterface::GetLCState() {
    std::lock_guard<std::recursive_mutex> select(_select_mutex);
    if (!_link || !_link->port().platform_port) return {};
    try {
        return GetCurrentLTSSMState().get_full_lc_state_list(_link->port().die, _link->port().core,
                                                             _link->port().function_index);
    } catch (const std::exception&) {
        return {};
    }
}

void CPCIEPortStatusInterface::appendCurrentStatus(const std::string& text) {
    const std::string line = clock_text("%H:%M:%S") + ", " + text;
    _log(line);
}

void CPCIEPortStatusInterface::_log(const std::string& text) {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _log_text += text;
        if (text.empty() || text.back() != '\n') _log_text += "\n";
    }
    if (!_report_file.empty()) {
        std::ofstream file(_report_file, std::ios::app);
        file << text << (text.empty() || text.back() != '\n' ? "\n" : "");
    }
}

void CPCIEPortStatusInterface::_fail(const std::string& text, std::atomic<unsigned>& cause) {
    ++cause;
    ++_failure;
    appendCurrentStatus(text);
    if (stop_on_error) failure_seen = true;
}

unsigned CPCIEPortStatusInterface::_aer_status() {
    std::vector<PORT_STATUS_OUTPUT> local;
    _read_groups(local);
    unsigned combined = 0;
    for (size_t i = 5; i < local.size(); ++i)
        if (local[i].valid) combined |= local[i].value;
    return combined;
}

bool CPCIEPortStatusInterface::on_ContinuousRun_toggled(bool on) {
    if (!on) {
        if (_timer) _timer->stopFunc();
        running = false;
        if (failure_seen) _log("Warning: Loop Stopped due to occurrence of failure..");
        if (_claimed && _link) _restore_link();
        std::ostringstream summary;
        summary << "Summary: LoopCount=" << loop_count << ", SuccessLoopCount=" << _success
                << ", FailureLoopCount=" << _failure << " [linkStatusMismatchFail=" << _mismatch
                << ", UnstableGenFail=" << _unstable << ", PresetValueMismatchFail=" << _preset_mismatch << "]";
        _log(summary.str());
        if (_claimed && _link) release_link_port(_link->port().device);
        _claimed = false;
        _report_file.clear();
        return true;
    }
    if (timer_active()) return true;
    for (auto* counter : {&_success, &_failure, &_mismatch, &_unstable, &_preset_mismatch, &_aer_fail, &_max_wait})
        *counter = 0;
    loop_count = 0;
    _waited = 0;
    _have_last = false;
    failure_seen = false;
    stop_request = false;
    if (!_link) {
        _log("Error : No port is selected.");
        return false;
    }
    const int mode = mode_index();
    std::error_code ec;
    std::filesystem::create_directories(_report_folder, ec);
    std::filesystem::permissions(_report_folder, std::filesystem::perms::all, ec);
    const std::string stamp = clock_text("%Y%m%d_%H%M%S");
    _log("Test Start Time: " + stamp);
    _log("PCIE: " + _link->port().name);
    _log(std::string("Test: ") + (mode == 3 ? "Preset" : mode == 2 ? "Retrain" : mode == 1 ? "Sec. Bus Reset" : "Disable/Enable"));
    const PCIDeviceDetails& d = _link->port().device;
    std::ostringstream file;
    file << (mode == 3 ? "Preset_" : mode == 2 ? "Retrain_" : mode == 1 ? "SBR_" : "LinkDisableEnable_") << "B"
         << d.bus << "_D" << d.device << "_F" << d.function << "_" << stamp << ".txt";
    _report_file = (std::filesystem::path(_report_folder) / file.str()).string();
    _start_status = GetLinkStatus();
    _log(std::string("\nLooping Interval: ") + kPortStatusIntervals[interval_index].label);
    _log("\nOriginal Link Status: " + _start_status.text());
    const std::string hint = "\n\nHint: Please Enable the Link to valid Max Speed/Width and start the test.";
    const int max = _link->GetLinkPartnerMaxSpeed();
    std::string refusal;
    if (mode < 0) refusal = "Error : No loop mode is selected.";
    else if (mode == 3) refusal = "Error : Preset loop is not supported on this port.";
    else if (!_start_status.up) refusal = "Error : Link seems Default Disabled." + hint;
    else if (_start_status.speed == PCIE_SPEED_UNKNOWN || _start_status.width == 0)
        refusal = "Error : Link seems Default not Enabled with Proper Speed/Width." + hint;
    else if (_start_status.speed != max)
        refusal = "Error : Link seems Default not Enabled with Max Speed:" + speed_text(max) + " [CurrentSpeed:" +
                  speed_text(_start_status.speed) + "]." + hint;
    else if (!claim_link_port(d))
        refusal = "Error : Another run is using this port.";
    if (!refusal.empty()) {
        _log(refusal);
        _report_file.clear();
        running = false;
        return false;
    }
    _claimed = true;
    _machine->read->read16(d.segment, d.bus, d.device, d.function, _link->pcie_cap() + 0x30, _start_control2);
    _start_aer = _aer_status();
    if (!_timer) _timer = std::make_unique<PCIETimer>([this] { TimerInterfaceUpdate(); }, kPortStatusIntervals[interval_index].ms);
    _timer->startFunc(kPortStatusIntervals[interval_index].ms);
    return true;
}

// A run that ends leaves the link as it found it: the half of a loop it
// stopped in is undone, the target speed put back, and the link waited for
// up to the max wait, so whoever reads it next finds it up. A link that
// doesn't come back is named in the log.
void CPCIEPortStatusInterface::_restore_link() {
    WaitScope waiting;
    std::string error;
    if (_mode_disable && _link->IsLinkDisabled() && _link->SetLinkDisable(false, error))
        appendCurrentStatus("Link enabled again at the end of the loop");
    if (_mode_reset && _link->SetSecondaryBusReset(false, error) && !_link->IsLinkUp())
        appendCurrentStatus("Secondary bus reset released at the end of the loop");
    if (_mode_retrain) {
        const PCIDeviceDetails& d = _link->port().device;
        unsigned control2 = 0;
        _machine->read->read16(d.segment, d.bus, d.device, d.function, _link->pcie_cap() + 0x30, control2);
        if ((control2 & 0xF) != (_start_control2 & 0xF)) {
            _machine->write->write16(d.segment, d.bus, d.device, d.function, _link->pcie_cap() + 0x30,
                                     (control2 & ~0xFu) | (_start_control2 & 0xF));
            if (!(GetLinkStatus() == _start_status)) _link->PCIeLinkRetrain(error);
        }
    }
    const unsigned limit = kPortStatusIntervals[max_wait_index].ms;
    PortLinkStatus status = GetLinkStatus();
    for (unsigned waited = 0; !(status == _start_status) && waited < limit; waited += 10) {
        OSSpecific().milli_secs_sleep(10);
        status = GetLinkStatus();
    }
    if (!(status == _start_status))
        _log("Warning : The link is not back as the test found it after " +
             std::string(kPortStatusIntervals[max_wait_index].label) + ": Current Link Status:" + status.text() +
             " [ TestStart Link Status:" + _start_status.text() + " ]");
}

void CPCIEPortStatusInterface::TimerInterfaceUpdate() {
    if (running && loop_limit && mode_on() && loop_count >= loop_limit) {
        running = false;
        return;
    }
    if (running && stop_on_error && _failure > 0) {
        running = false;
        return;
    }
    if (!running || failure_seen || stop_request) return;
    const unsigned aer = _aer_status();
    if (stop_on_aer_error && (aer & ~_start_aer)) {
        ++_aer_fail;
        ++_failure;
        appendCurrentStatus("Error:[AER Error]: new advanced error status " + hex(aer & ~_start_aer) + "\n");
        failure_seen = true;
        return;
    }
    _check_toggle(false);
    _check_toggle(true);
    _check_retrain();
    ++loop_count;
    Update();
}

void CPCIEPortStatusInterface::_check_toggle(bool reset_mode) {
    if (reset_mode ? !_mode_reset : !_mode_disable) return;
    const unsigned interval = kPortStatusIntervals[interval_index].ms;
    const PortLinkStatus status = GetLinkStatus();
    _waited += interval;
    std::string line = "Loop:" + std::to_string(loop_count + 1);
    if (!_have_last || !(status == _last_status)) {
        _waited = 0;
        line += ", Current Link Status:" + status.text();
    }
    _last_status = status;
    _have_last = true;
    if (status.up) {
        if (status == _start_status) {
            ++_success;
        } else {
            appendCurrentStatus(line);
            _fail("Error:[Link Status Mismatch]: Current Link Status:" + status.text() +
                      " [ TestStart Link Status:" + _start_status.text() + " ]\n",
                  _mismatch);
            line = "Loop:" + std::to_string(loop_count + 1);
        }
        line += reset_mode ? ", Reset Disabling.." : ", Disabling..";
        std::string error;
        reset_mode ? _link->SetSecondaryBusReset(true, error) : _link->SetLinkDisable(true, error);
    } else {
        line += reset_mode ? ", Link will Reset back after sleep of 200msec.." : ", Link will be Enabled after sleep of 200msec..";
        OSSpecific().milli_secs_sleep(200);
        std::string error;
        reset_mode ? _link->SetSecondaryBusReset(false, error) : _link->SetLinkDisable(false, error);
        line += std::string(reset_mode ? ", Reset completed.., Wait for " : ", Enabled.., Wait for ") +
                kPortStatusIntervals[interval_index].label;
    }
    appendCurrentStatus(line);
    if (_waited > kPortStatusIntervals[max_wait_index].ms) {
        ++_max_wait;
        ++_failure;
        _log(reset_mode ? "Error : Failed to Reset in loop and it hit MaxWait Time, hence Stopping the test\n"
                        : "Error : Failed to Disable/Enable in loop and it hit MaxWait Time, hence Stopping the test\n");
        failure_seen = true;
    }
}

void CPCIEPortStatusInterface::_check_retrain() {
    if (!_mode_retrain) return;
    const PortLinkStatus status = GetLinkStatus();
    unsigned control2 = 0;
    const PCIDeviceDetails& d = _link->port().device;
    _machine->read->read16(d.segment, d.bus, d.device, d.function, _link->pcie_cap() + 0x30, control2);
    std::ostringstream line;
    line << "Loop:" << loop_count + 1 << ", LC_DATA_RATE_ADVERTISED:" << speed_text(static_cast<int>(control2 & 0xF) - 1)
         << ", LINK_STATUS:" << (status.up ? "Up" : "Down") << ", CURRENT_LINK_SPEED: " << speed_text(status.speed)
         << ", NEGOTIATED_LINK_WIDTH:x" << status.width;
    appendCurrentStatus(line.str());
    bool good = true;
    if (!(status == _start_status)) {
        _fail("Error:[Link Status Mismatch]: Current Link Status:" + status.text() + " [ TestStart Link Status:" +
                  _start_status.text() + " ]\n",
              _mismatch);
        good = false;
    } else if (status.speed != retrain_speed) {
        _fail("Error:[Link Speed Mismatch]: Current Link Speed:" + speed_text(status.speed) + " [ Requested Speed:" +
                  speed_text(retrain_speed) + " ]\n",
              _mismatch);
        good = false;
    }
    if (good) ++_success;
    // Target speed only, then retrain; the next tick checks the result.
    _machine->write->write16(d.segment, d.bus, d.device, d.function, _link->pcie_cap() + 0x30,
                             (control2 & ~0xFu) | static_cast<unsigned>(retrain_speed + 1));
    std::string error;
    _link->PCIeLinkRetrain(error);
    appendCurrentStatus(", SetLinkSpeed TARGET_LINK_SPEED to " + speed_text(retrain_speed) +
                        " and RETRAIN_LINK to 1.., Wait for " + kPortStatusIntervals[interval_index].label);
}

// --- PCIEPortStatusGUIInterface ---------------------------------------------------

PCIEPortStatusGUIInterface::PCIEPortStatusGUIInterface(PanelMachineSource machine, std::string report_folder)
    : _panel(std::make_shared<CPCIEPortStatusInterface>(std::move(machine), std::move(report_folder))) {}

json PCIEPortStatusGUIInterface::GetPCIEPortInfo() {
    _panel->Detect();
    json values = json::array();
    for (const LinkPort& port : _panel->ports()) values.push_back(port.name);
    json states = json::array();
    for (const std::string& state : _panel->GetLCState()) states.push_back(state);
    return {{"selectedIndex", _panel->selected()},
            {"allLCStates", states},
            {"portSelection", {{"label", "Port Selection"}, {"enabled", !is_running()}, {"values", values}}},
            {"counts", _panel->counts()},
            {"message", _panel->message()}};
}

json PCIEPortStatusGUIInterface::OnPortSelectCurrentIndexChanged(int index) {
    _panel->Detect();
    if (!is_running()) _panel->on_PortSelect_currentIndexChanged(index);
    json answer = json::object();
    GetRegistersInfo(answer["portStatusRegister"]);
    GetPortStatusControlOptions(answer);
    GetContLoopSettingsInfo(answer["contLoopSettings"]);
    answer["allLCStates"] = get_ltssm_states();
    return answer;
}

void PCIEPortStatusGUIInterface::GetRegistersInfo(json& registers) {
    _panel->Detect();
    _panel->Update();
    registers = json::object();
    static const char* keys[] = {"pcieStatus", "deviceStatus", "linkStatus", "slotStatus",
                                 "rootStatus", "pcieUncorrErrStatus", "pcieCorrErrStatus", "pcieRootErrStatus"};
    const auto groups = _panel->groups();
    for (size_t i = 0; i < groups.size() && i < 8; ++i) {
        const PORT_STATUS_OUTPUT& g = groups[i];
        registers[keys[i]] = {{"label", g.label}, {"name", g.name}, {"value", g.valid ? json(g.value) : json(nullptr)},
                              {"rows", g.rows}};
    }
}

json PCIEPortStatusGUIInterface::GetPortStatusRegisterInfo() {
    json registers;
    GetRegistersInfo(registers);
    return registers;
}

void PCIEPortStatusGUIInterface::GetPortStatusControlOptions(json& document) {
    _panel->Detect();
    const bool enabled = _panel->selected() >= 0 && !is_running();
    auto link = _panel->selected_link();
    const bool disabled = link && link->IsLinkDisabled();
    document["advErrorEnabled"] = {{"label", "Adv. Error Enabled"}, {"enabled", enabled},
                                   {"checked", _panel->error_reporting_enabled()}};
    document["linkDisable"] = {{"label", "Link Disable"}, {"enabled", enabled}, {"checked", disabled}};
    document["secBusReset"] = {{"label", "Sec. Bus Reset"}, {"enabled", enabled}, {"checked", _sec_bus_reset}};
}

void PCIEPortStatusGUIInterface::GetSettingsSelectionInfo(json& settings) {
    const int mode = _panel->mode_index();
    json status = json::array();
    int i = 0;
    for (const char* label : {"Disable/Enable", "Sec. Bus Reset", "Retrain"})
        status.push_back({{"label", label}, {"checked", mode == i++ || (mode < 0 && i == 1)}, {"enabled", !is_running()}});
    settings = {{"label", "Loop Mode"}, {"selectedIndex", mode < 0 ? 0 : mode}, {"status", status}};
}

void PCIEPortStatusGUIInterface::GetContRunIntervalsInfo(json& settings) {
    json values = json::array();
    for (const auto& choice : kPortStatusIntervals) values.push_back(choice.label);
    settings = {{"label", "Continuous Run"}, {"enabled", !is_running()}, {"checked", is_running()},
                {"selectedIndex", _panel->interval_index}, {"values", values}};
}

void PCIEPortStatusGUIInterface::GetRetrainLinkSpeedInfo(json& settings) {
    json values = json::array();
    auto link = _panel->selected_link();
    const int max = link ? link->GetLinkPartnerMaxSpeed() : PCIE_GEN5;
    for (int speed = 0; speed <= (max == PCIE_SPEED_UNKNOWN ? PCIE_GEN5 : max); ++speed)
        values.push_back(speed_choice_text(speed));
    settings = {{"label", "Retrain Speed"}, {"enabled", !is_running()}, {"selectedIndex", _panel->retrain_speed},
                {"values", values}};
}

void PCIEPortStatusGUIInterface::GetContLoopSettingsInfo(json& settings) {
    _panel->Detect();
    settings = json::object();
    settings["label"] = "Continuous Loop Setting";
    settings["enabled"] = _panel->selected() >= 0 && !is_running();
    GetSettingsSelectionInfo(settings["settingsSelection"]);
    GetContRunIntervalsInfo(settings["continuousRun"]);
    GetRetrainLinkSpeedInfo(settings["retrainSpeed"]);
    json values = settings["continuousRun"]["values"];
    settings["maxWait"] = {{"label", "Max Wait"}, {"enabled", !is_running()}, {"selectedIndex", _panel->max_wait_index},
                           {"values", values}};
    settings["stopOnError"] = {{"label", "Stop on Error"}, {"checked", _panel->stop_on_error}};
    settings["stopOnAERError"] = {{"label", "Stop on AER Error"}, {"checked", _panel->stop_on_aer_error}};
    const unsigned limit = _panel->loop_limit;
    settings["loopCount"] = {{"label", "Loop Count"}, {"value", limit == 0x0FFFFFFF ? 0u : limit}};
}

void PCIEPortStatusGUIInterface::SetPortStatus(json& setting) {
    if (!setting.is_object()) return;
    json copy = json::object();
    for (const char* key : {"label", "checked", "status"})
        if (setting.contains(key)) copy[key] = setting[key];
    setting = copy;
}

void PCIEPortStatusGUIInterface::OnAdvErrorEnabledClicked(bool checked) {
    _panel->Detect();
    if (is_running()) return;
    _panel->on_AdvErrorEnabled_clicked(checked);
}

void PCIEPortStatusGUIInterface::OnLinkDisableClicked(bool checked) {
    _panel->Detect();
    if (is_running()) return;
    _panel->on_LinkDisable_clicked(checked);
}

bool PCIEPortStatusGUIInterface::OnSecBusResetClicked(bool checked) {
    _panel->Detect();
    if (is_running()) return false;
    const bool ok = _panel->on_SecBusReset_clicked(checked);
    if (ok) _sec_bus_reset = checked;
    return ok;
}

void PCIEPortStatusGUIInterface::OnClearAdvErrosClicked() {
    _panel->Detect();
    _panel->on_ClearAdvErrors_clicked();
}

void PCIEPortStatusGUIInterface::StartContinuousRun(const json& settings) {
    // This runs on a thread of its own: nothing may escape it, and a run that
    // fails still ends with its link restored, its port released and its last push.
    try {
        _start_continuous_run(settings);
    } catch (const std::exception& e) {
        CPCIEPortStatusInterface& p = *_panel;
        p.appendCurrentStatus(std::string("Error : The loop ended unexpectedly: ") + e.what());
        if (p.timer_active() || p.running) p.on_ContinuousRun_toggled(false);
        p.running = false;
        if (_push)
            _push(json{{"key", "contRunPortStatusUpdates"},
                       {"contRunPortStatusUpdates", {{"logs", p.take_log()}, {"counts", p.counts()}}}});
    }
}

void PCIEPortStatusGUIInterface::_start_continuous_run(const json& settings) {
    _panel->Detect();
    CPCIEPortStatusInterface& p = *_panel;
    if (is_running() || _shut_down) return;
    p.running = true;
    auto int_at = [&](const char* key, const char* inner, int fallback) {
        if (settings.contains(key) && settings[key].is_object() && settings[key].contains(inner) &&
            settings[key][inner].is_number_integer())
            return settings[key][inner].get<int>();
        return fallback;
    };
    auto bool_at = [&](const char* key) {
        return settings.contains(key) && settings[key].is_object() && settings[key].contains("checked") &&
               settings[key]["checked"] == true;
    };
    p.on_LinkDisableInLoop_toggled(false);
    p.on_SecBusResetInLoop_toggled(false);
    p.on_LinkRetrainInLoop_toggled(false);
    p.on_LinkPresetInLoop_toggled(false);
    switch (int_at("settingsSelection", "selectedIndex", -1)) {
        case 0: p.on_LinkDisableInLoop_toggled(true); break;
        case 1: p.on_SecBusResetInLoop_toggled(true); break;
        case 2: p.on_LinkRetrainInLoop_toggled(true); break;
        case 3: p.on_LinkPresetInLoop_toggled(true); break;
        default: std::cout << "Wrong Port Settings" << std::endl;
    }
    const int speed_index = int_at("retrainSpeed", "selectedIndex", -1);
    if (speed_index >= 0 && settings["retrainSpeed"].contains("values") && settings["retrainSpeed"]["values"].is_array() &&
        static_cast<size_t>(speed_index) < settings["retrainSpeed"]["values"].size()) {
        const json& label = settings["retrainSpeed"]["values"][speed_index];
        for (int speed = 0; speed < 5; ++speed)
            if (label == speed_choice_text(speed)) p.retrain_speed = speed;
    }
    p.stop_on_error = bool_at("stopOnError");
    p.stop_on_aer_error = bool_at("stopOnAERError");
    p.on_ContinuousRunInterval_currentIndexChanged(int_at("continuousRun", "selectedIndex", p.interval_index));
    p.on_ContinuousRunMaxWait_currentIndexChanged(int_at("maxWait", "selectedIndex", p.max_wait_index));
    const int loops = int_at("loopCount", "value", 0);
    p.loop_limit = loops <= 0 ? 0x0FFFFFFF : static_cast<unsigned>(loops);

    auto send = [&] {
        if (!_push) return;
        json data = {{"portStatusRegister", GetPortStatusRegisterInfo()}, {"logs", p.take_log()}, {"counts", p.counts()}};
        _push(json{{"key", "contRunPortStatusUpdates"}, {"contRunPortStatusUpdates", data}});
    };
    if (!p.on_ContinuousRun_toggled(true)) {
        p.on_ContinuousRun_toggled(false);
        send();
        return;
    }
    unsigned last_count = 0;
    while (true) {
        OSSpecific().milli_secs_sleep(300);
        if (p.loop_count > last_count) {
            last_count = p.loop_count;
            send();
        }
        if (!p.running || p.failure_seen || p.stop_request) {
            p.on_ContinuousRun_toggled(false);
            send();  // the counts and the summary always go out
            return;
        }
    }
}

void PCIEPortStatusGUIInterface::StopContinuousRun() {
    _panel->stop_request = true;
    _panel->running = false;
}

bool PCIEPortStatusGUIInterface::SetLogPortStatus(bool checked) {
    _panel->on_LogPortStatus_clicked(checked);
    return true;
}

json PCIEPortStatusGUIInterface::get_ltssm_states() {
    json states = json::array();
    for (const std::string& state : _panel->GetLCState()) states.push_back(state);
    return states;
}
