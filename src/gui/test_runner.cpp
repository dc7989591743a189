#include "gui/test_runner.h"

TestRunnerRegistry& TestRunnerRegistry::get() {
    static TestRunnerRegistry registry;
    return registry;
}

void TestRunnerRegistry::add(const std::string& operation, std::shared_ptr<const TestRunner> runner) {
    _runners[operation] = std::move(runner);
}

std::shared_ptr<const TestRunner> TestRunnerRegistry::find(const std::string& operation) const {
    const auto it = _runners.find(operation);
    return it == _runners.end() ? nullptr : it->second;
}

void TestRunnerRegistry::clear() { _runners.clear(); }

const std::vector<std::string>& known_operations() {
    static const std::vector<std::string> operations = {"PCIe Margin", "HVL Destructive Margin", "EyeScan"};
    return operations;
}
