#include "panels/pcie_link_control_gui_interface.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <fstream>
#include <iostream>
#include <sstream>

#include "discovery/ltssm_state.h"
#include "hardware/os_specific.h"
#include "hardware/resource_lock.h"
#include "hardware/system_facts.h"
#include "panels/pcie_port_status_gui_interface.h"

using nlohmann::json;

namespace {

const unsigned kWidths[] = {1, 2, 4, 8, 12, 16};
const char* kWidthLabels[] = {"x1", "x2", "x4", "x8", "x12", "x16"};
const char* kRetryChoices[] = {"1", "2", "3", "5", "10"};

std::string hex(unsigned value) {
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

std::string clock_text() {
    const std::time_t now = std::chrono::system_clock::to_time_t(system_facts().now());
    std::tm parts{};
    localtime_r(&now, &parts);
    char text[32] = {};
    std::strftime(text, sizeof text, "%H:%M:%S", &parts);
    return text;
}

unsigned width_from_label(const std::string& label) {
    for (size_t i = 0; i < 6; ++i)
        if (label == kWidthLabels[i]) return kWidths[i];
    return 0;
}

int speed_from_label(const std::string& label) {
    for (int speed = 0; speed < 5; ++speed)
        if (label == speed_choice_text(speed)) return speed;
    return -1;
}

std::string selected_value(const json& settings, const char* key) {
    if (settings.contains(key) && settings[key].is_object() && settings[key].contains("selectedValue") &&
        settings[key]["selectedValue"].is_string())
        return settings[key]["selectedValue"].get<std::string>();
    return "";
}

}  // namespace

// --- CPCIELinkControlInterface ---------------------------------------------------

void CPCIELinkControlInterface::Initialize() {
    std::lock_guard<std::recursive_mutex> lock(mutex);
    if (_initialized || !_source) return;
    NamedLockGuard guard("CPCIELinkControlInterfaceInit");
    _machine = _source();
    if (!_machine || !_machine->read) return;
    _initialized = true;
    PortMapData maps;
    try {
        maps = get_all_port_data(_machine->dies, _machine->devices, _machine->read);
    } catch (const std::exception&) {
    }
    // A link is changed from its downstream-facing end, with a device below it.
    for (const LinkPort& port : detect_link_ports(*_machine, maps)) {
        auto link = std::make_shared<CPCIELink>(port, _machine->read, _machine->write);
        if (!port.secondary_bus || !link->pcie_cap()) continue;
        _ports.push_back(port);
        _links.push_back(link);
    }
    if (_ports.size() != _links.size()) std::cout << "Error: Index mismatch in CPCIELinkControlInterface::Initialize" << std::endl;
    RefreshPortList();
}

json CPCIELinkControlInterface::row(size_t index) {
    const auto& link = _links.at(index);
    const LinkPort& port = link->port();
    const PCIDeviceDetails& d = port.device;
    int speed = PCIE_SPEED_UNKNOWN;
    unsigned lanes = 0;
    const bool up = link->GetPCIELinkSpeed(speed) && link->GetLinkWidth(lanes);
    std::ostringstream sbdf;
    sbdf << std::hex << d.segment << ":" << d.bus << ":" << d.device << "." << d.function;
    const std::string type = port.type.find("Root") != std::string::npos ? "VEX RootPort"
                             : port.type.find("VEX") != std::string::npos ? "VEX Downstream"
                                                                          : "Downstream";
    json r = {{"key", index},
              {"Name", port.name},
              {"SBDF", sbdf.str()},
              {"Type", port.platform_port || port.type == "VEX RootPort" ? "VEX RootPort" : type},
              {"Seg", std::to_string(d.segment)},
              {"Bn", hex(d.bus)},
              {"Dn", hex(d.device)},
              {"Fn", hex(d.function)},
              {"Sec Bn", hex(port.secondary_bus)},
              {"Sub Bn", hex(port.subordinate_bus)},
              {"Short Recfg", link->IsShortReconfigEnabled() ? "Yes" : "No"},
              {"Rand Req", "No"},
              {"Link Speed", up ? speed_text(speed) : "N/A"},
              {"Link Width", up ? "x" + std::to_string(lanes) : "N/A"},
              {"MaxSpeed", speed_text(link->GetLinkPartnerMaxSpeed())},
              {"MaxWidth", "x" + std::to_string(link->GetMaxLinkWidth())},
              {"LTSSM", port.platform_port ? GetCurrentLTSSMState().get_current_lc_state_val(port.die, port.core,
                                                                                               port.function_index)
                                           : ""}};
    for (size_t i = 0; i < 6; ++i)
        r[kWidthLabels[i]] = link->IsLinkWidthChangeSupported() &&
                                     link->IsLinkSupported(width_of_lanes(kWidths[i]))
                                 ? "Yes"
                                 : "No";
    return r;
}

void CPCIELinkControlInterface::RefreshPortList() {
    if (!log_status) return;
    std::ofstream file(status_file, std::ios::app);
    file << clock_text() << "\n";
    for (size_t i = 0; i < _links.size(); ++i) {
        const json r = row(i);
        char line[256];
        std::snprintf(line, sizeof line, "%-6s%-10s%-20s%-10s%-10s\n", r["Bn"].get<std::string>().c_str(),
                      r["Link Speed"].get<std::string>().c_str(), r["Type"].get<std::string>().c_str(),
                      r["Link Width"].get<std::string>().c_str(), r["SBDF"].get<std::string>().c_str());
        file << line;
    }
}

void CPCIELinkControlInterface::on_PortList_selected(int index) {
    std::lock_guard<std::recursive_mutex> lock(mutex);
    if (running) return;
    if (index < 0 || static_cast<size_t>(index) >= _links.size()) return;
    selected_port = index;
    current_speed = 9;
    speed_lower = 0;
    speed_upper = _links[index]->GetLinkPartnerMaxSpeed();
    if (speed_upper == PCIE_SPEED_UNKNOWN) speed_upper = 0;
    width_lower = 1;
    width_upper = _links[index]->GetMaxLinkWidth();
}

bool CPCIELinkControlInterface::OptionChanged(int index, bool checked) {
    std::lock_guard<std::recursive_mutex> lock(mutex);
    if (index == 0) speed_in_loop = checked;
    else if (index == 1) width_in_loop = checked;
    else {
        std::cout << "CPCIELinkControlWidget::on_OptionsChanged() - Item Index = " << index
                  << " unexpected. Please report to author." << std::endl;
        return false;
    }
    return true;
}

void CPCIELinkControlInterface::add_error(const std::string& text) {
    const std::string line = clock_text() + " " + text;
    errors.push_back(line);
    // An endless run keeps the newest errors only.
    if (errors.size() > 500) errors.erase(errors.begin(), errors.begin() + 100);
    log_text += line + "\n";
    if (log_errors) std::ofstream(error_file, std::ios::app) << line << "\n";
}

void CPCIELinkControlInterface::TimerPortControl() {
    std::lock_guard<std::recursive_mutex> lock(mutex);
    if (!running || selected_port < 0) return;
    log_text += "Loop Count : " + std::to_string(loop_count) + "\n";
    auto& link = _links[selected_port];
    const std::string sbdf = row(selected_port)["SBDF"];
    int speed = PCIE_SPEED_UNKNOWN;
    unsigned lanes = 0;
    link->GetPCIELinkSpeed(speed);
    link->GetLinkWidth(lanes);
    // What the previous tick asked for must be what the link runs now.
    if (speed_in_loop && _next_speed >= 0 && speed != _next_speed) {
        ++failure_count;
        ++speed_failures;
        add_error(sbdf + " speed " + speed_text(_next_speed) + " requested, link at " + speed_text(speed));
    }
    if (width_in_loop && _next_width && lanes != _next_width) {
        ++failure_count;
        ++width_failures;
        add_error(sbdf + " width x" + std::to_string(_next_width) + " requested, link at x" + std::to_string(lanes));
    }
    if (current_speed == 9) current_speed = speed;
    if (speed_in_loop) {
        _next_speed = speed < speed_upper && speed >= speed_lower ? speed + 1 : speed_lower;
        std::string error;
        const bool ok = speed_method == 1 ? link->SetPCIELinkSpeedUpstream(_next_speed, error)
                                          : link->SetPCIELinkSpeed(_next_speed, error);
        log_text += "Speed " + speed_text(speed) + " -> " + speed_text(_next_speed) + (ok ? "" : ": " + error) + "\n";
    }
    if (width_in_loop) {
        unsigned next = width_lower;
        for (unsigned w : kWidths)
            if (w > lanes && w <= width_upper && link->IsLinkSupported(width_of_lanes(w))) {
                next = w;
                break;
            }
        _next_width = next;
        std::string error;
        const bool ok = link->SetLinkWidth(width_of_lanes(next), error);
        log_text += "Width x" + std::to_string(lanes) + " -> x" + std::to_string(next) + (ok ? "" : ": " + error) + "\n";
    }
    TimerInterfaceUpdate();
}

void CPCIELinkControlInterface::TimerInterfaceUpdate() {
    RefreshPortList();
    ++loop_count;
    if (running && loop_limit && loop_count >= loop_limit) running = false;
}

// --- PCIELinkControlGUIInterface ---------------------------------------------------

json PCIELinkControlGUIInterface::GetPCIELinkControlInfo() {
    _panel->Initialize();
    std::lock_guard<std::recursive_mutex> lock(_panel->mutex);
    json ports = json::array();
    for (size_t i = 0; i < _panel->port_count(); ++i) ports.push_back(_panel->row(i));
    return {{"columns", {"Type", "Seg", "Bn", "Dn", "Fn", "x1", "x2", "x4", "x8", "x12", "x16", "Sec Bn", "Sub Bn",
                         "Short Recfg", "Rand Req", "Link Speed"}},
            {"ports", ports}};
}

json PCIELinkControlGUIInterface::_link_control_info() {
    CPCIELinkControlInterface& p = *_panel;
    auto link = p.link(static_cast<size_t>(std::max(p.selected_port, 0)));
    json widths = json::array(), speeds = json::array(), intervals = json::array();
    for (unsigned w : kWidths)
        if (link && link->IsLinkSupported(width_of_lanes(w))) widths.push_back("x" + std::to_string(w));
    const int max = link ? link->GetLinkPartnerMaxSpeed() : 0;
    for (int s = 0; s <= (max == PCIE_SPEED_UNKNOWN ? 0 : max); ++s) speeds.push_back(speed_choice_text(s));
    for (const auto& choice : kPortStatusIntervals) intervals.push_back(choice.label);
    json retries = json::array();
    for (const char* r : kRetryChoices) retries.push_back(r);
    const bool enabled = link && !p.running;
    auto choice = [&](const char* label, const json& values, const std::string& selected) {
        return json{{"label", label}, {"enabled", enabled}, {"values", values}, {"selectedValue", selected}};
    };
    return {{"linkWidthLower", choice("Link Width Lower", widths, "x" + std::to_string(p.width_lower))},
            {"linkWidthUpper", choice("Link Width Upper", widths, "x" + std::to_string(p.width_upper))},
            {"linkSpeedLower", choice("Link Speed Lower", speeds, speed_choice_text(p.speed_lower))},
            {"linkSpeedUpper", choice("Link Speed Upper", speeds, speed_choice_text(p.speed_upper))},
            {"contRunIntervals", choice("Continuous Run", intervals, kPortStatusIntervals[_interval_index].label)},
            {"failureRetryCount", choice("Failure Retry Count", retries, std::to_string(p.failure_retry))},
            {"loopCount", {{"label", "Loop Count"}, {"value", p.loop_limit}}},
            {"checked", p.running.load()}};
}

json PCIELinkControlGUIInterface::GetPCIELinkPortInfo(int index) {
    _panel->Initialize();
    CPCIELinkControlInterface& p = *_panel;
    std::lock_guard<std::recursive_mutex> lock(p.mutex);
    p.on_PortList_selected(index);
    if (p.selected_port < 0) return {{"index", -1}, {"Error", "No port at this index"}};
    auto link = p.link(p.selected_port);
    int speed = PCIE_SPEED_UNKNOWN;
    unsigned lanes = 0;
    link->GetPCIELinkSpeed(speed);
    link->GetLinkWidth(lanes);
    json width_status = json::array(), speed_status = json::array();
    int width_index = -1;
    for (size_t i = 0; i < 6; ++i) {
        width_status.push_back({{"label", kWidthLabels[i]},
                                {"enabled", link->IsLinkWidthChangeSupported() && link->IsLinkSupported(width_of_lanes(kWidths[i]))}});
        if (kWidths[i] == lanes) width_index = static_cast<int>(i);
    }
    const int max = link->GetLinkPartnerMaxSpeed();
    for (int s = 0; s < 5; ++s) speed_status.push_back({{"label", speed_choice_text(s)}, {"enabled", s <= max}});
    json methods = json::array({"GENERIC"});
    if (link->port().platform_port) methods.push_back("VEX PRIVATE REG");
    json errors = p.errors;
    const bool enabled = !p.running;
    return {{"index", p.selected_port},
            {"port", p.row(p.selected_port)},
            {"oplRC",
             {{"enabled", enabled},
              {"checked", p.running.load()},
              {"logErrors", {{"label", "Log Link Errors"}, {"checked", p.log_errors}}},
              {"logLinkStatus", {{"label", "Log Link Status"}, {"checked", p.log_status}}},
              {"linkWidthSelection", {{"label", "Link Width"}, {"enabled", enabled && link->IsLinkWidthChangeSupported()},
                                      {"widthStatus", width_status}, {"selectedIndex", width_index}}},
              {"linkSpeedSelection", {{"label", "Link Speed"}, {"enabled", enabled}, {"speedStatus", speed_status},
                                      {"selectedIndex", speed == PCIE_SPEED_UNKNOWN ? -1 : speed}}},
              {"linkSpeedMethods", {{"label", "Speed Method"}, {"enabled", enabled}, {"values", methods},
                                    {"selectedIndex", std::min<int>(p.speed_method, static_cast<int>(methods.size()) - 1)},
                                    {"Speed", methods[std::min<size_t>(p.speed_method, methods.size() - 1)]}}},
              {"counter", {{"loopCount", p.loop_count}, {"failureCount", p.failure_count},
                           {"speedFailures", p.speed_failures}, {"widthFailures", p.width_failures}}},
              {"clearErrors", {{"label", "Clear Errors"}, {"enabled", true}}}}},
            {"linkControlInfo", _link_control_info()},
            {"portControlOptions", json::array({{{"label", "Change Speed in Loop"}, {"enabled", enabled}, {"checked", p.speed_in_loop}},
                                                {{"label", "Change Width in Loop"}, {"enabled", enabled && link->IsLinkWidthChangeSupported()},
                                                 {"checked", p.width_in_loop}}})},
            {"errorReport", errors}};
}

namespace {

// One width or speed change on the selected port. `refuse` names why the
// index can't be used (empty when it can); the port is claimed around
// `apply` so a stress run and a change never meet on it.
template <class Refuse, class Apply>
json change_selected_link(CPCIELinkControlInterface& p, int index, Refuse refuse, Apply apply) {
    std::lock_guard<std::recursive_mutex> lock(p.mutex);
    json answer = {{"selectedIndex", index}, {"OperationStatus", false}, {"ErrMsg", ""}};
    auto link = p.selected_port >= 0 ? p.link(p.selected_port) : nullptr;
    std::string error;
    if (!link) error = "No port is selected";
    else if (p.running) error = "A continuous run is active on this panel";
    else error = refuse(*link);
    if (error.empty()) {
        if (!claim_link_port(link->port().device)) {
            error = "A stress run is using this port";
        } else {
            answer["OperationStatus"] = apply(*link, error);
            release_link_port(link->port().device);
        }
    }
    if (!error.empty()) p.add_error(error);
    answer["ErrMsg"] = error;
    if (link) answer["port"] = p.row(p.selected_port);
    return answer;
}

}  // namespace

json PCIELinkControlGUIInterface::OnLinkWidthChange(int index) {
    _panel->Initialize();
    return change_selected_link(
        *_panel, index,
        [&](auto& link) -> std::string {
            if (index < 0 || index >= 6) return "Unknown width index " + std::to_string(index);
            if (!link.IsLinkWidthChangeSupported()) return "This port cannot change its width";
            return "";
        },
        [&](auto& link, std::string& error) { return link.SetLinkWidth(width_of_lanes(kWidths[index]), error); });
}

json PCIELinkControlGUIInterface::OnLinkSpeedChange(int index) {
    _panel->Initialize();
    return change_selected_link(
        *_panel, index,
        [&](auto&) -> std::string {
            return index < 0 || index > 4 ? "Unknown speed index " + std::to_string(index) : "";
        },
        [&](auto& link, std::string& error) {
            return _panel->speed_method == 1 ? link.SetPCIELinkSpeedUpstream(index, error) : link.SetPCIELinkSpeed(index, error);
        });
}

json PCIELinkControlGUIInterface::OnPortOptionChanged(int index, bool value) {
    const bool ok = _panel->OptionChanged(index, value);
    return {{"key", index}, {"checked", value}, {"Error", ok ? "" : "Unknown option " + std::to_string(index)}};
}

void PCIELinkControlGUIInterface::OnLinkSpeedMethodChange(int index) {
    std::lock_guard<std::recursive_mutex> lock(_panel->mutex);
    if (index == 0 || index == 1) _panel->speed_method = index;
}

json PCIELinkControlGUIInterface::_update_message(const std::string& log) {
    CPCIELinkControlInterface& p = *_panel;
    json data = {{"running", p.running.load()},
                 {"loopCount", p.loop_count},
                 {"failureCount", p.failure_count},
                 {"speedFailures", p.speed_failures},
                 {"widthFailures", p.width_failures},
                 {"errorReport", p.errors},
                 {"log", log}};
    if (p.selected_port >= 0) data["port"] = p.row(p.selected_port);
    return {{"key", "LinkControlUpdate"}, {"linkControlData", data}};
}

void PCIELinkControlGUIInterface::OnContinuousRunToggled(const json& settings) {
    // On a thread of its own: nothing may escape, and the port is always released.
    try {
        _continuous_run(settings);
    } catch (const std::exception& e) {
        std::lock_guard<std::recursive_mutex> lock(_panel->mutex);
        _panel->add_error(std::string("The continuous run ended unexpectedly: ") + e.what());
        if (_panel->running && _claimed) release_link_port(*_claimed);
        _panel->running = false;
        _claimed.reset();
        if (_push) _push(_update_message(_panel->log_text));
        _panel->log_text.clear();
    }
}

void PCIELinkControlGUIInterface::_continuous_run(const json& settings) {
    _panel->Initialize();
    CPCIELinkControlInterface& p = *_panel;
    std::shared_ptr<CPCIELink> link;
    {
        std::lock_guard<std::recursive_mutex> lock(p.mutex);
        link = p.selected_port >= 0 ? p.link(p.selected_port) : nullptr;
        if (!link || p.running || _shut_down) return;
        if (const int s = speed_from_label(selected_value(settings, "linkSpeedLower")); s >= 0) p.speed_lower = s;
        if (const int s = speed_from_label(selected_value(settings, "linkSpeedUpper")); s >= 0) p.speed_upper = s;
        if (const unsigned w = width_from_label(selected_value(settings, "linkWidthLower"))) p.width_lower = w;
        if (const unsigned w = width_from_label(selected_value(settings, "linkWidthUpper"))) p.width_upper = w;
        const std::string interval = selected_value(settings, "contRunIntervals");
        for (int i = 0; i < 9; ++i)
            if (interval == kPortStatusIntervals[i].label) _interval_index = i;
        const std::string retry = selected_value(settings, "failureRetryCount");
        for (const char* choice : kRetryChoices)
            if (retry == choice) p.failure_retry = static_cast<unsigned>(std::stoul(retry));
        const json& loops = settings.contains("loopCount") && settings["loopCount"].is_object()
                                ? settings["loopCount"].value("value", json(0))
                                : json(0);
        p.loop_limit = loops.is_number_integer() && loops.get<long long>() > 0
                           ? static_cast<unsigned>(std::min<long long>(loops.get<long long>(), 0x0FFFFFFF))
                           : 0;
        p.loop_count = p.failure_count = p.speed_failures = p.width_failures = 0;
        p.log_text.clear();
        if (!claim_link_port(link->port().device)) {
            p.add_error("A stress run is using this port");
            if (_push) _push(_update_message(p.log_text));
            return;
        }
        _claimed = link->port().device;
        _stop_requested = false;
        p.running = true;
    }
    const unsigned interval = kPortStatusIntervals[_interval_index].ms;
    while (p.running && !_stop_requested) {
        for (unsigned waited = 0; waited < interval && !_stop_requested; waited += 50)
            OSSpecific().milli_secs_sleep(std::min(50u, interval - waited));
        if (_stop_requested) break;
        std::string log;
        {
            std::lock_guard<std::recursive_mutex> lock(p.mutex);
            p.TimerPortControl();
            log.swap(p.log_text);
        }
        if (_push) _push(_update_message(log));
    }
    {
        std::lock_guard<std::recursive_mutex> lock(p.mutex);
        p.running = false;
        release_link_port(link->port().device);
        _claimed.reset();
        if (_push) _push(_update_message(p.log_text));  // the last counts always go out
        p.log_text.clear();
    }
}

void PCIELinkControlGUIInterface::StopContinuousRun() {
    _stop_requested = true;
    _panel->running = false;
}

bool PCIELinkControlGUIInterface::SetLogLinkStatus(bool checked) {
    std::lock_guard<std::recursive_mutex> lock(_panel->mutex);
    _panel->log_status = checked;
    return true;
}

bool PCIELinkControlGUIInterface::SetLogLinkErrors(bool checked) {
    std::lock_guard<std::recursive_mutex> lock(_panel->mutex);
    _panel->log_errors = checked;
    return true;
}

json PCIELinkControlGUIInterface::ClearErrorReport() {
    std::lock_guard<std::recursive_mutex> lock(_panel->mutex);
    _panel->errors.clear();
    _panel->failure_count = _panel->speed_failures = _panel->width_failures = 0;
    return {{"errorReport", json::array()}, {"failureCount", 0}};
}

json PCIELinkControlGUIInterface::GenerateErrorReport() {
    std::lock_guard<std::recursive_mutex> lock(_panel->mutex);
    return {{"errorReport", _panel->errors}, {"failureCount", _panel->failure_count}};
}
