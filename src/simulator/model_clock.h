// Virtual time of the platform model.
//
// Every thread has its own model time, so that what one thread measures
// between its own steps is exactly what it slept, whatever other threads do
// and however loaded the machine is: a lane that dwells 1 s sees 1 s pass,
// never more. This is what makes results repeatable.
//
// - A thread that has never slept follows the frontier: the latest model
//   time any thread has reached. Service threads that only answer requests
//   therefore see time move on.
// - At its first sleep a thread takes its own time, starting where it last
//   looked (so the wait around that first sleep is exact too), and from then
//   on its time moves only by what it sleeps.
// - sleep_for(nominal) advances the caller's time by nominal and really
//   waits nominal / time scale.
//
// - A thread that serves outside clients (the sysfs view) follows the wall
//   clock instead: its time is the real time since the model started times
//   the time scale, so a tool that sleeps in real time sees model time move
//   at the scale. All such threads share one identity, so what one of them
//   starts the others see as their own. Their time also moves the frontier.
//   Results of code that sleeps through the model stay exact; outside
//   clients, which pay real time for every access, see at least the time
//   they waited and usually a little more.
//
// Something that one thread starts and another waits for (a retrain, say)
// is timed with ModelDeadline, which lets each observer see the wait run out
// after the nominal time on its own clock, so a thread whose clock lags far
// behind is never stuck. A thread that starts something inside a waiter
// scope (begin_wait/end_wait) polls for it itself: while that scope is open
// only its clock ends the wait, so a thread whose clock runs far ahead (a
// push loop) can't end it early.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace sim {

// A moment as one thread sees it: nanoseconds since the model started.
struct ModelTime {
    uint64_t thread = 0;
    int64_t ns = 0;
    // The caller's open waiter scope: its number, and where the thread keeps
    // the number of the scope it has open now (0: none).
    uint64_t scope = 0;
    std::shared_ptr<const std::atomic<uint64_t>> open_scope;
};

class ModelClock {
public:
    // time_scale: how much faster than real time sleeps pass (1 = real time).
    ModelClock(std::chrono::system_clock::time_point start, double time_scale);

    ModelTime now();
    void sleep_for(std::chrono::nanoseconds nominal);
    // From now on the calling thread's time follows the wall clock (see above).
    void follow_wall_clock();
    // Waiter scopes of the calling thread; they nest.
    void begin_wait();
    void end_wait();

    std::chrono::system_clock::time_point start() const { return _start; }
    std::chrono::system_clock::time_point to_system(int64_t ns) const {
        return _start + std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::nanoseconds(ns));
    }
    int64_t frontier() const { return _frontier.load(); }
    double time_scale() const { return _time_scale; }

private:
    struct ThreadState;
    ThreadState& _state();
    void _advance_frontier(int64_t ns);
    int64_t _wall_ns();

    const uint64_t _id;
    const uint64_t _wall_thread;  // the identity wall-clock threads share
    const std::chrono::system_clock::time_point _start;
    const std::chrono::steady_clock::time_point _steady_start;
    const double _time_scale;
    std::atomic<int64_t> _frontier{0};
    std::atomic<int64_t> _wall_latest{0};
};

// A wait that one thread starts and any thread may look at.
class ModelDeadline {
public:
    void start(const ModelTime& now, int64_t duration_ns) {
        _active = true;
        _owner = now.thread;
        _scope = now.scope;
        _open_scope = now.scope ? now.open_scope : nullptr;
        _owner_done = false;
        _end = now.ns + duration_ns;
        _duration = duration_ns;
        _first_seen.clear();
    }
    void clear() { _active = false; }
    bool active() const { return _active; }
    // True when nothing runs, or when the wait is over for this observer:
    // its clock passed the end, or it has itself seen the full duration pass.
    bool expired(const ModelTime& now) {
        if (!_active) return true;
        if (_open_scope && _open_scope->load() == _scope) {
            if (now.thread == _owner && now.ns >= _end) _owner_done = true;
            return _owner_done;
        }
        if (_owner_done || now.ns >= _end) return true;
        if (now.thread == _owner) return false;
        for (const auto& [thread, seen] : _first_seen)
            if (thread == now.thread) return now.ns >= seen + _duration;
        _first_seen.emplace_back(now.thread, now.ns);
        return false;
    }

private:
    bool _active = false;
    uint64_t _owner = 0;
    uint64_t _scope = 0;
    std::shared_ptr<const std::atomic<uint64_t>> _open_scope;  // the owner's, when it started in a scope
    bool _owner_done = false;
    int64_t _end = 0, _duration = 0;
    std::vector<std::pair<uint64_t, int64_t>> _first_seen;
};

}  // namespace sim
