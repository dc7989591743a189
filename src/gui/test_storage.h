// The test queue: queued and running test records and the bookkeeping of
// test threads. Records are JSON documents from birth to archive.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

class TestJournal;

struct TestStorage {
    std::vector<nlohmann::json> running_list;
    std::vector<nlohmann::json> queued_list;
    const std::string lock_name = "TEST_STORE";
    uint64_t next_test_id = 0;
    std::map<unsigned long, std::shared_ptr<std::thread>> test_threads;
    std::vector<unsigned long> _test_threads_to_be_joined;

    // Taken off the queue (cancelled, or dropped at shutdown) and not yet
    // archived; the journal still counts them as queued.
    std::vector<nlohmann::json> archiving_list;
    // "FinishedTests" entries of tests that ended since the last push.
    std::vector<nlohmann::json> finished_list;
    // How to ask each running test to stop early, by "TestID".
    std::map<uint64_t, std::function<void()>> cancel_hooks;
    // Where every change of the lists is recorded; none in most tests.
    std::shared_ptr<TestJournal> journal;
    uint64_t journal_version = 0;
};

// The only code that moves records between the lists of a TestStorage; every
// operation holds the storage's lock, and every change of what is queued or
// running is written to the journal (after the lock is released).
class UpdateTestStorage {
public:
    // Gives the record the next "TestID" (overwriting any sent one) and queues it.
    static void add_test_to_queue_list(TestStorage& storage, nlohmann::json& test);
    static void remove_test_from_queue_list(TestStorage& storage, nlohmann::json& test);
    static void add_test_to_running_list(TestStorage& storage, nlohmann::json& test);
    // The runner's last step. A record carrying "TestOutput" is also reported
    // in the next push's "FinishedTests".
    static void remove_test_from_running_list(TestStorage& storage, nlohmann::json& test);
    // Moves a queued test to the running list in one step; false when it has
    // left the queue meanwhile (a cancel).
    static bool move_to_running(TestStorage& storage, const nlohmann::json& test);
    // Sets "Progress" of the running record with this "TestID"; false when
    // the test isn't running (it may just have ended), which is no error.
    static bool set_test_progress(TestStorage& storage, uint64_t test_id, const nlohmann::json& progress);
    // Sets "ResultId" of the running record with this "TestID".
    static void set_result_id(TestStorage& storage, uint64_t test_id, const std::string& result_id);
    // "WaitingFor" on each queued record named in waits (the "TestID" it
    // waits for); erased from every other queued record.
    static void set_waiting_for(TestStorage& storage, const std::map<uint64_t, uint64_t>& waits);

    // A running test says how it can be stopped early. When a cancel came
    // before it could say so, the hook is called at once.
    static void set_cancel_hook(TestStorage& storage, uint64_t test_id, std::function<void()> hook);
    // Whether the running test with this id was asked to stop early.
    static bool cancel_requested(TestStorage& storage, uint64_t test_id);

    enum class CancelOutcome { NotFound, Queued, Running, RunningNoHook };
    // Queued: the record leaves the queue for the archiving list and is
    // returned in taken. Running: it is marked "Cancelling" and its hook
    // called (RunningNoHook when it has none yet; it is called once set).
    static CancelOutcome request_cancel(TestStorage& storage, uint64_t test_id, nlohmann::json& taken);
    // Every queued record leaves the queue for the archiving list.
    static std::vector<nlohmann::json> take_all_queued(TestStorage& storage);
    // A record from the archiving list is archived: it leaves that list and
    // is reported in "FinishedTests".
    static void archived_without_running(TestStorage& storage, const nlohmann::json& record);
    // The "FinishedTests" entries since the last call.
    static std::vector<nlohmann::json> take_finished(TestStorage& storage);
};

// Both lists, copied under the lock.
struct TestListsSnapshot {
    std::vector<nlohmann::json> queued;
    std::vector<nlohmann::json> running;
};
TestListsSnapshot snapshot_test_lists(TestStorage& storage);
