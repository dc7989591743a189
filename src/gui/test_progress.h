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

#include "margin_pcie/margin_plan.h"

struct TestStorage;

// {"LanesDone", "LanesTotal", "SidesDone", "SidesTotal", "Direction",
// "ElapsedSeconds", "RemainingSeconds", "Percent"}, and "Lane" where one lane
// is walked at a time. "Percent" is the share of
// sides walked, so it always agrees with "SidesDone"/"SidesTotal".
// "RemainingSeconds" is the engine's estimate from the run's dwell plan, null
// when it has none.
nlohmann::json make_progress_record(const PCIE::MarginProgress& progress);

// Keeps one running test's "Progress" current. Lane threads call update at
// once, so it serialises them and never lets elapsed time run backwards
// (each thread may see its own clock).
class TestProgressReporter {
public:
    TestProgressReporter(TestStorage& storage, uint64_t test_id, std::chrono::system_clock::time_point start);
    void update(PCIE::MarginProgress progress, std::chrono::system_clock::time_point now);

private:
    TestStorage& _storage;
    const uint64_t _test_id;
    const std::chrono::system_clock::time_point _start;
    std::mutex _mutex;
    double _elapsed = 0;
};
