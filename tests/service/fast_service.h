// The simulated service as a process of its own, at a time scale that runs
// a margin or an eye scan in seconds, with its results in a folder of its own.
#pragma once

#include <filesystem>
#include <fstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "service_process.h"

namespace wire_test {

using nlohmann::json;

struct FastService : ServiceProcess {
    FastService()
        : ServiceProcess(free_port(),
                         std::filesystem::temp_directory_path() / ("lanewright_fast_" + std::to_string(::getpid())),
                         {"--time-scale", "100000"}, 0, true) {
        owns_results = true;
    }
    json get(const std::string& path) {
        for (int attempt = 0; attempt < 100; ++attempt) {
            try {
                const auto answer = wire_test::request(port, "GET", path, "");
                if (answer.status == 200) return json::parse(answer.body);
            } catch (const std::runtime_error&) {
                // not listening yet
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return json();
    }
    // The archived record of a test, once its output.json exists.
    json archived(unsigned long id) {
        for (int attempt = 0; attempt < 600; ++attempt) {
            if (std::filesystem::exists(results))
                for (const auto& run : std::filesystem::directory_iterator(results)) {
                    const auto file = run.path() / ("test_" + std::to_string(id)) / "output.json";
                    if (std::filesystem::exists(file)) return json::parse(std::ifstream(file));
                }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return json();
    }
};

}  // namespace wire_test
