// The interface through which the service loop starts queued tests.
#pragma once

class Scheduler {
public:
    virtual ~Scheduler() = default;
    // Starts every queued test that conflicts with nothing running.
    virtual bool poll_and_start_tests() = 0;
};
