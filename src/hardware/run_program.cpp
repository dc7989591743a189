#include "hardware/run_program.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

extern char** environ;

namespace {

// Closes a descriptor on every path out.
struct Descriptor {
    int fd = -1;
    ~Descriptor() {
        if (fd >= 0) ::close(fd);
    }
};

// A word as a reader of the log would type it back.
std::string quoted(const std::string& word) {
    if (!word.empty() && word.find_first_of(" \t\n'\"\\;&|<>()$`*?[]#~") == std::string::npos) return word;
    std::string text = "'";
    for (const char c : word) text += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return text + "'";
}

void write_all(int fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        done += static_cast<std::size_t>(n);
    }
}

// The last non-empty line written to the log after `from`.
std::string last_line_after(const std::string& path, off_t from) {
    Descriptor file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    if (file.fd < 0) return "";
    const off_t end = ::lseek(file.fd, 0, SEEK_END);
    const off_t start = std::max(from, end - static_cast<off_t>(4096));
    if (end <= start) return "";
    std::string text(static_cast<std::size_t>(end - start), '\0');
    const ssize_t n = ::pread(file.fd, text.data(), text.size(), start);
    text.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) text.pop_back();
    const auto newline = text.find_last_of('\n');
    return newline == std::string::npos ? text : text.substr(newline + 1);
}

}  // namespace

ProgramRun run_program(const std::string& path, const std::vector<std::string>& args,
                       std::chrono::milliseconds timeout, const std::string& log_path,
                       const std::function<bool()>& abandoned) {
    ProgramRun run;
    const std::string log = log_path.empty() ? "/dev/null" : log_path;
    Descriptor out{::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)};
    if (out.fd < 0) {
        run.error = "cannot open the log " + log + ": " + std::strerror(errno);
        return run;
    }
    std::string command = quoted(path);
    for (const std::string& arg : args) command += " " + quoted(arg);
    write_all(out.fd, "$ " + command + "\n");
    const off_t output_start = ::lseek(out.fd, 0, SEEK_END);

    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out.fd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out.fd, STDERR_FILENO);
    // The child must not keep the service's sockets and files open.
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);

    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // Signals the service blocks or catches on its threads are the
    // program's own business; its own process group lets a kill reach
    // anything it starts.
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (const int sig : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGCHLD}) sigaddset(&defaults, sig);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);

    pid_t pid = -1;
    const int spawn_error = ::posix_spawn(&pid, path.c_str(), &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (spawn_error != 0) {
        run.error = "cannot start " + path + ": " + std::strerror(spawn_error);
        write_all(out.fd, run.error + "\n");
        return run;
    }
    run.started = true;

    const auto deadline = std::chrono::steady_clock::now() + timeout;
    auto pause = std::chrono::milliseconds(1);
    int status = 0;
    for (;;) {
        const pid_t ended = ::waitpid(pid, &status, WNOHANG);
        if (ended == pid) break;
        if (ended < 0 && errno != EINTR) {
            run.error = std::string("lost track of the program: ") + std::strerror(errno);
            ::kill(-pid, SIGKILL);
            return run;
        }
        const bool late = std::chrono::steady_clock::now() >= deadline;
        const bool stop = !late && abandoned && abandoned();
        if (late || stop) {
            ::kill(-pid, SIGKILL);
            while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
            run.timed_out = late;
            run.abandoned = stop;
            run.error = late ? "did not end within " + std::to_string(timeout.count()) + " ms and was stopped"
                             : "stopped: the test was cancelled or the service is stopping";
            run.last_line = last_line_after(log, output_start);
            write_all(out.fd, run.error + "\n");
            return run;
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::milliseconds(20));
    }
    if (WIFEXITED(status)) {
        run.exit_code = WEXITSTATUS(status);
        if (run.exit_code != 0) run.error = "exited with code " + std::to_string(run.exit_code);
    } else if (WIFSIGNALED(status)) {
        run.signal = WTERMSIG(status);
        run.error = std::string("ended by signal ") + ::strsignal(run.signal);
    }
    run.last_line = last_line_after(log, output_start);
    return run;
}
