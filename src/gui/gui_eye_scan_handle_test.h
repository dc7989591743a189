// Carries one queued "EyeScan" test through its life: power states and
// receiver termination prepared on the die as for an hVL margin, the
// requested lanes scanned one after the other by the PHY's own eye sampler,
// each lane's plot rendered by the plot tool beside the executable, the
// per-lane summaries merged into "analysis.csv", and the four figures of
// "TestOutput" derived from that file ("output.json" written whole).
//
// The figures come only from the plots' summaries, so a plot tool that is
// missing or fails fails the test with that reason. Where we do better than
// ending the process: an unknown die, an unreadable summary ("Unable to
// parse file."), a collector exception all end the test "Failed" with the
// reason; a lane that fails names itself ("Lane <n>: <reason>"), and the
// lanes scanned before it keep their files and are plotted.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "eye_scan/scan_params.h"
#include "gui/gui_resource_store.h"
#include "gui/scheduler.h"
#include "gui/test_runner.h"
#include "gui/test_storage.h"
#include "margin_pcie/margin_stop_flag.h"

// The "BER" choices of an eye scan, each the decimal logarithm of the bits
// compared at a point, and log2 of that count (`nbits`); 0 for a text that
// isn't one of them.
const std::map<std::string, int>& eye_scan_ber_table();
int eye_scan_nbits(const std::string& ber);

// The scan window in PHY units: phase 1/64 UI, voltage 0.5 mV.
struct EyeScanWindow {
    int phase_start = -32, phase_end = 32, phase_step = 4;
    int voltage_start = -200, voltage_end = 200, voltage_step = 10;

    int phase_points() const { return (phase_end - phase_start) / phase_step + 1; }
    int voltage_points() const { return (voltage_end - voltage_start) / voltage_step + 1; }
};

// The collector's parameters for this window at nbits (other fields default).
ScanParams scan_params_of(const EyeScanWindow& window, int nbits);

// The window from "TestParams" ("PhaseStart", "PhaseEnd", "PhaseStep",
// "VoltageStart", "VoltageEnd", "VoltageStep"; each optional, defaults
// above). Refused: a value that isn't a whole number, start not below end,
// a step below 1, more than 50 values on an axis (the collector's tables),
// fewer than 2 voltage values (no bin between them), phases outside the
// command's signed byte (-128..127) or a phase step above 255, voltages
// outside -400..400 mV (-800..800 units, what the eye sampler's DAC spans).
std::optional<EyeScanWindow> read_eye_scan_window(const nlohmann::json& params, std::string& error);

// One lane's scan as the runner asks for it.
struct EyeLaneScan {
    VEX_DIE_INFO die;
    std::string link;
    unsigned int lane = 0;
    std::string folder;
    int id = 0;  // file prefix of the lane's files
    int nbits = 0;
    EyeScanWindow window;
    double rate_gbps = 0;  // the lane's bit rate, which bounds how long a scan may take
    std::function<bool()> abandoned;  // the test is cancelled or the service stops
};

// Scans one lane and releases the override; nothing when its files are
// written, else why not. May throw (std::runtime_error: its text is the
// failure; anything else: "Unknown exception").
using EyeLaneScanner = std::function<std::optional<std::string>(const EyeLaneScan&)>;
// Merges the folder's per-lane summary CSV files into the file at path.
using EyeSummaryMerger = std::function<void(const std::string& folder, const std::string& path)>;

// The E32 collector and the summary merge of the eye scan library.
EyeLaneScanner e32_lane_scanner();
EyeSummaryMerger eye_summary_merger();

// One row of "analysis.csv": columns 4..7 (top, bottom, left, right) and 2
// (the width), each 0 when unreadable.
struct EyeSummaryRow {
    double top = 0, bottom = 0, left = 0, right = 0, width = 0;
};
// The rows of an analysis file after its header; none when it can't be
// opened. A row of fewer than 9 columns: nothing, and error "Unable to
// parse file.".
std::optional<std::vector<EyeSummaryRow>> get_data_from_csv_file(const std::string& path, std::string& error);

// "TestOutput" of an eye scan. failure (a lane's, the plot's) wins; then
// rows must be readable and one per lane ("Unable to parse CSV file"
// otherwise); then "complete" with the smallest absolute value of each
// figure over the rows: "VrefTop (mv)", "VrefBot (mv)", "PhaseLeft (UI)",
// "PhaseRight (UI)", with "Time", "TimeStamp", "ResultsFolder".
nlohmann::json eye_scan_test_output(const std::optional<std::vector<EyeSummaryRow>>& rows,
                                    const std::string& rows_error, std::size_t lanes, const std::string& failure,
                                    const std::string& folder);

// Nominal seconds of one lane's scan: the PHY's own sampling time of
// `taps` passes over the window (the sampler's move and 2^nbits bits at the
// lane's rate, Gb/s, for each point; repeated above the firmware's 2^23),
// plus 0.5 s for the commands, the lane record and the plot.
double eye_scan_estimate_lane_seconds(const EyeScanWindow& window, int nbits, double rate_gbps, unsigned int taps);
// The lane rate of a record: a PCIe port's "PCIeInfo"."Speed" in GT/s, else
// the hVL link's rate, else 32.
double eye_scan_rate_gbps(const nlohmann::json& test, const std::vector<VEX_DIE_INFO>& dies);

// Nominal seconds an eye scan record takes (8 taps assumed, the most a PHY
// samples, as the tap mode is only known from the lane record): {"OperationStatus", "Seconds",
// "Lanes"} or a refusal.
nlohmann::json estimate_eye_scan(const nlohmann::json& test, GUIResourceStore& store);

// The plot tool beside the executable.
std::string plot_eye_path();

class GUIEyeScanHandleTest {
public:
    GUIEyeScanHandleTest(nlohmann::json& test, TestStorage& storage, Scheduler& scheduler,
                         std::vector<VEX_DIE_INFO> dies, PCIE::MarginStopFlag stop = PCIE::MarginStopFlag(),
                         EyeLaneScanner scanner = e32_lane_scanner(), EyeSummaryMerger merger = eye_summary_merger(),
                         std::string plot_tool = plot_eye_path());
    void start();
    void thread_fuction();

private:
    // Renders each lane's plot and summary; the first failure, or nothing.
    std::string _plot(const std::string& folder, const std::map<int, unsigned int>& lane_of_id);

    nlohmann::json _test;
    TestStorage& _storage;
    Scheduler& _scheduler;
    std::vector<VEX_DIE_INFO> _dies;
    PCIE::MarginStopFlag _stop;
    EyeLaneScanner _scanner;
    EyeSummaryMerger _merger;
    std::string _plot_tool;
};

class EyeScanRunner : public TestRunner {
public:
    explicit EyeScanRunner(PCIE::MarginStopFlag stop) : _stop(std::move(stop)) {}
    std::optional<std::string> check_record(const nlohmann::json& test, GUIResourceStore& store) const override;
    void start(const nlohmann::json& test, GUIResourceStore& store, TestStorage& storage,
               Scheduler& scheduler) const override;

private:
    PCIE::MarginStopFlag _stop;
};
