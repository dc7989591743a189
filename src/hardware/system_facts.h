// The one process-wide source of time and of facts about the machine.
//
// Hardware-facing code never asks the clock or the system directly: it asks
// the installed provider. The real service installs RealSystemFacts; the
// platform model installs one that answers from its profile and runs on
// virtual time, so the same code path serves both.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

struct ProcessorIdentity {
    unsigned family = 0, model = 0, stepping = 0;
};

class SystemFacts {
public:
    virtual ~SystemFacts() = default;
    // Waits that hardware code makes (dwell, settle, poll intervals).
    virtual void sleep_for(std::chrono::microseconds nominal) = 0;
    virtual std::chrono::system_clock::time_point now() = 0;
    virtual std::string host_name() = 0;
    virtual std::string bios_version() = 0;
    virtual std::string product_name() = 0;
    // PRETTY_NAME of the OS release file, quotes removed.
    virtual std::string os_name() = 0;
    // Kernel release, trimmed of " \n\r\t".
    virtual std::string kernel_version() = 0;
    // Number of NUMA nodes, as text.
    virtual std::string numa_mode() = 0;
    virtual ProcessorIdentity processor_identity() = 0;
    // The calling thread polls for what it starts (see WaitScope); nothing
    // to do on hardware.
    virtual void begin_wait() {}
    virtual void end_wait() {}
};

// Opened by code that starts something on the machine (a retrain, a link
// enable) and then polls for it on the same thread: while it is open, a
// model of the machine times what that thread starts by that thread's own
// clock, so other threads' clocks can't end the wait early or late.
class WaitScope;

// Installs the process-wide provider. Safe to call from any thread; a null
// pointer puts a RealSystemFacts back.
void set_system_facts(std::shared_ptr<SystemFacts> provider);

// The installed provider; a RealSystemFacts until another is installed.
SystemFacts& system_facts();

class WaitScope {
public:
    WaitScope() : _facts(system_facts()) { _facts.begin_wait(); }
    ~WaitScope() { _facts.end_wait(); }
    WaitScope(const WaitScope&) = delete;
    WaitScope& operator=(const WaitScope&) = delete;

private:
    SystemFacts& _facts;
};

// Family, model and stepping from EAX of identification leaf 1.
ProcessorIdentity decode_processor_signature(uint32_t eax);

// Trims blanks and line ends (" \n\r\t") at both ends.
std::string trim_blanks(const std::string& text);

class RealSystemFacts : public SystemFacts {
public:
    // The paths exist so tests can point the readers at files of their own.
    explicit RealSystemFacts(std::string os_release_path = "/etc/os-release",
                             std::string dmi_folder = "/sys/class/dmi/id",
                             std::string node_folder = "/sys/devices/system/node");

    void sleep_for(std::chrono::microseconds nominal) override;
    std::chrono::system_clock::time_point now() override;
    std::string host_name() override;
    std::string bios_version() override;
    std::string product_name() override;
    std::string os_name() override;
    std::string kernel_version() override;
    std::string numa_mode() override;
    ProcessorIdentity processor_identity() override;

private:
    std::string _os_release_path;
    std::string _dmi_folder;
    std::string _node_folder;
};
