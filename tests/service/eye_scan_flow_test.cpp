// An eye scan of an hVL link posted over HTTP to the simulated service runs
// to its archive with a plot per lane, and the figures it reports are the
// model's eye of each lane, to within one step of the scan window.
#include <gtest/gtest.h>

#include "fast_service.h"
#include "simulator/hvl_link_model.h"
#include "simulator/hvl_phy_model.h"
#include "simulator/profile.h"

using nlohmann::json;
using wire_test::FastService;

namespace {

// The default window's steps: 4/64 UI and 5 mV.
constexpr double kPhaseStepUI = 0.0625, kVoltageStepMV = 5;
constexpr double kTimingStepUI = 1.0 / 64, kVoltageStepHvlMV = 3.90625;

// The edges the default machine gives socket 0's G1 lanes.
sim::HvlLaneEdges model_edges(unsigned lane) {
    const sim::Profile profile = sim::parse_profile_text(sim::default_profile_text());
    for (const sim::HvlLinkProfile& link : sim::parse_hvl_links(profile.hvl_links, profile.sockets))
        for (const sim::HvlLinkEnd* end : {&link.end, &link.partner})
            if (end->socket == 0 && end->link == "G1") return sim::hvl_lane_edges(link, 0, lane, sim::Noise(profile.seed));
    return {};
}

}  // namespace

TEST(EyeScanFlow, HvlLinkScanCompletesWithFourPlotsAndTheModelsEye) {
    FastService service;
    const json targets = service.get("/api/1.0/GetDeviceListForEyeScan");
    const json pcie = service.get("/api/1.0/GetPCIEDeviceListForMargin");
    ASSERT_TRUE(targets.is_array());
    ASSERT_EQ(targets.size(), pcie.size() + 4) << "the PCIe list, then the four hVL link ends";
    json record;
    for (const json& element : targets)
        if (element.contains("HVLCtrlInfo") && element["HVLCtrlInfo"]["SERDES"] == "G1" &&
            element["HVLCtrlInfo"]["Socket"] == 0)
            record = {{"Operation", "EyeScan"},
                      {"SERDES", element["SERDES"]},
                      {"HVLCtrlInfo", element["HVLCtrlInfo"]},
                      {"TestParams", {{"BER", "5.84"}, {"Lanes", {0, 1, 2, 3}}}}};
    ASSERT_FALSE(record.is_null());

    const json estimate =
        json::parse(wire_test::request(service.port, "POST", "/api/1.0/EstimateTestDuration", record.dump()).body);
    EXPECT_GT(estimate.value("Seconds", 0.0), 0) << estimate.dump();
    const json queued = json::parse(wire_test::request(service.port, "POST", "/api/1.0/AddTestToQueue", record.dump()).body);
    ASSERT_EQ(queued["OperationStatus"], true) << queued.dump();

    const json archived = service.archived(queued["TestID"].get<unsigned long>());
    const json& output = archived["TestOutput"];
    ASSERT_EQ(output["Status"], "complete") << output.dump();
    const std::filesystem::path folder = output["ResultsFolder"].get<std::string>();
    const std::string id = folder.parent_path().filename().string() + "/" + folder.filename().string();
    EXPECT_TRUE(std::filesystem::exists(folder / "plot_eye.log"));

    const json data = service.get("/api/1.0/GetEyeScanData?id=" + id);
    ASSERT_EQ(data["OperationStatus"], true) << data.dump().substr(0, 500);
    EXPECT_EQ(data["PhaseUI"].size(), 17u);
    EXPECT_EQ(data["VoltageMV"].size(), 40u);
    EXPECT_EQ(data["Nbits"], 17);
    ASSERT_EQ(data["Lanes"].size(), 4u);
    double top = 1e9, bottom = 1e9, left = 1e9, right = 1e9;
    for (const json& lane : data["Lanes"]) {
        const unsigned number = lane["Lane"].get<unsigned>();
        SCOPED_TRACE("lane " + std::to_string(number));
        const sim::HvlLaneEdges edges = model_edges(number);
        ASSERT_GT(edges.left, 0u);
        const json& figures = lane["Figures"];
        ASSERT_TRUE(figures.is_object()) << lane.dump().substr(0, 300);
        EXPECT_NEAR(figures["TopMV"].get<double>(), edges.top * kVoltageStepHvlMV, kVoltageStepMV);
        EXPECT_NEAR(figures["BottomMV"].get<double>(), -(edges.bottom * kVoltageStepHvlMV), kVoltageStepMV);
        EXPECT_NEAR(figures["LeftUI"].get<double>(), -(edges.left * kTimingStepUI), kPhaseStepUI);
        EXPECT_NEAR(figures["RightUI"].get<double>(), edges.right * kTimingStepUI, kPhaseStepUI);
        top = std::min(top, edges.top * kVoltageStepHvlMV);
        bottom = std::min(bottom, edges.bottom * kVoltageStepHvlMV);
        left = std::min(left, edges.left * kTimingStepUI);
        right = std::min(right, edges.right * kTimingStepUI);

        const auto png = wire_test::request(service.port, "GET", lane["Png"].get<std::string>());
        EXPECT_EQ(png.status, 200);
        EXPECT_EQ(png.headers.at("content-type"), "image/png");
        EXPECT_EQ(png.body.substr(0, 4), "\x89PNG");
    }
    // The test's figures: the worst lane on each side.
    EXPECT_NEAR(output["VrefTop (mv)"].get<double>(), top, kVoltageStepMV);
    EXPECT_NEAR(output["VrefBot (mv)"].get<double>(), bottom, kVoltageStepMV);
    EXPECT_NEAR(output["PhaseLeft (UI)"].get<double>(), left, kPhaseStepUI);
    EXPECT_NEAR(output["PhaseRight (UI)"].get<double>(), right, kPhaseStepUI);

    const json summary = service.get("/api/1.0/GetResultsSummary?limit=5");
    ASSERT_EQ(summary["Results"].size(), 1u) << summary.dump();
    EXPECT_EQ(summary["Results"][0]["Operation"], "EyeScan");
    EXPECT_EQ(summary["Results"][0]["VoltTopMV"], output["VrefTop (mv)"]);
    EXPECT_TRUE(summary["Results"][0]["Grade"].is_null());
}
