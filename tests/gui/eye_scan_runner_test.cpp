// The eye scan runner: the figures it derives from the merged summaries, the
// records the queue refuses, and how a run or a lane ends when something fails.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "discovery/e32_phy.h"
#include "eye_scan/eye_machine.h"
#include "gui/gui_eye_scan_handle_test.h"
#include "gui/gui_hvl_get_device.h"
#include "gui/model_machine.h"
#include "gui/test_record_checks.h"
#include "hardware/register_storage.h"
#include "hardware/test_temp_folder.h"

using nlohmann::json;
namespace fs = std::filesystem;

namespace {

const char* const kHeader = "Name,Lane,EyeWidthUI,EyeHeightMV,EyeTopMV,EyeBottomMV,EyeLeftUI,EyeRightUI,BERFloor,Area,Link\n";
const char* const kRow = "a,0,0.5,60,30,-40,-0.25,0.25,1e-7,1,G1\n";

TEST(EyeScanOutput, SmallestDistanceOfEachFigureOrTheReason) {
    struct Case {
        const char* name;
        std::string analysis;  // empty: no file
        std::size_t lanes;
        const char* reason;  // nullptr: complete with figures
        std::vector<double> figures;  // top, bottom, left, right
    };
    const Case cases[] = {
        // Each figure from its own lane; the bottom is a coordinate below 0.
        {"two lanes", std::string(kRow) + "b,1,0.5,50,35,-25,-0.375,0.125,1e-7,1,G1\n", 2, nullptr, {30, 25, 0.25, 0.125}},
        {"unreadable cell reads 0", "a,0,0.5,60,x,-40,-0.25,0.25,1e-7,1,G1\n", 1, nullptr, {0, 40, 0.25, 0.25}},
        {"row short of 9 columns", "a,0,0.5,60,30,-40,-0.25,0.25\n", 1, "Unable to parse file.", {}},
        {"fewer rows than lanes", kRow, 2, "Unable to parse CSV file", {}},
        {"no analysis file", "", 1, "Unable to parse CSV file", {}},
    };
    const TestTempFolder temp;
    const fs::path& folder = temp.path();
    const std::string path = (folder / "analysis.csv").string();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove(path);
        if (!c.analysis.empty()) std::ofstream(path) << kHeader << c.analysis;
        std::string error;
        const auto rows = get_data_from_csv_file(path, error);
        const json output = eye_scan_test_output(rows, error, c.lanes, "", folder.string());
        EXPECT_EQ(output["Status"], c.reason ? "Failed" : "complete");
        if (c.reason) EXPECT_EQ(output["FailureReason"], c.reason);
        const char* keys[] = {"VrefTop (mv)", "VrefBot (mv)", "PhaseLeft (UI)", "PhaseRight (UI)"};
        for (std::size_t i = 0; i < c.figures.size(); ++i) EXPECT_DOUBLE_EQ(output[keys[i]].get<double>(), c.figures[i]);
    }
}

// The records the browser could build, then each way one may be wrong.
TEST(EyeScanQueue, RefusesRecordsThatCannotRun) {
    gui_test::ModelMachine machine;
    GUIHVLGetDevice::forget_cached_list();
    json hvl, pcie, unmapped;
    for (const json& element : GUIHVLGetDevice(machine.store).get_device_list(machine.devices))
        if (element["HVLCtrlInfo"]["SERDES"] == "G1" && element["HVLCtrlInfo"]["Socket"] == 0) hvl = element;
    for (const json& element : GUIPCIEGetDevice(machine.store).get_device_list(machine.devices))
        (element.value("EyeScanSupported", false) ? pcie : unmapped) = element;
    ASSERT_FALSE(hvl.is_null() || pcie.is_null() || unmapped.is_null());
    const json hvl_record = {{"Operation", "EyeScan"}, {"SERDES", hvl["SERDES"]}, {"HVLCtrlInfo", hvl["HVLCtrlInfo"]},
                             {"TestParams", {{"BER", "5.84"}, {"Lanes", {0, 1}}}}};
    const json pcie_record = {{"Operation", "EyeScan"}, {"SERDES", pcie["SERDES"]}, {"PCIeInfo", pcie["PCIeInfo"]},
                              {"TestParams", {{"BER", "3.735"}, {"Lanes", {pcie["EyeScanData"]["Lanes"][0]}}}}};
    auto with = [](json record, const char* key, json value) {
        record[json::json_pointer(key)] = std::move(value);
        return record;
    };
    json neither = hvl_record;
    neither.erase("HVLCtrlInfo");
    const std::pair<json, const char*> cases[] = {  // the record, a part of its refusal (nullptr: accepted)
        {hvl_record, nullptr},
        {pcie_record, nullptr},
        {with(hvl_record, "/TestParams/PhaseStep", 2), nullptr},
        {with(hvl_record, "/SERDES/DeviceName", "Corvane Socket:7 Die:0"), "no die"},
        {with(hvl_record, "/SERDES/SERDES", "G2"), "is not the link of"},
        {neither, "\"PCIeInfo\""},
        {with(pcie_record, "/PCIeInfo", unmapped["PCIeInfo"]), "doesn't offer eye scans"},
        {with(hvl_record, "/TestParams/Lanes", json::array()), "names no lane"},
        {with(hvl_record, "/TestParams/Lanes", {16}), "lane 16 is not"},
        {with(hvl_record, "/TestParams/Lanes", {"1,1"}), "more than once"},
        {with(hvl_record, "/TestParams/BER", "12"), "eye scan choices"},
        {with(hvl_record, "/TestParams/PhaseStep", 1), "65 values"},
        {with(hvl_record, "/TestParams/VoltageEnd", 900), "outside the PHY"},
        {with(with(hvl_record, "/TestParams/VoltageStart", 0), "/TestParams/VoltageEnd", 5), "at least 2"},
        {with(hvl_record, "/TestParams/PhaseStart", "-32"), "whole number"},
    };
    for (const auto& [record, part] : cases) {
        SCOPED_TRACE(record.dump());
        const auto refusal = check_eye_scan_record(record, machine.store);
        ASSERT_EQ(refusal.has_value(), part != nullptr) << refusal.value_or("");
        if (part) EXPECT_NE(refusal->find(part), std::string::npos) << *refusal;
    }
    EXPECT_EQ(estimate_eye_scan(hvl_record, machine.store)["Lanes"], 2);
}

// Folders under a temporary root; the test runs the thread function itself.
class FolderScheduler : public Scheduler {
public:
    explicit FolderScheduler(fs::path root) : _root(std::move(root)) {}
    int poll_and_start_tests() override { return 0; }
    std::string create_dir_and_give_path(unsigned long id) override {
        fs::create_directories(_root / ("test_" + std::to_string(id)));
        return (_root / ("test_" + std::to_string(id))).string();
    }
    void add_test(unsigned long, std::shared_ptr<std::thread>) override {}
    void remove_test(unsigned long) override {}

private:
    fs::path _root;
};

TEST(EyeScanRun, EndsWithTheFirstFailureNamingItsLane) {
    gui_test::ModelMachine machine;
    using Lane = std::function<std::optional<std::string>(unsigned int)>;  // may throw
    const Lane fine = [](unsigned) { return std::nullopt; };
    struct Case {
        const char* name;
        Lane lane_result;
        std::string plot_tool;
        const char* reason;  // a part of it; empty: complete
        std::vector<unsigned int> scanned;
    };
    const Case cases[] = {
        {"scanned and plotted", fine, "/usr/bin/true", "", {0, 1, 2}},
        {"override refused on lane 1",
         [](unsigned lane) { return lane == 1 ? std::optional<std::string>("PCS override not working.") : std::nullopt; },
         "/usr/bin/true", "Lane 1: PCS override not working.", {0, 1}},
        {"collector throws something odd", [](unsigned) -> std::optional<std::string> { throw 7; }, "/usr/bin/true",
         "Lane 0: Unknown exception", {0}},
        {"plot tool missing", fine, "/nonexistent/plot_eye", "plot tool /nonexistent/plot_eye is missing", {0, 1, 2}},
        {"plot tool fails", fine, "/usr/bin/false", "Lane 0: the eye plot failed (exited with code 1)", {0, 1, 2}},
    };
    const std::string die = machine.store.get_die_list().front().full_name();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const TestTempFolder temp;
        const fs::path& root = temp.path();
        FolderScheduler scheduler(root);
        TestStorage storage;
        std::vector<unsigned int> scanned;
        // Leaves what the collector leaves for the plot step to find.
        const EyeLaneScanner scanner = [&](const EyeLaneScan& job) {
            scanned.push_back(job.lane);
            std::ofstream(job.folder + "/" + std::to_string(job.id) + "_metadata.csv") << "{}";
            return c.lane_result(job.lane);
        };
        // One summary row per lane scanned, as the plots would leave them.
        const EyeSummaryMerger merger = [&](const std::string&, const std::string& path) {
            std::ofstream out(path);
            out << kHeader;
            for (std::size_t i = 0; i < scanned.size(); ++i) out << kRow;
        };
        json test = {{"Operation", "EyeScan"},
                     {"SERDES", {{"DeviceName", die}, {"SERDES", "G1"}}},
                     {"TestParams", {{"BER", "5.84"}, {"Lanes", {0, 1, 2}}}}};
        UpdateTestStorage::add_test_to_queue_list(storage, test);
        UpdateTestStorage::move_to_running(storage, test);
        GUIEyeScanHandleTest(test, storage, scheduler, machine.store.get_die_list(), PCIE::MarginStopFlag(), scanner,
                             merger, c.plot_tool)
            .thread_fuction();
        const json output =
            json::parse(std::ifstream(root / ("test_" + test["TestID"].dump()) / "output.json"))["TestOutput"];
        EXPECT_EQ(output["Status"], *c.reason ? "Failed" : "complete") << output.dump();
        EXPECT_NE(output.value("FailureReason", "").find(c.reason), std::string::npos) << output.dump();
        EXPECT_EQ(scanned, c.scanned);
    }
}

// The runner's lane scan over the model's PHYs: what it leaves or says for
// each way a lane can end, and the override released after every one.
TEST(EyeScanLane, ScansOrSaysWhyAndReleasesTheOverride) {
    eye_test::EyeMachine machine([](json& profile) {
        profile["faults"] = {{{"type", "hvl_override_never_granted"}, {"socket", 0}, {"link", "G1"}, {"lane", 1}},
                             {{"type", "eye_ring_stall"}, {"socket", 0}, {"link", "G1"}, {"lane", 2}}};
    });
    const TestTempFolder temp;
    const fs::path& folder = temp.path();
    struct Case {
        unsigned int lane;
        bool abandon;
        const char* failure;  // a part of it; nullptr: scanned
    };
    for (const Case& c : {Case{0, false, nullptr}, Case{1, false, "PCS override not working."},
                          Case{2, false, "did not end within"}, Case{3, true, ""}}) {
        SCOPED_TRACE(c.lane);
        const int id = static_cast<int>(1000 + c.lane);
        const auto failure = e32_lane_scanner()(
            {machine.die0, "G1", c.lane, folder.string(), id, 12, EyeScanWindow{}, 32, [&] { return c.abandon; }});
        ASSERT_EQ(failure.has_value(), c.failure != nullptr);
        if (failure) EXPECT_NE(failure->find(c.failure), std::string::npos) << *failure;
        EXPECT_EQ(fs::exists(folder / (std::to_string(id) + "_metadata.csv")), !failure);
        if (c.lane != 1)
            EXPECT_TRUE(CorvaneE32PCSCommands("G1", c.lane, get_register_store(machine.die0)).check_if_override_is_working());
    }
}

}  // namespace
