#include "service/archive_workers.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "hardware/file_logger.h"

namespace {

// Linux gives each thread its own nice value.
constexpr int kArchiveNice = 10;

void lower_this_threads_priority() {
    const auto thread_id = static_cast<id_t>(::syscall(SYS_gettid));
    if (::setpriority(PRIO_PROCESS, thread_id, kArchiveNice) != 0) {
        Logger::get().log("Archive workers run at normal priority (setpriority failed)");
    }
}

}  // namespace

ArchiveWorkers::ArchiveWorkers(std::size_t threads, std::size_t queue_limit, std::chrono::milliseconds max_wait)
    : _queue_limit(queue_limit), _max_wait(max_wait) {
    for (std::size_t i = 0; i < threads; ++i) _threads.emplace_back([this] { run(); });
}

ArchiveWorkers::~ArchiveWorkers() {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _stopping = true;
    }
    _wake.notify_all();
    for (auto& thread : _threads) thread.join();
}

bool ArchiveWorkers::submit(Job job) {
    {
        std::lock_guard<std::mutex> lock(_mutex);
        if (_stopping || _queue.size() >= _queue_limit) return false;
        _queue.push_back({std::move(job), std::chrono::steady_clock::now()});
    }
    _wake.notify_one();
    return true;
}

void ArchiveWorkers::run() {
    lower_this_threads_priority();
    for (;;) {
        Queued next;
        bool in_time = true;
        {
            std::unique_lock<std::mutex> lock(_mutex);
            _wake.wait(lock, [this] { return _stopping || !_queue.empty(); });
            if (_queue.empty()) return;  // stopping, nothing left
            next = std::move(_queue.front());
            _queue.pop_front();
            in_time = !_stopping && std::chrono::steady_clock::now() - next.since <= _max_wait;
        }
        try {
            next.job(in_time);
        } catch (const std::exception& error) {
            Logger::get().log(std::string("Archive job failed: ") + error.what());
        } catch (...) {
            Logger::get().log("Archive job failed");
        }
    }
}
