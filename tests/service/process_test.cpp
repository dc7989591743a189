// The service as a process: what it prints, that every way of asking it to
// stop ends it cleanly with exit code 0 and nothing else does, and that no
// way of ending it, not even kill -9, loses a test a user queued.
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "service_process.h"
#include "support/case_name.h"

using wire_test::ServiceProcess;

// A second service on the taken port says so and ends with 1; SIGINT ends
// the first with 0 (/stop and SIGTERM: see QueueAtEndTest).
TEST(ServiceProcessTest, AnnouncesItselfRefusesATakenPortAndEndsWithZeroOnSigint) {
    ServiceProcess service(wire_test::free_port());
    const std::string printed = service.read_until("(chrome recommended):  http://");
    EXPECT_NE(printed.find("Started server at "), std::string::npos) << printed;
    EXPECT_NE(printed.find(":" + std::to_string(service.port) + "\n"), std::string::npos) << printed;
    // The inventory of the embedded machine comes first: both sockets' dies and the PCIe tree.
    for (const char* expected : {"PCI functions found: 26", "Dies found: 2\n", "Corvane  socket 0 die 0",
                                 "Corvane  socket 1 die 0", "PCIe ports found: 11", "0000:00:01.0  VEX RootPort  buses 01..05"}) {
        EXPECT_NE(printed.find(expected), std::string::npos) << expected << " missing in:\n" << printed;
    }
    EXPECT_LT(printed.find("PCIe ports found"), printed.find("Started server at "));
    ServiceProcess second(service.port);
    EXPECT_EQ(second.wait_for_exit(), 1);
    ::kill(service.pid, SIGINT);
    EXPECT_EQ(service.wait_for_exit(), 0);
}

// However the service ends, every test a user queued is found in the
// archive with what became of it. Three margins run (one per function) and
// two wait behind them; at 10^-14 and this time scale no margin can finish
// before the end comes.
struct EndCase {
    const char* name;
    int signal;  // 0: the "/stop" route
    const char* running_reason;
    const char* queued_reason;
};
LW_PRINT_BY_NAME(EndCase)

class QueueAtEndTest : public ::testing::TestWithParam<EndCase> {};

TEST_P(QueueAtEndTest, EveryQueuedTestIsArchivedWithItsReason) {
    namespace fs = std::filesystem;
    using nlohmann::json;
    const EndCase& c = GetParam();
    const fs::path results = fs::temp_directory_path() / ("lanewright_end_" + std::to_string(::getpid()) + c.name);
    fs::remove_all(results);
    const std::vector<std::string> slow = {"--time-scale", "1000"};
    const fs::path journal = results / "queue_journal.json";
    std::vector<json> records;
    {
        ServiceProcess service(wire_test::free_port(), results, slow);
        service.read_until("(chrome recommended):  http://");
        for (const char* sbdf : {"0:3:0.0", "0:3:0.0", "0:c1:0.0", "0:c1:0.0", "0:41:0.0"}) {
            json record = {{"Operation", "PCIe Margin"},
                           {"PCIeInfo", {{"SBDF", sbdf}, {"DeviceType", "Endpoint"}}},
                           {"TestParams", {{"BER", "14"}, {"ErrCnt", 4}, {"Receiver", 6}, {"Lanes", {0}}}}};
            const auto answer = wire_test::request(service.port, "POST", "/api/1.0/AddTestToQueue", record.dump());
            const json accepted = json::parse(answer.body);
            ASSERT_EQ(accepted["OperationStatus"], true) << answer.body;
            record["TestID"] = accepted["TestID"];
            records.push_back(record);
        }
        // Wait until the journal shows the first pass: three running, two waiting.
        bool started = false;
        for (int i = 0; i < 500 && !started; ++i) {
            std::ifstream in(journal);
            const json document = json::parse(in, nullptr, false);
            started = !document.is_discarded() && document["Running"].size() == 3 && document["Queued"].size() == 2;
            if (!started) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        ASSERT_TRUE(started) << "the journal never showed three running tests";
        if (c.signal == 0)
            wire_test::request(service.port, "GET", "/stop");
        else
            ::kill(service.pid, c.signal);
        EXPECT_EQ(service.wait_for_exit(), c.signal == SIGKILL ? 128 + SIGKILL : 0);
    }
    if (c.signal == SIGKILL) {
        // The next start archives what the killed run left, before serving.
        ServiceProcess restarted(wire_test::free_port(), results, slow);
        restarted.read_until("(chrome recommended):  http://");
        wire_test::request(restarted.port, "GET", "/stop");
        EXPECT_EQ(restarted.wait_for_exit(), 0);
    }

    EXPECT_FALSE(fs::exists(journal)) << "the journal outlived its tests";
    std::vector<fs::path> runs;
    for (const auto& entry : fs::directory_iterator(results))
        if (entry.is_directory()) runs.push_back(entry.path());
    ASSERT_EQ(runs.size(), 1u) << "all five belong to the first run";
    for (const json& record : records) {
        const unsigned id = record["TestID"].get<unsigned>();
        SCOPED_TRACE("test " + std::to_string(id));
        std::ifstream in(runs[0] / ("test_" + std::to_string(id)) / "output.json");
        ASSERT_TRUE(in.good());
        const json archived = json::parse(in);
        const json& output = archived["TestOutput"];
        EXPECT_EQ(output["Status"], "Failed");
        const std::string reason = output.value("FailureReason", "");
        const bool ran = id == 0 || id == 2 || id == 4;
        EXPECT_EQ(reason.rfind(ran ? c.running_reason : c.queued_reason, 0), 0u) << reason;
        EXPECT_EQ(archived["TestParams"], record["TestParams"]) << "kept so it can be run again";
        EXPECT_EQ(output["ResultsFolder"], (runs[0] / ("test_" + std::to_string(id))).string());
    }
    fs::remove_all(results);
}

INSTANTIATE_TEST_SUITE_P(
    Ends, QueueAtEndTest,
    ::testing::Values(EndCase{"Stop", 0, "Margin stopped", "Not started: the service stopped"},
                      EndCase{"Sigterm", SIGTERM, "Margin stopped", "Not started: the service stopped"},
                      EndCase{"Sigkill", SIGKILL, "Interrupted: the service ended while this test ran",
                              "Not started: the service ended before this test ran"}),
    lw_test::by_name);

// A stress loop that would run for ever must not hold the service at /stop,
// nor a counter monitor, which logs its end; the counter set-up is there
// again after a restart.
TEST(ServiceProcessTest, StopDuringAStressRunAndACounterMonitorEndsWithZero) {
    namespace fs = std::filesystem;
    const fs::path results = fs::temp_directory_path() / ("lanewright_monitor_" + std::to_string(::getpid()));
    fs::remove_all(results);
    ServiceProcess service(wire_test::free_port(), results);
    service.read_until("(chrome recommended):  http://");
    wire_test::request(service.port, "POST", "/api/1.0/GetPerfCounterSettings", R"({"index":0})");
    wire_test::request(service.port, "POST", "/api/1.0/SetEnableCounter", R"({"status":true})");
    wire_test::request(service.port, "POST", "/api/1.0/SetCountersLogging", R"({"status":true})");
    EXPECT_EQ(wire_test::request(service.port, "GET", "/api/1.0/StartPerfCountersMonitor").body, "success");
    const auto count_txt = [&] {
        std::ifstream in(results / "count.txt");
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    for (int i = 0; i < 500 && count_txt().find("(Start)") == std::string::npos; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
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
    EXPECT_TRUE(nlohmann::json::parse(wire_test::request(service.port, "GET", "/api/1.0/GetPerfCounterOptions").body)["running"]);
    EXPECT_EQ(wire_test::request(service.port, "GET", "/stop").status, 200);
    EXPECT_EQ(service.wait_for_exit(), 0);
    const std::string log = count_txt();
    EXPECT_NE(log.find(" (Start)\n"), std::string::npos) << log;
    EXPECT_TRUE(log.ends_with(" (End)\n")) << log;

    ServiceProcess restarted(wire_test::free_port(), results);
    restarted.read_until("(chrome recommended):  http://");
    const auto table = nlohmann::json::parse(wire_test::request(restarted.port, "GET", "/api/1.0/GetPerfCounterInfo").body);
    EXPECT_TRUE(table.at(0)["enabled"]) << table.at(0).dump();
    EXPECT_EQ(wire_test::request(restarted.port, "GET", "/api/1.0/GetPerfCounterOptions").body,
              R"({"changesOnly":false,"decimalDisplay":true,"logToCountTxt":true,"running":false})");
    wire_test::request(restarted.port, "GET", "/stop");
    EXPECT_EQ(restarted.wait_for_exit(), 0);
    fs::remove_all(results);
    fs::remove_all("pcie_reports");
}

TEST(ServiceProcessTest, ListenerFailureEndsWithOne) {
    ServiceProcess service(wire_test::free_port());
    service.read_until("(chrome recommended):  http://");
    // Take a copy of the child's listening socket and shut it: the accept
    // under way fails, as it would on a full descriptor table.
    const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, service.pid, 0));
    if (pidfd < 0) GTEST_SKIP() << "pidfd_open is not available";
    bool shut = false;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(service.pid) + "/fd")) {
        const int fd = static_cast<int>(::syscall(SYS_pidfd_getfd, pidfd, std::stoi(entry.path().filename()), 0));
        if (fd < 0) continue;
        sockaddr_in address{};
        socklen_t length = sizeof(address);
        int listening = 0;
        socklen_t flag_length = sizeof(listening);
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 && address.sin_family == AF_INET &&
            ntohs(address.sin_port) == service.port &&
            ::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &flag_length) == 0 && listening) {
            shut = ::shutdown(fd, SHUT_RDWR) == 0;
        }
        ::close(fd);
    }
    ::close(pidfd);
    if (!shut) GTEST_SKIP() << "the child's socket could not be taken (pidfd_getfd needs ptrace rights)";
    EXPECT_EQ(service.wait_for_exit(), 1);
}
