// Eye grades at the boundaries of 16 and 32 GT/s, with the single-precision
// margins a receiver reports, and the notes of receivers that can't margin
// both sides independently.
#include <gtest/gtest.h>

#include <optional>

#include "result_data/eye_grade.h"
#include "support/case_name.h"

using nlohmann::json;

namespace {

struct LaneCase {
    std::string name, speed;
    float left_ui, right_ui, top_v, bottom_v;
    json capabilities;  // merged into the lane
    std::optional<double> width_ps, height_mv;
    const char* grade;       // nullptr: no grade
    std::string note_start;  // the note begins with this ("" = no note)
};
LW_PRINT_BY_NAME(LaneCase)

// A lane as the engine writes it: margins are floats widened to double.
json lane_of(const LaneCase& c) {
    json lane = {{"LanePCIeNo", 5},
                 {"PhaseLeftMargin", static_cast<double>(c.left_ui)},
                 {"PhaseRightMargin", static_cast<double>(c.right_ui)},
                 {"VoltTopMargin", static_cast<double>(c.top_v)},
                 {"VoltBotomMargin", static_cast<double>(c.bottom_v)},
                 {"LeftRightTiming", true},
                 {"IndUpDownVolt", true},
                 {"VoltSupported", true},
                 {"SpeedStart", c.speed}};
    lane.update(c.capabilities);
    return lane;
}

class EyeGradeLanes : public ::testing::TestWithParam<LaneCase> {};

TEST_P(EyeGradeLanes, FiguresAndGrade) {
    const LaneCase& c = GetParam();
    const json lane = lane_of(c);
    const LaneEyeGrade graded = grade_lane(lane, lane, eye_thresholds_for(c.speed), 0);
    EXPECT_EQ(graded.lane, 5);
    EXPECT_EQ(graded.width_ps, c.width_ps);
    EXPECT_EQ(graded.height_mv, c.height_mv);
    EXPECT_EQ(graded.grade ? eye_grade_name(*graded.grade) : "none", std::string(c.grade ? c.grade : "none"));
    if (c.note_start.empty()) {
        EXPECT_EQ(graded.note, "");
    } else {
        EXPECT_EQ(graded.note.rfind(c.note_start, 0), 0u) << graded.note;
    }
}

const json kAll = json::object();

INSTANTIATE_TEST_SUITE_P(
    Boundaries, EyeGradeLanes,
    ::testing::Values(
        // 16 GT/s: UI 62.5 ps; width 18.75 / 23.75 ps, height 15 / 21 mV.
        LaneCase{"G4WidthAtMinimum", "16 GT/s", 0.15f, 0.15f, 0.0105f, 0.0105f, kAll, 18.75, 21, "Pass", ""},
        LaneCase{"G4WidthBelowMinimum", "16 GT/s", 0.15f, 0.1499f, 0.0105f, 0.0105f, kAll, 18.7438, 21, "Fail", ""},
        LaneCase{"G4AtRecommended", "16 GT/s", 0.19f, 0.19f, 0.0105f, 0.0105f, kAll, 23.75, 21, "Perfect", ""},
        LaneCase{"G4HeightBelowRecommended", "16GT/s", 0.19f, 0.19f, 0.0105f, 0.0104f, kAll, 23.75, 20.9, "Pass", ""},
        LaneCase{"G4HeightAtMinimum", "16 GT/s", 0.2f, 0.2f, 0.0075f, 0.0075f, kAll, 25, 15, "Pass", ""},
        LaneCase{"G4HeightBelowMinimum", "16 GT/s", 0.2f, 0.2f, 0.0075f, 0.0074f, kAll, 25, 14.9, "Fail", ""},
        // 32 GT/s: UI 31.25 ps; width 9.375 / 10.1565 ps, height 15 / 19.75 mV.
        LaneCase{"G5WidthAtMinimum", "32 GT/s", 0.15f, 0.15f, 0.01f, 0.01f, kAll, 9.375, 20, "Pass", ""},
        LaneCase{"G5WidthBelowMinimum", "32 GT/s", 0.15f, 0.1499f, 0.01f, 0.01f, kAll, 9.3719, 20, "Fail", ""},
        LaneCase{"G5WidthAtRecommended", "32 GT/s", 0.162504f, 0.162504f, 0.01f, 0.01f, kAll, 10.1565, 20, "Perfect",
                 ""},
        LaneCase{"G5WidthBelowRecommended", "32 GT/s", 0.1625f, 0.1625f, 0.01f, 0.01f, kAll, 10.1562, 20, "Pass", ""},
        LaneCase{"G5HeightAtRecommended", "32 GT/s", 0.2f, 0.2f, 0.01f, 0.00975f, kAll, 12.5, 19.75, "Perfect", ""},
        LaneCase{"G5HeightBelowRecommended", "32 GT/s", 0.2f, 0.2f, 0.01f, 0.0097f, kAll, 12.5, 19.7, "Pass", ""},
        // One side measured for both: twice that side, and the note says how.
        LaneCase{"NoIndependentTiming", "16 GT/s", 0.0f, 0.2f, 0.0105f, 0.0105f, json{{"LeftRightTiming", false}},
                 25, 21, "Perfect", "receiver can't margin left and right independently: eye width = 2 x right"},
        LaneCase{"NoIndependentVoltage", "32 GT/s", 0.2f, 0.2f, 0.006f, 0.0f, json{{"IndUpDownVolt", false}}, 12.5,
                 12, "Fail", "receiver can't margin up and down independently: eye height = 2 x top"},
        LaneCase{"NoVoltageMargining", "16 GT/s", 0.2f, 0.2f, 0.0f, 0.0f, json{{"VoltSupported", false}}, 25,
                 std::nullopt, "Perfect", "receiver doesn't margin voltage"},
        LaneCase{"NoThresholdsBelow16GTs", "8 GT/s", 0.2f, 0.2f, 0.01f, 0.01f, kAll, std::nullopt, std::nullopt,
                 nullptr, ""}),
    lw_test::by_name);

json margin_record(const std::string& status, json lanes) {
    return {{"Operation", "PCIe Margin"},
            {"PCIeInfo", {{"Speed", "32 GT/s"}}},
            {"TestOutput", {{"Status", status}, {"FullMarginData", std::move(lanes)}}}};
}

// The test takes its worst lane's grade and the smallest width and height of
// any lane; the speed the margin ran at wins over the device list's.
TEST(EyeGradeRecords, WorstLaneDecidesAndOnlyCompleteMarginsAreGraded) {
    LaneCase perfect{"", "16 GT/s", 0.2f, 0.2f, 0.011f, 0.011f, kAll, {}, {}, nullptr, ""};
    LaneCase failing = perfect;
    failing.top_v = 0.003f;
    json narrow = lane_of(perfect);
    narrow["PhaseLeftMargin"] = 0.16;
    json lanes = {lane_of(perfect), lane_of(failing), narrow};
    lanes[2]["LanePCIeNo"] = 9;
    lanes[2].erase("VoltBotomMargin");

    const MarginGrades grades = grade_margin_record(margin_record("complete", lanes));
    const json answer = margin_grades_json(grades);
    EXPECT_EQ(answer["Test"]["Grade"], "Fail");
    EXPECT_EQ(answer["Test"]["EyeWidthPs"], 22.5);
    EXPECT_EQ(answer["Test"]["EyeHeightMV"], 14);
    EXPECT_EQ(answer["Test"]["Note"], "no bottom margin: eye height = 2 x top margin");
    EXPECT_EQ(answer["Thresholds"]["UIps"], 62.5);
    ASSERT_EQ(answer["Lanes"].size(), 3u);
    EXPECT_EQ(answer["Lanes"][1]["Grade"], "Fail");
    EXPECT_EQ(answer["Lanes"][2]["Lane"], 9);
    EXPECT_EQ(answer["Lanes"][2]["Grade"], "Pass");
    EXPECT_EQ(answer["Lanes"][0]["Note"], nullptr);

    for (const json& record : {margin_record("Failed", lanes), margin_record("complete", json::array()),
                               json{{"Operation", "EyeScan"}}}) {
        const json ungraded = margin_grades_json(grade_margin_record(record));
        EXPECT_EQ(ungraded["Test"], json({{"Grade", nullptr}, {"EyeWidthPs", nullptr}, {"EyeHeightMV", nullptr},
                                          {"Note", nullptr}}));
        EXPECT_EQ(ungraded["Thresholds"], nullptr);
    }
}

}  // namespace
