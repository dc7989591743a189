#include "simulator/model_clock.h"

#include <algorithm>
#include <thread>
#include <unordered_map>

namespace sim {

namespace {
std::atomic<uint64_t> next_clock_id{1};
std::atomic<uint64_t> next_thread_key{1};
std::atomic<uint64_t> next_scope{1};
thread_local const uint64_t this_thread_key = next_thread_key++;
}  // namespace

struct ModelClock::ThreadState {
    bool own = false;       // has slept: time moves only by its own sleeps
    bool wall = false;      // follows the wall clock
    bool looked = false;
    int64_t local = 0;      // own time, or the frontier when last looked
    unsigned depth = 0;     // open waiter scopes
    uint64_t scope = 0;
    std::shared_ptr<std::atomic<uint64_t>> open_scope = std::make_shared<std::atomic<uint64_t>>(0);
};

ModelClock::ModelClock(std::chrono::system_clock::time_point start, double time_scale)
    : _id(next_clock_id++),
      _wall_thread(next_thread_key++),
      _start(start),
      _steady_start(std::chrono::steady_clock::now()),
      _time_scale(time_scale > 0 ? time_scale : 1.0) {}

// Never behind what any wall-clock thread has already seen, so the shared
// identity's time never runs backwards between its threads.
int64_t ModelClock::_wall_ns() {
    const auto real = std::chrono::steady_clock::now() - _steady_start;
    const double scaled = std::chrono::duration<double, std::nano>(real).count() * _time_scale;
    int64_t ns = scaled >= 9.0e18 ? INT64_C(9000000000000000000) : static_cast<int64_t>(scaled);
    int64_t seen = _wall_latest.load();
    while (seen < ns && !_wall_latest.compare_exchange_weak(seen, ns)) {
    }
    ns = std::max(ns, seen);
    _advance_frontier(ns);
    return ns;
}

void ModelClock::follow_wall_clock() { _state().wall = true; }

// Clocks are told apart by a number that is never reused, so a thread's
// entry for a clock that is gone can never be taken for a new clock's.
ModelClock::ThreadState& ModelClock::_state() {
    thread_local std::unordered_map<uint64_t, ThreadState> states;
    return states[_id];
}

void ModelClock::_advance_frontier(int64_t ns) {
    int64_t seen = _frontier.load();
    while (seen < ns && !_frontier.compare_exchange_weak(seen, ns)) {
    }
}

ModelTime ModelClock::now() {
    ThreadState& state = _state();
    if (state.wall) return {_wall_thread, _wall_ns()};
    if (!state.own) {
        state.local = _frontier.load();
        state.looked = true;
    }
    if (state.depth) return {this_thread_key, state.local, state.scope, state.open_scope};
    return {this_thread_key, state.local};
}

void ModelClock::begin_wait() {
    ThreadState& state = _state();
    if (state.wall || state.depth++) return;
    state.scope = next_scope++;
    state.open_scope->store(state.scope);
}

void ModelClock::end_wait() {
    ThreadState& state = _state();
    if (state.wall || !state.depth || --state.depth) return;
    state.scope = 0;
    state.open_scope->store(0);
}

void ModelClock::sleep_for(std::chrono::nanoseconds nominal) {
    ThreadState& state = _state();
    if (state.wall) {
        std::this_thread::sleep_for(std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::chrono::duration<double, std::nano>(static_cast<double>(nominal.count()) / _time_scale)));
        return;
    }
    if (!state.own) {
        if (!state.looked) state.local = _frontier.load();
        state.own = true;
    }
    if (nominal.count() > 0) state.local += nominal.count();
    _advance_frontier(state.local);
    const auto real = std::chrono::duration<double, std::nano>(static_cast<double>(nominal.count()) / _time_scale);
    if (real.count() >= 1.0)
        std::this_thread::sleep_for(std::chrono::duration_cast<std::chrono::nanoseconds>(real));
    else
        std::this_thread::yield();
}

}  // namespace sim
