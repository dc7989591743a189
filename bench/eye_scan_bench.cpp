// How long an E32 eye scan takes over the platform model at a time scale of
// 10^7, on s0.G1 (32 Gb/s, tap mode 3: eight taps) with the default window
// (17 x 41 points).
//
// First one lane through the collector at nbits 23 (one run) and 25 (four
// runs), then the eye-scan test runner's own path: the 16 lanes one after
// another through its lane scanner at nbits 23, each lane's plot made by the
// built plot_eye started as the runner starts it (no shell, bounded), and
// last all 16 lanes at once as DoEyeScan runs them.
//
// The nominal time is model time, what hardware would take; the PHY's own
// sampling time is taps x runs x points x (2 us + 2^nbits / 32 Gb/s), the
// least any reader can take. Wall time is what it took here.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "discovery/port_mapping.h"
#include "eye_scan/corvane_eye_scan.h"
#include "eye_scan/do_eye_scan.h"
#include "gui/gui_eye_scan_handle_test.h"
#include "hardware/register_storage.h"
#include "hardware/run_program.h"
#include "hardware/system_facts.h"
#include "model_machine.h"

namespace {

constexpr double kTimeScale = 1e7, kRateGbps = 32;
constexpr unsigned kTaps = 8, kLanes = 16;

double sampling_s(int nbits, unsigned taps) {
    ScanParams params;
    params.nbits = nbits;
    return eye_scan_lane_seconds(params, taps, kRateGbps);
}

double seconds(std::chrono::system_clock::duration d) { return std::chrono::duration<double>(d).count(); }
double wall_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The collector tells its settings on std::cout; the tables here go to stdout by stdio.
struct QuietCout {
    std::ostringstream sink;
    std::streambuf* saved = std::cout.rdbuf(sink.rdbuf());
    ~QuietCout() { std::cout.rdbuf(saved); }
};

}  // namespace

int main() {
    ModelMachine machine(kTimeScale);
    const VEX_DIE_INFO& die0 = machine.die0;
    const auto folder = std::filesystem::temp_directory_path() / "lanewright_eye_scan_bench";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    QuietCout quiet;

    std::printf("Collector, one lane of s0.G1, %u taps, time scale %.0e\n", kTaps, kTimeScale);
    std::printf("%-22s %12s %12s %7s %10s\n", "run", "nominal s", "sampling s", "ratio", "wall s");
    for (int nbits : {23, 25}) {
        auto phy = std::make_shared<PhyAccessor>(CRNFactory::instance()->get_crn_accessor(die0));
        auto lanes = get_lane_generic_info(die0);
        auto commands = std::make_shared<CorvaneE32PCSCommands>("G1", 0, get_register_store(die0));
        CorvaneEyeScan scan(die0, "G1", 0, commands, std::make_shared<StoneRingBufferReader>(phy), lanes,
                            std::make_shared<GetCorvaneE32LaneData>("G1", 0, phy, lanes));
        ScanParams p;
        p.folder = (folder / "one").string();
        p.id = nbits;
        p.nbits = nbits;
        p.rate_gbps = kRateGbps;
        std::filesystem::create_directories(p.folder);
        std::string error;
        const auto wall = std::chrono::steady_clock::now();
        const auto model = system_facts().now();
        const bool ok = scan.initate_eye_scan(p, error);
        const double nominal = seconds(system_facts().now() - model);
        const double wall_s = wall_since(wall);
        scan.disable_override();
        std::printf("%-22s %12.3f %12.3f %7.3f %10.3f %s\n", ("nbits " + std::to_string(nbits)).c_str(), nominal,
                    sampling_s(nbits, kTaps), nominal / sampling_s(nbits, kTaps), wall_s, ok ? "" : error.c_str());
    }

    // The runner's path: lane after lane, then each lane's plot.
    const EyeLaneScanner scanner = e32_lane_scanner();
    const std::string runner_folder = (folder / "runner").string();
    std::filesystem::create_directories(runner_folder);
    std::printf("\nRunner, s0.G1 lanes 0-15 one after another, nbits 23 (BER \"7.65\")\n");
    std::printf("%-5s %5s %12s %12s %7s %10s %13s  %s\n", "lane", "taps", "nominal s", "sampling s", "ratio",
                "scan wall s", "plot_eye ms", "figures T/B mV, L/R UI");
    double total_nominal = 0, total_sampling = 0, total_scan_wall = 0, total_plot = 0, longest_plot = 0;
    unsigned done = 0;
    for (unsigned lane = 0; lane < kLanes; ++lane) {
        const int id = 1000 + static_cast<int>(lane);
        EyeLaneScan job{die0, "G1", lane, runner_folder, id, 23, EyeScanWindow{}, kRateGbps, [] { return false; }};
        const auto wall = std::chrono::steady_clock::now();
        const auto model = system_facts().now();
        std::optional<std::string> problem;
        try {
            problem = scanner(job);
        } catch (const std::exception& thrown) {
            problem = thrown.what();
        }
        const double nominal = seconds(system_facts().now() - model);
        const double scan_wall = wall_since(wall);
        if (problem) {
            std::printf("%-5u failed: %s\n", lane, problem->c_str());
            continue;
        }
        const std::string metadata_path = runner_folder + "/" + std::to_string(id) + "_metadata.csv";
        const auto metadata = nlohmann::json::parse(std::ifstream(metadata_path));
        const unsigned taps = metadata.value("taps", 0u);
        const auto plot_start = std::chrono::steady_clock::now();
        const ProgramRun plot = run_program(PLOT_EYE_PATH, {"-inputjson", metadata_path}, std::chrono::seconds(30),
                                            runner_folder + "/plot_eye.log");
        const double plot_ms = wall_since(plot_start) * 1e3;
        // Columns 4..7 of the plot's summary row: top, bottom, left, right.
        std::string figures = plot.succeeded() ? "" : "plot failed: " + plot.error;
        std::ifstream summary(metadata.value("summary_csv", std::string()));
        std::string line;
        if (plot.succeeded() && std::getline(summary, line) && std::getline(summary, line)) {
            std::stringstream row(line);
            std::string cell;
            for (int column = 0; std::getline(row, cell, ',') && column <= 7; ++column)
                if (column >= 4) figures += cell + (column < 7 ? " " : "");
        }
        const double sampling = sampling_s(23, taps);
        std::printf("%-5u %5u %12.3f %12.3f %7.3f %10.3f %13.1f  %s\n", lane, taps, nominal, sampling,
                    nominal / sampling, scan_wall, plot_ms, figures.c_str());
        total_nominal += nominal;
        total_sampling += sampling;
        total_scan_wall += scan_wall;
        total_plot += plot_ms;
        longest_plot = std::max(longest_plot, plot_ms);
        done += plot.succeeded();
    }
    std::printf("%-5s %5s %12.3f %12.3f %7.3f %10.3f %13.1f  (%u of %u lanes scanned and plotted; "
                "plot_eye mean %.1f ms, longest %.1f ms)\n",
                "all", "", total_nominal, total_sampling, total_nominal / std::max(total_sampling, 1e-9),
                total_scan_wall, total_plot, done, kLanes, total_plot / std::max(done, 1u), longest_plot);
    std::printf("runner's estimate for the 16 lanes (8 taps assumed, 0.5 s a lane for commands and plot): %.3f s\n",
                kLanes * eye_scan_estimate_lane_seconds(EyeScanWindow{}, 23, kRateGbps, kTaps));

    CmdLineEyeScanParam request;
    std::vector<unsigned int> all(kLanes);
    for (unsigned int i = 0; i < kLanes; ++i) all[i] = i;
    request.lanes.push_back({die0, "G1", all, {}});
    EyeScanHooks hooks;
    hooks.folder = (folder / "all").string();
    hooks.rate_gbps = kRateGbps;
    hooks.console = &quiet.sink;
    // Each lane thread keeps its own model time, so only the wall time of
    // the whole is told here.
    const auto wall = std::chrono::steady_clock::now();
    DoEyeScan run(die0, request, hooks);
    run.initate_eye_scan();
    const double wall_s = wall_since(wall);
    unsigned all_done = 0;
    for (const auto& outcome : run.outcomes()) all_done += outcome.done ? 1 : 0;
    std::printf("\nDoEyeScan, the 16 lanes at once, nbits 23: sampling of one lane %.3f s, wall %.3f s "
                "(%u of %u lanes done)\n",
                sampling_s(23, kTaps), wall_s, all_done, kLanes);
    std::filesystem::remove_all(folder);
    return 0;
}
