// The eye scan runner: the figures it derives from the merged summaries, the
// records the queue refuses, and how a run ends when a lane or a plot fails.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "discovery/e32_phy.h"
#include "eye_scan/eye_machine.h"
#include "gui/gui_eye_scan_handle_test.h"
#include "gui/gui_hvl_get_device.h"
#include "gui/model_machine.h"
#include "gui/scheduler.h"
#include "gui/test_record_checks.h"
#include "hardware/register_storage.h"

using nlohmann::json;
namespace fs = std::filesystem;

namespace {

const char* const kHeader = "Name,Lane,EyeWidthUI,EyeHeightMV,EyeTopMV,EyeBottomMV,EyeLeftUI,EyeRightUI,BERFloor,Area,Link\n";

fs::path fresh_folder(const std::string& name) {
    const fs::path folder = fs::temp_directory_path() / ("eye_" + name + "_" + std::to_string(::getpid()));
    fs::remove_all(folder);
    fs::create_directories(folder);
    return folder;
}

struct OutputCase {
    const char* name;
    const char* analysis;  // nullptr: no file
    std::size_t lanes;
    const char* failure;
    const char* reason;  // nullptr: complete
    double top, bottom, left, right;
};

class EyeScanOutput : public ::testing::TestWithParam<OutputCase> {};

TEST_P(EyeScanOutput, FiguresOrReason) {
    const OutputCase& c = GetParam();
    const fs::path folder = fresh_folder("output");
    const std::string path = (folder / "analysis.csv").string();
    if (c.analysis) std::ofstream(path) << kHeader << c.analysis;
    std::string error;
    const auto rows = get_data_from_csv_file(path, error);
    const json output = eye_scan_test_output(rows, error, c.lanes, c.failure, folder.string());
    EXPECT_EQ(output["ResultsFolder"], folder.string());
    if (c.reason) {
        EXPECT_EQ(output["Status"], "Failed");
        EXPECT_EQ(output["FailureReason"], c.reason);
    } else {
        ASSERT_EQ(output["Status"], "complete") << output.dump();
        EXPECT_DOUBLE_EQ(output["VrefTop (mv)"].get<double>(), c.top);
        EXPECT_DOUBLE_EQ(output["VrefBot (mv)"].get<double>(), c.bottom);
        EXPECT_DOUBLE_EQ(output["PhaseLeft (UI)"].get<double>(), c.left);
        EXPECT_DOUBLE_EQ(output["PhaseRight (UI)"].get<double>(), c.right);
        EXPECT_FALSE(output.contains("FullMarginData"));
        EXPECT_EQ(output["TimeStamp"].get<std::string>().size(), 19u);
    }
    fs::remove_all(folder);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, EyeScanOutput,
    ::testing::Values(
        // Each figure is the smallest distance over the lanes, each from its own lane.
        OutputCase{"SmallestAbsoluteOfEachFigure",
                   "a,0,0.5,60,30,-40,-0.25,0.25,1e-7,1,G1\nb,1,0.5,50,35,-25,-0.375,0.125,1e-7,1,G1\n", 2, "", nullptr,
                   30, 25, 0.25, 0.125},
        OutputCase{"BlankLinesAreNoRows", "a,0,0.5,60,30,-40,-0.25,0.25,1e-7,1,G1\n\n", 1, "", nullptr, 30, 40, 0.25,
                   0.25},
        OutputCase{"UnreadableCellReadsZero", "a,0,0.5,60,x,-40,-0.25,0.25,1e-7,1,G1\n", 1, "", nullptr, 0, 40, 0.25,
                   0.25},
        OutputCase{"RowShortOfNineColumns", "a,0,0.5,60,30,-40,-0.25,0.25\n", 1, "", "Unable to parse file."},
        OutputCase{"FewerRowsThanLanes", "a,0,0.5,60,30,-40,-0.25,0.25,1e-7,1,G1\n", 2, "",
                   "Unable to parse CSV file"},
        OutputCase{"NoAnalysisFile", nullptr, 1, "", "Unable to parse CSV file"},
        OutputCase{"LaneFailureWins", "a,0,0.5,60,30,-40,-0.25,0.25,1e-7,1,G1\n", 1,
                   "Lane 3: PCS override not working.", "Lane 3: PCS override not working."}),
    [](const auto& info) { return std::string(info.param.name); });

// The records the browser could build, then each way one may be wrong.
TEST(EyeScanQueue, RefusesRecordsThatCannotRun) {
    gui_test::ModelMachine machine;
    GUIHVLGetDevice::forget_cached_list();
    json hvl, pcie, unmapped;
    for (const json& element : GUIHVLGetDevice(machine.store).get_device_list(machine.devices))
        if (element["HVLCtrlInfo"]["SERDES"] == "G1" && element["HVLCtrlInfo"]["Socket"] == 0) hvl = element;
    for (const json& element : GUIPCIEGetDevice(machine.store).get_device_list(machine.devices)) {
        if (element.value("EyeScanSupported", false) && pcie.is_null()) pcie = element;
        if (!element.value("EyeScanSupported", false) && unmapped.is_null()) unmapped = element;
    }
    ASSERT_FALSE(hvl.is_null());
    ASSERT_FALSE(pcie.is_null());
    ASSERT_FALSE(unmapped.is_null());
    const json params = {{"BER", "5.84"}, {"Lanes", {0, 1}}};
    const json hvl_record = {{"Operation", "EyeScan"}, {"SERDES", hvl["SERDES"]}, {"HVLCtrlInfo", hvl["HVLCtrlInfo"]},
                             {"TestParams", params}};
    const json pcie_lanes = {pcie["EyeScanData"]["Lanes"][0]};
    const json pcie_record = {{"Operation", "EyeScan"},
                              {"SERDES", pcie["SERDES"]},
                              {"PCIeInfo", pcie["PCIeInfo"]},
                              {"PCIeCtrlInfo", pcie["PCIeCtrlInfo"]},
                              {"TestParams", {{"BER", "3.735"}, {"Lanes", pcie_lanes}}}};

    struct Case {
        const char* name;
        json record;
        const char* refusal;  // a part of the refusal; nullptr: accepted
    };
    auto with = [](json record, const json::json_pointer& key, json value) {
        record[key] = std::move(value);
        return record;
    };
    json unmapped_record = pcie_record;
    unmapped_record["PCIeInfo"] = unmapped["PCIeInfo"];
    json neither = hvl_record;
    neither.erase("HVLCtrlInfo");
    const Case cases[] = {
        {"hVL link", hvl_record, nullptr},
        {"PCIe port", pcie_record, nullptr},
        {"window given in full", with(hvl_record, "/TestParams/PhaseStep"_json_pointer, 2), nullptr},
        {"unknown die", with(hvl_record, "/SERDES/DeviceName"_json_pointer, "Corvane Socket:7 Die:0"), "no die"},
        {"SERDES of another link", with(hvl_record, "/SERDES/SERDES"_json_pointer, "G2"), "is not the link of"},
        {"neither PCIe nor hVL", neither, "\"PCIeInfo\""},
        {"port without eye scan", unmapped_record, "doesn't offer eye scans"},
        {"empty lanes", with(hvl_record, "/TestParams/Lanes"_json_pointer, json::array()), "names no lane"},
        {"lane 16", with(hvl_record, "/TestParams/Lanes"_json_pointer, {16}), "lane 16 is not"},
        {"lane twice", with(hvl_record, "/TestParams/Lanes"_json_pointer, {"1,1"}), "more than once"},
        {"margin BER", with(hvl_record, "/TestParams/BER"_json_pointer, "12"), "eye scan choices"},
        {"65 phase values", with(hvl_record, "/TestParams/PhaseStep"_json_pointer, 1), "65 values"},
        {"voltage past the DAC", with(hvl_record, "/TestParams/VoltageEnd"_json_pointer, 900), "outside the PHY"},
        {"one voltage value", with(with(hvl_record, "/TestParams/VoltageStart"_json_pointer, 0),
                                   "/TestParams/VoltageEnd"_json_pointer, 5),
         "at least 2"},
        {"window not a number", with(hvl_record, "/TestParams/PhaseStart"_json_pointer, "-32"), "whole number"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto refusal = check_eye_scan_record(c.record, machine.store);
        if (!c.refusal) {
            EXPECT_FALSE(refusal) << *refusal;
        } else {
            ASSERT_TRUE(refusal);
            EXPECT_NE(refusal->find(c.refusal), std::string::npos) << *refusal;
        }
    }
    const json estimate = estimate_eye_scan(hvl_record, machine.store);
    EXPECT_EQ(estimate["OperationStatus"], true) << estimate.dump();
    EXPECT_EQ(estimate["Lanes"], 2);
}

// Folders under a temporary root; threads are run by the test itself.
class FolderScheduler : public Scheduler {
public:
    explicit FolderScheduler(fs::path root) : _root(std::move(root)) {}
    int poll_and_start_tests() override { return 0; }
    std::string create_dir_and_give_path(unsigned long id) override {
        const fs::path folder = _root / ("test_" + std::to_string(id));
        fs::create_directories(folder);
        return folder.string();
    }
    void add_test(unsigned long, std::shared_ptr<std::thread>) override {}
    void remove_test(unsigned long) override {}

private:
    fs::path _root;
};

struct RunCase {
    const char* name;
    std::function<std::optional<std::string>(unsigned int lane)> lane_result;  // may throw
    std::string plot_tool;
    const char* status;
    const char* reason;  // a part of it
    std::vector<unsigned int> scanned;
};

TEST(EyeScanRun, EndsWithTheFirstFailureNamingItsLane) {
    gui_test::ModelMachine machine;
    GUIHVLGetDevice::forget_cached_list();
    const RunCase cases[] = {
        {"every lane scanned and plotted", [](unsigned) { return std::nullopt; }, "/usr/bin/true", "complete", "",
         {0, 1, 2}},
        {"override refused on lane 1", [](unsigned lane) -> std::optional<std::string> {
             if (lane == 1) return "PCS override not working.";
             return std::nullopt;
         },
         "/usr/bin/true", "Failed", "Lane 1: PCS override not working.", {0, 1}},
        {"collector throws something odd", [](unsigned) -> std::optional<std::string> { throw 7; }, "/usr/bin/true",
         "Failed", "Lane 0: Unknown exception", {0}},
        {"collector throws its text", [](unsigned) -> std::optional<std::string> {
             throw std::runtime_error("Unknown firmware version in Corvane initate eye scan");
         },
         "/usr/bin/true", "Failed", "Lane 0: Unknown firmware version", {0}},
        {"plot tool missing", [](unsigned) { return std::nullopt; }, "/nonexistent/plot_eye", "Failed",
         "plot tool /nonexistent/plot_eye is missing", {0, 1, 2}},
        {"plot tool fails", [](unsigned) { return std::nullopt; }, "/usr/bin/false", "Failed",
         "Lane 0: the eye plot failed (exited with code 1)", {0, 1, 2}},
    };
    const std::string die = machine.store.get_die_list().front().full_name();
    for (const RunCase& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path root = fresh_folder("run");
        FolderScheduler scheduler(root);
        TestStorage storage;
        std::vector<unsigned int> scanned;
        // Writes what the collector writes for the plot step to find.
        EyeLaneScanner scanner = [&](const EyeLaneScan& job) {
            scanned.push_back(job.lane);
            EXPECT_EQ(job.nbits, 17);
            EXPECT_EQ(job.window.voltage_step, 10);
            const auto result = c.lane_result(job.lane);
            std::ofstream(job.folder + "/" + std::to_string(job.id) + "_metadata.csv") << "{}";
            return result;
        };
        // One summary row per plotted lane, as the plots would leave them.
        EyeSummaryMerger merger = [&](const std::string& folder, const std::string& path) {
            std::ofstream out(path);
            out << kHeader;
            for (std::size_t i = 0; i < scanned.size(); ++i) out << "x," << i << ",0.5,60,30,-40,-0.25,0.25,1,1,G1\n";
        };
        json test = {{"Operation", "EyeScan"},
                                          {"SERDES", {{"DeviceName", die}, {"SERDES", "G1"}}},
                     {"HVLCtrlInfo", {{"DeviceName", die}, {"SERDES", "G1"}}},
                     {"TestParams", {{"BER", "5.84"}, {"Lanes", {0, 1, 2}}}}};
        UpdateTestStorage::add_test_to_queue_list(storage, test);
        UpdateTestStorage::move_to_running(storage, test);
        GUIEyeScanHandleTest(test, storage, scheduler, machine.store.get_die_list(), PCIE::MarginStopFlag(), scanner,
                             merger, c.plot_tool)
            .thread_fuction();
        const json archived = json::parse(std::ifstream(root / ("test_" + test["TestID"].dump()) / "output.json"));
        const json& output = archived["TestOutput"];
        EXPECT_EQ(output["Status"], c.status) << output.dump();
        EXPECT_NE(output.value("FailureReason", "").find(c.reason), std::string::npos) << output.dump();
        EXPECT_EQ(scanned, c.scanned);
        EXPECT_EQ(archived["TestParams"]["BER"], "5.84");
        fs::remove_all(root);
    }
}

// The runner's lane scan over the model's PHYs: what it leaves or says for
// each way a lane can end, and the override released after every one.
TEST(EyeScanLane, ScansOrSaysWhyAndReleasesTheOverride) {
    eye_test::EyeMachine machine([](json& profile) {
        profile["faults"] = {{{"type", "hvl_override_never_granted"}, {"socket", 0}, {"link", "G1"}, {"lane", 1}},
                             {{"type", "eye_ring_stall"}, {"socket", 0}, {"link", "G1"}, {"lane", 2}}};
    });
    const fs::path folder = fresh_folder("lane");
    struct Case {
        const char* name;
        unsigned int lane;
        bool abandon;
        const char* failure;  // a part of it; nullptr: scanned
    };
    for (const Case& c : {Case{"scanned", 0, false, nullptr}, Case{"override never granted", 1, false, "PCS override not working."},
                          Case{"ring stalls", 2, false, "did not end within"}, Case{"cancelled", 3, true, ""}}) {
        SCOPED_TRACE(c.name);
        EyeLaneScan job{machine.die0, "G1", c.lane, folder.string(), static_cast<int>(1000 + c.lane), 12,
                        EyeScanWindow{}, 32, [&] { return c.abandon; }};
        const auto failure = e32_lane_scanner()(job);
        EXPECT_EQ(failure.has_value(), c.failure != nullptr);
        if (failure && c.failure) EXPECT_NE(failure->find(c.failure), std::string::npos) << *failure;
        const std::string prefix = std::to_string(1000 + c.lane);
        EXPECT_EQ(fs::exists(folder / (prefix + "_metadata.csv")), c.failure == nullptr);
        if (c.lane != 1)
            EXPECT_TRUE(CorvaneE32PCSCommands("G1", c.lane, get_register_store(machine.die0)).check_if_override_is_working());
    }
    fs::remove_all(folder);
}

}  // namespace
