#include "hardware/time_format.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include "hardware/system_facts.h"

namespace {

struct StampFields {
    int year, month, day, hour, minute, second;
    auto key() const { return std::tie(year, month, day, hour, minute, second); }
};

// Blanks for underscores, then six integers: the hyphen before the hour makes
// it read as negative, so it is negated back.
std::optional<StampFields> parse_stamp(const std::string& stamp) {
    std::string text = stamp;
    std::replace(text.begin(), text.end(), '_', ' ');
    std::istringstream in(text);
    StampFields f{};
    if (!(in >> f.year >> f.month >> f.day >> f.hour >> f.minute >> f.second)) return std::nullopt;
    f.hour = -f.hour;
    if (f.month < 1 || f.month > 12 || f.day < 1 || f.day > 31 || f.hour < 0 || f.hour > 23 ||
        f.minute < 0 || f.minute > 59 || f.second < 0 || f.second > 60)
        return std::nullopt;
    return f;
}

}  // namespace

std::string time_stamp(const std::tm& when) {
    char text[96];
    std::snprintf(text, sizeof(text), "%04d_%02d_%02d-%02d_%02d_%02d", when.tm_year + 1900,
                  when.tm_mon + 1, when.tm_mday, when.tm_hour, when.tm_min, when.tm_sec);
    return text;
}

std::string time_stamp(std::time_t when) {
    std::tm local{};
    localtime_r(&when, &local);
    return time_stamp(local);
}

std::string time_stamp() {
    return time_stamp(std::chrono::system_clock::to_time_t(system_facts().now()));
}

std::string make_date_time_user_readable(const std::string& stamp) {
    static const std::array<const char*, 12> months = {"Jan", "Feb", "Mar",  "Apr", "May", "Jun",
                                                       "Jul", "Aug", "Sept", "Oct", "Nov", "Dec"};
    const auto f = parse_stamp(stamp);
    if (!f) throw std::runtime_error("Not a date and time stamp: \"" + stamp + "\"");

    const bool pm = f->hour >= 13;
    const int hour = pm ? f->hour - 12 : f->hour;
    char minute[16];
    std::snprintf(minute, sizeof(minute), "%02d", f->minute);
    return std::to_string(f->day) + " " + months[f->month - 1] + " " + std::to_string(hour) + ":" +
           minute + (pm ? "PM" : "AM");
}

bool compare_date_time(const std::string& stamp_a, const std::string& stamp_b) {
    const auto a = parse_stamp(stamp_a);
    const auto b = parse_stamp(stamp_b);
    if (a && b) return a->key() < b->key();
    if (!a && !b) return stamp_a < stamp_b;
    return !a;
}
