// Starts as many tests at once as don't conflict with a running one: every
// queued test that conflicts with nothing running, nor with an older test
// started on the same pass, starts on that pass, each on a thread of its
// own. A test held back carries "WaitingFor": the "TestID" of the first
// running or chosen test it conflicts with. All state lives in TestStorage.
#pragma once

#include <nlohmann/json.hpp>

#include "gui/gui_resource_store.h"
#include "gui/scheduler.h"
#include "gui/test_storage.h"

// A queued test waits whenever it cannot be compared with a running one
// (a record naming a die this machine hasn't got, for instance): the reason
// goes to the log and the test is looked at again on the next pass.
class MaxTestScheduler : public Scheduler {
public:
    MaxTestScheduler(TestStorage& storage, GUIResourceStore& store);

    int poll_and_start_tests() override;
    std::string create_dir_and_give_path(unsigned long test_id) override;
    void add_test(unsigned long test_id, std::shared_ptr<std::thread> thread) override;
    void remove_test(unsigned long test_id) override;
    // At shutdown, after running tests were asked to stop: joins every test
    // thread, so each has restored its hardware and written its result.
    void join_all_tests();

private:
    bool _conflicts(const nlohmann::json& running, const nlohmann::json& queued) const;
    void _join_completed_threads();

    TestStorage& _storage;
    GUIResourceStore& _store;
};
