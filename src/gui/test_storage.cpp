#include "gui/test_storage.h"

#include <algorithm>
#include <iostream>
#include <stdexcept>

#include "hardware/resource_lock.h"

namespace {

// A record that is not in its list means two parts of the service disagree
// about a test's state; the caller's operation fails, the service goes on.
void remove_by_id(TestStorage& storage, std::vector<nlohmann::json>& list, const nlohmann::json& test,
                  const char* error_text) {
    const auto id = test.at("TestID").get<uint64_t>();
    NamedLockGuard guard(storage.lock_name);
    auto found = std::find_if(list.begin(), list.end(), [id](const nlohmann::json& entry) {
        return entry.contains("TestID") && entry["TestID"] == id;
    });
    if (found == list.end()) {
        std::cerr << error_text << std::endl;
        throw std::runtime_error(error_text);
    }
    list.erase(found);
}

}  // namespace

void UpdateTestStorage::add_test_to_queue_list(TestStorage& storage, nlohmann::json& test) {
    NamedLockGuard guard(storage.lock_name);
    test["TestID"] = storage.next_test_id++;
    storage.queued_list.push_back(test);
}

void UpdateTestStorage::remove_test_from_queue_list(TestStorage& storage, nlohmann::json& test) {
    remove_by_id(storage, storage.queued_list, test, "Error: UpdateTestStorage::remove_test_from_queue_list");
}

void UpdateTestStorage::add_test_to_running_list(TestStorage& storage, nlohmann::json& test) {
    NamedLockGuard guard(storage.lock_name);
    storage.running_list.push_back(test);
}

void UpdateTestStorage::remove_test_from_running_list(TestStorage& storage, nlohmann::json& test) {
    remove_by_id(storage, storage.running_list, test,
                 "Error: UpdateTestStorage::remove_test_from_running_list");
}

bool UpdateTestStorage::set_test_progress(TestStorage& storage, uint64_t test_id, const nlohmann::json& progress) {
    NamedLockGuard guard(storage.lock_name);
    for (auto& entry : storage.running_list) {
        if (entry.contains("TestID") && entry["TestID"] == test_id) {
            entry["Progress"] = progress;
            return true;
        }
    }
    return false;
}

TestListsSnapshot snapshot_test_lists(TestStorage& storage) {
    NamedLockGuard guard(storage.lock_name);
    return TestListsSnapshot{storage.queued_list, storage.running_list};
}
