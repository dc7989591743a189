// Lane Margining at the Receiver of the platform model, driven the way the
// margining engine drives it: write a lane's control half, read its status.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "discovery/pci_capability.h"
#include "support/model_profile.h"
#include "support/thrown.h"

using nlohmann::json;

namespace {

constexpr unsigned kReport = 1, kManagement = 2, kTiming = 3, kVoltage = 4, kNoCommand = 7;
constexpr unsigned kTooMany = 0, kSettingUp = 1, kMargining = 2, kNak = 3;
constexpr unsigned kAtRest = 0x9C38;  // "no command" echoed

struct Target {
    unsigned bus, device, function, receiver;
};
// In the default machine.
constexpr Target kSlot1{0x00, 1, 0, 1};     // root port, 16 GT/s x16 to the switch
constexpr Target kSlot2{0x00, 1, 1, 1};     // root port with nothing attached
constexpr Target kSwitchUp{0x01, 0, 0, 6};
constexpr Target kSwitchPort1{0x02, 1, 0, 1};  // its NIC runs at 8 GT/s
constexpr Target kNvme{0x03, 0, 0, 6};      // no independent up/down voltage
constexpr Target kSlot3{0x40, 1, 0, 1};
constexpr Target kNic400g{0x41, 0, 0, 6};

unsigned margin_status(unsigned status) { return status >> 14; }
unsigned errors(unsigned status) { return (status >> 8) & 0x3F; }

class Rig {
public:
    explicit Rig(const lw_test::Profile& profile = {}, std::optional<uint64_t> seed = std::nullopt)
        : _platform(profile.platform(1e6, seed)) {}

    unsigned status(Target t, unsigned lane) const {
        unsigned value = 0;
        _platform.read_pci()->read16(0, t.bus, t.device, t.function, _capability(t) + 10 + 4 * lane, value);
        return value;
    }
    unsigned send(Target t, unsigned lane, unsigned receiver, unsigned type, unsigned payload) const {
        _platform.write_pci()->write32(0, t.bus, t.device, t.function, _capability(t) + 8 + 4 * lane,
                                       receiver | type << 3 | payload << 8);
        return status(t, lane);
    }
    unsigned send(Target t, unsigned lane, unsigned type, unsigned payload) const {
        return send(t, lane, type == kNoCommand ? 0 : t.receiver, type, payload);
    }
    void sleep_ms(double ms) const {
        _platform.model().clock().sleep_for(std::chrono::nanoseconds(static_cast<int64_t>(ms * 1e6)));
    }
    // The last offset that stayed clean for a short dwell, walking out from 0.
    int margin(Target t, unsigned lane, unsigned type, unsigned flag, unsigned last) const {
        send(t, lane, kManagement, 0xFF);
        unsigned offset = 0;
        for (; offset <= last; ++offset) {
            send(t, lane, kNoCommand, 0x9C);
            send(t, lane, kManagement, 0x55);
            send(t, lane, type, flag | offset);
            sleep_ms(25);
            const unsigned s = status(t, lane);
            if (margin_status(s) != kMargining || errors(s) != 0) break;
        }
        send(t, lane, kManagement, 0x0F);
        return static_cast<int>(offset) - 1;
    }

private:
    unsigned _capability(Target t) const {
        unsigned offset = 0;
        std::string error;
        PCIE::DetectThisPCIEExtendedCapability(PCIE::Device_ID(0, t.bus, t.device, t.function), *_platform.read_pci())
            .detect(PCIE::LANE_MARGINING_AT_RECEIVER, offset, error);
        return offset;
    }
    sim::Platform _platform;
};

TEST(LaneMargining, ReportsComeFromTheProfileWithTheCommandEchoed) {
    const Rig rig(lw_test::Profile().margining("slot1", json::parse(R"({"num_voltage_steps": 100,
        "num_timing_steps": 40, "max_timing_offset": 45, "max_voltage_offset": 12, "sampling_rate_voltage": 21,
        "sampling_rate_timing": 42, "max_lanes": 7, "sample_reporting_method": true, "ind_error_sampler": false})")));
    const std::pair<unsigned, unsigned> reports[] = {{0x88, 0x0F}, {0x89, 100}, {0x8A, 40}, {0x8B, 45},
                                                     {0x8C, 12},   {0x8D, 21},  {0x8E, 42}, {0x8F, 0}, {0x90, 7}};
    for (const auto& [payload, value] : reports)
        EXPECT_EQ(rig.send(kSlot1, 5, kReport, payload), 1u | kReport << 3 | value << 8) << std::hex << payload;
    EXPECT_EQ(rig.send(kNvme, 0, kReport, 0x88), 6u | kReport << 3 | 0x15u << 8);  // no independent up/down
}

struct Unanswered {
    const char* what;
    Target target;
    unsigned lane, receiver, type, payload;
};

TEST(LaneMargining, CommandsNoReceiverTakesLeaveTheStatusAlone) {
    const Rig rig;
    const Unanswered cases[] = {
        {"upstream receiver through the downstream port", kSlot1, 0, 6, kReport, 0x88},
        {"retimer that isn't there", kSlot1, 0, 2, kReport, 0x88},
        {"downstream receiver through the upstream port", kNvme, 0, 1, kReport, 0x88},
        {"report as broadcast", kSlot1, 0, 0, kReport, 0x88},
        {"error limit as broadcast", kSlot1, 0, 0, kManagement, 0xC5},
        {"reserved report", kSlot1, 0, 1, kReport, 0x91},
        {"usage model 1", kSlot1, 0, 1 | 0x40, kReport, 0x88},
        {"link down", kSlot2, 0, 1, kReport, 0x88},
        {"link at 8 GT/s", kSwitchPort1, 0, 1, kReport, 0x88},
    };
    for (const Unanswered& c : cases) {
        rig.send(c.target, c.lane, kNoCommand, 0x9C);
        EXPECT_EQ(rig.send(c.target, c.lane, c.receiver, c.type, c.payload), kAtRest) << c.what;
    }
    // Broadcast clear and go-to-normal are echoed with receiver 0.
    EXPECT_EQ(rig.send(kSlot1, 0, 0, kManagement, 0x55), 0u | kManagement << 3 | 0x55u << 8);
    EXPECT_EQ(rig.send(kNvme, 0, 0, kManagement, 0x0F), 0u | kManagement << 3 | 0x0Fu << 8);
}

// With no noise the right edge lies exactly on offset 16 (25 % UI at
// 50 % / 32 steps): 16 is clean for any dwell, 17 errs from the end of setup.
TEST(LaneMargining, SetupThenErrorsGrowWithDwellOnlyBeyondTheEdge) {
    const Rig rig(lw_test::Profile().margining("slot1", {{"eye", {{"timing_right", 25}, {"noise", 0}}}}));
    rig.send(kSlot1, 0, kManagement, 0xFF);
    rig.send(kSlot1, 0, kTiming, 16);
    rig.sleep_ms(2000);
    EXPECT_EQ(rig.status(kSlot1, 0), 1u | kTiming << 3 | (kMargining << 6 | 0) << 8);

    EXPECT_EQ(margin_status(rig.send(kSlot1, 0, kTiming, 17)), kSettingUp);
    rig.sleep_ms(14.9);
    EXPECT_EQ(rig.status(kSlot1, 0), 1u | kTiming << 3 | kSettingUp << 14);
    rig.sleep_ms(5.1);  // 5 ms margining
    const unsigned first = rig.status(kSlot1, 0);
    EXPECT_EQ(margin_status(first), kMargining);
    EXPECT_GE(errors(first), 16u);  // 4 a millisecond one step out, less 20 % jitter
    EXPECT_LE(errors(first), 24u);
    rig.sleep_ms(5);
    const unsigned second = errors(rig.status(kSlot1, 0));
    EXPECT_GE(second, 2 * errors(first));
    EXPECT_LE(second, 2 * errors(first) + 1);
}

TEST(LaneMargining, TooManyErrorsStopsAtTheLimitAndStays) {
    const Rig rig;
    for (const auto& [limit, reported] : std::map<int, unsigned>{{-1, 5}, {10, 11}, {63, 63}}) {
        if (limit >= 0) {
            EXPECT_EQ(rig.send(kSlot1, 1, kManagement, 0xC0 | limit), 1u | kManagement << 3 | (0xC0u | limit) << 8);
        }
        rig.send(kSlot1, 1, kTiming, 30);
        rig.sleep_ms(200);
        const unsigned s = rig.status(kSlot1, 1);
        EXPECT_EQ(margin_status(s), kTooMany) << limit;
        EXPECT_EQ(errors(s), reported) << limit;
        rig.sleep_ms(1000);
        EXPECT_EQ(rig.status(kSlot1, 1), s) << "back at normal settings, nothing more counts";
        rig.send(kSlot1, 1, kManagement, 0x0F);
    }
}

struct Step {
    const char* what;
    Target target;
    unsigned type, payload;
    bool nak;
};

TEST(LaneMargining, RequestsTheReceiverCannotCarryOutAreNaked) {
    const Rig rig(lw_test::Profile().margining("slot3", {{"voltage_supported", false}, {"ind_left_right_timing", false}}));
    const Step steps[] = {
        {"timing beyond the steps", kSlot1, kTiming, 33, true},
        {"timing at the last step", kSlot1, kTiming, 32, false},
        {"voltage beyond the steps", kSlot1, kVoltage, 65, true},
        {"voltage at the last step", kSlot1, kVoltage, 64, false},
        {"down without independent up/down", kNvme, kVoltage, 0x81, true},
        {"up without independent up/down", kNvme, kVoltage, 0x01, false},
        {"voltage without voltage margining", kSlot3, kVoltage, 1, true},
        {"left without independent left/right", kSlot3, kTiming, 0x41, true},
        {"timing with no direction", kSlot3, kTiming, 0x01, false},
    };
    for (const Step& s : steps) {
        const unsigned response = rig.send(s.target, 0, s.type, s.payload);
        EXPECT_EQ(response & 0xFF, s.target.receiver | s.type << 3) << s.what;
        EXPECT_EQ(response >> 8, s.nak ? kNak << 6 : kSettingUp << 6) << s.what;
    }
}

TEST(LaneMargining, ClearRestartsTheCountAndNormalSettingsEndMargining) {
    const Rig rig;
    rig.send(kNic400g, 2, kManagement, 0xFF);
    rig.send(kNic400g, 2, kTiming, 17);
    rig.sleep_ms(20);
    EXPECT_GT(errors(rig.status(kNic400g, 2)), 0u);
    EXPECT_EQ(rig.send(kNic400g, 2, kManagement, 0x55), 6u | kManagement << 3 | 0x55u << 8);
    // The same step again carries on at the offset, from a clean log.
    EXPECT_EQ(rig.send(kNic400g, 2, kTiming, 17) >> 8, kMargining << 6);
    rig.sleep_ms(5);
    EXPECT_GT(errors(rig.status(kNic400g, 2)), 0u);
    EXPECT_EQ(rig.send(kNic400g, 2, kManagement, 0x0F), 6u | kManagement << 3 | 0x0Fu << 8);
    EXPECT_EQ(margin_status(rig.send(kNic400g, 2, kTiming, 17)), kSettingUp);
}

TEST(LaneMargining, FaultsFromTheProfile) {
    const Rig rig(lw_test::Profile()
                      .fault({{"type", "margining_nak"}, {"device", "nvme0"}})
                      .fault({{"type", "margining_setup_stuck"}, {"port", "slot3"}})
                      .fault({{"type", "margining_silent_lane"}, {"port", "slot1"}, {"lane", 2}}));
    EXPECT_EQ(rig.send(kNvme, 1, kReport, 0x8A), 6u | kReport << 3 | 32u << 8);  // reports still answered
    EXPECT_EQ(rig.send(kNvme, 1, kTiming, 0) >> 8, kNak << 6);

    rig.send(kSlot3, 0, kTiming, 1);
    rig.sleep_ms(10000);
    EXPECT_EQ(rig.status(kSlot3, 0), 1u | kTiming << 3 | kSettingUp << 14);

    for (unsigned type : {kReport, kNoCommand, kTiming}) EXPECT_EQ(rig.send(kSlot1, 2, type, 0x88), kAtRest);
    EXPECT_EQ(rig.send(kSlot1, 3, kReport, 0x8A), 1u | kReport << 3 | 32u << 8);
}

TEST(LaneMargining, BadFaultsAreRefusedNamingTheField) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"type": "link_melts"})", "profile: faults[0].type: unknown fault type 'link_melts'"},
        {R"({"type": "margining_nak"})", "profile: faults[0]: name the receiver with either 'port' or 'device'"},
        {R"({"type": "margining_nak", "device": "slot1"})", "profile: faults[0].device: no device is named 'slot1'"},
        {R"({"type": "margining_nak", "port": "slot1", "lane": 1})",
         "profile: faults[0].lane: only margining_silent_lane takes a lane"},
        {R"({"type": "margining_silent_lane", "device": "nvme0", "lane": 4})",
         "profile: faults[0].lane: lane 4 is beyond the 4 lanes of 'nvme0'"},
        {R"({"type": "margining_silent_lane", "device": "nvme0", "lane": 4294967298})",
         "profile: faults[0].lane: expected a lane number, got 4294967298"},
        {R"({"type": "link_aer_errors", "device": "nvme0", "every": -2, "error": "receiver"})",
         "profile: faults[0].every: expected a whole number from 1 to 4294967295, got -2"},
        {R"({"type": "margining_setup_stuck", "port": "slot1", "when": 3})", "profile: faults[0]: unknown field 'when'"},
    };
    for (const auto& [fault, error] : cases)
        EXPECT_EQ(lw_test::thrown_text<sim::ProfileError>([&] { lw_test::Profile().fault(json::parse(fault)).platform(); }),
                  error);
}

// A x4 device under a x16 port whose lanes run reversed sits on the port's
// lanes 15 to 12; the device itself counts 0 to 3.
TEST(LaneMargining, ReversedLinkAnswersOnThePortsTopLanes) {
    const Rig rig(lw_test::Profile().set("slot3", {{"lane_reversal", true}, {"child", {{"width", 4}}}}));
    auto answers = [&](Target t, unsigned lane) { return rig.send(t, lane, kReport, 0x88) != kAtRest; };
    for (unsigned lane = 0; lane < 16; ++lane) EXPECT_EQ(answers(kSlot3, lane), lane >= 12) << lane;
    for (unsigned lane = 0; lane < 16; ++lane) EXPECT_EQ(answers(kNic400g, lane), lane < 4) << lane;
}

TEST(LaneMargining, EyesFollowTheProfileAndTheSeedWhateverTheThreadOrder) {
    using Margins = std::map<unsigned, std::pair<int, int>>;  // lane: left, right
    auto run = [](std::optional<uint64_t> seed, bool swapped) {
        const Rig rig({}, seed);
        Margins margins;
        std::mutex mutex;
        auto walk = [&](std::vector<unsigned> lanes) {
            for (unsigned lane : lanes) {
                const int left = rig.margin(kSwitchUp, lane, kTiming, 0x40, 32);
                const int right = rig.margin(kSwitchUp, lane, kTiming, 0x00, 32);
                std::lock_guard<std::mutex> guard(mutex);
                margins[lane] = {left, right};
            }
        };
        std::thread a(walk, swapped ? std::vector<unsigned>{11, 7} : std::vector<unsigned>{0, 3});
        std::thread b(walk, swapped ? std::vector<unsigned>{3, 0} : std::vector<unsigned>{7, 11});
        a.join();
        b.join();
        return margins;
    };
    const Margins first = run(std::nullopt, false);
    EXPECT_EQ(run(std::nullopt, true), first);
    EXPECT_NE(run(7, false), first);
    // Lane 11's left edge is 19 % UI against 27 % elsewhere (1.5625 % a step).
    EXPECT_NEAR(first.at(11).first, 19 / 1.5625, 2);
    EXPECT_NEAR(first.at(0).first, 27 / 1.5625, 2);
    EXPECT_NEAR(first.at(0).second, 29 / 1.5625, 2);
}

}  // namespace
