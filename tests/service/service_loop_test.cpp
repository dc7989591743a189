#include <gtest/gtest.h>

#include "service/service_loop.h"

using nlohmann::json;

namespace {

class CountingScheduler : public Scheduler {
public:
    int poll_and_start_tests() override {
        ++calls;
        return 0;
    }
    std::string create_dir_and_give_path(unsigned long) override { return {}; }
    void add_test(unsigned long, std::shared_ptr<std::thread>) override {}
    void remove_test(unsigned long) override {}
    int calls = 0;
};

struct Pushes {
    std::vector<json> sent;
    PollPass::Sender sender() {
        return [this](const std::string& text) { sent.push_back(json::parse(text)); };
    }
    std::size_t count(const std::string& key) const {
        return std::count_if(sent.begin(), sent.end(), [&](const json& m) { return m["key"] == key; });
    }
};

json queue(TestStorage& storage, const std::string& operation) {
    json record = {{"Operation", operation}, {"key", "front-end tag"}};
    UpdateTestStorage::add_test_to_queue_list(storage, record);
    return record;
}

}  // namespace

TEST(PollPassTest, PushRulesFromIdleThroughTheLastTest) {
    TestStorage storage;
    CountingScheduler scheduler;
    Pushes pushes;
    port_status_update = false;
    PollPass pass(&scheduler, storage, [] { return json::array(); }, pushes.sender());

    pass.run_once();
    pass.run_once();
    EXPECT_TRUE(pushes.sent.empty()) << "an idle service since start is quiet";
    EXPECT_EQ(scheduler.calls, 2);

    json first = queue(storage, "PCIe Margin");
    json second = queue(storage, "EyeScan");
    UpdateTestStorage::remove_test_from_queue_list(storage, first);
    UpdateTestStorage::add_test_to_running_list(storage, first);
    pass.run_once();
    pass.run_once();
    ASSERT_EQ(pushes.sent.size(), 2u) << "one push per pass while tests exist, changed or not";
    const json& list = pushes.sent.back()["TestList"];
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0]["Status"], "Queued");
    EXPECT_EQ(list[0]["Operation"], "EyeScan");
    EXPECT_EQ(list[1]["Status"], "Running");
    EXPECT_FALSE(list[0].contains("key")) << "\"key\" names the message, not the record";

    UpdateTestStorage::remove_test_from_queue_list(storage, second);
    UpdateTestStorage::remove_test_from_running_list(storage, first);
    pass.run_once();
    pass.run_once();
    pass.run_once();
    ASSERT_EQ(pushes.sent.size(), 3u) << "exactly one empty list after the last test";
    EXPECT_TRUE(pushes.sent.back()["TestList"].empty());
    EXPECT_EQ(pushes.sent.back()["key"], "RunningTestsUpdate");

    // A test that starts and ends between two passes is still pushed, once.
    json quick = queue(storage, "PCIe Margin");
    quick["PCIeInfo"] = {{"SBDF", "0:3:0.0"}};
    ASSERT_TRUE(UpdateTestStorage::move_to_running(storage, quick));
    quick["TestOutput"] = {{"Status", "Failed"}, {"FailureReason", "no link"}, {"ResultsFolder", "/r/2026_01_02-03_04_05/test_2"}};
    UpdateTestStorage::remove_test_from_running_list(storage, quick);
    pass.run_once();
    pass.run_once();
    ASSERT_EQ(pushes.sent.size(), 4u);
    EXPECT_TRUE(pushes.sent.back()["TestList"].empty());
    EXPECT_EQ(pushes.sent.back()["FinishedTests"],
              json::array({{{"TestID", 2}, {"Operation", "PCIe Margin"}, {"SBDF", "0:3:0.0"}, {"Status", "Failed"},
                            {"FailureReason", "no link"}, {"ResultId", "2026_01_02-03_04_05/test_2"}}}));
}

TEST(PollPassTest, LtssmPushEveryPassOnceRequested) {
    TestStorage storage;
    Pushes pushes;
    int ltssm_reads = 0;
    port_status_update = false;
    PollPass pass(nullptr, storage, [&] { ++ltssm_reads; return json::array({"L0"}); }, pushes.sender());
    pass.run_once();
    EXPECT_TRUE(pushes.sent.empty());
    port_status_update = true;
    pass.run_once();
    pass.run_once();
    port_status_update = false;
    EXPECT_EQ(pushes.count("PortLTSSMUpdate"), 2u);
    EXPECT_EQ(pushes.sent.back()["ltssmdata"], json::array({"L0"}));
    EXPECT_EQ(ltssm_reads, 2);
}
