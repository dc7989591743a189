// A small pool of low-priority threads for archive queries.
//
// Reading the archive is heavy (hundreds of megabytes for a wide range) while
// every other route is light. Run on the web server's own workers, ten
// parallel archive queries held all of them and the API stalled for seconds.
// Here they queue for a few threads of their own, which run at a lower
// scheduling priority so that the server's workers keep the processor when
// both want it. The queue is bounded: a job beyond it is refused at once, and
// a job that waited longer than the server lets a request wait is told so and
// should only refuse (the client would be cut off before its answer anyway).
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

class ArchiveWorkers {
public:
    using Job = std::function<void(bool in_time)>;

    ArchiveWorkers(std::size_t threads, std::size_t queue_limit, std::chrono::milliseconds max_wait);
    // Runs what is queued as refusals (in_time false), then joins.
    ~ArchiveWorkers();
    ArchiveWorkers(const ArchiveWorkers&) = delete;
    ArchiveWorkers& operator=(const ArchiveWorkers&) = delete;

    // False when the queue is full or the pool is stopping.
    bool submit(Job job);

private:
    struct Queued {
        Job job;
        std::chrono::steady_clock::time_point since;
    };
    void run();

    const std::size_t _queue_limit;
    const std::chrono::milliseconds _max_wait;
    std::mutex _mutex;
    std::condition_variable _wake;
    std::deque<Queued> _queue;
    bool _stopping = false;
    std::vector<std::thread> _threads;
};
