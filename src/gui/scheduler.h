// The interface through which the service loop starts queued tests and the
// runners report their threads. Runners see only this interface.
#pragma once

#include <memory>
#include <string>
#include <thread>

class Scheduler {
public:
    virtual ~Scheduler() = default;
    // One pass: starts every queued test that conflicts with nothing running;
    // returns how many started.
    virtual int poll_and_start_tests() = 0;
    // Makes the test's folder and returns its path.
    virtual std::string create_dir_and_give_path(unsigned long test_id) = 0;
    // Registers the thread of a started test.
    virtual void add_test(unsigned long test_id, std::shared_ptr<std::thread> thread) = 0;
    // The test's thread function has ended; its thread is joined on a later pass.
    virtual void remove_test(unsigned long test_id) = 0;
};
