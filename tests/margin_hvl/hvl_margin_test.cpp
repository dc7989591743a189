// hVL margin over the platform model: the engine, the PHY channel and the
// PCS run their real code against the model's receivers.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "discovery/e32_phy.h"
#include "hardware/chips/e32_phy_firmware.h"
#include "hardware/mcu_message.h"
#include "hardware/register_storage.h"
#include "margin_hvl/corvane_hvl_margin.h"
#include "margin_hvl/hvl_link_operations.h"
#include "margin_hvl/hvl_margin_batch.h"
#include "margin_hvl/hvl_margin_handler.h"
#include "support/model_profile.h"

using nlohmann::json;

namespace {

class HvlOnModel : public ::testing::Test {
protected:
    // The default machine with s0.G1's eye and the given faults.
    void boot(const json& faults = json::array(), const json& eye = {{"left", 10}, {"right", 13}, {"top", 20},
                                                                      {"bottom", 17}, {"noise", 0}}) {
        lw_test::Profile profile;
        profile.hvl(0, {{"eye", eye}, {"lanes", {{{"lane", 5}, {"left", 7}, {"top", 25}}}}});
        profile.doc["faults"] = faults;
        model.reset();
        model.emplace(profile, 1e7);
        ASSERT_EQ(model->dies.size(), 2u);
        dies = model->dies;
        die0 = model->die(0);
    }

    json run(std::vector<unsigned int> lanes, std::function<bool()> stop = nullptr) {
        HVLMarginHandler::InputParam p;
        p.die = die0;
        p.link = "G1";
        p.lanes = std::move(lanes);
        p.ber = 9;
        p.err_cnt = 5;
        p.all_dies = dies;
        p.partner_finder = get_hvl_partner_finder(die0, dies);
        p.stop = std::move(stop);
        DumpHVLMarginDataToConsole console;
        json results = json::array();
        HVLMarginHandler(p).margin(console, results);
        return results;
    }

    unsigned int capability(unsigned int lane, unsigned int index) {
        CorvaneE32PCSCommands commands("G1", lane, get_register_store(die0));
        std::string error;
        commands.do_txrx_cap(index, error);
        return commands.read_response();
    }

    // The lane's receiver back at its trained point and the link's error
    // counting as before the margin.
    void expect_restored(unsigned int lane) {
        EXPECT_EQ(capability(lane, chips::e32::kCapPhaseOffset), 0u);
        EXPECT_EQ(capability(lane, chips::e32::kCapVoltageOffset), 0u);
        const auto store = get_register_store(die0);
        EXPECT_EQ(store->get_link_register("PCS_HVL3X16_PCS_ERROR_CONTROL1", "G1")->read(), 0x00010000u);
        EXPECT_EQ(store->get_link_register("PCS_HVL3X16_PCS_ERROR_MASK", "G1")->read() & 0x40u, 0u);
        EXPECT_EQ(store->get_lane_register("UPI2_DECODE_32_LANE_InjectionReadback", "G1", lane)->read() & 0x3000u, 0u);
    }

    std::optional<lw_test::BootedModel> model;
    std::vector<VEX_DIE_INFO> dies;
    VEX_DIE_INFO die0;
};

TEST_F(HvlOnModel, FullMarginFindsEachLanesEyeAndRestoresTheReceiver) {
    boot();
    const json results = run({0, 5});
    ASSERT_EQ(results.size(), 2u);
    struct Expect {
        unsigned lane, left, right, top, bottom;
    };
    for (const Expect& e : {Expect{0, 10, 13, 20, 17}, Expect{5, 7, 13, 25, 17}}) {
        SCOPED_TRACE("lane " + std::to_string(e.lane));
        const json& lane = results.at(e.lane == 0 ? 0 : 1);
        EXPECT_FALSE(lane.at("ErrorPresent").get<bool>()) << lane.value("ErrorMsg", "");
        EXPECT_EQ(lane.at("LaneID"), e.lane);
        EXPECT_EQ(lane.at("PhaseLeftOffset"), e.left);
        EXPECT_EQ(lane.at("PhaseRightOffset"), e.right);
        EXPECT_EQ(lane.at("VoltTopOffset"), e.top);
        EXPECT_EQ(lane.at("VoltBottomOffset"), e.bottom);
        EXPECT_NEAR(lane.at("VoltTopMargin").get<double>(), e.top * 25 / (64 * 100.0), 1e-6);
        EXPECT_NEAR(lane.at("PhaseLeftMargin").get<double>(), e.left * 50 / (32 * 100.0), 1e-6);
        // The offset just past the edge was tried and failed.
        bool tried_past = false;
        for (const json& r : lane.at("VoltTopErrorMap"))
            tried_past = tried_past || (r.at("Offset") == e.top + 1 && r.at("ErrCnt").get<unsigned>() > 5);
        EXPECT_TRUE(tried_past);
        EXPECT_TRUE(lane.at("RxEqValid").get<bool>());
        EXPECT_EQ(lane.at("PhyFwVersion"), "2.1.4");
        expect_restored(e.lane);
        EXPECT_GE(capability(e.lane, chips::e32::kCapCdrCount), 4u);
    }
    EXPECT_EQ(get_register_store(die0)->get_link_register("PCS_HVL3X16_PCS_STATE_HIST1", "G1")->read() & 0xFFu, 0x81u);
}

// The walk that follows the scan: a plain walk-back at a 50 ms dwell and on
// the timing sides, the back-and-forth walk in slices elsewhere; Top and
// Bottom scan three times, each pass retesting where the last one stopped.
// A counter that runs backwards counts 255, in the scan and in a slice; a
// slice in which the link leaves L0 is thrown away, so the burst of errors
// that came with the drop doesn't move the edge.
TEST_F(HvlOnModel, TheScanAndTheWalkBackFollowDwellAndDirection) {
    const json backwards = {{"type", "hvl_error_count_backwards"}, {"socket", 0}, {"link", "G1"}};
    // Visits to offset 20: the scan's, the walk's first command there, then
    // the first slice's.
    const json flap = {{"type", "hvl_link_flap"}, {"socket", 0}, {"link", "G1"}, {"offset", 20}, {"visit", 3}};
    struct Case {
        const char* name;
        CorvanehVLMargin::Direction direction;
        unsigned int dwell_ms, edge, scan_passes;
        bool back_and_forth;
        json fault;
        unsigned int past_edge_count = 0;  // what every record past the edge holds; 0: any count over the limit
    };
    const Case cases[] = {
        {"Top at 50 ms", CorvanehVLMargin::Top, 50, 20, 3, false, nullptr},
        {"Top at full dwell", CorvanehVLMargin::Top, 329, 20, 3, true, nullptr},
        {"Bottom at full dwell", CorvanehVLMargin::Bottom, 329, 17, 3, true, nullptr},
        {"Right at full dwell", CorvanehVLMargin::Right, 329, 13, 1, false, nullptr},
        {"Top in slices, counter backwards", CorvanehVLMargin::Top, 329, 20, 3, true, backwards, 255},
        {"Right, counter backwards", CorvanehVLMargin::Right, 329, 13, 1, false, backwards, 255},
        {"Top in slices, link drops in a slice at the edge", CorvanehVLMargin::Top, 329, 20, 3, true, flap},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        boot(c.fault.is_null() ? json::array() : json::array({c.fault}));
        const auto store = get_register_store(die0);
        auto phy = std::make_shared<PhyAccessor>(CRNFactory::instance()->get_crn_accessor(die0));
        auto commands = std::make_shared<CorvaneE32PCSCommands>("G1", 0, store);
        auto lanes = get_lane_generic_info(die0);
        CorvanehVLMargin engine("G1", 0, store, std::make_shared<CorvaneVersionCheck>("G1", die0, commands), commands,
                                std::make_shared<GetCorvaneE32LaneData>("G1", 0, phy, lanes), lanes,
                                std::make_shared<CorvanehVLOperations>(dies, die0, "G1", store));
        ASSERT_TRUE(commands->enable_override());
        std::vector<OffsetData> offsets;
        std::string error;
        ASSERT_TRUE(engine.margin(c.direction, 64, c.dwell_ms, 5, offsets, error)) << error;
        commands->disable_override();
        EXPECT_EQ(offsets.back().offset, c.edge);
        for (const OffsetData& record : offsets) {
            if (record.offset <= c.edge) EXPECT_LE(record.err_cnt, 5u) << "at " << record.offset;
            else if (c.past_edge_count) EXPECT_EQ(record.err_cnt, c.past_edge_count) << "at " << record.offset;
            else EXPECT_GT(record.err_cnt, 5u) << "at " << record.offset;
        }
        // Scan: 0 .. edge + 1, then edge + 1 once more per further pass.
        unsigned int scan_end = 0;
        while (offsets[scan_end].offset == scan_end && scan_end <= c.edge + 1) ++scan_end;
        ASSERT_EQ(scan_end, c.edge + 2);
        for (unsigned int pass = 1; pass < c.scan_passes; ++pass) EXPECT_EQ(offsets[scan_end + pass - 1].offset, c.edge + 1);
        const OffsetData& before_last = offsets[offsets.size() - 2];
        // The back-and-forth walk ends by repeating its best record.
        EXPECT_EQ(before_last.offset, c.back_and_forth ? c.edge : c.edge + 1);
        EXPECT_EQ(offsets.size(), scan_end + (c.scan_passes - 1) + (c.back_and_forth ? 3 : 2));
        EXPECT_EQ(store->get_link_register("PCS_HVL3X16_PCS_STATE_HIST1", "G1")->read() & 0xFFu, 0x81u);
    }
    EXPECT_EQ(hvl_scan_limit(5, 50), 5u) << "no 1 added at or under 50 ms";
    EXPECT_EQ(hvl_scan_limit(5, 329), 2u);
    EXPECT_EQ(_compute_error_count(25, 100, 3), 12u);
}

TEST_F(HvlOnModel, AnEyeWiderThanTheRangeIsReportedAtTheBoundary) {
    boot(json::array(), {{"left", 10}, {"right", 13}, {"top", 70}, {"bottom", 17}, {"noise", 0}});
    const json lane = run({0}).at(0);
    EXPECT_EQ(lane.at("VoltTopOffset"), 64);
    EXPECT_EQ(lane.at("VoltTopErrorMap").back().at("OffsetStatus"), "Margin found at boundary");
}

// Each injected fault ends the lane with a clear reason and the receiver
// back at its trained point, never a hang.
TEST_F(HvlOnModel, FaultsEndTheLaneCleanly) {
    struct Case {
        const char* name;
        json fault;
        std::string reason;  // empty: the lane completes
        unsigned int margin = 0;
        std::vector<std::string> console;  // lines the console must show
    };
    const Case cases[] = {
        {"firmware version 4", {{"type", "hvl_firmware_version"}, {"socket", 0}, {"link", "G1"}, {"version", 4}},
         "Error: CorvaneVersionCheck::operator(). Unknown version number"},
        {"active cache invalid", {{"type", "hvl_active_cache_invalid"}, {"socket", 0}, {"link", "G1"}, {"lane", 0}},
         "Active Cache not valid for Lane: 0 of link: G1"},
        {"override never granted", {{"type", "hvl_override_never_granted"}, {"socket", 0}, {"link", "G1"}},
         "Error: CorvaneVersionCheck::operator(). Override not working."},
        {"link drops at offset 5", {{"type", "hvl_link_drop"}, {"socket", 0}, {"link", "G1"}, {"offset", 5}}, "", 4},
        {"link drops at offset 1", {{"type", "hvl_link_drop"}, {"socket", 0}, {"link", "G1"}, {"offset", 1}},
         "Margin Failed. Link not in L0 state.", 0,
         {"At Offset 0 for non L0 back and forth\n", "Margin failed for lane:0 of Link:G1 as Link not in L0 state\n"}},
        {"link never in L0", {{"type", "hvl_link_down"}, {"socket", 1}, {"link", "G3"}}, "Margin failed at offset zero",
         0, {"Margin failed at offset zero for lane:0 of Link:G1\n"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        boot(json::array({c.fault}));
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const json results = run({0, 1});
        const std::string console = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
        for (const std::string& line : c.console) EXPECT_NE(console.find(line), std::string::npos) << line;
        ASSERT_FALSE(results.empty());
        const json& lane = results.at(0);
        if (c.reason.empty()) {
            EXPECT_FALSE(lane.at("ErrorPresent").get<bool>()) << lane.value("ErrorMsg", "");
            for (const char* key : {"PhaseLeftOffset", "PhaseRightOffset", "VoltTopOffset", "VoltBottomOffset"})
                EXPECT_EQ(lane.value(key, 99u), c.margin) << key;
        } else {
            EXPECT_TRUE(lane.at("ErrorPresent").get<bool>());
            EXPECT_EQ(lane.at("ErrorMsg"), c.reason);
            EXPECT_EQ(results.size(), 1u) << "the job ends at the failed lane";
        }
        expect_restored(0);
    }
}

TEST_F(HvlOnModel, AGrantThatNeverComesEndsWhenTheTestIsStopped) {
    // Granted for the equalisation read and the version check, then never.
    boot(json::array({{{"type", "hvl_override_never_granted"}, {"socket", 0}, {"link", "G1"}, {"grants", 3}}}));
    std::atomic<int> asked{0};
    const json results = run({0}, [&asked] { return ++asked > 50; });
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results.at(0).at("ErrorMsg"), "Override grant never came for lane 0 of link G1");
    expect_restored(0);
}

TEST_F(HvlOnModel, AStopDuringTheWalkRestoresTheLane) {
    boot();
    std::atomic<int> asked{0};
    const json results = run({0, 1}, [&asked] { return ++asked > 30; });
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results.at(0).at("ErrorMsg"), "Cancelled by the user");
    expect_restored(0);
}

TEST_F(HvlOnModel, MailboxMessagesChangeTheControllersStateOrFailCleanly) {
    boot(json::array({{{"type", "mailbox_silent"}, {"socket", 1}, {"mailbox", "Test"}}}));
    std::string error;
    ASSERT_TRUE(disable_power_states_for_hvl(die0, error)) << error;
    std::vector<unsigned int> out(1);
    ASSERT_TRUE(get_mcu_message(die0)->HostMsg(1, {}, out, 10, true));
    EXPECT_EQ(out[0], chips::kPowerDfPstateOff | chips::kPowerDfCstateOff | chips::kPowerDlwmOff);

    std::vector<unsigned int> none;
    EXPECT_FALSE(get_mcu_message(die0)->TestMsg(61, std::vector<unsigned int>(7, 1), none, 10, true))
        << "more arguments than the mailbox takes";

    const VEX_DIE_INFO& die1 = model->die(1);
    EXPECT_FALSE(disable_power_states_for_hvl(die1, error));
    EXPECT_NE(error.find("TestMsg 61 was not answered"), std::string::npos) << error;
}

TEST_F(HvlOnModel, BothEndsOfALinkRunInDifferentGroupsAndTheBatchWritesItsReports) {
    boot();
    const VEX_DIE_INFO& die1 = model->die(1);
    const DIELinkLanes g1{die0, "G1", {0}}, g3{die1, "G3", {0}}, p1{die0, "P1", {0}};
    struct Case {
        const char* name;
        std::vector<DIELinkLanes> jobs;
        std::vector<std::vector<size_t>> groups;  // empty: refused
    };
    const Case cases[] = {
        {"two ends of one link", {g1, g3}, {{0}, {1}}},
        {"another link joins the first group", {g1, g3, p1}, {{0, 2}, {1}}},
        {"one end named twice", {g1, g1}, {{0}, {1}}},
        {"a link that fits no group", {g1, g3, g1}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<std::vector<size_t>> groups;
        std::string error;
        const bool placed = group_hvl_jobs(c.jobs, dies, groups, error);
        EXPECT_EQ(placed, !c.groups.empty());
        if (placed) EXPECT_EQ(groups, c.groups);
        else EXPECT_EQ(error, "Error: Unexpected scenario in do_hvl_margin");
    }

    const auto root = std::filesystem::temp_directory_path() / ("hvl_batch_" + std::to_string(::getpid()));
    HvlBatchSettings settings;
    settings.ber = 9;
    settings.output_root = root.string();
    std::string error, csv;
    ASSERT_EQ(do_hvl_margin({{die0, "G1", {0, 1}, {}}, {die1, "G3", {2}, {}}}, false, dies, settings, error, &csv), 1)
        << error;
    std::ifstream in(csv);
    std::string line;
    int rows = 0;
    while (std::getline(in, line)) rows += !line.empty();
    EXPECT_EQ(rows, 4) << "header and three lanes";
    EXPECT_TRUE(std::filesystem::exists(csv.substr(0, csv.size() - 4) + ".bin"));
    EXPECT_FALSE(std::filesystem::is_empty(root / "ev_cloud"));
    std::filesystem::remove_all(root);
}

// Four-point margin: all lanes at once, so the link's weakest lane decides;
// a range that ends inside the eye is reported at its end; a step of 0 is
// refused rather than looping for good.
TEST_F(HvlOnModel, FourPointMarginStepsAllLanesThroughTheRanges) {
    boot();
    auto four_point = [&](HVLMarginHandler::Range left) {
        HVLMarginHandler::InputParam p;
        p.die = die0;
        p.link = "G1";
        p.lanes = {0, 5};
        p.ber = 9;
        p.err_cnt = 5;
        p.all_dies = dies;
        p.top = {0, 30, 2};
        p.bottom = {0, 10, 5};
        p.right = {0, 13, 1};
        p.left = left;
        DumpHVLMarginDataToConsole console;
        json results = json::array();
        HVLMarginHandler(p).margin(console, results, true);
        return results;
    };
    const json results = four_point({4, 20, 4});
    ASSERT_EQ(results.size(), 2u);
    for (const json& lane : results) {
        SCOPED_TRACE(lane.dump());
        EXPECT_FALSE(lane["ErrorPresent"].get<bool>());
        EXPECT_EQ(lane["MarginType"], "std-4pt");
        EXPECT_EQ(lane["VoltTopOffset"], 20) << "lane 0's top edge limits both";
        EXPECT_EQ(lane["VoltBottomOffset"], 10);
        EXPECT_EQ(lane["PhaseRightOffset"], 13);
        EXPECT_EQ(lane["PhaseLeftOffset"], 4) << "lane 5's left edge is 7";
        EXPECT_EQ(lane["PhaseRightErrorMap"].back().value("OffsetStatus", ""), "");
    }
    EXPECT_EQ(capability(5, chips::e32::kCapPhaseOffset), 0u);
    const json refused = four_point({0, 20, 0});
    ASSERT_FALSE(refused.empty());
    EXPECT_EQ(refused[0]["ErrorMsg"], "Four-point margin needs a step above 0");
}

// The firmware's version picks the training record's layout; each layout
// is read from its own place and gives the same fields.
TEST_F(HvlOnModel, TrainingRecordLayoutFollowsTheFirmwareVersion) {
    struct Case {
        unsigned int version;
        const char* full_version;
        unsigned int tap_mode;
    };
    for (const Case& c : {Case{1, "1.4.2", 255}, Case{2, "1.6.0", 3}, Case{3, "2.1.4", 3}}) {
        SCOPED_TRACE(c.full_version);
        boot(json::array({{{"type", "hvl_firmware_version"}, {"socket", 0}, {"link", "P1"}, {"version", c.version}}}));
        const auto store = get_register_store(die0);
        auto commands = std::make_shared<CorvaneE32PCSCommands>("P1", 6, store);
        CorvaneVersionCheck version("P1", die0, commands);
        ASSERT_EQ(version(), c.version);
        ASSERT_EQ(version.full_version(), c.full_version);
        auto phy = std::make_shared<PhyAccessor>(CRNFactory::instance()->get_crn_accessor(die0));
        const CorvaneE32LANEDATA data =
            GetCorvaneE32LaneData("P1", 6, phy, get_lane_generic_info(die0))(c.version, c.full_version);
        EXPECT_EQ(data.layout, c.version);
        EXPECT_TRUE(data.active_cache_valid());
        EXPECT_EQ(data.tap_mode, c.tap_mode);
        EXPECT_EQ(data.ring_offset, chips::e32::kRingOffsets[6 & 3]) << "each lane of a block has its own ring";
        const RxEq rx = CorvaneEQData("P1", die0).get_rx_eq(6);
        EXPECT_TRUE(rx.valid);
        EXPECT_EQ(rx.ctleidx, data.rxadapt[data.active_cache].ctleidx);
    }
}

}  // namespace
