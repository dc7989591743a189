// The heartbeat of the service: once a second start what may start and tell
// every browser what is queued and running.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "gui/scheduler.h"
#include "gui/test_storage.h"

class WebBackEnd;

// Set by main once the web server has ended; ends the loop.
extern std::atomic<bool> stop_requested;
// Set by the first port status request; from then on every pass pushes the
// ports' LTSSM states.
extern std::atomic<bool> port_status_update;

// One pass of the loop without its sleep, with the push going to any sender,
// so the rules of what is pushed when can be exercised without a server.
class PollPass {
public:
    using Sender = std::function<void(const std::string&)>;
    using LtssmSource = std::function<nlohmann::json()>;

    PollPass(Scheduler* scheduler, TestStorage& storage, LtssmSource ltssm, Sender send);
    void run_once();

private:
    Scheduler* _scheduler;
    TestStorage& _storage;
    LtssmSource _ltssm;
    Sender _send;
    bool _list_was_empty = true;
};

// The "RunningTestsUpdate" message: queued copies first, then running ones,
// each without "key" and with "Status" set; "FinishedTests" lists the tests
// that ended since the previous message.
nlohmann::json build_test_list_message(const TestListsSnapshot& lists,
                                       const std::vector<nlohmann::json>& finished = {});

void poll_thread(Scheduler* scheduler, TestStorage& storage, WebBackEnd* backend);
