// The collector over the platform model: the eye it recovers, the runs and
// taps it takes, its files, and how it fails.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "eye_machine.h"
#include "eye_scan_helpers.h"
#include "hardware/os_specific.h"
#include "hardware/test_temp_folder.h"
#include "margin_hvl/hvl_margin_handler.h"
#include "margin_hvl/hvl_margin_report.h"
#include "margin_pcie/pcie_margin_multi_pass.h"

using nlohmann::json;
using eye_test::EyeMachine;
using eye_test::LaneScan;

namespace {

constexpr double kPhaseStepUI = 4 / 64.0, kVoltStepMV = 5;

// The eye where the density crosses the floor (3 counts) along the cuts
// through the centre of a default window: the outermost clean cell centre
// on each side, walking out from the centre.
struct Found {
    double left = 0, right = 0, top = 0, bottom = 0;
};
Found eye_of(const std::vector<std::vector<long>>& cpdf) {
    const int centre_phase = 8, above = 20;  // phase 0; the bin just above 0 mV
    Found f;
    for (int b = above; b < 40 && cpdf[b][centre_phase] < 3; ++b) f.top = (-200 + 10 * b + 5) * 0.5;
    for (int b = above - 1; b >= 0 && cpdf[b][centre_phase] < 3; --b) f.bottom = -(-200 + 10 * b + 5) * 0.5;
    for (int p = centre_phase; p < 17 && cpdf[above][p] < 3; ++p) f.right = (-32 + 4 * p) / 64.0;
    for (int p = centre_phase; p >= 0 && cpdf[above][p] < 3; --p) f.left = -(-32 + 4 * p) / 64.0;
    return f;
}

// The lane's margins as its engine finds them (UI, mV): the hVL margin, or
// the PCIe margin of the root port (slot3, bus 0x40) on that SerDes lane.
Found margin_of(const EyeMachine& m, const std::string& link, unsigned int lane) {
    json results = json::array();
    if (link == "G1") {
        HVLMarginHandler::InputParam p;
        p.die = m.die0;
        p.link = link;
        p.lanes = {lane};
        p.ber = 9;
        p.err_cnt = 5;
        p.all_dies = m.dies;
        p.partner_finder = get_hvl_partner_finder(m.die0, m.dies);
        DumpHVLMarginDataToConsole console;
        HVLMarginHandler(p).margin(console, results);
    } else {
        PCIE::PCIEMarginMultiPass::InitParams p;
        p.bus = 0x40;
        p.device = 1;
        p.receiver = 1;
        p.dwell_time = 200;
        PCIE::DumpPCIEMarginDataToConsole console(false);
        PCIE::MarginEngineAccess access;
        access.read = m.platform->read_pci();
        access.write = m.platform->write_pci();
        PCIE::PCIEMarginMultiPass(m.devices, m.dies, p, console, access).margin(results, 1);
    }
    for (const json& r : results)
        if (link == "G1" || r.value("LanePhysicalID", -1) == static_cast<int>(lane))
            return {r.at("PhaseLeftMargin"), r.at("PhaseRightMargin"), r.at("VoltTopMargin").get<double>() * 1000,
                    r.at("VoltBotomMargin").get<double>() * 1000};
    ADD_FAILURE() << "no margin of lane " << lane << ": " << results.dump();
    return {};
}

ScanParams params_in(const std::filesystem::path& folder, int id = 1000, int nbits = 23) {
    ScanParams p;
    p.folder = folder.string();
    p.id = id;
    p.nbits = nbits;
    p.rate_gbps = 32;
    return p;
}

}  // namespace

// An hVL lane shows its receiver's edges (the steps its margin finds), a
// lane a root port drives the port's receiver eye of the logical lane it
// carries (slot3 reaches P2 through a reversed SerDes: lane 2 carries 13).
TEST(EyeScanOverModel, RecoversEachLanesSeededEyeWithinOneStep) {
    struct Case {
        const char* name;
        std::string link;
        unsigned int lane;
        double left, right, top, bottom;  // UI, mV
    };
    const Case cases[] = {
        {"hVL lane", "G1", 5, 7 / 64.0, 13 / 64.0, 25 * 3.90625, 17 * 3.90625},
        {"PCIe port lane", "P2", 2, 0.15, 0.22, 35, 27},
    };
    EyeMachine machine([](json& profile) {
        profile["hvl_links"][0]["eye"] = {{"left", 10}, {"right", 13}, {"top", 20}, {"bottom", 17}, {"noise", 0}};
        profile["hvl_links"][0]["lanes"] = json::array({{{"lane", 5}, {"left", 7}, {"top", 25}}});
        json& slot3 = profile["sockets"][0]["root_complexes"][1]["root_ports"][0]["margining"];
        slot3["lanes"] = json::array({{{"lane", 13}, {"timing_left", 15}, {"timing_right", 22}, {"voltage_up", 35},
                                       {"voltage_down", 27}, {"noise", 0}}});
    });
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TestTempFolder folder;
        LaneScan lane(machine.die0, c.link, c.lane);
        std::string error;
        ASSERT_TRUE(lane.run(params_in(folder.path()), error)) << error;
        const auto cpdf = eye_test::read_csv((folder.path() / "1000_data.csv").string());
        ASSERT_EQ(cpdf.size(), 40u) << "one row fewer than voltage values";
        for (const auto& row : cpdf) ASSERT_EQ(row.size(), 17u);
        const Found found = eye_of(cpdf);
        EXPECT_NEAR(found.left, c.left, kPhaseStepUI + 1e-9);
        EXPECT_NEAR(found.right, c.right, kPhaseStepUI + 1e-9);
        EXPECT_NEAR(found.top, c.top, kVoltStepMV);
        EXPECT_NEAR(found.bottom, c.bottom, kVoltStepMV);
        EXPECT_LE(found.top, c.top) << "a clean cell never lies past the edge";
        // The margin engine's steps are finer: within one scan step of it.
        const Found margin = margin_of(machine, c.link, c.lane);
        EXPECT_NEAR(found.left, margin.left, kPhaseStepUI + 1e-9);
        EXPECT_NEAR(found.right, margin.right, kPhaseStepUI + 1e-9);
        EXPECT_NEAR(found.top, margin.top, kVoltStepMV);
        EXPECT_NEAR(found.bottom, margin.bottom, kVoltStepMV);
        const json meta = json::parse(eye_test::read_text((folder.path() / "1000_metadata.csv").string()));
        const std::string base = "socket_0_die_0_" + c.link + "_" + std::to_string(c.lane);
        const json expected = {{"phy_type", "e32"}, {"header", base},
                               {"csv_file_path", (folder.path() / "1000_data.csv").string()},
                               {"output_file_path", (folder.path() / (base + ".png")).string()},
                               {"start_y", -100}, {"y_step_size", 5}, {"y_step_size_axis", 25}, {"start_x", -0.5},
                               {"x_step_size", 0.0625}, {"x_step_size_axis", 0.25}, {"multiplier", 1},
                               {"DataType", "long"}, {"Device", "Socket:0 Die:0"}, {"Link", c.link},
                               {"Lane", c.lane}, {"summary_csv", (folder.path() / (base + "_summary.csv")).string()},
                               {"BER", {"BER=2.23517e-08"}}, {"Text", {"BER=2.23517e-08"}}, {"nbits", 23},
                               {"taps", 8}};
        EXPECT_EQ(meta, expected) << "3 / (2^23 * 2 * 8) = 2.235e-8";
    }
}

// Above the PHY's 2^23 bits a run is repeated and added; tap mode 0 reads one
// tap a run, and its floor counts one tap.
TEST(EyeScanOverModel, RunsRepeatAboveTwentyThreeBitsAndTapModeSetsTheTaps) {
    EyeMachine machine([](json& profile) {
        profile["phy_settings"] = json::array({{{"socket", 0}, {"link", "G1"}, {"tap_mode", 0}},
                                               {{"socket", 0}, {"link", "P1"}, {"tap_mode", 2}}});
        // P1 runs the layout 2 record, whose tap mode sits where layout 3 has it.
        profile["faults"] = json::array({{{"type", "hvl_firmware_version"}, {"socket", 0}, {"link", "P1"}, {"version", 2}}});
    });
    struct Case {
        std::string link;
        int nbits;
        unsigned int scans;
        const char* ber;
    };
    const Case cases[] = {{"G1", 23, 1, "BER=1.78814e-07"}, {"G1", 24, 2, "BER=8.9407e-08"},
                          {"G1", 25, 4, "BER=4.47035e-08"}, {"P1", 23, 4, "BER=4.47035e-08"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.link + " nbits " + std::to_string(c.nbits));
        TestTempFolder folder;
        LaneScan lane(machine.die0, c.link, 3);
        ASSERT_EQ(lane.scan->firmware(), c.link == "P1" ? 2u : 3u);
        const unsigned int before = lane.scans();
        std::string error;
        ASSERT_TRUE(lane.run(params_in(folder.path(), 1000, c.nbits), error)) << error;
        EXPECT_EQ(lane.scans() - before, c.scans);
        const json meta = json::parse(eye_test::read_text((folder.path() / "1000_metadata.csv").string()));
        EXPECT_EQ(meta["BER"][0], c.ber);
        EXPECT_EQ(meta["nbits"], c.nbits);
        // Outside the eye every cell still shows the floor with one tap.
        const auto cpdf = eye_test::read_csv((folder.path() / "1000_data.csv").string());
        EXPECT_GE(cpdf[0][0], 3);
    }
}

// The counts are a function of the profile and seed alone.
TEST(EyeScanOverModel, TheSameSeedGivesTheSameCounts) {
    auto scan_with_seed = [](unsigned seed) {
        EyeMachine machine([seed](json& profile) { profile["seed"] = seed; });
        TestTempFolder folder;
        LaneScan lane(machine.die0, "G1", 3);
        std::string error;
        EXPECT_TRUE(lane.run(params_in(folder.path(), 1000, 12), error)) << error;
        return eye_test::read_text((folder.path() / "1000_data.csv").string());
    };
    const std::string first = scan_with_seed(7);
    EXPECT_EQ(scan_with_seed(7), first);
    EXPECT_NE(scan_with_seed(8), first);
}

// The older firmware takes 1 mV voltage fields, reads all eight taps in one
// pass and writes its document instead of the CSV.
TEST(EyeScanOverModel, OlderFirmwareWritesTheJsonDocument) {
    EyeMachine machine([](json& profile) {
        profile["faults"] = json::array({{{"type", "hvl_firmware_version"}, {"socket", 0}, {"link", "G1"}, {"version", 1}}});
    });
    TestTempFolder folder;
    LaneScan lane(machine.die0, "G1", 2);
    ASSERT_EQ(lane.scan->firmware(), 1u);
    std::string error;
    ScanParams odd = params_in(folder.path());
    odd.voltage_start = -199;
    odd.voltage_end = 201;
    EXPECT_FALSE(lane.run(odd, error));
    EXPECT_NE(error.find("odd"), std::string::npos) << error;
    error.clear();
    const unsigned int before = lane.scans();
    ASSERT_TRUE(lane.run(params_in(folder.path(), 1001), error)) << error;
    EXPECT_EQ(lane.scans() - before, 8u);
    EXPECT_FALSE(std::filesystem::exists(folder.path() / "1001_data.csv"));
    const json doc = json::parse(eye_test::read_text((folder.path() / "1001_data.json").string()));
    EXPECT_EQ(doc["pi_steps"], 17);
    EXPECT_EQ(doc["dac_steps"], 41);
    EXPECT_EQ(doc["total_taps"], 8);
    EXPECT_EQ(doc["socket"], 0);
    ASSERT_EQ(doc["cpdf"].size(), 50u);
    ASSERT_EQ(doc["pdf"].size(), 2u);
    ASSERT_EQ(doc["pdf"][0].size(), 8u);
    EXPECT_LT(doc["cpdf"][20][8].get<int>(), 3) << "the centre is open";
    EXPECT_GE(doc["cpdf"][0][0].get<int>(), 3);
    EXPECT_EQ(doc["cpdf"][45][45], 0) << "cells beyond the grid stay 0";
    EXPECT_EQ(doc["lane_data"].size(), 768u);
    for (const auto& [key, value] : doc.items()) EXPECT_FALSE(value.is_null()) << key;
    // Decoded fields agree with the record's bytes (little-endian, signed where signed).
    const auto byte = [&](int at) { return doc["lane_data"][at].get<int>(); };
    EXPECT_EQ(doc["pi"], byte(496) | byte(497) << 8);
    EXPECT_EQ(doc["es_dfetaps"][1], static_cast<int8_t>(byte(489)));
    EXPECT_EQ(doc["offsetDacs"][7], static_cast<int16_t>(byte(554) | byte(555) << 8));
    EXPECT_EQ(doc["eyeparams"].size(), 768u - 488u);
}

// Each failure ends the lane with its text, bounded, and sends nothing it
// shouldn't.
TEST(EyeScanOverModel, FailuresEndTheLaneWithTheirReason) {
    EyeMachine machine([](json& profile) {
        profile["faults"] = json::array({{{"type", "eye_ring_stall"}, {"socket", 0}, {"link", "G1"}, {"lane", 6}},
                                         {{"type", "hvl_override_never_granted"}, {"socket", 0}, {"link", "G1"},
                                          {"lane", 7}, {"grants", 1}}});
    });
    struct Case {
        const char* name;
        unsigned int lane;
        std::function<void(ScanParams&)> edit;
        const char* text;
        bool scanned;
        WaitAbandoned check = nullptr;
    };
    // A reader that falls behind: every poll also waits 10 ms of model time.
    const WaitAbandoned slow = [] {
        OSSpecific().milli_secs_sleep(10);
        return false;
    };
    const Case cases[] = {
        {"ring stalls", 6, nullptr, "Eye scan of lane 6 of link G1 did not end within 836 ms", true},
        {"51 phase values", 0, [](ScanParams& p) { p.phase_start = -100, p.phase_end = 100; },
         "Eye scan phase window -100..100 by 4 holds 51 values; at most 50 fit", false},
        {"nbits below the PHY's", 0, [](ScanParams& p) { p.nbits = 9; }, "Eye scan nbits 9 is outside 10..30", false},
        {"override never granted, then cancelled", 7, nullptr, "Eye scan of lane 7 of link G1 was cancelled", false, [] { return true; }},
        // 49 x 41 points of 8 bytes, 2.032 us each: 492 read after the first
        // 1 ms poll, the rest (12136 bytes) while the reader waits: 3944 lost.
        {"reader falls behind", 1, [](ScanParams& p) { p.nbits = 10, p.phase_start = -48, p.phase_end = 48, p.phase_step = 2; },
         "Eye scan data lost on lane 1 of link G1: the ring buffer overran (3944 bytes)", true, slow},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TestTempFolder folder;
        LaneScan lane(machine.die0, "G1", c.lane);  // the version check takes the one grant of lane 7
        lane.commands->set_abandon_check(c.check);
        ScanParams p = params_in(folder.path());
        if (c.edit) c.edit(p);
        const unsigned int before = lane.scans();
        std::string error;
        EXPECT_FALSE(lane.run(p, error));
        EXPECT_EQ(error, c.text);
        EXPECT_EQ(lane.scans() != before, c.scanned);
        EXPECT_FALSE(std::filesystem::exists(folder.path() / "1000_metadata.csv"));
    }
}
