// A record posted over HTTP runs queued → running → archived through the real
// scheduler and poll pass, the browser sees each state over the WebSocket, and
// the test's folder appears under the result root.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "gui/max_test_scheduler.h"
#include "gui/test_record_checks.h"
#include "gui/test_runner.h"
#include "running_service.h"
#include "service/service_loop.h"
#include "service/wire_server.h"
#include "wire_client.h"

using nlohmann::json;

namespace {

// Writes the record with a result into its folder, as runners do, then reports its end.
class ArchivingRunner : public TestRunner {
public:
    std::optional<std::string> check_record(const json& test, GUIResourceStore& store) const override {
        return check_pcie_margin_record(test, store);
    }
    void start(const json& test, GUIResourceStore&, TestStorage& storage, Scheduler& scheduler) const override {
        const unsigned long id = test["TestID"].get<unsigned long>();
        json record = test;
        auto thread = std::make_shared<std::thread>([record, id, &storage, &scheduler]() mutable {
            const std::string folder = scheduler.create_dir_and_give_path(id);
            record["TestOutput"] = {{"Status", "complete"}, {"ResultsFolder", folder}};
            std::ofstream(folder + "/output.json") << record.dump();
            scheduler.remove_test(id);
            UpdateTestStorage::remove_test_from_running_list(storage, record);
        });
        scheduler.add_test(id, thread);
    }
};

}  // namespace

TEST(QueueFlow, PostedTestRunsToItsArchiveFolderAndTheBrowserSeesEachState) {
    auto& service = wire_test::running_service();
    const auto root = std::filesystem::temp_directory_path() / ("lanewright_flow_" + std::to_string(::getpid()));
    GUIResourceStore results(root.string());
    MaxTestScheduler scheduler(*service.storage, results);
    TestRunnerRegistry::get().add("PCIe Margin", std::make_shared<ArchivingRunner>());
    PollPass pass(&scheduler, *service.storage, [] { return json::array(); },
                  [](const std::string& text) { PortHall::WireServer::GetInstance()->SendWSMessage(text); });

    wire_test::WsClient browser(service.port);
    ASSERT_EQ(browser.status, 101);
    ASSERT_TRUE(wire_test::wait_for_connections(1));
    const json record = {{"Operation", "PCIe Margin"},
                         {"PCIeInfo", {{"SBDF", "0:3:0.0"}}},
                         {"TestParams", {{"BER", "12"}, {"ErrCnt", 4}, {"Receiver", 6}, {"Lanes", json::array({0})}}}};
    const auto answer = wire_test::request(service.port, "POST", "/api/1.0/AddTestToQueue", record.dump());
    ASSERT_EQ(json::parse(answer.body)["OperationStatus"], true) << answer.body;
    const auto queued = snapshot_test_lists(*service.storage).queued;
    ASSERT_FALSE(queued.empty());
    const unsigned long id = queued.back()["TestID"].get<unsigned long>();

    // The pass moves it to running, starts it, and pushes the lists; later
    // passes join it and push the final empty list.
    std::vector<std::string> statuses;
    for (int i = 0; i < 100; ++i) {
        pass.run_once();
        const auto lists = snapshot_test_lists(*service.storage);
        if (lists.queued.empty() && lists.running.empty() && service.storage->test_threads.empty()) {
            pass.run_once();
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    TestRunnerRegistry::get().clear();

    bool saw_running = false, saw_empty = false;
    while (auto text = browser.next_text()) {
        const json message = json::parse(*text);
        if (message["key"] != "RunningTestsUpdate") continue;
        if (message["TestList"].empty()) {
            saw_empty = true;
            break;
        }
        for (const auto& test : message["TestList"]) saw_running |= test["Status"] == "Running";
    }
    EXPECT_TRUE(saw_running);
    EXPECT_TRUE(saw_empty);

    const std::string instance = results.get_directory_for_this_instance();
    std::ifstream archived(std::filesystem::path(instance) / ("test_" + std::to_string(id)) / "output.json");
    ASSERT_TRUE(archived.good()) << "no output.json under " << instance;
    const json stored = json::parse(archived);
    EXPECT_EQ(stored["TestOutput"]["Status"], "complete");
    std::filesystem::remove_all(root);
}
