// The real lanewright-sim executable as a child process of a test, talking
// to it over loopback like a user would.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "wire_client.h"

namespace wire_test {

struct ServiceProcess {
    pid_t pid = -1;
    int output = -1;  // the child's standard output
    unsigned port = 0;
    std::filesystem::path results;
    bool owns_results = false;

    // A service on its own fresh result folder, removed at the end.
    // descriptor_limit, when given, is set as both soft and hard limit of the
    // child, so the service can't raise it.
    explicit ServiceProcess(unsigned listen_port, rlim_t descriptor_limit = 0)
        : ServiceProcess(listen_port,
                         std::filesystem::temp_directory_path() /
                             ("lanewright_proc_" + std::to_string(::getpid()) + "_" + std::to_string(listen_port)),
                         {}, descriptor_limit) {
        owns_results = true;
    }
    // A service on a result folder that outlives it (a restart reads it again).
    // A quiet one's standard output goes to /dev/null, for runs too long to
    // leave it unread in a pipe.
    ServiceProcess(unsigned listen_port, std::filesystem::path results_root, std::vector<std::string> extra = {},
                   rlim_t descriptor_limit = 0, bool quiet = false)
        : port(listen_port), results(std::move(results_root)) {
        int pipe_fds[2];
        if (::pipe(pipe_fds) != 0) throw std::runtime_error("pipe");
        std::vector<std::string> args = {LANEWRIGHT_SIM_PATH, "--port", std::to_string(port), "--results",
                                         results.string()};
        args.insert(args.end(), extra.begin(), extra.end());
        std::vector<char*> argv;
        for (auto& arg : args) argv.push_back(arg.data());
        argv.push_back(nullptr);
        pid = ::fork();
        if (pid == 0) {
            if (descriptor_limit != 0) {
                const rlimit limit{descriptor_limit, descriptor_limit};
                ::setrlimit(RLIMIT_NOFILE, &limit);
            }
            ::dup2(quiet ? ::open("/dev/null", O_WRONLY) : pipe_fds[1], STDOUT_FILENO);
            ::close(pipe_fds[0]);
            ::execv(LANEWRIGHT_SIM_PATH, argv.data());
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
        if (owns_results) std::filesystem::remove_all(results);
    }

    // Collects standard output until the text appears or the process ends.
    std::string read_until(const std::string& text) {
        std::string collected;
        while (collected.find(text) == std::string::npos) {
            const std::string part = receive_some(output, 10000);
            if (part.empty()) break;
            collected += part;
        }
        return collected;
    }

    // The exit code (128 + signal when killed), or -1 if the process didn't
    // end within ten seconds.
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
