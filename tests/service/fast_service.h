// The simulated service as a process of its own, at a time scale that runs
// a margin or an eye scan in seconds, with its results in a folder of its own.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "wire_client.h"

namespace wire_test {

using nlohmann::json;

struct FastService {
    pid_t pid = -1;
    unsigned port = wire_test::free_port();
    std::filesystem::path results =
        std::filesystem::temp_directory_path() / ("lanewright_fast_" + std::to_string(::getpid()));

    FastService() {
        pid = ::fork();
        if (pid == 0) {
            const int null = ::open("/dev/null", O_WRONLY);
            ::dup2(null, STDOUT_FILENO);
            ::dup2(null, STDERR_FILENO);
            const std::string port_text = std::to_string(port);
            ::execl(LANEWRIGHT_SIM_PATH, LANEWRIGHT_SIM_PATH, "--port", port_text.c_str(), "--results",
                    results.c_str(), "--time-scale", "100000", nullptr);
            ::_exit(127);
        }
    }
    ~FastService() {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        std::filesystem::remove_all(results);
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
