// What start-up costs: detecting functions and dies and building the
// inventory, over the platform model and over this machine's sysfs; and one
// register network read straight into the model against one through the
// index/data pair of the root function's configuration space.
//
// The inventory needs no CRNFactory (die detection makes its own accessors
// on the root functions), so none is set up here. Each benchmark installs the
// system facts it needs, because the processor identity decides which die
// tables match and the model's facts would otherwise leak into the real run.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "discovery/die_detection.h"
#include "discovery/pci_detection.h"
#include "hardware/chips/chip_identity.h"
#include "hardware/crn_accessor_corvane.h"
#include "hardware/gfx_accessor_maker.h"
#include "hardware/pci_std.h"
#include "hardware/system_facts.h"
#include "service/startup_inventory.h"
#include "simulator/platform.h"

namespace {

sim::Platform& default_platform() {
    static sim::Platform platform = sim::load_platform("", std::nullopt, 1.0);
    return platform;
}

void run_inventory(benchmark::State& state, const std::shared_ptr<ReadPCI>& read,
                   const std::shared_ptr<WritePCI>& write) {
    size_t functions = 0, dies = 0, lines = 0;
    for (auto _ : state) {
        std::vector<PCIDeviceDetails> devices = DetectPCIDevices()(read);
        const std::vector<VEX_DIE_INFO> found = DetectVEXDies(write)(devices, read);
        const std::vector<std::string> text = inventory_lines(devices, found, read);
        benchmark::DoNotOptimize(text.data());
        functions = devices.size();
        dies = found.size();
        lines = text.size();
    }
    state.counters["functions"] = static_cast<double>(functions);
    state.counters["dies"] = static_cast<double>(dies);
    state.counters["lines"] = static_cast<double>(lines);
}

void BM_InventoryModel(benchmark::State& state) {
    const sim::Platform& platform = default_platform();
    platform.install();
    run_inventory(state, platform.read_pci(), platform.write_pci());
}

void BM_InventoryRealSysfs(benchmark::State& state) {
    set_system_facts(nullptr);
    set_gfx_accessor_maker({});
    run_inventory(state, std::make_shared<ReadPCIStd>(), std::make_shared<WritePCIStd>());
}

void BM_CrnRead32ModelDirect(benchmark::State& state) {
    const sim::Platform& platform = default_platform();
    platform.install();
    const std::shared_ptr<CRNAccessor> accessor = platform.model().die_accessor(0, 0);
    for (auto _ : state) benchmark::DoNotOptimize(accessor->read32(chips::kDieIdentityRegister));
}

void BM_CrnRead32ThroughRootFunction(benchmark::State& state) {
    const sim::Platform& platform = default_platform();
    platform.install();
    // Socket 0's root function is 0:0:0.0.
    const CRNAccessorCorvane accessor(0, 0, 0, 0, chips::kCrnIndexOffset, chips::kCrnDataOffset,
                                      chips::kCrnExtensionOffset, platform.write_pci(), platform.read_pci());
    const unsigned int expected = platform.model().die_accessor(0, 0)->read32(chips::kDieIdentityRegister);
    if (accessor.read32(chips::kDieIdentityRegister) != expected) {
        state.SkipWithError("the root function's index/data pair doesn't reach die 0 of socket 0");
        return;
    }
    for (auto _ : state) benchmark::DoNotOptimize(accessor.read32(chips::kDieIdentityRegister));
}

}  // namespace

BENCHMARK(BM_InventoryModel)->Unit(benchmark::kMillisecond)->UseRealTime();
// Real sysfs runs take a quarter second each; give them enough runs to average.
BENCHMARK(BM_InventoryRealSysfs)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(3.0);
BENCHMARK(BM_CrnRead32ModelDirect)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_CrnRead32ThroughRootFunction)->Unit(benchmark::kNanosecond);

BENCHMARK_MAIN();
