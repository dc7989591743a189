// Programs a test runs (lspci, setpci, the simulator, plot_eye), started
// without a shell; standard error goes to /dev/null or to a file.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

extern char** environ;

namespace lw_test {

// Starts the program with standard output to out_fd (-1: /dev/null) and
// standard error to err_path (empty: /dev/null); 0 when it can't start.
inline pid_t spawn_program(std::vector<std::string> args, int out_fd = -1, const std::string& err_path = "") {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (out_fd >= 0) posix_spawn_file_actions_adddup2(&actions, out_fd, 1);
    else posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, err_path.empty() ? "/dev/null" : err_path.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid = 0;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

struct ProgramOutput {
    int status = 127;  // exit status; 127: could not run
    std::string text;  // standard output
};

inline ProgramOutput run_program(const std::vector<std::string>& args, const std::string& err_path = "") {
    ProgramOutput out;
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return out;
    const pid_t pid = spawn_program(args, fds[1], err_path);
    ::close(fds[1]);
    char buffer[8192];
    for (ssize_t n; pid && (n = ::read(fds[0], buffer, sizeof buffer)) > 0;) out.text.append(buffer, n);
    ::close(fds[0]);
    int status = 0;
    if (pid && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status)) out.status = WEXITSTATUS(status);
    return out;
}

}  // namespace lw_test
