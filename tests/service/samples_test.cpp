// The fixed documents the front end is served: shapes, counts and selection.
#include <algorithm>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "service/result_samples.h"

using nlohmann::json;
using Keys = std::set<std::string>;

namespace {

Keys keys(const json& object) {
    Keys names;
    for (const auto& item : object.items()) names.insert(item.key());
    return names;
}


}  // namespace

TEST(ResultSample, EachListHoldsThreeRecordsOfTheRightKinds) {
    const struct { const char* name; json list; std::vector<std::string> operations; } cases[] = {
        {"pcie", current_pcie_results_sample(), {"EyeScan", "PCIe Margin", "PCIe Margin"}},
        {"hvl", current_hvl_results_sample(), {"EyeScan", "Destructive HVL Margin", "Destructive HVL Margin"}},
        {"all", all_current_results_sample(), {"PCIe Margin", "Destructive HVL Margin", "PCIe Margin"}}};
    const std::vector<std::string> statuses = {"complete", "complete", "Failed"};
    const std::regex readable_time(R"(\d{1,2} (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sept|Oct|Nov|Dec) \d{1,2}:\d\d(AM|PM))");
    const std::vector<std::string> figures = {"PhaseRight (UI)", "PhaseLeft (UI)", "VrefTop (mv)", "VrefBot (mv)"};
    for (const auto& c : cases) {
        ASSERT_EQ(keys(c.list), Keys{"TestList"}) << c.name;
        json tests = c.list.at("TestList");
        ASSERT_EQ(tests.size(), 3u) << c.name;
        for (size_t i = 0; i < 3; ++i) {
            SCOPED_TRACE(std::string(c.name) + " record " + std::to_string(i));
            json& test = tests[i];
            const std::string op = test["Operation"];
            EXPECT_EQ(op, c.operations[i]);
            EXPECT_EQ(test["TestID"], i);
            const bool pcie = test.contains("PCIeInfo");
            EXPECT_NE(pcie, test.contains("HVLCtrlInfo"));
            EXPECT_TRUE(!pcie || (test["PCIeInfo"]["SBDF"].is_string() && test.contains("PCIeCtrlInfo")));
            EXPECT_TRUE(op != "EyeScan" || test["SERDES"]["DeviceName"].is_string());
            json& params = test["TestParams"];
            EXPECT_TRUE(params["BER"].is_string() && params["Lanes"].is_array());
            EXPECT_EQ(params.contains("ErrCnt"), op != "EyeScan");
            EXPECT_EQ(params.contains("Receiver"), op == "PCIe Margin");
            json& out = test["TestOutput"];
            EXPECT_EQ(out["Status"], statuses[i]);
            EXPECT_TRUE(std::regex_match(out["Time"].get<std::string>(), readable_time)) << out["Time"];
            const std::regex folder(R"(/lanewright_gui/\d{4}(_\d\d){2}-\d\d(_\d\d){2}/test_)" + std::to_string(i));
            EXPECT_TRUE(std::regex_match(out["ResultsFolder"].get<std::string>(), folder)) << out["ResultsFolder"];
            const bool failed = out["Status"] == "Failed";
            for (const std::string& figure : figures)
                EXPECT_TRUE(out[figure].is_number() && (!failed || out[figure] == 0)) << figure;
            EXPECT_TRUE(!failed || out["FailureReason"] == "Incorrect params.");
            const bool with_report = op != "EyeScan" && !failed;
            EXPECT_EQ(out.contains("FullMarginData"), with_report);
            EXPECT_TRUE(!with_report || !out["FullMarginData"].empty());
        }
    }
}
