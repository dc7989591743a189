// The service over a simulated machine; never touches real hardware.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <iostream>
#include <string>

#include "service/service_main.h"
#include "simulator/platform.h"

namespace {

void print_usage() {
    std::cout << "Usage: lanewright-sim [--profile FILE] [--port N] [--results DIR] [--time-scale X] [--seed N] [--ui DIR]\n"
                 "  --profile FILE  machine profile, JSON (default: the embedded two-socket server)\n"
                 "  --port N        TCP port to serve on (default 9970)\n"
                 "  --results DIR   result archive root (default ./lanewright_gui)\n"
                 "  --time-scale X  model time runs X times faster than real time (default 1)\n"
                 "  --seed N        noise seed (default: the profile's)\n"
                 "  --ui DIR        front-end folder (default: UI beside the executable)\n";
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
        } else {
            std::cerr << "Error: unknown or incomplete option '" << arg << "'\n";
            print_usage();
            return 2;
        }
    }
    try {
        const sim::Platform platform = sim::load_platform(profile, seed, time_scale);
        platform.install();
        options.read = platform.read_pci();
        options.write = platform.write_pci();
        std::cout << "Simulated machine: " << (profile.empty() ? std::string("embedded default") : profile)
                  << ", time scale " << time_scale << std::endl;
        return run_service(options);
    } catch (const std::exception& error) {
        std::cerr << "Error: " << error.what() << std::endl;
        return 2;
    }
}
