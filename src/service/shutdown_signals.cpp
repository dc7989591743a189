#include "service/shutdown_signals.h"

#include <csignal>
#include <ctime>

namespace {
sigset_t shutdown_set() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}
}  // namespace

void ShutdownSignals::block_in_this_process() {
    const sigset_t set = shutdown_set();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

ShutdownSignals::ShutdownSignals(std::function<void()> on_signal) {
    _watcher = std::thread([this, on_signal = std::move(on_signal)] {
        const sigset_t set = shutdown_set();
        // A short timeout lets the watcher notice that the service ended by
        // other means ("/stop") and be joined.
        const timespec slice{0, 200'000'000};
        while (!_done) {
            if (sigtimedwait(&set, nullptr, &slice) > 0) {
                on_signal();
                return;
            }
        }
    });
}

ShutdownSignals::~ShutdownSignals() {
    _done = true;
    if (_watcher.joinable()) _watcher.join();
}
