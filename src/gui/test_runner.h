// What the scheduler knows of a kind of test: how to check a record before it
// may queue, and how to start it. Each kind ("PCIe Margin", ...) registers one
// runner under its "Operation"; a kind without a runner is refused at the queue.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "hardware/vex_die_info.h"

class GUIResourceStore;
class Scheduler;
struct TestStorage;

class TestRunner {
public:
    virtual ~TestRunner() = default;
    // Why the record cannot run, or nothing when it can. Called at the queue,
    // so a record that would fail on reading its parameters never gets further.
    virtual std::optional<std::string> check_record(const nlohmann::json& test, GUIResourceStore& store) const = 0;
    // Starts the test on a thread of its own, which registers itself through
    // Scheduler::add_test and ends with remove_test.
    virtual void start(const nlohmann::json& test, GUIResourceStore& store, TestStorage& storage,
                       Scheduler& scheduler) const = 0;
};

// The runners by "Operation". Filled once at start-up, before the first pass.
class TestRunnerRegistry {
public:
    static TestRunnerRegistry& get();
    void add(const std::string& operation, std::shared_ptr<const TestRunner> runner);
    std::shared_ptr<const TestRunner> find(const std::string& operation) const;
    // Test support: forgets every runner.
    void clear();

private:
    std::map<std::string, std::shared_ptr<const TestRunner>> _runners;
};

// The operations the front end may ask for, whether or not this build runs them.
const std::vector<std::string>& known_operations();
