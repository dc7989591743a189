// How long a PCIe margin takes: a 32 GT/s x16 NIC of the embedded machine,
// margined at its own receiver at a bit error rate of 10^-12 with no errors
// allowed (a dwell of 93.687 s per measured offset), over the platform model
// at a time scale of 10^6. The nominal duration is model time, what the run
// would take on hardware; wall time is what it took here.
//
// The lower bound is what any method needs: on every side of every lane at
// least two offsets at the full dwell (the last one that holds and the first
// one that fails), each with the protocol's 80 ms of handshakes (no command,
// clear error log, the step, no command). Lanes that run at once share it;
// batches follow one another.
#include <chrono>
#include <cstdio>
#include <string>

#include "discovery/port_mapping.h"
#include "hardware/gfx_accessor_maker.h"
#include "hardware/system_facts.h"
#include "margin_pcie/pcie_margin_multi_pass.h"
#include "simulator/platform.h"

using nlohmann::json;
using PCIE::PCIEMarginMultiPass;

namespace {

constexpr double kTimeScale = 1e6;
constexpr unsigned kLanes = 16, kSidesPerLane = 4, kFullDwellOffsetsPerSide = 2;
constexpr double kProtocolSecondsPerOffset = 0.080;

struct Row {
    const char* method;
    const char* lanes;
    double nominal_s = 0, bound_s = 0, wall_s = 0;
    double worst_left_ui = 0;
    bool ok = false;
};

Row run(PCIEMarginMultiPass::MarginMethod method, PCIEMarginMultiPass::LaneMode mode) {
    Row row;
    row.method = method == PCIEMarginMultiPass::WALKBACK ? "walkback" : "stepthrough";
    row.lanes = mode == PCIEMarginMultiPass::PARALLEL ? "parallel" : "sequential";
    sim::Platform platform = sim::load_platform("", std::nullopt, kTimeScale);
    platform.install();

    PCIEMarginMultiPass::InitParams params;
    params.bus = 0x41;
    params.receiver = 6;
    params.BER = 12;
    params.error_count = 0;
    params.lane_mode = mode;
    params.margin_method = method;
    PCIE::MarginEngineAccess access;
    access.read = platform.read_pci();
    access.write = platform.write_pci();
    PCIE::DumpPCIEMarginDataToConsole console(false);
    const PCIEMarginMultiPass engine({}, {}, params, console, access);

    json results = json::array();
    const int64_t model_start = platform.model().clock().frontier();
    const auto wall_start = std::chrono::steady_clock::now();
    row.ok = engine.margin(results, 1);
    row.wall_s = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_start).count();
    row.nominal_s = static_cast<double>(platform.model().clock().frontier() - model_start) / 1e9;
    if (!row.ok || results.size() != kLanes) return row;

    const double dwell_s = results[0]["DwellTime"].get<unsigned>() / 1000.0;
    const unsigned parallel =
        mode == PCIEMarginMultiPass::PARALLEL && results[0]["IndErrSampler"].get<bool>()
            ? std::min(kLanes, results[0]["MaxLanes"].get<unsigned>() + 1)
            : 1;
    const unsigned batches = (kLanes + parallel - 1) / parallel;
    row.bound_s = batches * kSidesPerLane * kFullDwellOffsetsPerSide * (dwell_s + kProtocolSecondsPerOffset);
    row.worst_left_ui = results[0]["PhaseLeftMargin"].get<double>();
    for (const json& lane : results) row.worst_left_ui = std::min(row.worst_left_ui, lane["PhaseLeftMargin"].get<double>());
    return row;
}

}  // namespace

int main() {
    std::printf("PCIe margin, x16 at 32 GT/s, BER 1e-12, ErrCnt 0, time scale %.0e\n", kTimeScale);
    std::printf("%-12s %-10s %14s %14s %8s %9s %12s\n", "method", "lanes", "nominal (s)", "bound (s)",
                "x bound", "wall (s)", "worst L (UI)");
    bool all_ok = true;
    for (const auto method : {PCIEMarginMultiPass::WALKBACK, PCIEMarginMultiPass::STEPTHROUGH})
        for (const auto mode : {PCIEMarginMultiPass::PARALLEL, PCIEMarginMultiPass::SEQUENTIAL}) {
            const Row row = run(method, mode);
            all_ok = all_ok && row.ok;
            std::printf("%-12s %-10s %14.1f %14.1f %8.2f %9.2f %12.4f%s\n", row.method, row.lanes, row.nominal_s,
                        row.bound_s, row.bound_s > 0 ? row.nominal_s / row.bound_s : 0.0, row.wall_s,
                        row.worst_left_ui, row.ok ? "" : "  (margin failed)");
        }
    set_system_facts(nullptr);
    set_gfx_accessor_maker(nullptr);
    return all_ok ? 0 : 1;
}
