// What the sysfs view costs: one 4-byte configuration read through the
// view (the product's sysfs backend, a FUSE round trip into the model)
// against the same read in process and against this machine's own sysfs;
// and `lspci -vvv` over the view against over the real sysfs (process start
// included in both). The view is mounted by the benchmark itself in a
// temporary folder and unmounted at the end.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "hardware/pci_lin.h"
#include "simulator/platform.h"
#include "sysfs_view/sysfs_view.h"

extern char** environ;

namespace {

sim::Platform& platform() {
    static sim::Platform p = sim::load_platform("", std::nullopt, 1.0);
    return p;
}

std::string g_view_error;
sim::SysfsView* g_view = nullptr;

// The 32 GT/s NIC's root port; its link status changes with the link, so
// nothing can answer it from a cache.
constexpr unsigned kBus = 0x40, kDevice = 1, kFunction = 0, kOffset = 0x6A & ~3u;

void BM_ConfigRead32InProcess(benchmark::State& state) {
    const auto read = platform().read_pci();
    unsigned value = 0;
    for (auto _ : state) {
        read->read32(0, kBus, kDevice, kFunction, kOffset, value);
        benchmark::DoNotOptimize(value);
    }
}

void BM_ConfigRead32ThroughView(benchmark::State& state) {
    if (!g_view) return state.SkipWithError(g_view_error.c_str());
    const PCI_lin pci(g_view->folder() + "/bus/pci/devices");
    unsigned value = 0;
    if (!pci.readDWordEx(0, kBus, kDevice, kFunction, kOffset, value))
        return state.SkipWithError("the view's config file can't be read");
    for (auto _ : state) {
        pci.readDWordEx(0, kBus, kDevice, kFunction, kOffset, value);
        benchmark::DoNotOptimize(value);
    }
}

// The first function this machine lists, at offset 0 (readable without root).
void BM_ConfigRead32RealSysfs(benchmark::State& state) {
    const PCI_lin pci;
    std::error_code error;
    unsigned segment = 0, bus = 0, device = 0, function = 0;
    bool found = false;
    for (const auto& entry : std::filesystem::directory_iterator("/sys/bus/pci/devices", error))
        if (std::sscanf(entry.path().filename().c_str(), "%x:%x:%x.%u", &segment, &bus, &device, &function) == 4) {
            found = true;
            break;
        }
    if (!found) return state.SkipWithError("this machine lists no PCI function in sysfs");
    unsigned value = 0;
    for (auto _ : state) {
        pci.readDWordEx(segment, bus, device, function, 0, value);
        benchmark::DoNotOptimize(value);
    }
}

// One run of the program with its output discarded; false if it failed.
bool run_quietly(const std::vector<std::string>& args) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) return false;
    int status = 0;
    if (::waitpid(pid, &status, 0) < 0) return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void lspci(benchmark::State& state, const std::string& path) {
    const std::vector<std::string> args = {"lspci", "-A", "linux-sysfs", "-O", "sysfs.path=" + path, "-vvv"};
    if (!run_quietly(args)) return state.SkipWithError("lspci failed (is pciutils installed?)");
    for (auto _ : state) run_quietly(args);
}

void BM_LspciVvvOverView(benchmark::State& state) {
    if (!g_view) return state.SkipWithError(g_view_error.c_str());
    lspci(state, g_view->pci_path());
}

void BM_LspciVvvRealSysfs(benchmark::State& state) { lspci(state, "/sys/bus/pci"); }

}  // namespace

BENCHMARK(BM_ConfigRead32InProcess)->Unit(benchmark::kNanosecond)->UseRealTime();
BENCHMARK(BM_ConfigRead32ThroughView)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_ConfigRead32RealSysfs)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_LspciVvvOverView)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_LspciVvvRealSysfs)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    char folder[] = "/tmp/lw-sysfs-bench-XXXXXX";
    if (::mkdtemp(folder)) {
        try {
            g_view = new sim::SysfsView(platform().model_ptr(), folder);
        } catch (const sim::SysfsViewError& error) {
            g_view_error = std::string("no sysfs view: ") + error.what();
        }
    } else {
        g_view_error = "no temporary folder for the view";
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    delete g_view;
    std::error_code ignored;
    std::filesystem::remove(folder, ignored);
    return 0;
}
