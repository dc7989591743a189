// The service as a process: what it prints, and that every way of ending it
// ends it cleanly with exit code 0.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include <gtest/gtest.h>

#include "wire_client.h"

namespace {

struct ServiceProcess {
    pid_t pid = -1;
    int output = -1;  // the child's standard output
    unsigned port = 0;
    std::filesystem::path results;

    explicit ServiceProcess(unsigned listen_port) : port(listen_port) {
        results = std::filesystem::temp_directory_path() / ("lanewright_proc_" + std::to_string(::getpid()));
        int pipe_fds[2];
        if (::pipe(pipe_fds) != 0) throw std::runtime_error("pipe");
        pid = ::fork();
        if (pid == 0) {
            ::dup2(pipe_fds[1], STDOUT_FILENO);
            ::close(pipe_fds[0]);
            const std::string port_text = std::to_string(port);
            ::execl(LANEWRIGHT_SIM_PATH, LANEWRIGHT_SIM_PATH, "--port", port_text.c_str(), "--results",
                    results.c_str(), nullptr);
            ::_exit(127);
        }
        ::close(pipe_fds[1]);
        output = pipe_fds[0];
    }
    ~ServiceProcess() {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
        ::close(output);
        std::filesystem::remove_all(results);
    }

    // Collects standard output until the text appears or the process ends.
    std::string read_until(const std::string& text) {
        std::string collected;
        while (collected.find(text) == std::string::npos) {
            const std::string part = wire_test::receive_some(output, 10000);
            if (part.empty()) break;
            collected += part;
        }
        return collected;
    }

    // The exit code, or -1 if the process didn't end within ten seconds.
    int wait_for_exit() {
        for (int i = 0; i < 1000; ++i) {
            int status = 0;
            if (::waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return -1;
    }
};

}  // namespace

TEST(ServiceProcessTest, AnnouncesItselfAndEndsWithZeroOnStop) {
    ServiceProcess service(wire_test::free_port());
    const std::string printed = service.read_until("(chrome recommended):  http://");
    EXPECT_NE(printed.find("Started server at "), std::string::npos) << printed;
    EXPECT_NE(printed.find(":" + std::to_string(service.port) + "\n"), std::string::npos) << printed;
    // The inventory of the embedded machine comes first: both sockets' dies and the PCIe tree.
    for (const char* expected : {"PCI functions found: 24", "Dies found: 2\n", "Corvane  socket 0 die 0",
                                 "Corvane  socket 1 die 0", "PCIe ports found: 10", "0000:00:01.0  VEX RootPort  buses 01..05"}) {
        EXPECT_NE(printed.find(expected), std::string::npos) << expected << " missing in:\n" << printed;
    }
    EXPECT_LT(printed.find("PCIe ports found"), printed.find("Started server at "));
    const auto answer = wire_test::request(service.port, "GET", "/stop");
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(service.wait_for_exit(), 0);
}

class SignalEndTest : public ::testing::TestWithParam<int> {};

TEST_P(SignalEndTest, SignalEndsTheServiceWithZero) {
    ServiceProcess service(wire_test::free_port());
    service.read_until("(chrome recommended):  http://");
    ::kill(service.pid, GetParam());
    EXPECT_EQ(service.wait_for_exit(), 0);
}

INSTANTIATE_TEST_SUITE_P(Signals, SignalEndTest, ::testing::Values(SIGINT, SIGTERM));

TEST(ServiceProcessTest, TakenPortIsReportedNotCrashed) {
    ServiceProcess first(wire_test::free_port());
    first.read_until("(chrome recommended):  http://");
    ServiceProcess second(first.port);
    EXPECT_EQ(second.wait_for_exit(), 1);
    wire_test::request(first.port, "GET", "/stop");
    EXPECT_EQ(first.wait_for_exit(), 0);
}

// A stress loop that would run for ever must not hold the service at /stop.
TEST(ServiceProcessTest, StopDuringAPortStressRunEndsWithZero) {
    ServiceProcess service(wire_test::free_port());
    service.read_until("(chrome recommended):  http://");
    const auto info = nlohmann::json::parse(wire_test::request(service.port, "GET", "/api/1.0/GetPortSelectionInfo").body);
    nlohmann::json settings = info["contLoopSettings"];
    settings["settingsSelection"]["selectedIndex"] = 2;  // retrain, no loop limit
    settings["continuousRun"]["selectedIndex"] = 8;
    wire_test::request(service.port, "POST", "/api/1.0/GetPortStatusInfo", R"({"index":2})");
    EXPECT_EQ(wire_test::request(service.port, "POST", "/api/1.0/StartPortStatusContinuousRun", settings.dump()).status,
              200);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const auto running = nlohmann::json::parse(wire_test::request(service.port, "GET", "/api/1.0/GetPortSelectionInfo").body);
    EXPECT_TRUE(running["TestRunning"]) << running["counts"].dump();
    EXPECT_EQ(wire_test::request(service.port, "GET", "/stop").status, 200);
    EXPECT_EQ(service.wait_for_exit(), 0);
    std::filesystem::remove_all("pcie_reports");
}
