// SIGINT and SIGTERM end the service the way "/stop" does: the web server
// stops, main joins every thread and returns 0.
#pragma once

#include <atomic>
#include <functional>
#include <thread>

class ShutdownSignals {
public:
    // Blocks the two signals in the calling thread and in every thread it
    // starts later; call before any thread exists.
    static void block_in_this_process();

    // Watches for the signals on a thread of its own and calls on_signal once.
    explicit ShutdownSignals(std::function<void()> on_signal);
    ~ShutdownSignals();

private:
    std::atomic<bool> _done{false};
    std::thread _watcher;
};
