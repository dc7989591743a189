// Starts as many tests at once as don't conflict with a running one: every
// queued test that conflicts with nothing running starts on the same pass,
// each on a thread of its own. All state lives in TestStorage.
#pragma once

#include <functional>

#include <nlohmann/json.hpp>

#include "gui/gui_resource_store.h"
#include "gui/scheduler.h"
#include "gui/test_storage.h"

class MaxTestScheduler : public Scheduler {
public:
    // Whether a queued hVL test must wait for a running one. The link-partner
    // rule joins with hVL link discovery; until then two tests conflict when
    // they name the same link of the same die.
    using HVLConflictRule = std::function<bool(const nlohmann::json& running, const nlohmann::json& queued)>;

    MaxTestScheduler(TestStorage& storage, GUIResourceStore& store);

    int poll_and_start_tests() override;
    std::string create_dir_and_give_path(unsigned long test_id) override;
    void add_test(unsigned long test_id, std::shared_ptr<std::thread> thread) override;
    void remove_test(unsigned long test_id) override;

    void set_hvl_conflict_rule(HVLConflictRule rule) { _hvl_conflict = std::move(rule); }

private:
    bool _conflicts(const nlohmann::json& running, const nlohmann::json& queued) const;
    void _join_completed_threads();

    TestStorage& _storage;
    GUIResourceStore& _store;
    HVLConflictRule _hvl_conflict;
};
