// Grades of a PCIe margin's eye against the minimum and recommended eye of
// its link speed, per lane and per test.
//
// Eye width is left + right timing margin in ps, eye height top + bottom
// voltage margin in mV. The lane report gives timing in UI and voltage in
// volts; the UI in ps comes from the link speed the margin ran at. A figure
// below its minimum is "Fail", at or above its recommended value "Perfect",
// else "Pass"; a lane's grade is the worse of its width and height grades,
// and a test's grade is its worst lane's.
//
// Figures are rounded to 0.0001 ps / mV before they are compared: the
// receiver's report holds single-precision margins, and a lane exactly at a
// threshold must not fall below it through float noise.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

struct EyeThresholds {
    double ui_ps = 0;
    double width_min_ps = 0, width_rec_ps = 0;
    double height_min_mv = 0, height_rec_mv = 0;
};

// The thresholds of a link speed as the readers write it ("16 GT/s" or
// "16GT/s"); nothing for rates that have none (below 16 GT/s, or unknown).
std::optional<EyeThresholds> eye_thresholds_for(const std::string& speed);

enum class EyeGrade { Fail, Pass, Perfect };

const char* eye_grade_name(EyeGrade grade);

// One figure against its minimum and recommended value (rounded as above).
EyeGrade grade_figure(double value, double minimum, double recommended);

struct EyeGradeResult {
    std::optional<double> width_ps, height_mv;
    std::optional<EyeGrade> grade;
    // How width or height were formed when the receiver couldn't margin both
    // sides independently, or why there is no grade; empty when nothing to say.
    std::string note;
};

struct LaneEyeGrade : EyeGradeResult {
    long lane = 0;  // "LanePCIeNo", else the lane's position
};

struct MarginGrades {
    EyeGradeResult test;
    std::vector<LaneEyeGrade> lanes;
    std::optional<EyeThresholds> thresholds;
};

// One lane object of a PCIe margin report. `first` is the report's first lane,
// which alone may carry the capability keys. A lane that can't margin timing
// left and right independently measured one side for both: its width is twice
// that side, and the note says so; likewise for voltage up and down. Without
// voltage margining the lane is graded on its width alone.
LaneEyeGrade grade_lane(const nlohmann::json& lane, const nlohmann::json& first,
                        const std::optional<EyeThresholds>& thresholds, long position);

// The grades of an archived test record. Only a "complete" "PCIe Margin" with
// lane data is graded; any other record has empty grades. The speed is the
// report's "SpeedStart" (the rate the margin ran at), else "PCIeInfo"."Speed".
// The test's width and height are the smallest of its lanes.
MarginGrades grade_margin_record(const nlohmann::json& record);

// {"Grade", "EyeWidthPs", "EyeHeightMV", "Note"}, nulls where nothing is known.
nlohmann::json eye_grade_json(const EyeGradeResult& result);

// {"Test": eye_grade_json, "Lanes": [{"Lane", ...}], "Thresholds": {"UIps",
// "EyeWidthMinPs", "EyeWidthRecPs", "EyeHeightMinMV", "EyeHeightRecMV"} or null}.
nlohmann::json margin_grades_json(const MarginGrades& grades);
