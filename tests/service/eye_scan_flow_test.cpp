// An eye scan of an hVL link posted over HTTP to the simulated service runs
// to its archive with a plot per lane, and the test's figures are the worst
// lane's on each side. (That each lane's figures are the model's eye is
// checked where the collector and the plot are tested.)
#include <gtest/gtest.h>

#include "fast_service.h"

using nlohmann::json;
using wire_test::FastService;

TEST(EyeScanFlow, HvlLinkScanCompletesWithFourPlotsAndTheWorstLanesFigures) {
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
        SCOPED_TRACE(lane.dump().substr(0, 300));
        const json& figures = lane["Figures"];
        ASSERT_TRUE(figures.is_object());
        EXPECT_GT(figures["TopMV"].get<double>(), 0);
        EXPECT_GT(figures["RightUI"].get<double>(), 0);
        top = std::min(top, figures["TopMV"].get<double>());
        bottom = std::min(bottom, -figures["BottomMV"].get<double>());
        left = std::min(left, -figures["LeftUI"].get<double>());
        right = std::min(right, figures["RightUI"].get<double>());
        const auto png = wire_test::request(service.port, "GET", lane["Png"].get<std::string>());
        EXPECT_EQ(png.status, 200);
        EXPECT_EQ(png.headers.at("content-type"), "image/png");
        EXPECT_EQ(png.body.substr(0, 4), "\x89PNG");
    }
    // Within one step of the scan window (4/64 UI, 5 mV).
    EXPECT_NEAR(output["VrefTop (mv)"].get<double>(), top, 5);
    EXPECT_NEAR(output["VrefBot (mv)"].get<double>(), bottom, 5);
    EXPECT_NEAR(output["PhaseLeft (UI)"].get<double>(), left, 0.0625);
    EXPECT_NEAR(output["PhaseRight (UI)"].get<double>(), right, 0.0625);

    const json summary = service.get("/api/1.0/GetResultsSummary?limit=5");
    ASSERT_EQ(summary["Results"].size(), 1u) << summary.dump();
    EXPECT_EQ(summary["Results"][0]["Operation"], "EyeScan");
    EXPECT_EQ(summary["Results"][0]["VoltTopMV"], output["VrefTop (mv)"]);
    EXPECT_TRUE(summary["Results"][0]["Grade"].is_null());
}
