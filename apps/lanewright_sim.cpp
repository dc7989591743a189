// The service over a simulated machine; never touches real hardware.
#include <cstdlib>
#include <iostream>
#include <string>

#include "service/service_main.h"

namespace {

void print_usage() {
    std::cout << "Usage: lanewright-sim [--port N] [--results DIR] [--ui DIR]\n"
                 "  --port N       TCP port to serve on (default 9970)\n"
                 "  --results DIR  result archive root (default ./lanewright_gui)\n"
                 "  --ui DIR       front-end folder (default: UI beside the executable)\n";
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

}  // namespace

int main(int argc, char** argv) {
    ServiceOptions options;
    options.results_root = "./lanewright_gui";
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
        } else if (arg == "--ui" && has_value) {
            options.ui_folder = argv[++i];
        } else {
            std::cerr << "Error: unknown or incomplete option '" << arg << "'\n";
            print_usage();
            return 2;
        }
    }
    return run_service(options);
}
