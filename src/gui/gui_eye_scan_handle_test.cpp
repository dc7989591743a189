#include "gui/gui_eye_scan_handle_test.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include "discovery/hvl_links.h"
#include "discovery/lane_generic_information.h"
#include "eye_scan/scan_params.h"
#include "gui/gui_pcie_handle_test.h"
#include "gui/test_archive.h"
#include "gui/test_lifecycle.h"
#include "gui/test_progress.h"
#include "gui/test_record_checks.h"
#include "hardware/file_logger.h"
#include "hardware/os_specific.h"
#include "hardware/resource_lock.h"
#include "hardware/run_program.h"
#include "hardware/system_facts.h"
#include "hardware/time_format.h"
#include "margin_hvl/hvl_link_operations.h"

using nlohmann::json;

namespace {

// The collector's tables hold 50 values on an axis.
constexpr int kMaxAxisValues = 50;
// Command fields: the phase window is three signed bytes (step unsigned),
// the voltage window what the sampler's DAC spans, in 0.5 mV units.
constexpr int kPhaseLimitLow = -128, kPhaseLimitHigh = 127, kPhaseStepMax = 255;
constexpr int kVoltageLimit = 800;
// A plot takes well under a second; one that takes this long hangs.
constexpr std::chrono::seconds kPlotTimeout{30};
// Per lane beyond the sampling: the override check, the window commands,
// the lane record and the plot, all well under this on hardware.
constexpr double kLaneOverheadSeconds = 0.5;
// What the estimate assumes before the lane record is read: the most taps
// a PHY samples (tap mode 3 and the older firmware), so it never promises
// less than the scan takes.
constexpr unsigned int kEstimateTaps = 8;

std::optional<VEX_DIE_INFO> find_die(const std::vector<VEX_DIE_INFO>& dies, const std::string& name) {
    std::optional<VEX_DIE_INFO> found;
    for (const VEX_DIE_INFO& die : dies)
        if (die.full_name() == name) found = die;  // the last match wins
    return found;
}

std::vector<std::string> split(const std::string& line, char separator) {
    std::vector<std::string> parts;
    std::stringstream stream(line);
    std::string part;
    while (std::getline(stream, part, separator)) parts.push_back(part);
    return parts;
}

double as_float(const std::string& text) {
    std::stringstream stream(text);
    float value = 0;
    if (!(stream >> value)) return 0;
    return value;
}

void console_line(std::ostream& out, const std::string& text) {
    NamedLockGuard console("ConsoleLock");
    out << text << std::endl;
}

}  // namespace

const std::map<std::string, int>& eye_scan_ber_table() {
    static const std::map<std::string, int> table = {
        {"7.65", 23}, {"7.345", 22}, {"7.045", 21}, {"6.745", 20}, {"6.445", 19}, {"6.145", 18}, {"5.84", 17},
        {"5.54", 16}, {"5.24", 15},  {"4.94", 14},  {"4.64", 13},  {"4.335", 12}, {"4.035", 11}, {"3.735", 10}};
    return table;
}

int eye_scan_nbits(const std::string& ber) {
    const auto& table = eye_scan_ber_table();
    const auto it = table.find(ber);
    return it == table.end() ? 0 : it->second;
}

std::optional<EyeScanWindow> read_eye_scan_window(const json& params, std::string& error) {
    EyeScanWindow window;
    const std::pair<const char*, int*> fields[] = {
        {"PhaseStart", &window.phase_start},     {"PhaseEnd", &window.phase_end},
        {"PhaseStep", &window.phase_step},       {"VoltageStart", &window.voltage_start},
        {"VoltageEnd", &window.voltage_end},     {"VoltageStep", &window.voltage_step}};
    for (const auto& [key, field] : fields) {
        const auto it = params.find(key);
        if (it == params.end()) continue;
        if (!it->is_number_integer() || std::abs(it->get<long long>()) > 100000) {
            error = std::string("\"") + key + "\" must be a whole number";
            return std::nullopt;
        }
        *field = it->get<int>();
    }
    auto axis = [&](const char* name, int start, int end, int step, int low, int high, int step_max, int least,
                    const char* unit) -> bool {
        if (start < low || end > high) {
            error = std::string("the ") + name + " window " + std::to_string(start) + ".." + std::to_string(end) +
                    " lies outside the PHY's range " + std::to_string(low) + ".." + std::to_string(high) + " " + unit;
        } else if (start >= end) {
            error = std::string("the ") + name + " window must start below its end";
        } else if (step < 1 || step > step_max) {
            error = std::string("the ") + name + " step must be 1.." + std::to_string(step_max);
        } else if ((end - start) / step + 1 > kMaxAxisValues) {
            error = std::string("the ") + name + " window has " + std::to_string((end - start) / step + 1) +
                    " values; at most " + std::to_string(kMaxAxisValues) + " fit";
        } else if ((end - start) / step + 1 < least) {
            error = std::string("the ") + name + " window needs at least " + std::to_string(least) + " values";
        } else {
            return true;
        }
        return false;
    };
    if (!axis("phase", window.phase_start, window.phase_end, window.phase_step, kPhaseLimitLow, kPhaseLimitHigh,
              kPhaseStepMax, 1, "(1/64 UI)") ||
        !axis("voltage", window.voltage_start, window.voltage_end, window.voltage_step, -kVoltageLimit,
              kVoltageLimit, 2 * kVoltageLimit, 2, "(0.5 mV)"))
        return std::nullopt;
    return window;
}

std::optional<std::vector<EyeSummaryRow>> get_data_from_csv_file(const std::string& path, std::string& error) {
    std::vector<EyeSummaryRow> rows;
    std::ifstream in(path);
    std::string line;
    bool header = true;
    while (std::getline(in, line)) {
        if (header) {
            header = false;
            continue;
        }
        if (!line.empty() && line.back() == '\r') line.pop_back();
        // A blank line (a summary that ended in an empty line) is no row.
        if (line.find_first_not_of(" \t") == std::string::npos) continue;
        const auto columns = split(line, ',');
        if (columns.size() < 9) {
            error = "Unable to parse file.";
            return std::nullopt;
        }
        rows.push_back({as_float(columns[4]), as_float(columns[5]), as_float(columns[6]), as_float(columns[7]),
                        as_float(columns[2])});
    }
    return rows;
}

json eye_scan_test_output(const std::optional<std::vector<EyeSummaryRow>>& rows, const std::string& rows_error,
                          std::size_t lanes, const std::string& failure, const std::string& folder) {
    if (!failure.empty()) return failed_test_output(failure, folder);
    if (!rows) return failed_test_output(rows_error, folder);
    if (rows->size() != lanes || rows->empty()) return failed_test_output("Unable to parse CSV file", folder);
    // The worst lane bounds the link: the smallest distance from the eye's
    // centre on each side (the bottom is written as a coordinate, below 0).
    auto smallest = [&](double EyeSummaryRow::*figure) {
        double value = std::fabs(rows->front().*figure);
        for (const EyeSummaryRow& row : *rows) value = std::min(value, std::fabs(row.*figure));
        return value;
    };
    const std::string stamp = time_stamp();
    return {{"Status", "complete"},
            {"VrefTop (mv)", smallest(&EyeSummaryRow::top)},
            {"VrefBot (mv)", smallest(&EyeSummaryRow::bottom)},
            {"PhaseLeft (UI)", smallest(&EyeSummaryRow::left)},
            {"PhaseRight (UI)", smallest(&EyeSummaryRow::right)},
            {"Time", make_date_time_user_readable(stamp)},
            {"TimeStamp", stamp},
            {"ResultsFolder", folder}};
}

ScanParams scan_params_of(const EyeScanWindow& window, int nbits) {
    ScanParams params;
    params.nbits = nbits;
    params.phase_start = window.phase_start;
    params.phase_end = window.phase_end;
    params.phase_step = window.phase_step;
    params.voltage_start = window.voltage_start;
    params.voltage_end = window.voltage_end;
    params.voltage_step = window.voltage_step;
    return params;
}

double eye_scan_estimate_lane_seconds(const EyeScanWindow& window, int nbits, double rate_gbps, unsigned int taps) {
    return eye_scan_lane_seconds(scan_params_of(window, nbits), taps, rate_gbps) + kLaneOverheadSeconds;
}

double eye_scan_rate_gbps(const json& test, const std::vector<VEX_DIE_INFO>& dies) {
    // A PCIe port: its speed as the device list gave it ("16 GT/s").
    const auto pcie = test.find("PCIeInfo");
    if (pcie != test.end() && pcie->is_object()) {
        const double speed = as_float(pcie->value("Speed", std::string()));
        if (speed > 0) return speed;
    }
    try {
        const json& serdes = test.at("SERDES");
        if (const auto die = find_die(dies, serdes.at("DeviceName").get<std::string>()))
            return get_hvl_data_rate(*die, serdes.at("SERDES").get<std::string>(), 0);
    } catch (const std::exception&) {
    }
    return 32;
}

json estimate_eye_scan(const json& test, GUIResourceStore& store) {
    json target;
    if (auto problem = check_eye_scan_record(test, store, &target))
        return {{"OperationStatus", false}, {"ErrMsg", *problem}};
    const json& params = test.at("TestParams");
    std::string error;
    const auto lanes = parse_lanes(params.at("Lanes"), error);
    const auto window = read_eye_scan_window(params, error);
    json record = test;
    // The list's element, not the posted copy, says how fast the port runs.
    if (target.contains("PCIeInfo")) record["PCIeInfo"] = target["PCIeInfo"];
    const double lane = eye_scan_estimate_lane_seconds(*window, eye_scan_nbits(params.at("BER").get<std::string>()),
                                              eye_scan_rate_gbps(record, store.get_die_list()), kEstimateTaps);
    return {{"OperationStatus", true}, {"Seconds", std::round(lanes->size() * lane * 10) / 10}, {"Lanes", lanes->size()}};
}

std::string plot_eye_path() { return OSSpecific().append_to_path(OSSpecific().get_exe_folder(), "plot_eye"); }

GUIEyeScanHandleTest::GUIEyeScanHandleTest(json& test, TestStorage& storage, Scheduler& scheduler,
                                           std::vector<VEX_DIE_INFO> dies, PCIE::MarginStopFlag stop,
                                           EyeLaneScanner scanner, EyeSummaryMerger merger, std::string plot_tool)
    : _test(test),
      _storage(storage),
      _scheduler(scheduler),
      _dies(std::move(dies)),
      _stop(std::move(stop)),
      _scanner(std::move(scanner)),
      _merger(std::move(merger)),
      _plot_tool(std::move(plot_tool)) {}

void GUIEyeScanHandleTest::start() {
    const unsigned long id = _test.at("TestID").get<unsigned long>();
    _stop = own_stop_flag(_storage, id, _stop);
    auto thread = std::make_shared<std::thread>(&GUIEyeScanHandleTest::thread_fuction, *this);
    _scheduler.add_test(id, thread);
}

std::string GUIEyeScanHandleTest::_plot(const std::string& folder, const std::map<int, unsigned int>& lane_of_id) {
    if (::access(_plot_tool.c_str(), X_OK) != 0)
        return "The eye plot tool " + _plot_tool + " is missing or can't be run; the eye figures come from its plots";
    const PCIE::MarginStopFlag stop = _stop;
    std::string failure;
    OSSpecific os;
    for (const std::string& file : os.get_all_files(folder)) {
        const std::string name = os.get_file_name_from_path(file);
        if (name.find("metadata") == std::string::npos) continue;
        const ProgramRun run = run_program(_plot_tool, {"-inputjson", file}, kPlotTimeout,
                                           os.append_to_path(folder, "plot_eye.log"),
                                           [stop] { return stop.stop_requested(); });
        console_line(std::cout, "");
        if (run.succeeded() || !failure.empty()) continue;
        // "<id>_metadata.csv" names the lane by its scan id.
        const auto lane = lane_of_id.find(std::atoi(name.c_str()));
        failure = (lane == lane_of_id.end() ? name : "Lane " + std::to_string(lane->second)) +
                  ": the eye plot failed (" + run.error + ")" + (run.last_line.empty() ? "" : ": " + run.last_line);
        if (run.abandoned) break;
    }
    return failure;
}

void GUIEyeScanHandleTest::thread_fuction() {
    const unsigned long id = _test.at("TestID").get<unsigned long>();
    std::string folder;
    try {
        const json& serdes = _test.at("SERDES");
        const auto die = find_die(_dies, serdes.at("DeviceName").get<std::string>());
        if (!die) throw std::runtime_error("Error: GUIEyeScanHandleTest::thread_fuction unable to detect die");
        const std::string link = serdes.at("SERDES").get<std::string>();
        const json& params = _test.at("TestParams");
        std::string error;
        const auto lanes = parse_lanes(params.at("Lanes"), error);
        if (!lanes) throw std::runtime_error(error);
        const int nbits = eye_scan_nbits(params.value("BER", std::string()));
        const auto window = read_eye_scan_window(params, error);
        if (!window) throw std::runtime_error(error);

        if (!disable_power_states_for_hvl(*die, error)) throw std::runtime_error(error);
        E32DisableODT(*die, "");
        folder = _scheduler.create_dir_and_give_path(id);
        const std::string phy = get_lane_generic_info(*die)->get_phy_name(link);

        TestProgressReporter progress(_storage, id, system_facts().now());
        const double rate = eye_scan_rate_gbps(_test, _dies);
        const double lane_seconds = eye_scan_estimate_lane_seconds(*window, nbits, rate, kEstimateTaps);
        auto report = [&](unsigned int done, const std::string& step, std::optional<unsigned int> lane) {
            PCIE::MarginProgress state;
            state.lanes_done = done;
            state.lanes_total = static_cast<unsigned int>(lanes->size());
            state.sides_done = done;
            state.sides_total = state.lanes_total;
            state.direction = step;
            state.lane = lane;
            state.remaining_seconds = (lanes->size() - done) * lane_seconds;
            progress.update(state, system_facts().now());
        };

        const PCIE::MarginStopFlag stop = _stop;
        std::string failure;
        std::map<int, unsigned int> lane_of_id;
        int scan_id = 1000;
        unsigned int done = 0;
        for (const unsigned int lane : *lanes) {
            if (_stop.stop_requested()) {
                failure = "stopped";  // named below
                break;
            }
            report(done, "Eye scan", lane);
            if (phy == "E32") {
                EyeLaneScan job{*die, link, lane, folder, scan_id, nbits, *window, rate,
                                [stop] { return stop.stop_requested(); }};
                std::optional<std::string> problem;
                try {
                    problem = _scanner(job);
                } catch (const std::runtime_error& thrown) {
                    problem = thrown.what();
                } catch (...) {
                    problem = "Unknown exception";
                }
                if (problem) {
                    failure = "Lane " + std::to_string(lane) + ": " + *problem;
                    break;
                }
                lane_of_id[scan_id++] = lane;
            } else if (phy == "C20" || phy == "CDNS") {
                // This build has no collector for these PHYs.
                console_line(std::cerr, phy == "C20" ? "Error! m_pC20EyeScan nullptr" : "Error! m_pCDNSEyeScan nullptr");
            } else {
                console_line(std::cout, "Eye Diagram is not supported in GUI for phy: " + phy);
            }
            ++done;
        }
        // The lanes scanned before a failing one are plotted too, so their
        // eyes can be seen; a stopped test ends at once.
        if (!_stop.stop_requested() && !lane_of_id.empty()) {
            report(done, "Plotting", std::nullopt);
            const std::string plot_failure = _plot(folder, lane_of_id);
            if (failure.empty()) failure = plot_failure;
        }
        const std::string analysis = OSSpecific().append_to_path(folder, "analysis.csv");
        _merger(folder, analysis);
        std::string rows_error;
        const auto rows = get_data_from_csv_file(analysis, rows_error);
        _test["TestOutput"] = eye_scan_test_output(rows, rows_error, lanes->size(), failure, folder);
        // A scan stopped by the shutdown says so (a cancel is named by finish_test).
        if (_stop.stop_requested() && _test["TestOutput"]["Status"] == "Failed")
            _test["TestOutput"]["FailureReason"] =
                std::string(_stop.stop_reason()) == PCIE::MarginStopFlag::kShutdownReason
                    ? "Eye scan stopped: the service is shutting down"
                    : _stop.stop_reason();
    } catch (const std::exception& error) {
        _test["TestOutput"] = failed_test_output(error.what(), folder);
    } catch (...) {
        _test["TestOutput"] = failed_test_output("Unknown exception", folder);
    }

    finish_test(_storage, _scheduler, _test, folder, "Eye scan");
}

std::optional<std::string> EyeScanRunner::check_record(const json& test, GUIResourceStore& store) const {
    try {
        return check_eye_scan_record(test, store);
    } catch (const std::exception& error) {
        return std::string("the record can't be read: ") + error.what();
    }
}

void EyeScanRunner::start(const json& test, GUIResourceStore& store, TestStorage& storage,
                          Scheduler& scheduler) const {
    json record = test;
    GUIEyeScanHandleTest(record, storage, scheduler, store.get_die_list(), _stop).start();
}
