#include <gtest/gtest.h>
#include "hardware/vex_die_info.h"
TEST(SimPlaceholder, NoKindThrowsItsText) {
    VEX_DIE_INFO die;
    try { die.name(); FAIL(); } catch (const std::runtime_error& e) { EXPECT_STREQ(e.what(), "Unexpected scenario in name"); }
}
