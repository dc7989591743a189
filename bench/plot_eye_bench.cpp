// What plot_eye costs per lane: one metadata file and a density CSV of the
// default window (17 phases x 40 voltage bins, nbits 23, four taps), plotted
// 1x and 2x. "Process" starts the built binary as the eye-scan runner does
// (posix_spawn, no shell) and waits for it; "InProcess" runs the same
// program body without the process start.
#include <benchmark/benchmark.h>

#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "eye_plot.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

struct Scan {
    fs::path dir, metadata;
    Scan() {
        dir = fs::temp_directory_path() / ("plot_eye_bench_" + std::to_string(::getpid()));
        fs::create_directories(dir);
        // An eye 0.6 UI by 75 mV; outside it the counts rise steeply to the
        // compared-bit total, as a real lane's do.
        std::ofstream csv(dir / "1000_data.csv");
        for (int r = 0; r < 40; ++r) {
            for (int p = 0; p < 17; ++p) {
                double x = -0.5 + p * 0.0625, y = -100 + (r + 0.5) * 5;
                double a = x / (x < 0 ? 0.28 : 0.32), b = y / (y >= 0 ? 44 : 31), d = std::sqrt(a * a + b * b);
                csv << (d < 1 ? (p + r) % 3 : std::min(67108864.0, std::round(3 * std::pow(10, 13 * (d - 1))))) << ",";
            }
            csv << "\n";
        }
        metadata = dir / "1000_metadata.csv";
        std::ofstream(metadata) << nlohmann::json{{"header", "socket_0_die_0_G1_0"},
                                                  {"csv_file_path", (dir / "1000_data.csv").string()},
                                                  {"output_file_path", (dir / "eye.png").string()},
                                                  {"summary_csv", (dir / "eye_summary.csv").string()},
                                                  {"start_y", -100}, {"y_step_size", 5}, {"y_step_size_axis", 25},
                                                  {"start_x", -0.5}, {"x_step_size", 0.0625},
                                                  {"x_step_size_axis", 0.25}, {"Device", "Socket:0 Die:0"},
                                                  {"Link", "G1"}, {"Lane", 0}, {"nbits", 23}, {"taps", 4},
                                                  {"BER", {"BER=4.47035e-08"}}}
                                       .dump(4);
    }
    ~Scan() { fs::remove_all(dir); }
};

std::vector<std::string> arguments(const Scan& scan, int scale) {
    return {PLOT_EYE_PATH, "-scale", std::to_string(scale), "-inputjson", scan.metadata.string()};
}

void BM_PlotEyeProcess(benchmark::State& state) {
    Scan scan;
    std::vector<std::string> args = arguments(scan, static_cast<int>(state.range(0)));
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    // Under load the wall time says little; the children's CPU time is the
    // tool's own cost.
    auto child_cpu = [] {
        rusage usage{};
        getrusage(RUSAGE_CHILDREN, &usage);
        return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
    };
    const double cpu_before = child_cpu();
    for (auto _ : state) {
        pid_t pid = 0;
        int status = 0;
        if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0 || waitpid(pid, &status, 0) != pid ||
            !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("plot_eye failed");
            break;
        }
    }
    state.counters["child_cpu_ms"] = (child_cpu() - cpu_before) * 1e3 / std::max<double>(1, state.iterations());
}

void BM_PlotEyeInProcess(benchmark::State& state) {
    Scan scan;
    std::vector<std::string> args = arguments(scan, static_cast<int>(state.range(0)));
    std::vector<const char*> argv;
    for (auto& a : args) argv.push_back(a.c_str());
    for (auto _ : state) {
        std::string error_text;
        if (EyePlot::run(static_cast<int>(argv.size()), argv.data(), error_text) != 0) {
            state.SkipWithError(error_text.c_str());
            break;
        }
    }
}

}  // namespace

BENCHMARK(BM_PlotEyeProcess)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PlotEyeInProcess)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_MAIN();
