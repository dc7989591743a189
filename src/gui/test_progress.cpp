#include "gui/test_progress.h"

#include <algorithm>
#include <cmath>

#include "gui/test_storage.h"

nlohmann::json make_progress_record(const PCIE::MarginProgress& progress) {
    const unsigned int total = std::max(progress.sides_total, 1u);
    const unsigned int done = std::min(progress.sides_done, total);
    auto tenths = [](double seconds) { return std::round(std::max(seconds, 0.0) * 10) / 10; };
    nlohmann::json record = {{"LanesDone", progress.lanes_done},
                             {"LanesTotal", progress.lanes_total},
                             {"SidesDone", progress.sides_done},
                             {"SidesTotal", progress.sides_total},
                             {"Direction", progress.direction},
                             {"ElapsedSeconds", tenths(progress.elapsed_seconds)},
                             {"Percent", std::floor(100.0 * done / total)}};
    if (progress.remaining_seconds)
        record["RemainingSeconds"] = tenths(*progress.remaining_seconds);
    else
        record["RemainingSeconds"] = nullptr;
    if (progress.lane) record["Lane"] = *progress.lane;
    return record;
}

TestProgressReporter::TestProgressReporter(TestStorage& storage, uint64_t test_id,
                                           std::chrono::system_clock::time_point start)
    : _storage(storage), _test_id(test_id), _start(start) {}

void TestProgressReporter::update(PCIE::MarginProgress progress, std::chrono::system_clock::time_point now) {
    std::lock_guard<std::mutex> lock(_mutex);
    _elapsed = std::max(_elapsed, std::chrono::duration<double>(now - _start).count());
    progress.elapsed_seconds = _elapsed;
    UpdateTestStorage::set_test_progress(_storage, _test_id, make_progress_record(progress));
}
