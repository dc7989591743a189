#include "hardware/time_format.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <vector>

#include "hardware/fake_system_facts.h"

TEST(UserReadableTime, MatchesExpectedText) {
    const std::pair<const char*, const char*> cases[] = {
        {"2024_05_02-09_06_30", "2 May 9:06AM"},   {"2024_05_02-00_30_00", "2 May 0:30AM"},
        {"2024_05_02-12_30_00", "2 May 12:30AM"},  {"2024_05_02-13_05_00", "2 May 1:05PM"},
        {"2024_01_31-23_59_59", "31 Jan 11:59PM"}, {"2023_09_15-10_00_00", "15 Sept 10:00AM"},
        {"2023_12_01-18_07_00", "1 Dec 6:07PM"}};
    for (const auto& [stamp, readable] : cases) EXPECT_EQ(make_date_time_user_readable(stamp), readable) << stamp;
}

TEST(UserReadableTime, RefusesTextsThatAreNotStamps) {
    for (const char* text : {"", "latest", "2024_05_02", "2024_13_02-09_06_30", "2024_00_02-09_06_30",
                             "2024_05_02-25_06_30", "2024_05_02_09_06_30"}) {
        EXPECT_THROW(make_date_time_user_readable(text), std::runtime_error) << text;
    }
}

TEST(TimeStamp, FormatsFieldsWithLeadingZeros) {
    std::tm when{};
    when.tm_year = 2024 - 1900;
    when.tm_mon = 4;
    when.tm_mday = 2;
    when.tm_hour = 9;
    when.tm_min = 6;
    when.tm_sec = 30;
    EXPECT_EQ(time_stamp(when), "2024_05_02-09_06_30");
}

TEST(TimeStamp, TakesNowFromInstalledProvider) {
    ScopedFakeSystemFacts fake;
    fake.facts->fixed_now = std::chrono::system_clock::from_time_t(1'000'000'000);
    EXPECT_EQ(time_stamp(), time_stamp(std::time_t{1'000'000'000}));
    EXPECT_NE(time_stamp(), time_stamp(std::time(nullptr)));
}

TEST(CompareDateTime, SortsByDateAndTime) {
    const std::vector<std::string> ordered = {
        "not a stamp",         "2023_12_31-23_59_59", "2024_01_01-00_00_00",
        "2024_01_01-00_00_01", "2024_05_02-09_06_30", "2024_05_02-13_05_00",
        "2024_10_01-08_00_00",
    };
    std::vector<std::string> shuffled = ordered;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(7));
    std::sort(shuffled.begin(), shuffled.end(), compare_date_time);
    EXPECT_EQ(shuffled, ordered);

    for (const auto& stamp : ordered) EXPECT_FALSE(compare_date_time(stamp, stamp)) << stamp;
}
