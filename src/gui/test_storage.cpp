#include "gui/test_storage.h"

#include <algorithm>
#include <iostream>
#include <stdexcept>

#include "gui/test_archive.h"
#include "gui/test_journal.h"
#include "hardware/resource_lock.h"

using nlohmann::json;

namespace {

// Bounds the "FinishedTests" kept when no push drains them (no poll loop).
constexpr std::size_t kMaxFinished = 1000;

bool has_id(const json& entry, uint64_t id) { return entry.contains("TestID") && entry["TestID"] == id; }

std::vector<json>::iterator find_id(std::vector<json>& list, uint64_t id) {
    return std::find_if(list.begin(), list.end(), [id](const json& entry) { return has_id(entry, id); });
}

// What the journal is to record after a change, taken under the lock and
// written after it is released, so a slow disk never holds up the queue.
class JournalChange {
public:
    // Call under the storage's lock.
    explicit JournalChange(TestStorage& storage) : _journal(storage.journal) {
        if (!_journal) return;
        _version = ++storage.journal_version;
        _queued = storage.queued_list;
        _queued.insert(_queued.end(), storage.archiving_list.begin(), storage.archiving_list.end());
        _running = storage.running_list;
    }
    // Call after the lock is released.
    void write() {
        if (_journal) _journal->write(_version, _queued, _running);
    }

private:
    std::shared_ptr<TestJournal> _journal;
    uint64_t _version = 0;
    std::vector<json> _queued, _running;
};

void note_finished(TestStorage& storage, const json& record) {
    if (storage.finished_list.size() >= kMaxFinished) storage.finished_list.erase(storage.finished_list.begin());
    storage.finished_list.push_back(finished_summary(record));
}

// A record that is not in its list means two parts of the service disagree
// about a test's state; the caller's operation fails, the service goes on.
void remove_by_id(TestStorage& storage, std::vector<json>& list, const json& test, const char* error_text,
                  bool finished) {
    const auto id = test.at("TestID").get<uint64_t>();
    std::optional<JournalChange> change;
    {
        NamedLockGuard guard(storage.lock_name);
        const auto found = find_id(list, id);
        if (found == list.end()) {
            std::cerr << error_text << std::endl;
            throw std::runtime_error(error_text);
        }
        list.erase(found);
        if (finished) {
            storage.cancel_hooks.erase(id);
            if (test.contains("TestOutput")) note_finished(storage, test);
        }
        change.emplace(storage);
    }
    change->write();
}

}  // namespace

void UpdateTestStorage::add_test_to_queue_list(TestStorage& storage, json& test) {
    std::optional<JournalChange> change;
    {
        NamedLockGuard guard(storage.lock_name);
        test["TestID"] = storage.next_test_id++;
        storage.queued_list.push_back(test);
        change.emplace(storage);
    }
    change->write();
}

void UpdateTestStorage::remove_test_from_queue_list(TestStorage& storage, json& test) {
    remove_by_id(storage, storage.queued_list, test, "Error: UpdateTestStorage::remove_test_from_queue_list", false);
}

void UpdateTestStorage::add_test_to_running_list(TestStorage& storage, json& test) {
    std::optional<JournalChange> change;
    {
        NamedLockGuard guard(storage.lock_name);
        storage.running_list.push_back(test);
        change.emplace(storage);
    }
    change->write();
}

void UpdateTestStorage::remove_test_from_running_list(TestStorage& storage, json& test) {
    remove_by_id(storage, storage.running_list, test, "Error: UpdateTestStorage::remove_test_from_running_list",
                 true);
}

bool UpdateTestStorage::move_to_running(TestStorage& storage, const json& test) {
    const auto id = test.at("TestID").get<uint64_t>();
    std::optional<JournalChange> change;
    {
        NamedLockGuard guard(storage.lock_name);
        const auto found = find_id(storage.queued_list, id);
        if (found == storage.queued_list.end()) return false;
        json record = std::move(*found);
        storage.queued_list.erase(found);
        record.erase("WaitingFor");
        storage.running_list.push_back(std::move(record));
        change.emplace(storage);
    }
    change->write();
    return true;
}

bool UpdateTestStorage::set_test_progress(TestStorage& storage, uint64_t test_id, const json& progress) {
    NamedLockGuard guard(storage.lock_name);
    const auto found = find_id(storage.running_list, test_id);
    if (found == storage.running_list.end()) return false;
    (*found)["Progress"] = progress;
    return true;
}

void UpdateTestStorage::set_result_id(TestStorage& storage, uint64_t test_id, const std::string& result_id) {
    NamedLockGuard guard(storage.lock_name);
    const auto found = find_id(storage.running_list, test_id);
    if (found != storage.running_list.end()) (*found)["ResultId"] = result_id;
}

void UpdateTestStorage::set_waiting_for(TestStorage& storage, const std::map<uint64_t, uint64_t>& waits) {
    NamedLockGuard guard(storage.lock_name);
    for (json& record : storage.queued_list) {
        const auto id = record.contains("TestID") ? record["TestID"].get<uint64_t>() : UINT64_MAX;
        const auto wait = waits.find(id);
        if (wait != waits.end())
            record["WaitingFor"] = wait->second;
        else
            record.erase("WaitingFor");
    }
}

void UpdateTestStorage::set_cancel_hook(TestStorage& storage, uint64_t test_id, std::function<void()> hook) {
    bool call_now = false;
    {
        NamedLockGuard guard(storage.lock_name);
        const auto found = find_id(storage.running_list, test_id);
        call_now = found != storage.running_list.end() && found->value("Cancelling", false);
        storage.cancel_hooks[test_id] = hook;
    }
    if (call_now && hook) hook();
}

bool UpdateTestStorage::cancel_requested(TestStorage& storage, uint64_t test_id) {
    NamedLockGuard guard(storage.lock_name);
    const auto found = find_id(storage.running_list, test_id);
    return found != storage.running_list.end() && found->value("Cancelling", false);
}

UpdateTestStorage::CancelOutcome UpdateTestStorage::request_cancel(TestStorage& storage, uint64_t test_id,
                                                                   json& taken) {
    std::function<void()> hook;
    {
        std::optional<JournalChange> change;
        {
            NamedLockGuard guard(storage.lock_name);
            const auto queued = find_id(storage.queued_list, test_id);
            if (queued != storage.queued_list.end()) {
                taken = *queued;
                storage.archiving_list.push_back(*queued);
                storage.queued_list.erase(queued);
                change.emplace(storage);
            } else {
                const auto running = find_id(storage.running_list, test_id);
                if (running == storage.running_list.end()) return CancelOutcome::NotFound;
                (*running)["Cancelling"] = true;
                const auto found = storage.cancel_hooks.find(test_id);
                if (found != storage.cancel_hooks.end()) hook = found->second;
            }
        }
        if (change) {
            change->write();
            return CancelOutcome::Queued;
        }
    }
    if (!hook) return CancelOutcome::RunningNoHook;
    hook();
    return CancelOutcome::Running;
}

std::vector<json> UpdateTestStorage::take_all_queued(TestStorage& storage) {
    std::vector<json> taken;
    {
        NamedLockGuard guard(storage.lock_name);
        taken.swap(storage.queued_list);
        storage.archiving_list.insert(storage.archiving_list.end(), taken.begin(), taken.end());
    }
    // The journal doesn't change: taken records count as queued until archived.
    return taken;
}

void UpdateTestStorage::archived_without_running(TestStorage& storage, const json& record) {
    const auto id = record.at("TestID").get<uint64_t>();
    std::optional<JournalChange> change;
    {
        NamedLockGuard guard(storage.lock_name);
        const auto found = find_id(storage.archiving_list, id);
        if (found != storage.archiving_list.end()) storage.archiving_list.erase(found);
        note_finished(storage, record);
        change.emplace(storage);
    }
    change->write();
}

std::vector<json> UpdateTestStorage::take_finished(TestStorage& storage) {
    NamedLockGuard guard(storage.lock_name);
    std::vector<json> finished;
    finished.swap(storage.finished_list);
    return finished;
}

TestListsSnapshot snapshot_test_lists(TestStorage& storage) {
    NamedLockGuard guard(storage.lock_name);
    return TestListsSnapshot{storage.queued_list, storage.running_list};
}
