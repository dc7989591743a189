#include "panels/pcie_perf_counter_gui_interface.h"

#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "hardware/os_specific.h"
#include "hardware/system_facts.h"

using nlohmann::json;

namespace {
constexpr unsigned int kTickMs = 1000, kSliceMs = 100, kTicksPerPush = 2;

std::string ctime_text(std::chrono::system_clock::time_point when) {
    const std::time_t t = std::chrono::system_clock::to_time_t(when);
    char text[32] = "";
    ctime_r(&t, text);
    std::string s = text;
    if (!s.empty() && s.back() == '\n') s.pop_back();
    return s;
}
}  // namespace

void PCIEPerfCounterGUIInterface::Initialize(std::unique_ptr<CPC_PCIEList> list, std::string count_txt_path, Push push) {
    std::lock_guard<std::mutex> lock(_mutex);
    _list = std::move(list);
    _count_txt = std::move(count_txt_path);
    _push = std::move(push);
    _rows.clear();
    for (unsigned int i = 0; _list && i < _list->GetListSize(); ++i) {
        CPerformanceCounters* family = _list->GetListEntry(i);
        for (unsigned int c = 0; c < family->GetNumberOfCounters(); ++c) _rows.push_back({family, c});
    }
}

std::string PCIEPerfCounterGUIInterface::_number(uint64_t value) const {
    char text[32];
    const auto whole = static_cast<unsigned long long>(value);
    if (_decimal_display) std::snprintf(text, sizeof text, "%llu", whole);
    else std::snprintf(text, sizeof text, "0x%010llX", whole);
    return text;
}

std::string PCIEPerfCounterGUIInterface::_percent(double value) const {
    char text[32];
    std::snprintf(text, sizeof text, "%2.5f%%", value);
    return text;
}

namespace {
std::string port_of(const CPerformanceCounters& family, unsigned int counter) {
    std::string text;
    if (!family.GetPortSelectionEntry(counter, family.GetSelectedPort(counter), &text)) text.clear();
    return text;
}
}  // namespace

json PCIEPerfCounterGUIInterface::_document() const {
    json rows = json::array();
    for (size_t i = 0; i < _rows.size(); ++i) {
        const Row& r = _rows[i];
        rows.push_back({{"key", i},
                        {"space", r.family->GetName()},
                        {"name", r.family->GetSpaceName(r.counter)},
                        {"port", port_of(*r.family, r.counter)},
                        {"event", r.family->GetSelectionEntry(r.counter, r.family->GetSelectedEntry(r.counter))},
                        {"value", r.value},
                        {"rate", r.rate},
                        {"maxRate", r.max_rate},
                        {"enabled", r.family->IsCounterEnabled(r.counter)}});
    }
    return rows;
}

json PCIEPerfCounterGUIInterface::GetPCIEPerfCounterInfo() {
    std::lock_guard<std::mutex> lock(_mutex);
    return _document();
}

json PCIEPerfCounterGUIInterface::OnSelectPerfCounter(int index) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (index < 0 || static_cast<size_t>(index) >= _rows.size()) return json::object();
    _selected = index;
    const Row& r = _rows[index];
    json events = json::array(), ports = json::array();
    for (unsigned int e = 0; e < r.family->GetNumberOfSelectionEntries(r.counter); ++e)
        events.push_back(r.family->GetSelectionEntry(r.counter, e));
    std::string port;
    for (unsigned int p = 0; r.family->GetPortSelectionEntry(r.counter, p, &port); ++p) ports.push_back(port);
    return {{"index", index},
            {"name", r.family->GetSpaceName(r.counter)},
            {"portSelection", ports},
            {"selectedPort", r.family->GetSelectedPort(r.counter)},
            {"counterSelection", events},
            {"selectedCounter", r.family->GetSelectedEntry(r.counter)},
            {"enabled", r.family->IsCounterEnabled(r.counter)}};
}

void PCIEPerfCounterGUIInterface::OnPortSelectionCurrentIndexChanged(int index) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_selected < 0 || index < 0) return;
    const Row& r = _rows[_selected];
    if (r.family->SetPort(r.counter, static_cast<unsigned int>(index)) && _running) r.family->InitCounter(r.counter);
}

void PCIEPerfCounterGUIInterface::OnCounterSelectionCurrentIndexChanged(int index) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_selected < 0 || index < 0) return;
    const Row& r = _rows[_selected];
    if (r.family->SetEntry(r.counter, static_cast<unsigned int>(index)) && _running) r.family->InitCounter(r.counter);
}

void PCIEPerfCounterGUIInterface::OnEnableCounterClicked(bool status) {
    json document;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        if (_selected >= 0) {
            Row& r = _rows[_selected];
            r.family->EnableCounter(r.counter, status);
            // A row enabled while the monitor runs starts counting at once.
            if (status && _running) r.family->InitCounter(r.counter);
            if (!status) r.value = r.rate = r.max_rate = "N/A";
        }
        document = _document();
    }
    if (_push) _push(json{{"key", "enableCounterClicked"}, {"perfInfo", document}});
}

void PCIEPerfCounterGUIInterface::OnInitCountersClicked() {
    std::lock_guard<std::mutex> lock(_mutex);
    for (Row& r : _rows)
        if (r.family->IsCounterEnabled(r.counter)) r.family->InitCounter(r.counter);
}

json PCIEPerfCounterGUIInterface::OnReadCountersClicked() {
    std::lock_guard<std::mutex> lock(_mutex);
    _update(false);
    return _document();
}

void PCIEPerfCounterGUIInterface::_update(bool log) {
    const auto now = system_facts().now();
    std::string lines;
    for (Row& r : _rows) {
        if (!r.family->IsCounterEnabled(r.counter)) {
            r.value = r.rate = r.max_rate = "N/A";
            continue;
        }
        uint32_t low = 0, high = 0;
        if (!r.family->GetCounter(r.counter, &low, &high)) continue;
        uint64_t rate = 0, max_rate = 0;
        r.family->GetCounterRate(r.counter, &rate);
        r.family->GetCounterMaxRate(r.counter, &max_rate);
        const bool percent = r.family->IsLDTSTOPCounter(r.counter) || r.family->IsGPUUsageCounter(r.counter);
        r.value = percent ? _percent(r.family->IsLDTSTOPCounter(r.counter) ? r.family->GetLDTSTOPEfficiency(r.counter)
                                                                           : r.family->GetGPUUsage(r.counter))
                          : _number(r.family->LastValue(r.counter));
        r.rate = _number(rate);
        r.max_rate = _number(max_rate);
        if (!log || (_changes_only && !r.family->IsChangeDetected(r.counter))) continue;
        lines += "\n" + ctime_text(now) + "\n" + r.family->GetSpaceName(r.counter) + ": " + " on " +
                 port_of(*r.family, r.counter) + ": " + r.value + " Rate: " + r.rate + " Max Rate: " + r.max_rate + "\n";
    }
    if (!lines.empty()) _log(lines);
}

void PCIEPerfCounterGUIInterface::_log(const std::string& text) {
    if (!_log_to_count_txt || _count_txt.empty()) return;
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(_count_txt).parent_path(), ignored);
    std::ofstream(_count_txt, std::ios::app) << text;
}

void PCIEPerfCounterGUIInterface::_start() {
    for (Row& r : _rows)
        if (r.family->IsCounterEnabled(r.counter)) r.family->InitCounter(r.counter);
    _log("\n" + ctime_text(system_facts().now()) + " (Start)\n");
    // The first read after a reset only sets the start of the rate.
    _update(false);
}

void PCIEPerfCounterGUIInterface::_stop() { _log("\n" + ctime_text(system_facts().now()) + " (End)\n"); }

void PCIEPerfCounterGUIInterface::OnStartMonitorClicked() {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        if (_running) return;
        _running = true;
        _keep_running = true;
        _start();
    }
    if (_push) _push(json{{"key", "counterStarted"}, {"stopped", false}});
    OSSpecific os;
    for (unsigned int tick = 1; _keep_running; ++tick) {
        // Slices keep a stop from waiting a whole tick.
        for (unsigned int slept = 0; slept < kTickMs && _keep_running; slept += kSliceMs) os.milli_secs_sleep(kSliceMs);
        if (!_keep_running) break;
        json document;
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _update(true);
            document = _document();
        }
        if (_push && tick % kTicksPerPush == 0) _push(json{{"key", "perfInfo"}, {"perfInfo", document}});
    }
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _stop();
    }
    if (_push) _push(json{{"key", "counterStopped"}, {"stopped", true}});
    _running = false;
}

void PCIEPerfCounterGUIInterface::OnStopMonitorClicked() { _keep_running = false; }

void PCIEPerfCounterGUIInterface::OnDecimalDisplayClicked(bool status) {
    std::lock_guard<std::mutex> lock(_mutex);
    _decimal_display = status;
}
void PCIEPerfCounterGUIInterface::OnLogToCountTxtClicked(bool status) {
    std::lock_guard<std::mutex> lock(_mutex);
    _log_to_count_txt = status;
}
void PCIEPerfCounterGUIInterface::OnChangesOnlyClicked(bool status) {
    std::lock_guard<std::mutex> lock(_mutex);
    _changes_only = status;
}
