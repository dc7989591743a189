// The test queue: queued and running test records and the bookkeeping of
// test threads. Records are JSON documents from birth to archive.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

struct TestStorage {
    std::vector<nlohmann::json> running_list;
    std::vector<nlohmann::json> queued_list;
    const std::string lock_name = "TEST_STORE";
    uint64_t next_test_id = 0;
    std::map<unsigned long, std::shared_ptr<std::thread>> test_threads;
    std::vector<unsigned long> _test_threads_to_be_joined;
};

// The only code that moves records between the lists of a TestStorage; every
// operation holds the storage's lock.
class UpdateTestStorage {
public:
    // Gives the record the next "TestID" (overwriting any sent one) and queues it.
    static void add_test_to_queue_list(TestStorage& storage, nlohmann::json& test);
    static void remove_test_from_queue_list(TestStorage& storage, nlohmann::json& test);
    static void add_test_to_running_list(TestStorage& storage, nlohmann::json& test);
    static void remove_test_from_running_list(TestStorage& storage, nlohmann::json& test);
    // Sets "Progress" of the running record with this "TestID"; false when
    // the test isn't running (it may just have ended), which is no error.
    static bool set_test_progress(TestStorage& storage, uint64_t test_id, const nlohmann::json& progress);
};

// Both lists, copied under the lock.
struct TestListsSnapshot {
    std::vector<nlohmann::json> queued;
    std::vector<nlohmann::json> running;
};
TestListsSnapshot snapshot_test_lists(TestStorage& storage);
