// A provider with fixed answers that records the sleeps asked of it.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include "hardware/system_facts.h"

class FakeSystemFacts : public SystemFacts {
public:
    std::chrono::system_clock::time_point fixed_now{};
    ProcessorIdentity identity{};

    void sleep_for(std::chrono::microseconds nominal) override {
        std::lock_guard<std::mutex> guard(_mutex);
        _sleeps.push_back(nominal);
    }
    std::chrono::system_clock::time_point now() override { return fixed_now; }
    std::string host_name() override { return "fake-host"; }
    std::string bios_version() override { return "fake-bios"; }
    std::string product_name() override { return "fake-product"; }
    std::string os_name() override { return "fake-os"; }
    std::string kernel_version() override { return "fake-kernel"; }
    std::string numa_mode() override { return "4"; }
    ProcessorIdentity processor_identity() override { return identity; }

    std::vector<std::chrono::microseconds> sleeps() {
        std::lock_guard<std::mutex> guard(_mutex);
        return _sleeps;
    }

private:
    std::mutex _mutex;
    std::vector<std::chrono::microseconds> _sleeps;
};

// Installs a FakeSystemFacts for one test and puts the real provider back.
class ScopedFakeSystemFacts {
public:
    ScopedFakeSystemFacts() : facts(std::make_shared<FakeSystemFacts>()) { set_system_facts(facts); }
    ~ScopedFakeSystemFacts() { set_system_facts(nullptr); }
    std::shared_ptr<FakeSystemFacts> facts;
};
