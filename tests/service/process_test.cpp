// The service as a process: what it prints, and that every way of ending it
// ends it cleanly with exit code 0.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include <gtest/gtest.h>

#include "service_process.h"

using wire_test::ServiceProcess;

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
