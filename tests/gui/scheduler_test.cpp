// The scheduler's pass over real storage with runners that run a thread of
// their own and end when the test says so.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <mutex>

#include "discovery/die_test_helpers.h"
#include "gui/hvl_conflict_check.h"
#include "gui/max_test_scheduler.h"
#include "gui/pcie_conflict_check.h"
#include "gui/test_record_checks.h"
#include "gui/test_runner.h"
#include "support/case_name.h"

using nlohmann::json;

namespace {

// Starts a thread per test that waits until released, then reports its end
// the way runners do: remove_test, then leave the running list.
class GatedRunner : public TestRunner {
public:
    std::optional<std::string> check_record(const json&, GUIResourceStore&) const override { return std::nullopt; }
    void start(const json& test, GUIResourceStore&, TestStorage& storage, Scheduler& scheduler) const override {
        started.fetch_add(1);
        json record = test;
        auto thread = std::make_shared<std::thread>([this, test = record, &storage, &scheduler]() mutable {
            std::unique_lock<std::mutex> lock(mutex);
            released.wait(lock, [this] { return open; });
            lock.unlock();
            scheduler.remove_test(test["TestID"].get<unsigned long>());
            UpdateTestStorage::remove_test_from_running_list(storage, test);
            finished.fetch_add(1);
        });
        scheduler.add_test(test["TestID"].get<unsigned long>(), thread);
    }
    void release_all() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            open = true;
        }
        released.notify_all();
    }
    mutable std::atomic<int> started{0};
    mutable std::atomic<int> finished{0};
    mutable std::mutex mutex;
    mutable std::condition_variable released;
    bool open = false;
};

json pcie_test(const std::string& sbdf, bool bridge = false, unsigned secondary = 0, unsigned subordinate = 0) {
    json test = {{"Operation", "PCIe Margin"}, {"PCIeInfo", {{"SBDF", sbdf}, {"DeviceType", bridge ? "Bridge" : "Endpoint"}}}};
    if (bridge) test["PCIeInfo"]["BridgeInfo"] = {{"SecondaryBus", secondary}, {"SubordinateBus", subordinate}};
    return test;
}

class SchedulerTest : public ::testing::Test {
protected:
    void SetUp() override {
        runner = std::make_shared<GatedRunner>();
        TestRunnerRegistry::get().add("PCIe Margin", runner);
    }
    void TearDown() override {
        // Drain: let every test start, end and be joined.
        runner->release_all();
        for (int i = 0; i < 400; ++i) {
            scheduler.poll_and_start_tests();
            const auto lists = snapshot_test_lists(storage);
            if (lists.queued.empty() && lists.running.empty() && storage.test_threads.empty()) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        TestRunnerRegistry::get().clear();
        std::filesystem::remove_all(root);
    }
    void queue(json test) { UpdateTestStorage::add_test_to_queue_list(storage, test); }

    std::filesystem::path root = std::filesystem::temp_directory_path() / ("sched_" + std::to_string(::getpid()));
    TestStorage storage;
    GUIResourceStore store{root.string()};
    MaxTestScheduler scheduler{storage, store};
    std::shared_ptr<GatedRunner> runner;
};

// Every test that conflicts with nothing starts on the pass; a held test
// names the test it waits for: an older one chosen on the same pass, or one
// already running; the name goes when it starts.
TEST_F(SchedulerTest, HeldTestsNameWhatTheyWaitFor) {
    queue(pcie_test("0:2:1.0", true, 3, 5));  // 0
    queue(pcie_test("0:2:1.0", true, 3, 5));  // 1: same port as 0
    queue(pcie_test("0:9:0.0"));              // 2
    queue(pcie_test("0:9:0.0"));              // 3: same function as 2
    EXPECT_EQ(scheduler.poll_and_start_tests(), 2);
    queue(pcie_test("0:4:0.0"));  // 4: below the running bridge
    queue(pcie_test("0:a:0.0"));  // 5: elsewhere, overtakes
    EXPECT_EQ(scheduler.poll_and_start_tests(), 1);
    auto lists = snapshot_test_lists(storage);
    ASSERT_EQ(lists.queued.size(), 3u);
    EXPECT_EQ(lists.queued[0]["WaitingFor"], 0);
    EXPECT_EQ(lists.queued[1]["WaitingFor"], 2);
    EXPECT_EQ(lists.queued[2]["WaitingFor"], 0);
    for (const auto& running : lists.running) EXPECT_FALSE(running.contains("WaitingFor"));

    runner->release_all();
    for (int i = 0; i < 400 && runner->started < 6; ++i) {
        scheduler.poll_and_start_tests();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(runner->started, 6);
    for (const auto& running : snapshot_test_lists(storage).running) EXPECT_FALSE(running.contains("WaitingFor"));
}

TEST_F(SchedulerTest, CompletedThreadsAreJoinedOnTheNextPass) {
    queue(pcie_test("0:3:0.0"));
    ASSERT_EQ(scheduler.poll_and_start_tests(), 1);
    runner->release_all();
    for (int i = 0; i < 400 && runner->finished < 1; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(runner->finished, 1);
    EXPECT_EQ(scheduler.poll_and_start_tests(), 0);
    EXPECT_TRUE(storage.test_threads.empty());
    EXPECT_TRUE(storage._test_threads_to_be_joined.empty());
}

// Socket 0's G1 and socket 1's G3 are the two ends of one link. A test on
// the second end waits for one on the first, and an eye scan holds its die's
// link against any test on it: the other end of an hVL link, or another port
// of the same (bifurcated) PCIe link. A test naming a die the machine hasn't
// got is held (and logged) rather than ending the service.
TEST_F(SchedulerTest, TestsOnEitherEndOfABusyLinkWait) {
    const std::vector<VEX_DIE_INFO> dies = {die_test::cpu_die("Corvane", 0), die_test::cpu_die("Corvane", 1)};
    std::vector<PCIDeviceDetails> none;
    store.store_pcie_device_list(none);
    store.store_die_list(dies);
    HVLConflictCheck::initalize(dies);
    TestRunnerRegistry::get().add("HVL Destructive Margin", runner);
    TestRunnerRegistry::get().add("EyeScan", runner);
    auto on_link = [](json test, const char* operation, const std::string& die, const char* link) {
        test["Operation"] = operation;
        test["SERDES"] = {{"DeviceName", die}, {"SERDES", link}};
        return test;
    };
    auto hvl = [&](const char* operation, const std::string& die, const char* link) {
        return on_link({{"HVLCtrlInfo", {{"DeviceName", die}, {"SERDES", link}}}}, operation, die, link);
    };
    auto eye_pcie = [&](const std::string& sbdf, const char* link) {
        return on_link(pcie_test(sbdf), "EyeScan", dies[0].full_name(), link);
    };
    queue(hvl("HVL Destructive Margin", dies[0].full_name(), "G1"));
    queue(on_link(pcie_test("0:6:0.0"), "PCIe Margin", dies[0].full_name(), "P0"));
    ASSERT_EQ(scheduler.poll_and_start_tests(), 2);
    queue(hvl("HVL Destructive Margin", dies[1].full_name(), "G3"));  // 2: the other end of G1
    queue(hvl("EyeScan", dies[1].full_name(), "G3"));                 // 3: the same
    queue(eye_pcie("0:5:0.0", "P0"));                                 // 4: another port of P0
    queue(hvl("HVL Destructive Margin", "Corvane Socket:5 Die:0", "G1"));  // 5: no such die
    queue(hvl("EyeScan", dies[0].full_name(), "G2"));                 // 6: free
    queue(eye_pcie("0:7:0.0", "P1"));                                 // 7: free
    EXPECT_EQ(scheduler.poll_and_start_tests(), 2);
    const auto lists = snapshot_test_lists(storage);
    ASSERT_EQ(lists.queued.size(), 4u);
    EXPECT_EQ(lists.queued[0]["WaitingFor"], 0);
    EXPECT_EQ(lists.queued[1]["WaitingFor"], 0);
    EXPECT_EQ(lists.queued[2]["WaitingFor"], 1);
    EXPECT_EQ(lists.queued[3]["TestID"], 5);
}

struct ConflictCase {
    const char* name;
    PCIEConflictCheck::PCIEDevicDetails a, b;
    bool conflict;
};
LW_PRINT_BY_NAME(ConflictCase)

class PCIEConflictTable : public ::testing::TestWithParam<ConflictCase> {};

TEST_P(PCIEConflictTable, Answers) {
    EXPECT_EQ(PCIEConflictCheck().check_if_conflict(GetParam().a, GetParam().b), GetParam().conflict);
    EXPECT_EQ(PCIEConflictCheck().check_if_conflict(GetParam().b, GetParam().a), GetParam().conflict);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, PCIEConflictTable,
    ::testing::Values(ConflictCase{"SameFunction", {0, 4, 0, 0}, {0, 4, 0, 0}, true},
                      ConflictCase{"SameBridge", {0, 2, 1, 0, true, 3, 5}, {0, 2, 1, 0, true, 3, 5}, true},
                      ConflictCase{"OtherFunctionOfOneDevice", {0, 4, 0, 0}, {0, 4, 0, 1}, false},
                      ConflictCase{"UnrelatedEndpoints", {0, 4, 0, 0}, {0, 9, 0, 0}, false},
                      ConflictCase{"SameFunctionOtherSegment", {0, 4, 0, 0}, {1, 4, 0, 0}, false},
                      ConflictCase{"BridgeOverEndpoint", {0, 2, 1, 0, true, 3, 5}, {0, 4, 0, 0}, true},
                      ConflictCase{"OtherSegment", {0, 2, 1, 0, true, 3, 5}, {1, 4, 0, 0}, false},
                      ConflictCase{"EndpointPastRange", {0, 2, 1, 0, true, 3, 5}, {0, 6, 0, 0}, false},
                      ConflictCase{"InvertedRangeAddsNothing", {0, 2, 1, 0, true, 5, 3}, {0, 4, 0, 0}, false}),
    lw_test::by_name);

TEST(RecordParsing, SbdfAndLanes) {
    const auto address = parse_sbdf("0:c1:0.0");
    ASSERT_TRUE(address);
    EXPECT_EQ(address->bus, 0xC1u);
    EXPECT_FALSE(parse_sbdf("0:c1:0"));
    EXPECT_FALSE(parse_sbdf("0:100:0.0"));
    std::string error;
    EXPECT_EQ(parse_lanes(json::array({3, "4,5", true}), error), (std::vector<unsigned>{3, 4, 5}));
    EXPECT_FALSE(parse_lanes(json::array({"4,x"}), error));
}

}  // namespace
