#include "service/service_loop.h"

#include <chrono>
#include <thread>

#include "service/web_back_end.h"
#include "service/wire_server.h"

std::atomic<bool> stop_requested{false};
std::atomic<bool> port_status_update{false};

namespace {

void append_with_status(nlohmann::json& list, nlohmann::json record, const char* status) {
    record.erase("key");
    record["Status"] = status;
    list.push_back(std::move(record));
}

}  // namespace

nlohmann::json build_test_list_message(const TestListsSnapshot& lists, const std::vector<nlohmann::json>& finished) {
    nlohmann::json test_list = nlohmann::json::array();
    for (const auto& record : lists.queued) append_with_status(test_list, record, "Queued");
    for (const auto& record : lists.running) append_with_status(test_list, record, "Running");
    return nlohmann::json{
        {"key", "RunningTestsUpdate"}, {"TestList", std::move(test_list)}, {"FinishedTests", finished}};
}

PollPass::PollPass(Scheduler* scheduler, TestStorage& storage, LtssmSource ltssm, Sender send)
    : _scheduler(scheduler), _storage(storage), _ltssm(std::move(ltssm)), _send(std::move(send)) {}

void PollPass::run_once() {
    if (_scheduler) _scheduler->poll_and_start_tests();
    const TestListsSnapshot lists = snapshot_test_lists(_storage);
    const std::vector<nlohmann::json> finished = UpdateTestStorage::take_finished(_storage);
    // While anything is queued or running the list goes out on every pass, so a
    // browser that connects mid-test is up to date within a second; after the
    // last test one empty list goes out, then the service stays quiet. Tests
    // that ended since the last pass always go out, so one that started and
    // ended between two passes is still seen.
    if (!lists.queued.empty() || !lists.running.empty()) {
        _list_was_empty = false;
        _send(build_test_list_message(lists, finished).dump());
    } else if (!_list_was_empty || !finished.empty()) {
        _send(build_test_list_message(lists, finished).dump());
        _list_was_empty = true;
    }
    if (port_status_update) {
        _send(nlohmann::json{{"key", "PortLTSSMUpdate"}, {"ltssmdata", _ltssm()}}.dump());
    }
}

void poll_thread(Scheduler* scheduler, TestStorage& storage, WebBackEnd* backend) {
    PollPass pass(
        scheduler, storage, [backend] { return backend->get_ltssm_states(); },
        [](const std::string& message) { PortHall::WireServer::GetInstance()->SendWSMessage(message); });
    while (!stop_requested) {
        pass.run_once();
        // The heartbeat is wall-clock time even over the platform model, whose
        // virtual time runs faster; slices keep shutdown prompt.
        for (int slice = 0; slice < 20 && !stop_requested; ++slice) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
}
