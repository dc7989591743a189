// The service as a process: what it prints, that every way of asking it to
// stop ends it cleanly with exit code 0, and that nothing else does.
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
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
