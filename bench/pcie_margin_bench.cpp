// How long a PCIe margin takes: a 32 GT/s x16 NIC of the embedded machine,
// margined at its own receiver at a bit error rate of 10^-12 with no errors
// allowed (a dwell of 93.687 s per measured offset), over the platform model
// at a time scale of 10^6. The nominal duration is model time, what the run
// would take on hardware; wall time is what it took here. Each method runs
// with early exit at failing offsets and with every measured offset at the
// full dwell, in the same process, from the same machine.
//
// The limit is what any method needs: on every side of a lane one full dwell
// at the last offset that holds, plus the time the first failing offset
// takes to show more errors than allowed, plus the protocol's 80 ms of
// handshakes (no command, clear error log, the step, no command) at each of
// the two. That time is measured on the model after the runs: the failing
// offset is stepped to and its status read every millisecond. Lanes that run
// at once share their batch's time (its slowest lane); batches add up.
//
// Every run's margins must equal, lane by lane and side by side, those of
// the full-dwell walkback run; the bench says so and fails otherwise.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "discovery/pci_capability.h"
#include "discovery/port_mapping.h"
#include "hardware/gfx_accessor_maker.h"
#include "hardware/os_specific.h"
#include "hardware/system_facts.h"
#include "margin_pcie/execute_lane_margin_command.h"
#include "margin_pcie/pcie_margin_multi_pass.h"
#include "simulator/platform.h"

using nlohmann::json;
using PCIE::ExecuteLaneMarginCmd;
using PCIE::PCIEMarginMultiPass;

namespace {

constexpr double kTimeScale = 1e6;
constexpr unsigned kBus = 0x41, kReceiver = 6, kLanes = 16;
constexpr double kProtocolSeconds = 0.080;
constexpr unsigned kProbeLimitMs = 100000;

// The sides in walking order, with the report key of their margin offset.
struct Side {
    const char* offset_key;
    bool voltage;
    bool negative;
};
constexpr std::array<Side, 4> kSides = {{{"VoltBottomOffset", true, true},
                                         {"VoltTopOffset", true, false},
                                         {"PhaseLeftOffset", false, true},
                                         {"PhaseRightOffset", false, false}}};

struct Run {
    PCIEMarginMultiPass::MarginMethod method;
    PCIEMarginMultiPass::LaneMode mode;
    bool early_exit;
    double nominal_s = 0, wall_s = 0;
    json results;
    bool ok = false;
};

const char* method_name(PCIEMarginMultiPass::MarginMethod m) {
    return m == PCIEMarginMultiPass::WALKBACK ? "walkback" : "stepthrough";
}
const char* mode_name(PCIEMarginMultiPass::LaneMode m) {
    return m == PCIEMarginMultiPass::PARALLEL ? "parallel" : "sequential";
}

PCIEMarginMultiPass::InitParams nic_params() {
    PCIEMarginMultiPass::InitParams params;
    params.bus = kBus;
    params.receiver = kReceiver;
    params.BER = 12;
    params.error_count = 0;
    return params;
}

void run(Run& r) {
    sim::Platform platform = sim::load_platform("", std::nullopt, kTimeScale);
    platform.install();
    reset_all_port_data();
    PCIEMarginMultiPass::InitParams params = nic_params();
    params.lane_mode = r.mode;
    params.margin_method = r.method;
    params.early_exit = r.early_exit;
    PCIE::MarginEngineAccess access;
    access.read = platform.read_pci();
    access.write = platform.write_pci();
    PCIE::DumpPCIEMarginDataToConsole console(false);
    const PCIEMarginMultiPass engine({}, {}, params, console, access);

    r.results = json::array();
    const int64_t model_start = platform.model().clock().frontier();
    const auto wall_start = std::chrono::steady_clock::now();
    r.ok = engine.margin(r.results, 1) && r.results.size() == kLanes;
    r.wall_s = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_start).count();
    r.nominal_s = static_cast<double>(platform.model().clock().frontier() - model_start) / 1e9;
}

bool same_margins(const json& a, const json& b) {
    if (a.size() != kLanes || b.size() != kLanes) return false;
    for (unsigned lane = 0; lane < kLanes; ++lane)
        for (const Side& side : kSides)
            if (a[lane][side.offset_key] != b[lane][side.offset_key]) return false;
    return true;
}

// Seconds from the step's response until offset shows more than no errors;
// 0 when the offset never does (the edge lies beyond the last step).
double seconds_until_errors(const ExecuteLaneMarginCmd& cmd, const Side& side, unsigned offset) {
    std::string err;
    cmd.send_no_command(err);
    cmd.clear_error_log(err);
    ExecuteLaneMarginCmd::MarginExecutionStatus status = ExecuteLaneMarginCmd::SETUP_IN_PROGRESS;
    unsigned errors = 0;
    const int steps = static_cast<int>(offset);
    const bool sent = side.voltage ? (side.negative ? cmd.send_volt_margin_down_cmd(steps, status, errors, err)
                                                    : cmd.send_volt_margin_up_cmd(steps, status, errors, err))
                                   : (side.negative ? cmd.send_time_margin_left_cmd(steps, status, errors, err)
                                                    : cmd.send_time_margin_right_cmd(steps, status, errors, err));
    double seconds = 0;
    if (sent && status != ExecuteLaneMarginCmd::NAK)
        for (unsigned ms = 1; ms <= kProbeLimitMs; ++ms) {
            OSSpecific().milli_secs_sleep(1);
            cmd.read_margin_response(status, errors, err);
            const bool counting = status == ExecuteLaneMarginCmd::MARGIN_IN_PROGRESS;
            if (status == ExecuteLaneMarginCmd::TOO_MANY_ERRORS || (counting && errors > 0)) {
                seconds = ms / 1000.0;
                break;
            }
        }
    cmd.send_no_command(err);
    cmd.go_to_normal_settings(err);
    cmd.clear_error_log(err);
    return seconds;
}

// Per lane, the limit of each side: one full dwell, the first failing
// offset's time to errors, and the handshakes of both.
std::vector<std::array<double, 4>> side_limits(const json& reference, double& fastest, double& slowest) {
    sim::Platform platform = sim::load_platform("", std::nullopt, kTimeScale);
    platform.install();
    const auto read = platform.read_pci();
    const auto write = platform.write_pci();
    const double dwell = reference[0]["DwellTime"].get<unsigned>() / 1000.0;
    const unsigned steps_of[2] = {reference[0]["NumTimingSteps"].get<unsigned>(),
                                  reference[0]["NumVoltSteps"].get<unsigned>()};
    std::vector<std::array<double, 4>> limits(kLanes);
    for (unsigned lane = 0; lane < kLanes; ++lane) {
        const ExecuteLaneMarginCmd cmd(PCIE::Device_ID(0, kBus, 0, 0), lane, kReceiver, *read, *write);
        std::string err;
        cmd.set_error_threshold(63, err);
        for (std::size_t s = 0; s < kSides.size(); ++s) {
            const unsigned failing = reference[lane][kSides[s].offset_key].get<unsigned>() + 1;
            const double showing =
                failing <= steps_of[kSides[s].voltage] ? seconds_until_errors(cmd, kSides[s], failing) : 0;
            limits[lane][s] = dwell + showing + 2 * kProtocolSeconds;
            if (showing > 0) {
                fastest = std::min(fastest, showing);
                slowest = std::max(slowest, showing);
            }
        }
    }
    return limits;
}

double limit_of(const std::vector<std::array<double, 4>>& sides, unsigned lanes_at_once) {
    double total = 0;
    for (unsigned begin = 0; begin < kLanes; begin += lanes_at_once) {
        double slowest = 0;
        for (unsigned lane = begin; lane < std::min(kLanes, begin + lanes_at_once); ++lane) {
            double lane_total = 0;
            for (const double side : sides[lane]) lane_total += side;
            slowest = std::max(slowest, lane_total);
        }
        total += slowest;
    }
    return total;
}

}  // namespace

int main() {
    using M = PCIEMarginMultiPass;
    std::vector<Run> runs;
    for (const auto& [method, mode] : {std::pair{M::WALKBACK, M::PARALLEL}, std::pair{M::WALKBACK, M::SEQUENTIAL},
                                       std::pair{M::STEPTHROUGH, M::PARALLEL}})
        for (const bool early : {true, false}) runs.push_back({method, mode, early});
    for (Run& r : runs) run(r);
    const Run& reference = runs[1];  // walkback, parallel, full dwell
    if (!reference.ok) {
        std::printf("The reference run failed.\n");
        return 1;
    }
    double fastest = 1e9, slowest = 0;
    const auto sides = side_limits(reference.results, fastest, slowest);
    const unsigned parallel = reference.results[0]["IndErrSampler"].get<bool>()
                                  ? std::min(kLanes, reference.results[0]["MaxLanes"].get<unsigned>() + 1)
                                  : 1;

    std::printf("PCIe margin, x16 at 32 GT/s, BER 1e-12, ErrCnt 0, dwell %.3f s, time scale %.0e\n",
                reference.results[0]["DwellTime"].get<unsigned>() / 1000.0, kTimeScale);
    std::printf("%-12s %-10s %-10s %12s %12s %8s %9s %s\n", "method", "lanes", "dwell", "nominal (s)", "limit (s)",
                "x limit", "wall (s)", "margins");
    bool all_ok = true;
    for (const Run& r : runs) {
        const double limit = limit_of(sides, r.mode == M::PARALLEL ? parallel : 1);
        const bool same = r.ok && same_margins(r.results, reference.results);
        all_ok = all_ok && same;
        std::printf("%-12s %-10s %-10s %12.1f %12.1f %8.2f %9.2f %s\n", method_name(r.method), mode_name(r.mode),
                    r.early_exit ? "early exit" : "full", r.nominal_s, limit, r.nominal_s / limit, r.wall_s,
                    !r.ok ? "run failed" : same ? "identical on all 16 lanes" : "DIFFER");
    }
    std::printf("First failing offsets showed errors %.0f to %.0f ms after their step's response.\n", fastest * 1e3,
                slowest * 1e3);
    for (std::size_t i = 0; i + 1 < runs.size(); i += 2)
        std::printf("%s %s: early exit takes %.2f of the full-dwell time\n", method_name(runs[i].method),
                    mode_name(runs[i].mode), runs[i].nominal_s / runs[i + 1].nominal_s);
    set_system_facts(nullptr);
    set_gfx_accessor_maker(nullptr);
    return all_ok ? 0 : 1;
}
