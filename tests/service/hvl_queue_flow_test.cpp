// An hVL margin posted over HTTP to the simulated service runs to its
// archive, and a test on the other end of the same link waits for it.
#include <filesystem>

#include <gtest/gtest.h>

#include "fast_service.h"

using nlohmann::json;

namespace {

using wire_test::FastService;

json record_for(const json& list, const std::string& link, unsigned socket, json lanes) {
    for (const json& element : list)
        if (element["HVLCtrlInfo"]["SERDES"] == link && element["HVLCtrlInfo"]["Socket"] == socket)
            return {{"Operation", "HVL Destructive Margin"},
                    {"HVLCtrlInfo", element["HVLCtrlInfo"]},
                    {"SERDES", element["SERDES"]},
                    {"TestParams", {{"BER", "9"}, {"ErrCnt", 5}, {"Lanes", lanes}}}};
    return json();
}

}  // namespace

TEST(HvlQueueFlow, MarginOfG1CompletesWithItsFilesAndThePartnerEndWaits) {
    FastService service;
    const json list = service.get("/api/1.0/GetHVLDeviceListForMargin");
    ASSERT_EQ(list.size(), 4u) << list.dump();
    const json g1 = record_for(list, "G1", 0, {0, 1, 2, 3});
    const json g3 = record_for(list, "G3", 1, {0});
    ASSERT_FALSE(g1.is_null());
    ASSERT_EQ(g1["HVLCtrlInfo"]["PartnerSERDES"], "G3");

    struct Refused {
        const char* name;
        json params;
    };
    for (const Refused& bad : {Refused{"BER outside the list", {{"BER", "3"}, {"ErrCnt", 5}, {"Lanes", {0}}}},
                               Refused{"error count 0", {{"BER", "9"}, {"ErrCnt", 0}, {"Lanes", {0}}}},
                               Refused{"lane 16", {{"BER", "9"}, {"ErrCnt", 5}, {"Lanes", {16}}}},
                               Refused{"lane twice", {{"BER", "9"}, {"ErrCnt", 5}, {"Lanes", {2, 2}}}},
                               Refused{"no lanes", {{"BER", "9"}, {"ErrCnt", 5}, {"Lanes", json::array()}}}}) {
        json record = g1;
        record["TestParams"] = bad.params;
        const auto answer = wire_test::request(service.port, "POST", "/api/1.0/AddTestToQueue", record.dump());
        const json body = json::parse(answer.body);
        EXPECT_EQ(body["OperationStatus"], false) << bad.name;
        EXPECT_FALSE(body.value("ErrMsg", "").empty()) << bad.name;
    }

    for (const json& record : {g1, g3}) {
        const auto answer = wire_test::request(service.port, "POST", "/api/1.0/AddTestToQueue", record.dump());
        ASSERT_EQ(json::parse(answer.body)["OperationStatus"], true) << answer.body;
    }
    const json first = service.archived(0), second = service.archived(1);
    ASSERT_FALSE(first.is_null());
    ASSERT_FALSE(second.is_null());
    const json& output = first["TestOutput"];
    ASSERT_EQ(output["Status"], "complete") << output.dump();
    ASSERT_EQ(output["FullMarginData"].size(), 4u);
    for (const json& lane : output["FullMarginData"]) {
        // The default machine's eye: 12 timing and 16 voltage steps, spread 5 %.
        for (const char* key : {"PhaseLeftOffset", "PhaseRightOffset"})
            EXPECT_NEAR(lane[key].get<double>(), 12, 2) << key;
        for (const char* key : {"VoltTopOffset", "VoltBottomOffset"}) EXPECT_NEAR(lane[key].get<double>(), 16, 2) << key;
    }
    const std::string folder = output["ResultsFolder"];
    for (const char* file : {"raw_data.json", "hvl_margin.csv", "output.json"})
        EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(folder) / file)) << file;
    // The other end started only after the first test ended.
    EXPECT_EQ(second["TestOutput"]["Status"], "complete");
    EXPECT_GE(second["TestOutput"]["FullMarginData"][0]["TimeStamp"].get<std::string>(),
              output["TimeStamp"].get<std::string>());
}
