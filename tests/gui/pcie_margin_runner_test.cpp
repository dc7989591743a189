// The PCIe margin runner: what it leaves in a test's folder for each way a
// margin can end, the worst-lane figures, and a whole run over the machine
// model from queue to archive.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "discovery/pci_detection.h"
#include "discovery/port_mapping.h"
#include "gui/gui_pcie_handle_test.h"
#include "gui/max_test_scheduler.h"
#include "gui/test_archive.h"
#include "gui/test_progress.h"
#include "margin_pcie/execute_lane_margin_command.h"
#include "hardware/crn_factory.h"
#include "hardware/test_temp_folder.h"
#include "simulator/platform.h"
#include "support/case_name.h"

using nlohmann::json;
namespace fs = std::filesystem;

namespace {

json read_json(const fs::path& path) {
    std::ifstream in(path);
    return json::parse(in);
}

struct EndCase {
    const char* name;
    std::function<void(json&)> margin;
    bool raw_data;
    const char* reason;
};
LW_PRINT_BY_NAME(EndCase)

class RunEnds : public ::testing::TestWithParam<EndCase> {};

TEST_P(RunEnds, LeavesOnlyTheFilesOfThatEnd) {
    const EndCase& c = GetParam();
    const TestTempFolder temp;
    const fs::path& folder = temp.path();
    const json output = run_and_write_pcie_margin(c.margin, folder.string());

    EXPECT_EQ(output["Status"], "Failed");
    EXPECT_EQ(output["FailureReason"], c.reason);
    EXPECT_EQ(output["PhaseRight (UI)"], 0);
    EXPECT_EQ(output["ResultsFolder"], folder.string());
    EXPECT_EQ(fs::exists(folder / "raw_data.json"), c.raw_data);
    EXPECT_FALSE(fs::exists(folder / "pcie_margin.csv"));
}

INSTANTIATE_TEST_SUITE_P(
    Runner, RunEnds,
    ::testing::Values(
        EndCase{"EngineThrowsRuntimeError", [](json&) { throw std::runtime_error("Neither GEN4 or GEN5."); }, false,
                "Neither GEN4 or GEN5."},
        EndCase{"EngineThrowsSomethingElse", [](json&) { throw 42; }, false, "Unknown exception"},
        EndCase{"ReportShowsAnError",
                [](json& report) {
                    report.push_back({{"ErrorPresent", true}, {"ErrorMsg", "lanes are not mapped\n"}});
                },
                true, "lanes are not mapped\n"},
        // Lane 5 lies outside the link (threshold refused, nothing measured);
        // lane 7 measured no voltage though the receiver supports it.
        EndCase{"LanesThatGaveNoMeasurement",
                [](json& report) {
                    const json some = json::array({{{"Offset", 0}, {"DwellTime", 50}, {"ErrCnt", 0}}});
                    const json none = json::array();
                    for (const auto& [lane, timing, voltage] :
                         {std::tuple{2u, some, some}, {5u, none, none}, {7u, some, none}, {15u, some, some}})
                        report.push_back({{"LanePCIeNo", lane}, {"PhaseLeftErrorMap", timing},
                                          {"PhaseRightErrorMap", timing}, {"VoltTopErrorMap", voltage},
                                          {"VoltBottomErrorMap", voltage}});
                    report[0]["VoltSupported"] = true;
                    report[0]["WarningMsg"] = "  Failed set error threshold for lane: 5. Reason: no answer\n";
                },
                true,
                "Some lanes could not be margined: lane 5 (error threshold not set; no offset measured), "
                "lane 7 (no offset measured)"}),
    lw_test::by_name);

TEST(RunnerFigures, EachFigureIsTheWorstLaneOfItsOwnDirection) {
    const json report = json::array({
        {{"PhaseRightMargin", 0.30}, {"PhaseLeftMargin", 0.12}, {"VoltTopMargin", 0.05}, {"VoltBotomMargin", 0.09}},
        {{"PhaseRightMargin", 0.21}, {"PhaseLeftMargin", 0.25}, {"VoltTopMargin", 0.08}, {"VoltBotomMargin", 0.04}},
        {{"PhaseRightMargin", 0.28}, {"PhaseLeftMargin", 0.20}, {"VoltTopMargin", 0.03}, {"VoltBotomMargin", 0.07}},
    });
    const json output = pcie_margin_test_output(report, "/r");
    EXPECT_EQ(output["Status"], "complete");
    EXPECT_DOUBLE_EQ(output["PhaseRight (UI)"].get<double>(), 0.21);
    EXPECT_DOUBLE_EQ(output["PhaseLeft (UI)"].get<double>(), 0.12);
    EXPECT_DOUBLE_EQ(output["VrefTop (mv)"].get<double>(), 0.03);
    EXPECT_DOUBLE_EQ(output["VrefBot (mv)"].get<double>(), 0.04);
    EXPECT_EQ(output["FullMarginData"], report);
}

struct ProgressCase {
    const char* name;
    PCIE::MarginProgress progress;
    double percent;
    json remaining;
};
LW_PRINT_BY_NAME(ProgressCase)

class ProgressRecord : public ::testing::TestWithParam<ProgressCase> {};

// Percent follows the sides walked, never the lanes finished (lanes of one
// batch all finish at its end).
TEST_P(ProgressRecord, PercentAgreesWithSidesAndRemainingIsThePlans) {
    const json record = make_progress_record(GetParam().progress);
    EXPECT_EQ(record["Percent"].get<double>(), GetParam().percent);
    EXPECT_EQ(record["RemainingSeconds"], GetParam().remaining);
    EXPECT_EQ(record["SidesDone"], GetParam().progress.sides_done);
    EXPECT_EQ(record["LanesDone"], GetParam().progress.lanes_done);
}

INSTANTIATE_TEST_SUITE_P(
    Runner, ProgressRecord,
    ::testing::Values(
        ProgressCase{"HalfTheSidesBeforeAnyLaneEnds", {0, 16, "Timing Left", 32, 64, 380.04, 190}, 50, 380.0},
        ProgressCase{"NoPlanYetHasNoEstimate", {0, 4, "Voltage Down", 0, 16, std::nullopt, 12}, 0, nullptr},
        ProgressCase{"MoreSidesThanPlannedStaysAtAHundred", {4, 4, "", 20, 16, -1.0, 40}, 100, 0.0},
        ProgressCase{"NoTotalKnown", {0, 0, "", 0, 0, std::nullopt, 1}, 0, nullptr}),
    lw_test::by_name);

// A whole run on the machine model: queued, started by the scheduler, margined
// by the engine, archived.
class RunnerOverModel : public ::testing::Test {
protected:
    void SetUp() override {
        platform.install();
        CRNFactory::initalize(platform.read_pci(), platform.write_pci());
        devices = DetectPCIDevices()(platform.read_pci());
        store.store_pcie_device_list(devices, platform.read_pci(), platform.write_pci());
        reset_all_port_data();
        TestRunnerRegistry::get().add("PCIe Margin", std::make_shared<PCIeMarginRunner>(stop));
    }
    void TearDown() override {
        TestRunnerRegistry::get().clear();
        reset_all_port_data();
        set_system_facts(nullptr);
    }
    // Runs scheduler passes until the queue and the running list are empty.
    void run_to_end(MaxTestScheduler& scheduler) {
        for (int pass = 0; pass < 20000; ++pass) {
            scheduler.poll_and_start_tests();
            const auto lists = snapshot_test_lists(storage);
            if (lists.queued.empty() && lists.running.empty()) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        scheduler.join_all_tests();
    }
    json only_output() {
        for (const auto& run : fs::directory_iterator(root))
            for (const auto& test : fs::directory_iterator(run)) return read_json(test.path() / "output.json");
        return json();
    }
    // A margin of the NVMe behind the switch at its own receiver.
    static json nvme_margin(const char* ber, const json& lanes) {
        return {{"Operation", "PCIe Margin"},
                {"PCIeInfo", {{"SBDF", "0:3:0.0"}, {"DeviceType", "Endpoint"}}},
                {"TestParams", {{"BER", ber}, {"ErrCnt", 4}, {"Receiver", 6}, {"Lanes", lanes}}}};
    }
    // The test queued alone and run to its end: its archived output.json.
    json run_alone(json test) {
        MaxTestScheduler scheduler(storage, store);
        UpdateTestStorage::add_test_to_queue_list(storage, test);
        run_to_end(scheduler);
        return only_output();
    }

    sim::Platform platform = sim::load_platform("", 7, 1e5);
    TestTempFolder temp;
    const fs::path root = temp.path();
    GUIResourceStore store{root.string()};
    TestStorage storage;
    std::vector<PCIDeviceDetails> devices;
    PCIE::MarginStopFlag stop;
};

TEST_F(RunnerOverModel, MarginRunsToCompleteWithTheThreeFilesAndTheProfilesMargins) {
    const json output = run_alone(nvme_margin("9", json::array({"0,1"})));
    ASSERT_TRUE(output.contains("TestOutput")) << output.dump(2);
    const json& result = output["TestOutput"];
    ASSERT_EQ(result["Status"], "complete") << result.dump(2);
    const fs::path folder = result["ResultsFolder"].get<std::string>();
    EXPECT_TRUE(fs::exists(folder / "raw_data.json"));
    EXPECT_TRUE(fs::exists(folder / "pcie_margin.csv"));
    ASSERT_EQ(result["FullMarginData"].size(), 2u);
    EXPECT_FALSE(output.contains("Progress"));
    EXPECT_GT(result["PhaseLeft (UI)"].get<double>(), 0.0);
    EXPECT_GT(result["VrefTop (mv)"].get<double>(), 0.0);
}

// Lane 5 of a x4 link: the engine walks it without a single answer, and the
// test says so instead of archiving its zeros as margins.
TEST_F(RunnerOverModel, LaneOutsideTheLinkFailsTheTestByName) {
    const json result = run_alone(nvme_margin("8", json::array({2, 5})))["TestOutput"];
    EXPECT_EQ(result["Status"], "Failed") << result.dump(2);
    EXPECT_EQ(result["FailureReason"],
              "Some lanes could not be margined: lane 5 (error threshold not set; no offset measured)");
    EXPECT_TRUE(fs::exists(fs::path(result["ResultsFolder"].get<std::string>()) / "raw_data.json"));
}

// Cancel over the model: a queued test leaves the queue archived at once, a
// running margin stops at its next offset with its lanes back at normal
// settings and keeps what it measured; the service's own flag stays down.
TEST_F(RunnerOverModel, CancelEndsQueuedAndRunningTestsArchivedCancelled) {
    MaxTestScheduler scheduler(storage, store);
    // 10^-15: each full dwell lasts seconds of real time even at this scale.
    json test = nvme_margin("15", json::array({0, 1}));
    json second = test;
    UpdateTestStorage::add_test_to_queue_list(storage, test);
    UpdateTestStorage::add_test_to_queue_list(storage, second);
    ASSERT_EQ(scheduler.poll_and_start_tests(), 1);
    EXPECT_EQ(snapshot_test_lists(storage).queued.at(0)["WaitingFor"], 0) << "same function";

    ASSERT_EQ(cancel_test(storage, store, 1), std::nullopt);
    EXPECT_TRUE(snapshot_test_lists(storage).queued.empty());
    EXPECT_EQ(cancel_test(storage, store, 7), "No queued or running test has TestID 7.");

    // Cancel once the margin has begun walking.
    for (int i = 0; i < 2000; ++i) {
        const auto running = snapshot_test_lists(storage).running;
        if (!running.empty() && running[0].contains("Progress") && running[0].contains("ResultId")) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_EQ(cancel_test(storage, store, 0), std::nullopt);
    EXPECT_EQ(snapshot_test_lists(storage).running.at(0)["Cancelling"], true);
    run_to_end(scheduler);
    EXPECT_FALSE(stop.stop_requested());

    const fs::path run = fs::path(store.get_directory_for_this_instance());
    const json running = read_json(run / "test_0" / "output.json");
    EXPECT_EQ(running["TestOutput"]["Status"], "Cancelled");
    EXPECT_EQ(running["TestOutput"]["FailureReason"], "Cancelled by the user");
    EXPECT_EQ(read_json(run / "test_0" / "raw_data.json").at(0)["ErrorMsg"].get<std::string>().rfind("Margin stopped: cancelled by the user", 0), 0u);
    EXPECT_FALSE(running.contains("Cancelling"));
    const json queued = read_json(run / "test_1" / "output.json");
    EXPECT_EQ(queued["TestOutput"]["Status"], "Cancelled");
    EXPECT_EQ(queued["TestOutput"]["FailureReason"], "Cancelled before it started");
    EXPECT_EQ(queued["TestParams"], second["TestParams"]) << "kept so it can be run again";
    EXPECT_EQ(UpdateTestStorage::take_finished(storage).size(), 2u);

    // A lane left margining keeps sampling; one at normal settings has its log cleared.
    for (const unsigned lane : {0u, 1u}) {
        PCIE::ExecuteLaneMarginCmd cmd(PCIE::Device_ID(0, 3, 0, 0), lane, 6, *platform.read_pci(),
                                       *platform.write_pci());
        PCIE::ExecuteLaneMarginCmd::MarginLaneData out;
        std::string err;
        ASSERT_TRUE(cmd.send_cmd_and_read_response(1, 0x8F, out, err)) << err;
        platform.model().clock().sleep_for(std::chrono::seconds(1));
        ASSERT_TRUE(cmd.send_cmd_and_read_response(1, 0x8F, out, err)) << err;
        EXPECT_EQ(out._margin_payload, 0u) << "lane " << lane << " still margining";
    }
}

}  // namespace
