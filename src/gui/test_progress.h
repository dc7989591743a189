// How far a running test is, as the browser's queue shows it: under the key
// "Progress" of the test's record in the running list. A margin takes
// minutes, so the record also says which direction is being walked and how
// long the rest should take. Times are the machine's nominal time (model
// time on the simulated machine), like every duration the service reports.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

struct TestStorage;

// What a runner knows at one moment. A unit is one walk of one lane (one side,
// or both sides at once); units drive the percentage because lanes of one
// batch all finish together.
struct TestProgressState {
    unsigned int lanes_done = 0;
    unsigned int lanes_total = 0;
    unsigned int units_done = 0;
    unsigned int units_total = 0;
    std::string direction;
    double elapsed_seconds = 0;
};

// {"LanesDone", "LanesTotal", "Direction", "ElapsedSeconds", "RemainingSeconds",
// "Percent"}. "RemainingSeconds" is null until a unit is done, since nothing
// before that says how fast the walks go; it then assumes the remaining units
// take as long as the finished ones did on average.
nlohmann::json make_progress_record(const TestProgressState& state);

// Keeps one running test's "Progress" current. Lane threads call update at
// once, so it serialises them and never lets elapsed time run backwards
// (each thread may see its own clock).
class TestProgressReporter {
public:
    TestProgressReporter(TestStorage& storage, uint64_t test_id, std::chrono::system_clock::time_point start);
    void update(TestProgressState state, std::chrono::system_clock::time_point now);

private:
    TestStorage& _storage;
    const uint64_t _test_id;
    const std::chrono::system_clock::time_point _start;
    std::mutex _mutex;
    double _elapsed = 0;
};
