// A record posted over HTTP runs queued → running → archived through the real
// scheduler and poll pass, the browser hears of its end over the WebSocket
// with the id the queue gave it, and the test's folder appears under the
// result root.
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

TEST(QueueFlow, PostedTestRunsToItsArchiveFolderAndTheBrowserHearsItEnd) {
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
    const json accepted = json::parse(answer.body);
    ASSERT_EQ(accepted["OperationStatus"], true) << answer.body;
    const unsigned long id = accepted["TestID"].get<unsigned long>();

    // Passes run until the browser has been told the test ended. The runner
    // may end before the pass that started it pushes anything; the push
    // still names it among "FinishedTests", so nothing here depends on timing.
    std::optional<json> finished;
    for (int i = 0; i < 200 && !finished; ++i) {
        pass.run_once();
        while (auto text = browser.next_text(10)) {
            const json message = json::parse(*text);
            if (message["key"] != "RunningTestsUpdate") continue;
            for (const auto& test : message["FinishedTests"])
                if (test["TestID"] == id) finished = test;
        }
    }
    TestRunnerRegistry::get().clear();
    ASSERT_TRUE(finished) << "the browser never heard of the test's end";
    EXPECT_EQ((*finished)["Status"], "complete");
    EXPECT_EQ((*finished)["SBDF"], "0:3:0.0");

    const std::string instance = results.get_directory_for_this_instance();
    const auto folder = std::filesystem::path(instance) / ("test_" + std::to_string(id));
    EXPECT_EQ((*finished)["ResultId"], folder.parent_path().filename().string() + "/test_" + std::to_string(id));
    std::ifstream archived(folder / "output.json");
    ASSERT_TRUE(archived.good()) << "no output.json under " << instance;
    const json stored = json::parse(archived);
    EXPECT_EQ(stored["TestOutput"]["Status"], "complete");
    scheduler.join_all_tests();
    std::filesystem::remove_all(root);
}
