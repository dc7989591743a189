// What the queue journal adds to a change of the queue: one test queued and
// taken off again while N typical records wait, with and without the
// journal (written to the temporary folder, as to the result root).
#include <benchmark/benchmark.h>

#include <filesystem>
#include <memory>
#include <string>

#include <unistd.h>

#include "gui/test_journal.h"
#include "gui/test_storage.h"

namespace {

nlohmann::json typical_record() {
    return {{"Operation", "PCIe Margin"},
            {"PCIeInfo",
             {{"SBDF", "0:41:0.0"}, {"DeviceType", "Endpoint"}, {"Speed", "32 GT/s"}, {"Width", "x16"},
              {"VendorName", "Platform"}}},
            {"PCIeCtrlInfo", {{"PCIeCore", 1}, {"DeviceName", "Corvane Socket:0 Die:0"}, {"Port", 2}}},
            {"SERDES", {{"DeviceName", "Corvane Socket:0 Die:0"}, {"SERDES", "P2"}}},
            {"TestParams",
             {{"BER", "12"}, {"ErrCnt", 4}, {"Receiver", 6},
              {"Lanes", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}}}}};
}

void queue_change(benchmark::State& state, bool journalled) {
    const std::filesystem::path root =
        std::filesystem::temp_directory_path() / ("lanewright_journal_bench_" + std::to_string(::getpid()));
    std::filesystem::create_directories(root / "2026_01_01-00_00_00");
    TestStorage storage;
    if (journalled) {
        storage.journal = std::make_shared<TestJournal>((root / TestJournal::kFileName).string(),
                                                        [root] { return (root / "2026_01_01-00_00_00").string(); });
    }
    for (int64_t i = 0; i < state.range(0); ++i) {
        nlohmann::json record = typical_record();
        UpdateTestStorage::add_test_to_queue_list(storage, record);
    }
    for (auto _ : state) {
        nlohmann::json record = typical_record();
        UpdateTestStorage::add_test_to_queue_list(storage, record);
        UpdateTestStorage::remove_test_from_queue_list(storage, record);
    }
    state.SetItemsProcessed(state.iterations() * 2);
    std::filesystem::remove_all(root);
}

void BM_QueueChangeWithoutJournal(benchmark::State& state) { queue_change(state, false); }
void BM_QueueChangeWithJournal(benchmark::State& state) { queue_change(state, true); }

}  // namespace

BENCHMARK(BM_QueueChangeWithoutJournal)->Arg(1)->Arg(10)->Arg(100)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_QueueChangeWithJournal)->Arg(1)->Arg(10)->Arg(100)->Unit(benchmark::kMicrosecond);
BENCHMARK_MAIN();
