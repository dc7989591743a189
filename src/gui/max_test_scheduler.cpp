#include "gui/max_test_scheduler.h"

#include <filesystem>
#include <system_error>

#include "gui/hvl_conflict_check.h"
#include "gui/pcie_conflict_check.h"
#include "gui/test_archive.h"
#include "gui/test_runner.h"
#include "discovery/port_mapping.h"
#include "hardware/file_logger.h"
#include "hardware/os_specific.h"
#include "hardware/resource_lock.h"

using nlohmann::json;

namespace {

std::string operation_of(const json& test) {
    const auto it = test.find("Operation");
    return it != test.end() && it->is_string() ? it->get<std::string>() : std::string();
}

// Both records name the same link of the same die in "SERDES".
bool same_serdes_link(const json& a, const json& b) {
    const auto first = a.find("SERDES"), second = b.find("SERDES");
    if (first == a.end() || second == b.end() || !first->is_object() || !second->is_object()) return false;
    const auto text = [](const json& serdes, const char* key) {
        const auto it = serdes.find(key);
        return it != serdes.end() && it->is_string() ? it->get<std::string>() : std::string();
    };
    return !text(*first, "DeviceName").empty() && !text(*first, "SERDES").empty() &&
           text(*first, "DeviceName") == text(*second, "DeviceName") && text(*first, "SERDES") == text(*second, "SERDES");
}

}  // namespace

MaxTestScheduler::MaxTestScheduler(TestStorage& storage, GUIResourceStore& store)
    : _storage(storage), _store(store) {
    // Build the port map now, not in the first test that needs it.
    if (const auto read = _store.get_read_accessor())
        get_all_port_data(_store.get_die_list(), _store.get_pcie_device_list(), read);
}

bool MaxTestScheduler::_conflicts(const json& running, const json& queued) const {
    // An eye scan holds the PHY lanes of its die's link, whichever port or
    // link end the other test names: two ports of one bifurcated link share
    // the PHY's command channel.
    if ((operation_of(running) == "EyeScan" || operation_of(queued) == "EyeScan") && same_serdes_link(running, queued))
        return true;
    const bool has_pcie = queued.contains("PCIeInfo");
    const bool has_hvl = queued.contains("HVLCtrlInfo");
    if (has_pcie && !running.contains("PCIeInfo")) return false;
    if (has_hvl && !running.contains("HVLCtrlInfo")) return false;
    try {
        if (has_pcie) return GUIPCIECheckConflict().check_conflict(running, queued);
        if (has_hvl) return GUIHVLCheckConflict().check_conflict(_store.get_die_list(), running, queued);
    } catch (const std::exception& error) {
        // The queue checks records, so this means a record it let through is
        // unreadable here; waiting is the safe answer, and it is logged.
        Logger::get().log(std::string("Scheduler: cannot compare tests, holding the queued one: ") + error.what());
        return true;
    }
    // A record naming neither resource can't be placed against a running test.
    return true;
}

int MaxTestScheduler::poll_and_start_tests() {
    const TestListsSnapshot lists = snapshot_test_lists(_storage);

    // A test chosen on this pass counts as running for the queued tests
    // behind it: two margins of one receiver started together would disturb
    // each other's commands and both report nonsense. A held test names the
    // first test it waits for, so the browser can say why it waits.
    std::vector<json> to_start;
    std::vector<json> busy = lists.running;
    std::map<uint64_t, uint64_t> waits;
    for (const json& queued : lists.queued) {
        const json* blocker = nullptr;
        for (const json& running : busy) {
            if (_conflicts(running, queued)) {
                blocker = &running;
                break;
            }
        }
        if (blocker) {
            if (queued.contains("TestID") && blocker->contains("TestID"))
                waits[queued["TestID"].get<uint64_t>()] = (*blocker)["TestID"].get<uint64_t>();
        } else {
            to_start.push_back(queued);
            busy.push_back(queued);
        }
    }
    UpdateTestStorage::set_waiting_for(_storage, waits);

    int started = 0;
    for (json& test : to_start) {
        // A test cancelled since the snapshot has left the queue: skip it.
        if (!UpdateTestStorage::move_to_running(_storage, test)) continue;
        test.erase("WaitingFor");
        const auto runner = TestRunnerRegistry::get().find(operation_of(test));
        if (!runner) {
            // The queue refuses kinds without a runner; should one slip
            // through, it must not stay "Running" for ever, nor vanish.
            const std::string folder = create_dir_and_give_path(test["TestID"].get<unsigned long>());
            test["TestOutput"] =
                unmeasured_test_output("Failed", "No runner for \"" + operation_of(test) + "\"", folder);
            std::string err;
            if (!archive_in_folder(test, test["TestOutput"], folder, err)) Logger::get().log("Scheduler: " + err);
            UpdateTestStorage::remove_test_from_running_list(_storage, test);
            continue;
        }
        runner->start(test, _store, _storage, *this);
        ++started;
    }

    _join_completed_threads();
    return started;
}

std::string MaxTestScheduler::create_dir_and_give_path(unsigned long test_id) {
    const std::string path =
        OSSpecific().append_to_path(_store.get_directory_for_this_instance(), "test_" + std::to_string(test_id));
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error) Logger::get().log("Cannot create test folder " + path + ": " + error.message());
    // From now on the browser can open what the test has written.
    UpdateTestStorage::set_result_id(_storage, test_id, result_id_of_folder(path));
    return path;
}

void MaxTestScheduler::add_test(unsigned long test_id, std::shared_ptr<std::thread> thread) {
    NamedLockGuard lock(_storage.lock_name);
    _storage.test_threads[test_id] = std::move(thread);
}

void MaxTestScheduler::remove_test(unsigned long test_id) {
    NamedLockGuard lock(_storage.lock_name);
    _storage._test_threads_to_be_joined.push_back(test_id);
}

void MaxTestScheduler::_join_completed_threads() {
    std::vector<unsigned long> ended;
    std::map<unsigned long, std::shared_ptr<std::thread>> threads;
    {
        NamedLockGuard lock(_storage.lock_name);
        ended = _storage._test_threads_to_be_joined;
        threads = _storage.test_threads;
    }
    // Joined without the lock: the ending thread may still need it on its way out.
    std::vector<unsigned long> joined;
    for (const unsigned long id : ended) {
        const auto it = threads.find(id);
        // A thread that ended before its runner registered it waits for the next pass.
        if (it == threads.end() || !it->second) continue;
        if (it->second->joinable()) it->second->join();
        joined.push_back(id);
    }
    NamedLockGuard lock(_storage.lock_name);
    for (const unsigned long id : joined) {
        auto& pending = _storage._test_threads_to_be_joined;
        const auto it = std::find(pending.begin(), pending.end(), id);
        if (it != pending.end()) pending.erase(it);
        _storage.test_threads.erase(id);
    }
}

void MaxTestScheduler::join_all_tests() {
    std::map<unsigned long, std::shared_ptr<std::thread>> threads;
    {
        NamedLockGuard lock(_storage.lock_name);
        threads = _storage.test_threads;
    }
    // Without the lock, as above: the threads take it on their way out.
    for (auto& [id, thread] : threads) {
        if (thread && thread->joinable()) thread->join();
    }
    NamedLockGuard lock(_storage.lock_name);
    for (const auto& entry : threads) _storage.test_threads.erase(entry.first);
    _storage._test_threads_to_be_joined.clear();
}
