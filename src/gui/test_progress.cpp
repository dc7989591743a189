#include "gui/test_progress.h"

#include <algorithm>
#include <cmath>

#include "gui/test_storage.h"

nlohmann::json make_progress_record(const TestProgressState& state) {
    const unsigned int total = std::max(state.units_total, 1u);
    const unsigned int done = std::min(state.units_done, total);
    nlohmann::json record = {{"LanesDone", state.lanes_done},
                             {"LanesTotal", state.lanes_total},
                             {"Direction", state.direction},
                             {"ElapsedSeconds", std::round(state.elapsed_seconds * 10) / 10},
                             {"Percent", std::floor(100.0 * done / total)}};
    if (done == 0) {
        record["RemainingSeconds"] = nullptr;
    } else {
        const double remaining = state.elapsed_seconds / done * (total - done);
        record["RemainingSeconds"] = std::round(remaining * 10) / 10;
    }
    return record;
}

TestProgressReporter::TestProgressReporter(TestStorage& storage, uint64_t test_id,
                                           std::chrono::system_clock::time_point start)
    : _storage(storage), _test_id(test_id), _start(start) {}

void TestProgressReporter::update(TestProgressState state, std::chrono::system_clock::time_point now) {
    std::lock_guard<std::mutex> lock(_mutex);
    _elapsed = std::max(_elapsed, std::chrono::duration<double>(now - _start).count());
    state.elapsed_seconds = _elapsed;
    UpdateTestStorage::set_test_progress(_storage, _test_id, make_progress_record(state));
}
