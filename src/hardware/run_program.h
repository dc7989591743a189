// Starts a helper program (the eye plot tool, for one) without a shell: the
// arguments reach it exactly as given, so a path with blanks or semicolons
// is one argument and never a command. The run is bounded in time and can be
// abandoned; what the program prints goes to a log file, not to the
// service's console.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

struct ProgramRun {
    bool started = false;    // false: the program could not be started (see error)
    bool timed_out = false;  // killed at the deadline
    bool abandoned = false;  // killed because `abandoned` said so
    int exit_code = -1;      // the program's exit code when it exited by itself
    int signal = 0;          // the signal that ended it, when one did
    std::string error;       // why it did not start, or why it did not exit 0
    std::string last_line;   // the last non-empty line it wrote to the log

    bool succeeded() const { return started && !timed_out && !abandoned && signal == 0 && exit_code == 0; }
};

// Runs `path` with `args` (args[0] is the first argument after the program's
// own name), standard input from /dev/null, standard output and error
// appended to `log_path` after a line naming the command. The service's own
// descriptors are closed in the child. Waits until the program ends, the
// timeout passes (wall time: the program is outside the model) or
// `abandoned` answers true (checked every few milliseconds); in the last two
// cases the program is killed and reaped. An empty log_path discards the
// output.
ProgramRun run_program(const std::string& path, const std::vector<std::string>& args,
                       std::chrono::milliseconds timeout, const std::string& log_path,
                       const std::function<bool()>& abandoned = {});
