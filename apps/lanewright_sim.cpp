// The service over a simulated machine; never touches real hardware.
#include <cstdint>
#include <cstdlib>
#include <future>
#include <optional>
#include <iostream>
#include <string>

#include "service/service_main.h"
#include "service/shutdown_signals.h"
#include "simulator/platform.h"
#include "sysfs_view/sysfs_view.h"

namespace {

void print_usage() {
    std::cout << "Usage: lanewright-sim [--profile FILE] [--port N] [--results DIR] [--time-scale X] [--seed N] [--ui DIR]\n"
                 "                      [--sysfs-view DIR [--no-server]]\n"
                 "  --profile FILE  machine profile, JSON (default: the embedded two-socket server)\n"
                 "  --port N        TCP port to serve on (default 9970)\n"
                 "  --results DIR   result archive root (default ./lanewright_gui)\n"
                 "  --time-scale X  model time runs X times faster than real time (default 1)\n"
                 "  --seed N        noise seed (default: the profile's)\n"
                 "  --ui DIR        front-end folder (default: UI beside the executable)\n"
                 "  --sysfs-view DIR  also serve the model as a sysfs tree in DIR, an empty\n"
                 "                  folder (lspci -A linux-sysfs -O sysfs.path=DIR/bus/pci)\n"
                 "  --no-server     with --sysfs-view: serve the view only, until SIGINT/SIGTERM\n";
}

bool parse_port(const std::string& text, unsigned long& port) {
    try {
        std::size_t used = 0;
        const unsigned long value = std::stoul(text, &used);
        if (used != text.size() || value == 0 || value > 65535) return false;
        port = value;
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

bool parse_time_scale(const std::string& text, double& scale) {
    try {
        std::size_t used = 0;
        const double value = std::stod(text, &used);
        if (used != text.size() || !(value > 0) || value > 1e9) return false;
        scale = value;
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

bool parse_seed(const std::string& text, std::uint64_t& seed) {
    try {
        std::size_t used = 0;
        if (text.empty() || text[0] == '-') return false;
        seed = std::stoull(text, &used);
        return used == text.size();
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

int main(int argc, char** argv) {
    ServiceOptions options;
    options.results_root = "./lanewright_gui";
    std::string profile;  // empty: the embedded machine
    double time_scale = 1.0;
    std::optional<std::uint64_t> seed;
    std::string sysfs_view;
    bool no_server = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--help" || arg == "-h") {
            print_usage();
            return 0;
        } else if (arg == "--port" && has_value) {
            if (!parse_port(argv[++i], options.port)) {
                std::cerr << "Error: --port needs a number from 1 to 65535, got '" << argv[i] << "'\n";
                return 2;
            }
        } else if (arg == "--results" && has_value) {
            options.results_root = argv[++i];
        } else if (arg == "--profile" && has_value) {
            profile = argv[++i];
        } else if (arg == "--time-scale" && has_value) {
            if (!parse_time_scale(argv[++i], time_scale)) {
                std::cerr << "Error: --time-scale needs a number above 0, got '" << argv[i] << "'\n";
                return 2;
            }
        } else if (arg == "--seed" && has_value) {
            std::uint64_t value = 0;
            if (!parse_seed(argv[++i], value)) {
                std::cerr << "Error: --seed needs a whole number, got '" << argv[i] << "'\n";
                return 2;
            }
            seed = value;
        } else if (arg == "--ui" && has_value) {
            options.ui_folder = argv[++i];
        } else if (arg == "--sysfs-view" && has_value) {
            sysfs_view = argv[++i];
        } else if (arg == "--no-server") {
            no_server = true;
        } else {
            std::cerr << "Error: unknown or incomplete option '" << arg << "'\n";
            print_usage();
            return 2;
        }
    }
    if (no_server && sysfs_view.empty()) {
        std::cerr << "Error: --no-server needs --sysfs-view DIR\n";
        return 2;
    }
    // Before the view's thread exists, so that only the service's watcher
    // takes SIGINT and SIGTERM and every exit path unmounts the view.
    ShutdownSignals::block_in_this_process();
    try {
        const sim::Platform platform = sim::load_platform(profile, seed, time_scale);
        platform.install();
        options.read = platform.read_pci();
        options.write = platform.write_pci();
        std::cout << "Simulated machine: " << (profile.empty() ? std::string("embedded default") : profile)
                  << ", time scale " << time_scale << std::endl;
        std::optional<sim::SysfsView> view;
        if (!sysfs_view.empty()) {
            try {
                view.emplace(platform.model_ptr(), sysfs_view);
            } catch (const sim::SysfsViewError& error) {
                std::cerr << "Error: --sysfs-view " << error.what() << std::endl;
                return 2;
            }
            std::cout << "Model served as sysfs at " << view->folder() << " (lspci -A linux-sysfs -O sysfs.path="
                      << view->pci_path() << ")" << std::endl;
        }
        if (no_server) {
            std::promise<void> signalled;
            ShutdownSignals signals([&signalled] { signalled.set_value(); });
            signalled.get_future().wait();
            return 0;
        }
        return run_service(options);
    } catch (const std::exception& error) {
        std::cerr << "Error: " << error.what() << std::endl;
        return 2;
    }
}
