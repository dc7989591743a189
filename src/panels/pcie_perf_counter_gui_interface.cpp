#include "panels/pcie_perf_counter_gui_interface.h"

#include <charconv>
#include <cinttypes>
#include <optional>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "hardware/os_specific.h"
#include "hardware/system_facts.h"

using nlohmann::json;

namespace {
constexpr unsigned int kTickMs = 1000, kSliceMs = 100, kTicksPerPush = 2;
constexpr std::uintmax_t kCommandLogLimit = 1 << 20;
constexpr const char *kOptionsFile = "PCIePerfCounterOptions.txt", *kPortsFile = "PCIePerfCounterPortSel.txt",
                     *kSelectionsFile = "PCIePerfCounterSelections.txt", *kSnapshotFile = "perfcnt.txt",
                     *kSnapshotIntFile = "perfcnt.int", *kCommandFile = "perfCommand.txt", *kCountFile = "count.txt";

std::string ctime_text(std::chrono::system_clock::time_point when) {
    const std::time_t t = std::chrono::system_clock::to_time_t(when);
    char text[32] = "";
    ctime_r(&t, text);
    std::string s = text;
    if (!s.empty() && s.back() == '\n') s.pop_back();
    return s;
}

// Written beside and renamed over, so a reader or a crash never sees half a file.
void replace_file(const std::string& folder, const char* name, const std::string& text) {
    if (folder.empty()) return;
    namespace fs = std::filesystem;
    std::error_code ignored;
    fs::create_directories(folder, ignored);
    const fs::path target = fs::path(folder) / name, temporary = fs::path(folder) / (std::string(name) + ".new");
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << text;
        if (!out.flush()) return;
    }
    fs::rename(temporary, target, ignored);
}

// Tab-separated fields of each line of a file; none when it is missing.
std::vector<std::vector<std::string>> read_lines(const std::string& folder, const char* name) {
    std::vector<std::vector<std::string>> lines;
    if (folder.empty()) return lines;
    std::ifstream in(std::filesystem::path(folder) / name);
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> fields;
        std::stringstream parts(line);
        for (std::string field; std::getline(parts, field, '\t');) fields.push_back(field);
        lines.push_back(std::move(fields));
    }
    return lines;
}

std::string port_of(const CPerformanceCounters& family, unsigned int counter) {
    std::string text;
    if (!family.GetPortSelectionEntry(counter, family.GetSelectedPort(counter), &text)) text.clear();
    return text;
}

std::optional<size_t> row_number(const std::string& text) {
    size_t row = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), row);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return row;
}
}  // namespace

void PCIEPerfCounterGUIInterface::Initialize(std::unique_ptr<CPC_PCIEList> list, std::string folder, Push push) {
    std::lock_guard<std::mutex> lock(_mutex);
    _list = std::move(list);
    _folder = std::move(folder);
    _push = std::move(push);
    _rows.clear();
    for (unsigned int i = 0; _list && i < _list->GetListSize(); ++i) {
        CPerformanceCounters* family = _list->GetListEntry(i);
        for (unsigned int c = 0; c < family->GetNumberOfCounters(); ++c) _rows.push_back({family, c});
    }
    _restore_settings();
}

void PCIEPerfCounterGUIInterface::_save_settings() const {
    std::string options = "DecimalDisplay=" + std::to_string(_decimal_display) +
                          "\nLogToCountTxt=" + std::to_string(_log_to_count_txt) +
                          "\nChangesOnly=" + std::to_string(_changes_only) + "\n";
    std::string ports, selections;
    for (size_t i = 0; i < _rows.size(); ++i) {
        const Row& r = _rows[i];
        const std::string head = std::to_string(i) + "\t" + r.family->GetSpaceName(r.counter) + "\t";
        const unsigned int port = r.family->GetSelectedPort(r.counter), entry = r.family->GetSelectedEntry(r.counter);
        const bool enabled = r.family->IsCounterEnabled(r.counter);
        if (port != 0) ports += head + port_of(*r.family, r.counter) + "\n";
        if (enabled || entry != 0)
            selections += head + (enabled ? "1" : "0") + "\t" + r.family->GetSelectionEntry(r.counter, entry) + "\n";
    }
    replace_file(_folder, kOptionsFile, options);
    replace_file(_folder, kPortsFile, ports);
    replace_file(_folder, kSelectionsFile, selections);
}

void PCIEPerfCounterGUIInterface::_restore_settings() {
    for (const auto& line : read_lines(_folder, kOptionsFile)) {
        if (line.size() != 1) continue;
        const std::string& text = line[0];
        const bool on = text.ends_with("=1");
        if (text.starts_with("DecimalDisplay=")) _decimal_display = on;
        else if (text.starts_with("LogToCountTxt=")) _log_to_count_txt = on;
        else if (text.starts_with("ChangesOnly=")) _changes_only = on;
    }
    // The row's own name must still be the one saved, or the file is of another machine.
    const auto row_of = [&](const std::vector<std::string>& line, size_t fields) -> const Row* {
        const auto row = line.size() == fields ? row_number(line[0]) : std::nullopt;
        if (!row || *row >= _rows.size()) return nullptr;
        const Row& r = _rows[*row];
        return r.family->GetSpaceName(r.counter) == line[1] ? &r : nullptr;
    };
    for (const auto& line : read_lines(_folder, kPortsFile)) {
        const Row* r = row_of(line, 3);
        if (!r) continue;
        std::string port;
        for (unsigned int p = 0; r->family->GetPortSelectionEntry(r->counter, p, &port); ++p)
            if (port == line[2]) r->family->SetPort(r->counter, p);
    }
    for (const auto& line : read_lines(_folder, kSelectionsFile)) {
        const Row* r = row_of(line, 4);
        if (!r) continue;
        for (unsigned int e = 0; e < r->family->GetNumberOfSelectionEntries(r->counter); ++e)
            if (r->family->GetSelectionEntry(r->counter, e) == line[3]) r->family->SetEntry(r->counter, e);
        // An event no longer offered leaves the row off rather than counting something else.
        if (line[2] == "1" && r->family->GetSelectionEntry(r->counter, r->family->GetSelectedEntry(r->counter)) == line[3])
            r->family->EnableCounter(r->counter, true);
    }
}

void PCIEPerfCounterGUIInterface::_save_snapshot() const {
    std::string text = "Space\tName\tPort(S:B:D.F)\tValue\tRate (/s)\tMax Rate (/s)\tEnabled\n", numbers;
    for (size_t i = 0; i < _rows.size(); ++i) {
        const Row& r = _rows[i];
        if (!r.family->IsCounterEnabled(r.counter)) continue;
        text += r.family->GetName() + "\t" + r.family->GetSpaceName(r.counter) + "\t" + port_of(*r.family, r.counter) +
                "\t" + r.value + "\t" + r.rate + "\t" + r.max_rate + "\tYes\n";
        const CounterStatistics& s = r.family->Statistics(r.counter);
        numbers += std::to_string(i) + "\t" + std::to_string(r.family->LastValue(r.counter)) + "\t" +
                   std::to_string(s.rate) + "\t" + std::to_string(s.max_rate) + "\t" + std::to_string(s.samples) + "\n";
    }
    replace_file(_folder, kSnapshotFile, text);
    replace_file(_folder, kSnapshotIntFile, numbers);
}

void PCIEPerfCounterGUIInterface::_command(const std::string& text) {
    if (_folder.empty()) return;
    namespace fs = std::filesystem;
    const fs::path path = fs::path(_folder) / kCommandFile;
    std::error_code ignored;
    fs::create_directories(_folder, ignored);
    const auto size = fs::file_size(path, ignored);
    const bool restart = !ignored && size > kCommandLogLimit;
    std::ofstream(path, restart ? std::ios::trunc : std::ios::app) << ctime_text(system_facts().now()) << "\t" << text << "\n";
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
    if (!r.family->SetPort(r.counter, static_cast<unsigned int>(index))) return;
    if (_running) r.family->InitCounter(r.counter);
    _command("Port of row " + std::to_string(_selected) + " (" + r.family->GetSpaceName(r.counter) + "): " + port_of(*r.family, r.counter));
    _save_settings();
}

void PCIEPerfCounterGUIInterface::OnCounterSelectionCurrentIndexChanged(int index) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_selected < 0 || index < 0) return;
    const Row& r = _rows[_selected];
    if (!r.family->SetEntry(r.counter, static_cast<unsigned int>(index))) return;
    if (_running) r.family->InitCounter(r.counter);
    _command("Event of row " + std::to_string(_selected) + " (" + r.family->GetSpaceName(r.counter) +
             "): " + r.family->GetSelectionEntry(r.counter, r.family->GetSelectedEntry(r.counter)));
    _save_settings();
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
            _command(std::string(status ? "Enable" : "Disable") + " row " + std::to_string(_selected) + " (" +
                     r.family->GetSpaceName(r.counter) + ")");
            _save_settings();
        }
        document = _document();
    }
    if (_push) _push(json{{"key", "enableCounterClicked"}, {"perfInfo", document}});
}

void PCIEPerfCounterGUIInterface::OnInitCountersClicked() {
    std::lock_guard<std::mutex> lock(_mutex);
    _command("Init counters");
    for (Row& r : _rows)
        if (r.family->IsCounterEnabled(r.counter)) r.family->InitCounter(r.counter);
}

json PCIEPerfCounterGUIInterface::OnReadCountersClicked() {
    std::lock_guard<std::mutex> lock(_mutex);
    _command("Read counters");
    _update(false);
    _save_snapshot();
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
    if (!_log_to_count_txt || _folder.empty()) return;
    std::error_code ignored;
    std::filesystem::create_directories(_folder, ignored);
    std::ofstream(std::filesystem::path(_folder) / kCountFile, std::ios::app) << text;
}

void PCIEPerfCounterGUIInterface::_start() {
    _command("Start monitor");
    for (Row& r : _rows)
        if (r.family->IsCounterEnabled(r.counter)) r.family->InitCounter(r.counter);
    _log("\n" + ctime_text(system_facts().now()) + " (Start)\n");
    // The first read after a reset only sets the start of the rate.
    _update(false);
}

void PCIEPerfCounterGUIInterface::_stop() {
    _command("Stop monitor");
    _log("\n" + ctime_text(system_facts().now()) + " (End)\n");
}

void PCIEPerfCounterGUIInterface::OnStartMonitorClicked() {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        if (_running || _shut_down) return;
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
            _save_snapshot();
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

void PCIEPerfCounterGUIInterface::Shutdown() {
    std::lock_guard<std::mutex> lock(_mutex);
    _shut_down = true;
    _keep_running = false;
}

void PCIEPerfCounterGUIInterface::OnDecimalDisplayClicked(bool status) {
    std::lock_guard<std::mutex> lock(_mutex);
    _decimal_display = status;
    _command(std::string("DecimalDisplay ") + (status ? "on" : "off"));
    _save_settings();
}
void PCIEPerfCounterGUIInterface::OnLogToCountTxtClicked(bool status) {
    std::lock_guard<std::mutex> lock(_mutex);
    _log_to_count_txt = status;
    _command(std::string("LogToCountTxt ") + (status ? "on" : "off"));
    _save_settings();
}
void PCIEPerfCounterGUIInterface::OnChangesOnlyClicked(bool status) {
    std::lock_guard<std::mutex> lock(_mutex);
    _changes_only = status;
    _command(std::string("ChangesOnly ") + (status ? "on" : "off"));
    _save_settings();
}

json PCIEPerfCounterGUIInterface::GetOptions() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return {{"decimalDisplay", _decimal_display},
            {"logToCountTxt", _log_to_count_txt},
            {"changesOnly", _changes_only},
            {"running", _running.load()}};
}
