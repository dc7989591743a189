// How a running margin is asked to stop. The service keeps one flag for
// shutdown and gives each test a flag of its own linked to it: raising the
// shutdown flag stops every walk, raising a test's flag (a cancel) stops
// only that test's. Copies share their state. A walk that sees the flag
// raised ends at its next offset with its lane back at normal settings.
#pragma once

#include <atomic>
#include <memory>

namespace PCIE {

class MarginStopFlag {
public:
    // A fresh flag that nobody has raised.
    MarginStopFlag() : _flag(std::make_shared<std::atomic<bool>>(false)) {}

    // reason must outlive the flag (a string literal): the report names it.
    void request_stop(const char* reason = kShutdownReason) const {
        _reason->store(reason);
        _flag->store(true);
    }
    bool stop_requested() const { return _flag->load() || (_parent && _parent->stop_requested()); }
    // Why the walk was stopped: this flag's reason, else the one it is linked to.
    const char* stop_reason() const {
        if (_flag->load()) return _reason->load();
        return _parent ? _parent->stop_reason() : kShutdownReason;
    }

    static constexpr const char* kShutdownReason = "Margin stopped: the service is shutting down";

    // A new flag that reads raised when either it or this one is; raising it
    // leaves this one alone.
    MarginStopFlag linked() const {
        MarginStopFlag child;
        child._parent = std::make_shared<const MarginStopFlag>(*this);
        return child;
    }

private:
    std::shared_ptr<std::atomic<bool>> _flag;
    std::shared_ptr<std::atomic<const char*>> _reason = std::make_shared<std::atomic<const char*>>(kShutdownReason);
    std::shared_ptr<const MarginStopFlag> _parent;
};

}  // namespace PCIE
