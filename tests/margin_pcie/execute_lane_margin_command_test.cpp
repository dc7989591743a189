#include <deque>
#include <functional>

#include <gtest/gtest.h>

#include "hardware/fake_pci.h"
#include "hardware/fake_system_facts.h"
#include "margin_pcie/execute_lane_margin_command.h"
#include "support/case_name.h"

using PCIE::ExecuteLaneMarginCmd;
using Cmd = ExecuteLaneMarginCmd;

namespace {

constexpr unsigned kLane = 2, kReceiver = 6;
constexpr unsigned kLaneRegister = 0x100 + 8 + 4 * kLane;

// A lane register that echoes each command unless a status word is queued.
class ScriptedLane : public ::testing::Test {
protected:
    ScopedFakeSystemFacts facts;
    FakePCI pci;
    std::deque<unsigned> queued;  // 16-bit status words, one per read
    unsigned last_command = 0;
    bool capability_placed = place_capability(pci);
    Cmd cmd{PCIE::Device_ID(0, 1, 0, 0), kLane, kReceiver, pci, pci};

    static bool place_capability(FakePCI& space) {
        space.set(0, 1, 0, 0, 0x100, 0x27 | (1u << 16) | (0x200u << 20));
        space.set(0, 1, 0, 0, 0x200, 0x01 | (1u << 16));
        return true;
    }

    ScriptedLane() {
        pci.write_hook = [this](const PciAccess& a) {
            if (a.offset == kLaneRegister) last_command = a.value;
            return false;
        };
        pci.read_hook = [this](const PciAccess& a) -> std::optional<unsigned> {
            if (a.offset != kLaneRegister) return std::nullopt;
            unsigned status = last_command & 0xFFFF;
            if (!queued.empty()) {
                status = queued.front();
                queued.pop_front();
            }
            return (status << 16) | (last_command & 0xFFFF);
        };
        pci.clear_log();
    }

    std::vector<unsigned> lane_writes() const {
        std::vector<unsigned> values;
        for (const PciAccess& a : pci.log())
            if (a.write && a.offset == kLaneRegister) values.push_back(a.value);
        return values;
    }
    unsigned lane_reads() const {
        unsigned count = 0;
        for (const PciAccess& a : pci.log()) count += !a.write && a.offset == kLaneRegister;
        return count;
    }
    long long slept_ms() const {
        long long total = 0;
        for (auto sleep : facts.facts->sleeps()) total += sleep.count();
        return total / 1000;
    }
};

struct Written {
    const char* name;
    std::function<bool(const Cmd&, std::string&)> run;
    std::vector<unsigned> dwords;
    long long sleep_ms;
};
LW_PRINT_BY_NAME(Written)

class CommandDwords : public ScriptedLane, public ::testing::WithParamInterface<Written> {};

TEST_P(CommandDwords, WritesExactDwordsAndSleepsTheHandshake) {
    std::string err;
    EXPECT_TRUE(GetParam().run(cmd, err)) << err;
    EXPECT_EQ(lane_writes(), GetParam().dwords);
    EXPECT_EQ(slept_ms(), GetParam().sleep_ms);
}

Cmd::MarginExecutionStatus status_out;
unsigned errors_out;
unsigned value_out;
Cmd::MarginCtrlCapability capability_out;

// Receiver 6 in every command but "no command" (0x9C38, receiver 0).
INSTANTIATE_TEST_SUITE_P(
    EveryCommand, CommandDwords,
    ::testing::Values(
        Written{"Capability", [](const Cmd& c, std::string& e) { return c.read_margin_ctrl_capability(capability_out, e); },
                {0x880E, 0x9C38}, 30},
        Written{"VoltageSteps", [](const Cmd& c, std::string& e) { return c.read_number_of_voltage_steps(value_out, e); },
                {0x890E, 0x9C38}, 30},
        Written{"TimingSteps", [](const Cmd& c, std::string& e) { return c.read_number_of_timing_steps(value_out, e); },
                {0x8A0E, 0x9C38}, 30},
        Written{"MaxTiming", [](const Cmd& c, std::string& e) { return c.read_max_timing_offset(value_out, e); },
                {0x8B0E, 0x9C38}, 30},
        Written{"MaxVoltage", [](const Cmd& c, std::string& e) { return c.read_max_voltage_offset(value_out, e); },
                {0x8C0E, 0x9C38}, 30},
        Written{"MaxLanes", [](const Cmd& c, std::string& e) { return c.read_max_lanes(value_out, e); },
                {0x900E, 0x9C38}, 30},
        Written{"Normal", [](const Cmd& c, std::string& e) { return c.go_to_normal_settings(e); }, {0x0F16, 0x9C38}, 30},
        Written{"Clear", [](const Cmd& c, std::string& e) { return c.clear_error_log(e); }, {0x5516, 0x9C38}, 30},
        Written{"Threshold63", [](const Cmd& c, std::string& e) { return c.set_error_threshold(63, e); },
                {0xFF16, 0x9C38}, 30},
        Written{"Threshold5", [](const Cmd& c, std::string& e) { return c.set_error_threshold(5, e); },
                {0xC516, 0x9C38}, 30},
        Written{"Left",
                [](const Cmd& c, std::string& e) { return c.send_time_margin_left_cmd(5, status_out, errors_out, e); },
                {0x451E}, 10},
        Written{"Right",
                [](const Cmd& c, std::string& e) { return c.send_time_margin_right_cmd(63, status_out, errors_out, e); },
                {0x3F1E}, 10},
        Written{"TimeBoth",
                [](const Cmd& c, std::string& e) { return c.send_time_margin_cmd(5, status_out, errors_out, e); },
                {0x051E}, 10},
        Written{"Up", [](const Cmd& c, std::string& e) { return c.send_volt_margin_up_cmd(127, status_out, errors_out, e); },
                {0x7F26}, 10},
        Written{"Down",
                [](const Cmd& c, std::string& e) { return c.send_volt_margin_down_cmd(7, status_out, errors_out, e); },
                {0x8726}, 10},
        Written{"VoltBoth",
                [](const Cmd& c, std::string& e) { return c.send_volt_margin_cmd(7, status_out, errors_out, e); },
                {0x0726}, 10},
        Written{"NoCommand", [](const Cmd& c, std::string& e) { return c.send_no_command(e); }, {0x9C38}, 20}),
    lw_test::by_name);

TEST_F(ScriptedLane, LaneRegisterFollowsTheCapabilityOrStartsAtZeroWithoutIt) {
    EXPECT_EQ(cmd.lane_register(), kLaneRegister);
    FakePCI bare;
    EXPECT_EQ(Cmd(PCIE::Device_ID(0, 1, 0, 0), 3, 1, bare, bare).lane_register(), 8u + 12u);
}

TEST_F(ScriptedLane, WrongMarginTypeIsReadOnceMoreAndThenFails) {
    Cmd::MarginLaneData out;
    std::string err;
    queued = {0x0010, 0x2A08};  // a stale management echo, then the echo of the read
    EXPECT_TRUE(cmd.send_cmd_and_read_response(1, 0x2A, out, err));
    EXPECT_EQ(out._margin_payload, 0x2Au);
    EXPECT_EQ(lane_reads(), 2u);
    EXPECT_EQ(slept_ms(), 10) << "the second read is at once";

    pci.clear_log();
    queued = {0x0010, 0x0010};
    EXPECT_FALSE(cmd.send_cmd_and_read_response(1, 0x2A, out, err));
    EXPECT_EQ(err, "Margin Type in response is not matching the one in command.");
    EXPECT_EQ(lane_reads(), 2u);
}

TEST_F(ScriptedLane, FailureTextsArePrependedFromOutermostToCause) {
    const std::string mismatch = "Margin Type in response is not matching the one in command.";
    struct Case {
        std::vector<unsigned> statuses;
        std::function<bool(const Cmd&, std::string&)> run;
        std::string text;
    };
    const std::vector<Case> cases{
        {{0, 0}, [](const Cmd& c, std::string& e) { return c.read_max_lanes(value_out, e); },
         "Read max lanes failed. " + mismatch},
        {{0x050E, 0, 0}, [](const Cmd& c, std::string& e) { return c.read_max_lanes(value_out, e); },
         "Failed handshake (No command). " + mismatch},
        {{0x9B38}, [](const Cmd& c, std::string& e) { return c.send_no_command(e); }, "Failed handshake (No command)."},
        {{0, 0}, [](const Cmd& c, std::string& e) { return c.go_to_normal_settings(e); },
         "Failed go to Normal settings. " + mismatch},
        {{0x0E16}, [](const Cmd& c, std::string& e) { return c.go_to_normal_settings(e); },
         "Failed go to Normal settings as the payload did not match."},
        {{0, 0}, [](const Cmd& c, std::string& e) { return c.clear_error_log(e); }, "Failed clear error. " + mismatch},
        {{0x5416}, [](const Cmd& c, std::string& e) { return c.clear_error_log(e); },
         "Failed clear error log as the payload did not match."},
        {{0, 0}, [](const Cmd& c, std::string& e) { return c.set_error_threshold(10, e); },
         "Failed to set error threshold. " + mismatch},
        {{0xE716}, [](const Cmd& c, std::string& e) { return c.set_error_threshold(10, e); },
         "Failed to set error threshold. Registered error count is: 0x39"},
        {{0, 0}, [](const Cmd& c, std::string& e) { return c.send_time_margin_left_cmd(1, status_out, errors_out, e); },
         "Step margin command failed for Timing. " + mismatch},
        {{0, 0}, [](const Cmd& c, std::string& e) { return c.send_volt_margin_up_cmd(1, status_out, errors_out, e); },
         "Step margin command failed for Voltage. " + mismatch},
    };
    for (const Case& c : cases) {
        queued.assign(c.statuses.begin(), c.statuses.end());
        std::string err;
        EXPECT_FALSE(c.run(cmd, err)) << c.text;
        EXPECT_EQ(err, c.text);
    }
}

TEST_F(ScriptedLane, RefusedStepsAndThresholdsSendNothing) {
    std::string err;
    EXPECT_FALSE(cmd.send_time_margin_left_cmd(64, status_out, errors_out, err));
    EXPECT_FALSE(cmd.send_volt_margin_down_cmd(128, status_out, errors_out, err));
    EXPECT_FALSE(cmd.send_time_margin_cmd(-1, status_out, errors_out, err));
    EXPECT_FALSE(cmd.send_margin_cmd(Cmd::TIMING, 1, 5, status_out, errors_out, err));
    EXPECT_EQ(err, "");
    EXPECT_FALSE(cmd.set_error_threshold(64, err));
    EXPECT_EQ(err, "Error threshold count is above max");
    EXPECT_TRUE(lane_writes().empty());
}

TEST_F(ScriptedLane, DecodesStepStatusAndCapabilityBits) {
    std::string err;
    queued = {0xBF1E};  // MARGIN_IN_PROGRESS with 63 errors
    ASSERT_TRUE(cmd.send_time_margin_right_cmd(4, status_out, errors_out, err));
    EXPECT_EQ(status_out, Cmd::MARGIN_IN_PROGRESS);
    EXPECT_EQ(errors_out, 63u);
    queued = {0x451E};
    cmd.read_margin_response(status_out, errors_out, err);
    EXPECT_EQ(status_out, Cmd::SETUP_IN_PROGRESS);
    EXPECT_EQ(errors_out, 5u);

    queued = {0x150E};  // sampler, left/right timing, voltage
    ASSERT_TRUE(cmd.read_margin_ctrl_capability(capability_out, err));
    EXPECT_TRUE(capability_out.IndErrSampler);
    EXPECT_FALSE(capability_out.SampleReportingMethod);
    EXPECT_TRUE(capability_out.LeftRightTiming);
    EXPECT_FALSE(capability_out.IndUpDownVolt);
    EXPECT_TRUE(capability_out.VoltSupported);
}

}  // namespace
