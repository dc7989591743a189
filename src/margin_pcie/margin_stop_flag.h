// How a running margin is asked to stop. The service keeps one flag and
// hands copies to the engines; every copy shares the same state, so raising
// any of them stops every walk that holds one at its next offset. The walk
// then ends with its lane back at normal settings.
#pragma once

#include <atomic>
#include <memory>

namespace PCIE {

class MarginStopFlag {
public:
    // A fresh flag that nobody has raised.
    MarginStopFlag() : _flag(std::make_shared<std::atomic<bool>>(false)) {}

    void request_stop() const { _flag->store(true); }
    bool stop_requested() const { return _flag->load(); }

private:
    std::shared_ptr<std::atomic<bool>> _flag;
};

}  // namespace PCIE
