// The service executable as a child process, for tests of the process as a
// whole: what it prints, how it ends, what it survives.
#pragma once

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>

#include "wire_client.h"

namespace wire_test {

struct ServiceProcess {
    pid_t pid = -1;
    int output = -1;  // the child's standard output
    unsigned port = 0;
    std::filesystem::path results;

    // descriptor_limit, when given, is set as both soft and hard limit of the
    // child, so the service can't raise it.
    explicit ServiceProcess(unsigned listen_port, rlim_t descriptor_limit = 0) : port(listen_port) {
        results = std::filesystem::temp_directory_path() / ("lanewright_proc_" + std::to_string(::getpid()) + "_" + std::to_string(listen_port));
        int pipe_fds[2];
        if (::pipe(pipe_fds) != 0) throw std::runtime_error("pipe");
        pid = ::fork();
        if (pid == 0) {
            if (descriptor_limit != 0) {
                const rlimit limit{descriptor_limit, descriptor_limit};
                ::setrlimit(RLIMIT_NOFILE, &limit);
            }
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

}  // namespace wire_test
