#include "result_data/eye_grade.h"

#include <algorithm>
#include <cmath>
#include <set>

using nlohmann::json;

namespace {

double rounded(double value) { return std::round(value * 10000.0) / 10000.0; }

std::optional<double> number_at(const json& object, const char* key) {
    if (!object.is_object()) return std::nullopt;
    const auto found = object.find(key);
    if (found == object.end() || !found->is_number()) return std::nullopt;
    const double value = found->get<double>();
    return std::isfinite(value) ? std::optional<double>(value) : std::nullopt;
}

// A capability flag of the lane, else of the report's first lane; a report
// without the flag is taken as able (the engine always writes it).
bool capability(const json& lane, const json& first, const char* key) {
    for (const json* object : {&lane, &first}) {
        if (!object->is_object()) continue;
        const auto found = object->find(key);
        if (found != object->end() && found->is_boolean()) return found->get<bool>();
    }
    return true;
}

std::string text_at(const json& object, const char* key) {
    if (!object.is_object()) return {};
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string{};
}

EyeGrade worse(EyeGrade a, EyeGrade b) { return static_cast<int>(a) < static_cast<int>(b) ? a : b; }

// Sum of two sides, or twice the one that was measured. `alone` says why a
// single side counts double; `missing` is said when one side is absent.
struct Sides {
    std::optional<double> sum;
    std::string note;
};

Sides sum_of_sides(std::optional<double> a, std::optional<double> b, bool independent, const char* what,
                   const char* one_side, const char* a_name, const char* b_name) {
    if (!independent && a) {
        return {2 * *a, std::string("receiver can't margin ") + what + " independently: eye " + one_side +
                            " = 2 x " + a_name + " margin"};
    }
    if (a && b) return {*a + *b, {}};
    if (a) return {2 * *a, std::string("no ") + b_name + " margin: eye " + one_side + " = 2 x " + a_name + " margin"};
    if (b) return {2 * *b, std::string("no ") + a_name + " margin: eye " + one_side + " = 2 x " + b_name + " margin"};
    return {std::nullopt, {}};
}

void add_note(std::string& notes, const std::string& note) {
    if (note.empty()) return;
    if (!notes.empty()) notes += "; ";
    notes += note;
}

json optional_number(const std::optional<double>& value) { return value ? json(*value) : json(nullptr); }

}  // namespace

std::optional<EyeThresholds> eye_thresholds_for(const std::string& speed) {
    std::string compact = speed;
    std::erase(compact, ' ');
    if (compact == "16GT/s") return EyeThresholds{62.5, 18.75, 23.75, 15, 21};
    if (compact == "32GT/s") return EyeThresholds{31.25, 9.375, 10.1565, 15, 19.75};
    return std::nullopt;
}

const char* eye_grade_name(EyeGrade grade) {
    switch (grade) {
        case EyeGrade::Fail: return "Fail";
        case EyeGrade::Pass: return "Pass";
        case EyeGrade::Perfect: return "Perfect";
    }
    return "Fail";
}

EyeGrade grade_figure(double value, double minimum, double recommended) {
    const double figure = rounded(value);
    if (figure < minimum) return EyeGrade::Fail;
    return figure >= recommended ? EyeGrade::Perfect : EyeGrade::Pass;
}

LaneEyeGrade grade_lane(const json& lane, const json& first, const std::optional<EyeThresholds>& thresholds,
                        long position) {
    LaneEyeGrade result;
    result.lane = static_cast<long>(number_at(lane, "LanePCIeNo").value_or(static_cast<double>(position)));
    if (!thresholds) return result;

    const Sides timing = sum_of_sides(number_at(lane, "PhaseRightMargin"), number_at(lane, "PhaseLeftMargin"),
                                      capability(lane, first, "LeftRightTiming"), "left and right", "width",
                                      "right", "left");
    add_note(result.note, timing.note);
    if (timing.sum) result.width_ps = rounded(*timing.sum * thresholds->ui_ps);

    if (capability(lane, first, "VoltSupported")) {
        const Sides voltage = sum_of_sides(number_at(lane, "VoltTopMargin"), number_at(lane, "VoltBotomMargin"),
                                           capability(lane, first, "IndUpDownVolt"), "up and down", "height", "top",
                                           "bottom");
        add_note(result.note, voltage.note);
        if (voltage.sum) result.height_mv = rounded(*voltage.sum * 1000.0);  // the report gives volts
    } else {
        add_note(result.note, "receiver doesn't margin voltage: graded on eye width alone");
    }

    if (result.width_ps) result.grade = grade_figure(*result.width_ps, thresholds->width_min_ps, thresholds->width_rec_ps);
    if (result.height_mv) {
        const EyeGrade height = grade_figure(*result.height_mv, thresholds->height_min_mv, thresholds->height_rec_mv);
        result.grade = result.grade ? worse(*result.grade, height) : height;
    }
    return result;
}

MarginGrades grade_margin_record(const json& record) {
    MarginGrades grades;
    if (!record.is_object() || text_at(record, "Operation") != "PCIe Margin") return grades;
    const auto output = record.find("TestOutput");
    if (output == record.end() || text_at(*output, "Status") != "complete") return grades;
    const auto data = output->find("FullMarginData");
    if (data == output->end() || !data->is_array() || data->empty()) return grades;

    const json& first = data->front();
    std::string speed = text_at(first, "SpeedStart");
    if (speed.empty()) speed = text_at(record.value("PCIeInfo", json::object()), "Speed");
    grades.thresholds = eye_thresholds_for(speed);
    if (!grades.thresholds) {
        grades.test.note = "no eye thresholds for " + (speed.empty() ? std::string("an unknown speed") : speed);
    }

    std::set<std::string> notes;  // each once, in text order
    long position = 0;
    for (const json& lane : *data) {
        LaneEyeGrade graded = grade_lane(lane, first, grades.thresholds, position++);
        EyeGradeResult& test = grades.test;
        if (graded.width_ps) test.width_ps = std::min(test.width_ps.value_or(*graded.width_ps), *graded.width_ps);
        if (graded.height_mv)
            test.height_mv = std::min(test.height_mv.value_or(*graded.height_mv), *graded.height_mv);
        if (graded.grade) test.grade = test.grade ? worse(*test.grade, *graded.grade) : *graded.grade;
        if (!graded.note.empty()) notes.insert(graded.note);
        grades.lanes.push_back(std::move(graded));
    }
    if (grades.thresholds) {
        for (const auto& note : notes) add_note(grades.test.note, note);
    }
    return grades;
}

json eye_grade_json(const EyeGradeResult& result) {
    return {{"Grade", result.grade ? json(eye_grade_name(*result.grade)) : json(nullptr)},
            {"EyeWidthPs", optional_number(result.width_ps)},
            {"EyeHeightMV", optional_number(result.height_mv)},
            {"Note", result.note.empty() ? json(nullptr) : json(result.note)}};
}

json margin_grades_json(const MarginGrades& grades) {
    json lanes = json::array();
    for (const auto& lane : grades.lanes) {
        json entry = eye_grade_json(lane);
        entry["Lane"] = lane.lane;
        lanes.push_back(std::move(entry));
    }
    json thresholds = nullptr;
    if (grades.thresholds) {
        const EyeThresholds& t = *grades.thresholds;
        thresholds = {{"UIps", t.ui_ps},
                      {"EyeWidthMinPs", t.width_min_ps},
                      {"EyeWidthRecPs", t.width_rec_ps},
                      {"EyeHeightMinMV", t.height_min_mv},
                      {"EyeHeightRecMV", t.height_rec_mv}};
    }
    return {{"Test", eye_grade_json(grades.test)}, {"Lanes", lanes}, {"Thresholds", thresholds}};
}
