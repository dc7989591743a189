#include <numeric>
#include <stdexcept>

#include <gtest/gtest.h>

#include "margin_pcie/fake_margin_receiver.h"
#include "margin_pcie/margin_pcie_lane.h"
#include "support/case_name.h"

using namespace PCIE;

namespace {

enum class Kind { Timing, Voltage };
enum class Mode { OneSide, BothSides, AtOffset };

struct Walked {
    int result = -1;
    int status = -1;
    std::vector<unsigned> passed;
    unsigned failing = 0;
    std::map<unsigned, unsigned> errors;
    bool independent = false;
    std::string err;
};

template <class Lane>
Walked walk_lane(const Lane& lane, Mode mode, const MarginWalkInput& in) {
    typename Lane::MarginOutput out;
    Walked w;
    w.result = mode == Mode::OneSide     ? lane.margin_one_side(in, out, w.err)
               : mode == Mode::BothSides ? lane.margin_both_side(in, out, w.err)
                                         : lane.margin_at_offset(in, out, w.err);
    w.status = out.status;
    w.passed = out.passed_offsets;
    w.failing = out.failing_offset;
    w.errors = out.errors_by_offset;
    w.independent = out.independent;
    return w;
}

std::vector<unsigned> range(unsigned first, unsigned last) {
    if (first > last) return {};
    std::vector<unsigned> values(last - first + 1);
    std::iota(values.begin(), values.end(), first);
    return values;
}

class LaneWalk : public ::testing::Test {
protected:
    ScopedFakeSystemFacts facts;
    FakeMarginReceiver rx{*facts.facts};
    MarginStopFlag stop;

    static MarginWalkInput input(DirectionOfMargin direction, unsigned start, unsigned end, unsigned dwell = 100,
                                 unsigned threshold = 0) {
        MarginWalkInput in;
        in.direction = direction;
        in.start_offset = start;
        in.end_offset = end;
        in.dwell_time = dwell;
        in.error_threshold = threshold;
        return in;
    }
    Walked run(Kind kind, Mode mode, const MarginWalkInput& in) {
        const Device_ID id(0, 1, 0, 0);
        if (kind == Kind::Timing) return walk_lane(MarginTimingPCIELane(id, 0, 1, rx, rx, stop), mode, in);
        return walk_lane(MarginVrefPCIELane(id, 0, 1, rx, rx, stop), mode, in);
    }
    long long sleeps_of(unsigned ms) const {
        long long count = 0;
        for (auto sleep : facts.facts->sleeps()) count += sleep == std::chrono::milliseconds(ms);
        return count;
    }
};

struct RangeCase {
    const char* name;
    Kind kind;
    Mode mode;
    DirectionOfMargin direction;
    unsigned start, end;
    std::vector<unsigned> visited, passed;
    unsigned flag;
};
LW_PRINT_BY_NAME(RangeCase)

class WalkRange : public LaneWalk, public ::testing::WithParamInterface<RangeCase> {};

TEST_P(WalkRange, VisitsItsOffsetsAndMeasuresFromTheStart) {
    const RangeCase& c = GetParam();
    const Walked w = run(c.kind, c.mode, input(c.direction, c.start, c.end, 777));
    EXPECT_EQ(w.result, WALK_ANSWERED) << w.err;
    EXPECT_EQ(w.status, WALK_AT_BOUND);
    EXPECT_EQ(rx.offsets(), c.visited);
    EXPECT_EQ(w.passed, c.passed);
    EXPECT_EQ(w.independent, c.mode == Mode::OneSide);
    for (const auto& step : rx.steps()) EXPECT_EQ(step.flag, c.flag);
    // Only offsets that count sit the dwell; the others stay 10 ms.
    EXPECT_EQ(sleeps_of(777), static_cast<long long>(c.passed.size()));
    EXPECT_TRUE(rx.at_normal_settings());
}

INSTANTIATE_TEST_SUITE_P(
    EveryShape, WalkRange,
    ::testing::Values(
        RangeCase{"TimingLeftEndIncluded", Kind::Timing, Mode::OneSide, DIRECTION_NEGATIVE, 0, 10, range(0, 10),
                  range(0, 10), 0x40},
        RangeCase{"TimingRightFromStart", Kind::Timing, Mode::OneSide, DIRECTION_POSITIVE, 4, 10, range(0, 10),
                  range(4, 10), 0},
        RangeCase{"TimingBothEndExcludedFromZero", Kind::Timing, Mode::BothSides, DIRECTION_BOTH, 4, 10, range(0, 9),
                  range(4, 9), 0},
        RangeCase{"VoltageDownEndIncluded", Kind::Voltage, Mode::OneSide, DIRECTION_NEGATIVE, 0, 10, range(0, 10),
                  range(0, 10), 0x80},
        RangeCase{"VoltageBothFromStart", Kind::Voltage, Mode::BothSides, DIRECTION_BOTH, 4, 10, range(4, 9),
                  range(4, 9), 0},
        RangeCase{"StartBeyondEnd", Kind::Voltage, Mode::OneSide, DIRECTION_POSITIVE, 12, 10, range(0, 10), {}, 0}),
    lw_test::by_name);

struct JudgeCase {
    const char* name;
    Kind kind;
    std::function<FakeMarginReceiver::Answer(const FakeMarginReceiver::Step&)> answer;
    int result, status;
    unsigned failing;
    std::vector<unsigned> passed;
    std::map<unsigned, unsigned> errors;
    std::string err;
};
LW_PRINT_BY_NAME(JudgeCase)

class WalkJudge : public LaneWalk, public ::testing::WithParamInterface<JudgeCase> {};

TEST_P(WalkJudge, StopsWhereTheReceiverSays) {
    const JudgeCase& c = GetParam();
    rx.answer = c.answer;
    const Walked w = run(c.kind, Mode::OneSide, input(DIRECTION_POSITIVE, 0, 10, 100, 3));
    EXPECT_EQ(w.result, c.result);
    EXPECT_EQ(w.status, c.status);
    EXPECT_EQ(w.failing, c.failing);
    EXPECT_EQ(w.passed, c.passed);
    EXPECT_EQ(w.errors, c.errors);
    EXPECT_EQ(w.err, c.err);
    EXPECT_TRUE(rx.at_normal_settings());
}

FakeMarginReceiver::Answer threshold_answer(const FakeMarginReceiver::Step& s) {
    return {2, s.offset == 4 ? 3u : s.offset == 6 ? 4u : 0u};
}
FakeMarginReceiver::Answer too_many_answer(const FakeMarginReceiver::Step& s) {
    return {s.offset == 3 ? 0u : 2u, s.offset == 3 ? 2u : 0u};
}
FakeMarginReceiver::Answer nak_answer(const FakeMarginReceiver::Step& s) { return {s.offset == 2 ? 3u : 2u, 0}; }

INSTANTIATE_TEST_SUITE_P(
    Thresholds, WalkJudge,
    ::testing::Values(
        JudgeCase{"EqualPassesAboveFails", Kind::Timing, threshold_answer, WALK_ANSWERED, WALK_ERRORS_ABOVE_THRESHOLD,
                  6, range(0, 5), {{4, 3}, {6, 4}}, ""},
        JudgeCase{"EqualPassesAboveFailsVoltage", Kind::Voltage, threshold_answer, WALK_ANSWERED,
                  WALK_ERRORS_ABOVE_THRESHOLD, 6, range(0, 5), {{4, 3}, {6, 4}}, ""},
        JudgeCase{"TooManyErrorsWithinThreshold", Kind::Timing, too_many_answer, WALK_ANSWERED, WALK_TOO_MANY_ERRORS,
                  3, range(0, 2), {{3, 2}}, ""},
        JudgeCase{"NakEmptiesThePasses", Kind::Timing, nak_answer, WALK_BROKEN, WALK_NAK, 0, {}, {}, "NAK received"},
        JudgeCase{"NakEmptiesThePassesVoltage", Kind::Voltage, nak_answer, WALK_BROKEN, WALK_NAK, 0, {}, {},
                  "NAK received. "}),
    lw_test::by_name);

TEST_F(LaneWalk, SetupThatOutlastsFourPollsFailsTheWalk) {
    // Dwell 0: polls fall 10, 20, 30 and 40 ms after the step.
    for (const Kind kind : {Kind::Timing, Kind::Voltage}) {
        rx.setup_ms = 40;
        const auto before = rx.steps().size();
        Walked w = run(kind, Mode::OneSide, input(DIRECTION_NEGATIVE, 0, 10, 0));
        EXPECT_EQ(w.result, WALK_BROKEN);
        EXPECT_EQ(w.status, WALK_SETUP_NOT_COMPLETE);
        EXPECT_TRUE(w.passed.empty());
        EXPECT_EQ(w.err.rfind(kind == Kind::Timing ? "Setup still in progress. " : "Setup not complete. ", 0), 0u)
            << w.err;
        EXPECT_EQ(rx.steps().size(), before + 1);
        EXPECT_TRUE(rx.at_normal_settings());

        rx.setup_ms = 30;
        w = run(kind, Mode::OneSide, input(DIRECTION_NEGATIVE, 0, 10, 0));
        EXPECT_EQ(w.result, WALK_ANSWERED) << w.err;
        EXPECT_EQ(w.passed, range(0, 10));
    }
}

TEST_F(LaneWalk, StopRequestEndsTheWalkAtTheNextOffsetAtNormalSettings) {
    for (const Mode mode : {Mode::OneSide, Mode::BothSides}) {
        for (const Kind kind : {Kind::Timing, Kind::Voltage}) {
            stop = MarginStopFlag();
            rx.forget_steps();
            rx.on_step = [this](const FakeMarginReceiver::Step& s) {
                if (s.offset == 3) stop.request_stop();
            };
            const Walked w = run(kind, mode, input(DIRECTION_POSITIVE, 0, 10));
            EXPECT_EQ(rx.offsets(), range(0, 3));
            EXPECT_EQ(w.result, WALK_NOT_BEGUN);
            EXPECT_EQ(w.status, WALK_COMMAND_FAILED);
            EXPECT_TRUE(w.passed.empty());
            EXPECT_NE(w.err.find("stopping"), std::string::npos) << w.err;
            EXPECT_TRUE(rx.at_normal_settings());
        }
    }
}

TEST_F(LaneWalk, AnExceptionThroughTheWalkStillRestoresTheLane) {
    rx.answer = [](const FakeMarginReceiver::Step& s) -> FakeMarginReceiver::Answer {
        if (s.offset == 2) throw std::runtime_error("bus gone");
        return {};
    };
    EXPECT_THROW(run(Kind::Voltage, Mode::OneSide, input(DIRECTION_POSITIVE, 0, 10)), std::runtime_error);
    EXPECT_TRUE(rx.at_normal_settings());
}

TEST_F(LaneWalk, OneSideRefusals) {
    struct Case {
        Kind kind;
        unsigned capability_bits;
        DirectionOfMargin direction;
        std::string err;
    };
    const std::vector<Case> cases{
        {Kind::Timing, 0x1F, DIRECTION_BOTH, "Direction of margin undefined."},
        {Kind::Timing, 0x1B,
         DIRECTION_NEGATIVE, "Independent margining not supported. Should not call this left margin function"},
        {Kind::Voltage, 0x1D, DIRECTION_NEGATIVE,
         "Independent margining not supported. Should not call this margin function"},
    };
    for (const Case& c : cases) {
        rx.capability_bits = c.capability_bits;
        for (const Mode mode : {Mode::OneSide, Mode::AtOffset}) {
            const Walked w = run(c.kind, mode, input(c.direction, 0, 10));
            EXPECT_EQ(w.result, WALK_NOT_BEGUN);
            EXPECT_EQ(w.err, c.err);
            EXPECT_FALSE(w.independent);
        }
    }
    EXPECT_TRUE(rx.steps().empty());
}

TEST_F(LaneWalk, SingleOffsetPassesOrFailsAndEndsItsStepTwice) {
    rx.answer = [](const FakeMarginReceiver::Step& s) { return FakeMarginReceiver::Answer{2, s.offset == 6 ? 9u : 1u}; };
    Walked w = run(Kind::Timing, Mode::AtOffset, input(DIRECTION_NEGATIVE, 5, 10, 100, 1));
    EXPECT_EQ(w.result, WALK_ANSWERED);
    EXPECT_EQ(w.status, WALK_AT_BOUND);
    EXPECT_EQ(w.passed, std::vector<unsigned>{5});
    EXPECT_EQ(rx.offsets(), std::vector<unsigned>{5});
    const std::vector<unsigned> commands = rx.commands();
    const std::vector<unsigned> tail(commands.end() - 6, commands.end());
    EXPECT_EQ(tail, (std::vector<unsigned>{0x9C38, 0x9C38, 0x0F11, 0x9C38, 0x5511, 0x9C38}));

    w = run(Kind::Voltage, Mode::AtOffset, input(DIRECTION_POSITIVE, 6, 10, 100, 1));
    EXPECT_EQ(w.status, WALK_ERRORS_ABOVE_THRESHOLD);
    EXPECT_EQ(w.failing, 6u);
    EXPECT_TRUE(w.passed.empty());
    EXPECT_TRUE(rx.at_normal_settings());
}

TEST_F(LaneWalk, ApplyLeavesTheLaneMarginingUntilCheckedAndCleared) {
    const MarginTimingPCIELane lane(Device_ID(0, 1, 0, 0), 0, 1, rx, rx);
    MarginTimingPCIELane::MarginOutput out;
    std::string err;
    const MarginWalkInput in = input(DIRECTION_POSITIVE, 7, 10);
    ASSERT_EQ(lane.margin_at_offset_apply(in, out, err), WALK_ANSWERED) << err;
    EXPECT_TRUE(out.independent);
    EXPECT_FALSE(rx.at_normal_settings());
    ASSERT_EQ(lane.margin_at_offset_check(in, out, err), WALK_ANSWERED) << err;
    EXPECT_EQ(out.passed_offsets, std::vector<unsigned>{7});
    lane.ClearAndGoToNormal();
    EXPECT_TRUE(rx.at_normal_settings());
}

}  // namespace
