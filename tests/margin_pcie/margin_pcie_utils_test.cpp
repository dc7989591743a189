#include <gtest/gtest.h>

#include <cmath>

#include "margin_pcie/fake_margin_receiver.h"
#include "margin_pcie/margin_pcie_utils.h"

using namespace PCIE;

namespace {

TEST(DwellTime, FollowsTheFactorTable) {
    struct Case {
        unsigned errors, ber;
        double rate, seconds;
    };
    for (const Case& c : {Case{0, 12, 32e9, 93.6875}, Case{11, 12, 32e9, 93.6875}, Case{10, 9, 16e9, 1.062},
                          Case{1, 9, 16e9, 0.298}, Case{5, 9, 16e9, 0.658}}) {
        EXPECT_NEAR(getDwellTime(c.errors, c.ber, c.rate), c.seconds, 1e-9) << c.errors;
        EXPECT_EQ(ComputeDwellTime()(c.errors, c.ber, c.rate), getDwellTime(c.errors, c.ber, c.rate));
    }
    EXPECT_EQ(dwell_milliseconds(getDwellTime(0, 12, 32e9)), 93687u);
    // Exponents no one can wait for are refused rather than cast into nonsense.
    for (const double seconds : {getDwellTime(4, 30, 16e9), getDwellTime(4, 4294967295u, 16e9), -1.0, std::nan("")})
        EXPECT_THROW(dwell_milliseconds(seconds), std::runtime_error) << seconds;
}

TEST(DwellLadder, GrowsTenfoldAndEndsOnTheFinalDwell) {
    EXPECT_EQ(populate_dwell_list(50), (std::vector<int>{50}));
    EXPECT_EQ(populate_dwell_list(60), (std::vector<int>{50, 60}));
    EXPECT_EQ(populate_dwell_list(5000), (std::vector<int>{50, 500, 5000}));
    EXPECT_EQ(populate_dwell_list(93687), (std::vector<int>{50, 500, 5000, 50000, 93687}));
}

TEST(DwellLadder, StartsBackedOffFromTheSmallestEarlierFind) {
    MarginDwellData data;
    EXPECT_EQ(find_start_end_offset(data, true, true, 20, 2), std::make_pair(0u, 21u));
    data.timing_left = {{50, 9}, {500, 7}, {5000, 0}};
    data.voltage_positive = {{50, 30}};
    EXPECT_EQ(find_start_end_offset(data, true, true, 20, 2), std::make_pair(5u, 21u));
    EXPECT_EQ(find_start_end_offset(data, true, true, 20, 7), std::make_pair(0u, 21u));
    EXPECT_EQ(find_start_end_offset(data, true, false, 20, 2), std::make_pair(0u, 21u));
    EXPECT_EQ(find_start_end_offset(data, false, false, 50, 4), std::make_pair(26u, 51u));
}

TEST(ReceiverValues, WarnsOnEachValueOutsideItsRange) {
    ExecuteLaneMarginCmd::MarginCtrlCapability capability;
    std::string warnings;
    checks_on_the_values(20, 10, 60, 35, capability, warnings);
    EXPECT_EQ(warnings, "") << "voltage values are not judged without voltage support";
    capability.VoltSupported = true;
    checks_on_the_values(5, 10, 60, 51, capability, warnings);
    EXPECT_EQ(warnings,
              "Warning Timing Steps is wrong, value: 5. Acceptable range: 6-63.\n"
              "Warning Timing Offset incorrect, value: 51. Acceptable range:20-50.\n"
              "Warning Voltage Steps is wrong, value: 10. Acceptable range: 32-127.\n"
              "Warning Voltage Offset incorrect, value: 60. Acceptable range:5-50.\n");
}

class OverFakeReceiver : public ::testing::Test {
protected:
    ScopedFakeSystemFacts facts;
    FakeMarginReceiver rx{*facts.facts};
    Device_ID id{0, 1, 0, 0};
};

TEST_F(OverFakeReceiver, ActiveLanesAndReversal) {
    struct Case {
        std::set<unsigned> active;
        unsigned capability_bits;
        int width, answer;
        std::vector<unsigned> lanes;
    };
    const std::vector<Case> cases{
        {{0, 1, 2, 3}, 0x04, 4, 0, {0, 1, 2, 3}},
        {{12, 13, 14, 15}, 0x06, 4, 1, {15, 14, 13, 12}},
        // The reversed search also wants independent up and down voltage.
        {{12, 13, 14, 15}, 0x04, 4, 2, {}},
        {{0, 1}, 0x06, 4, 2, {}},
    };
    for (const Case& c : cases) {
        rx.active_lanes = c.active;
        rx.capability_bits = c.capability_bits;
        std::vector<unsigned> lanes{99};
        EXPECT_EQ(is_lane_reversed(id, c.width, lanes, rx, rx), c.answer);
        EXPECT_EQ(lanes, c.lanes);
    }
}

TEST_F(OverFakeReceiver, MarginParamsRefuseOnlyWithoutIndependentTiming) {
    ExecuteLaneMarginCmd cmd(id, 0, 1, rx, rx);
    unsigned timing_steps = 0, voltage_steps = 0, max_voltage = 0, max_timing = 0;
    ExecuteLaneMarginCmd::MarginCtrlCapability capability;
    std::string err;
    rx.capability_bits = 0x05;  // no independent up and down voltage
    EXPECT_TRUE(get_margin_params(cmd, timing_steps, voltage_steps, max_voltage, max_timing, capability, err));
    EXPECT_EQ(std::vector<unsigned>({timing_steps, voltage_steps, max_voltage, max_timing}),
              std::vector<unsigned>({20, 50, 20, 35}));
    rx.capability_bits = 0x03;
    EXPECT_FALSE(get_margin_params(cmd, timing_steps, voltage_steps, max_voltage, max_timing, capability, err));
    EXPECT_EQ(err, "  Device does not support independent Left Right Timing. Cannot margin.");
}

TEST_F(OverFakeReceiver, LadderKeepsTheLastPassingOffsetOfEachDwell) {
    // A PCI Express capability at 0x40 whose link runs at the speed code below.
    const auto link_at = [this](unsigned speed_code) {
        rx.config = {{0x04, 1u << 20}, {0x34, 0x40}, {0x40, 0x10}, {0x50, speed_code << 16}, {0x6C, 0x1Fu << 1}};
    };
    rx.reports[0x89] = rx.reports[0x8A] = 12;
    rx.active_lanes = {0, 1};
    rx.answer = [](const FakeMarginReceiver::Step& s) {
        return FakeMarginReceiver::Answer{2, s.offset > (s.voltage ? 5u : 8u) ? 9u : 0u};
    };
    std::map<unsigned, MarginDwellData> results;
    std::string err;
    link_at(2);
    EXPECT_FALSE(place_holder_function(rx, rx, 1, 0, 0, 9, 0, 0, 1, {0, 1}, results, err));
    EXPECT_EQ(err, "Unknown speed for dwell time computation.");

    // BER 1 in 10^9 at 32 GT/s: a final dwell of 93 ms.
    link_at(5);  // link status code 5 is 32 GT/s
    ASSERT_TRUE(place_holder_function(rx, rx, 1, 0, 0, 9, 0, 0, 1, {0, 1}, results, err)) << err;
    const std::map<unsigned, unsigned> timing{{50, 8}, {93, 8}}, voltage{{50, 5}, {93, 5}};
    for (unsigned lane : {0u, 1u}) {
        EXPECT_EQ(results[lane].timing_left, timing);
        EXPECT_EQ(results[lane].timing_right, timing);
        EXPECT_EQ(results[lane].voltage_negative, voltage);
        EXPECT_EQ(results[lane].voltage_positive, voltage);
        EXPECT_TRUE(rx.at_normal_settings(lane));
    }
}

}  // namespace
