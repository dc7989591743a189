// How long an E32 eye scan takes over the platform model at a time scale of
// 10^7: one lane of s0.G1 (32 Gb/s, tap mode 3: eight taps) with the default
// window (17 x 41 points), at nbits 23 (one run) and 25 (four runs), then all
// 16 lanes of the link at once as DoEyeScan runs them. The nominal time is
// model time, what hardware would take; the lower bound is the PHY's own
// sampling: taps x runs x points x (2 us + 2^nbits / 32 Gb/s).
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "discovery/die_detection.h"
#include "discovery/pci_detection.h"
#include "discovery/port_mapping.h"
#include "eye_scan/corvane_eye_scan.h"
#include "eye_scan/do_eye_scan.h"
#include "hardware/crn_factory.h"
#include "hardware/register_storage.h"
#include "hardware/system_facts.h"
#include "simulator/platform.h"

namespace {

constexpr double kTimeScale = 1e7, kRateGbps = 32;
constexpr unsigned kTaps = 8, kPoints = 17 * 41;

double bound_s(int nbits) {
    const int run_bits = std::min(nbits, 23);
    const double runs = std::ldexp(1.0, nbits - run_bits);
    return runs * kTaps * kPoints * (2e-6 + std::ldexp(1.0, run_bits) / (kRateGbps * 1e9));
}

double seconds(std::chrono::system_clock::duration d) { return std::chrono::duration<double>(d).count(); }

}  // namespace

int main() {
    sim::Platform platform = sim::load_platform("", std::nullopt, kTimeScale);
    platform.install();
    CRNFactory::initalize(platform.read_pci(), platform.write_pci());
    auto devices = DetectPCIDevices()(platform.read_pci());
    const auto dies = DetectVEXDies(platform.write_pci())(devices, platform.read_pci());
    VEX_DIE_INFO die0;
    for (const auto& die : dies)
        if (die.socket() == 0) die0 = die;
    const auto folder = std::filesystem::temp_directory_path() / "lanewright_eye_scan_bench";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);

    std::printf("%-28s %12s %12s %10s\n", "run", "nominal s", "bound s", "wall s");
    for (int nbits : {23, 25}) {
        auto phy = std::make_shared<PhyAccessor>(CRNFactory::instance()->get_crn_accessor(die0));
        auto lanes = get_lane_generic_info(die0);
        auto commands = std::make_shared<CorvaneE32PCSCommands>("G1", 0, get_register_store(die0));
        CorvaneEyeScan scan(die0, "G1", 0, commands, std::make_shared<StoneRingBufferReader>(phy), lanes,
                            std::make_shared<GetCorvaneE32LaneData>("G1", 0, phy, lanes));
        ScanParams p;
        p.folder = folder.string();
        p.id = nbits;
        p.nbits = nbits;
        p.rate_gbps = kRateGbps;
        std::string error;
        const auto wall = std::chrono::steady_clock::now();
        const auto model = system_facts().now();
        const bool ok = scan.initate_eye_scan(p, error);
        const double nominal = seconds(system_facts().now() - model);
        const double wall_s = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall).count();
        scan.disable_override();
        std::printf("%-28s %12.3f %12.3f %10.3f %s\n", ("one lane, nbits " + std::to_string(nbits)).c_str(), nominal,
                    bound_s(nbits), wall_s, ok ? "" : error.c_str());
    }

    CmdLineEyeScanParam request;
    std::vector<unsigned int> all(16);
    for (unsigned int i = 0; i < 16; ++i) all[i] = i;
    request.lanes.push_back({die0, "G1", all, {}});
    EyeScanHooks hooks;
    hooks.folder = (folder / "all").string();
    hooks.rate_gbps = kRateGbps;
    std::ostringstream quiet;
    hooks.console = &quiet;
    const auto wall = std::chrono::steady_clock::now();
    DoEyeScan run(die0, request, hooks);
    run.initate_eye_scan();
    const double wall_s = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall).count();
    unsigned done = 0;
    for (const auto& outcome : run.outcomes()) done += outcome.done ? 1 : 0;
    std::printf("%-28s %12s %12.3f %10.3f (%u of 16 lanes done)\n", "16 lanes at once, nbits 23", "-", bound_s(23),
                wall_s, done);
    std::filesystem::remove_all(folder);
    return 0;
}
