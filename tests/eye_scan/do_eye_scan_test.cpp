// The request for one die: secure-state refusal, lanes on threads, the plot
// step and the merged summary; and the ring as its reader sees it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <mutex>

#include "eye_machine.h"
#include "eye_scan/do_eye_scan.h"
#include "eye_scan/merge_eye_scan_csv_files.h"
#include "eye_scan_helpers.h"
#include "hardware/os_specific.h"
#include "hardware/test_temp_folder.h"

using nlohmann::json;
namespace e32 = chips::e32;

namespace {

CmdLineEyeScanParam request(const VEX_DIE_INFO& die, std::vector<std::pair<std::string, std::vector<unsigned>>> links) {
    CmdLineEyeScanParam p;
    for (auto& [link, lanes] : links) p.lanes.push_back({die, link, lanes, {}});
    return p;
}

void write(const std::filesystem::path& path, const std::string& text) { std::ofstream(path) << text; }

}  // namespace

TEST(DoEyeScan, SecureSiliconIsRefusedBeforeAnythingIsTouched) {
    eye_test::EyeMachine machine([](json& profile) { profile["sockets"][0]["secure"] = true; });
    VEX_DIE_INFO locked = machine.die0;
    locked.cpu.name = "KX900X";  // a die type that has a secure state
    TestTempFolder root;
    EyeScanHooks hooks;
    hooks.folder = (root.path() / "run").string();
    bool prepared = false;
    hooks.prepare = [&](std::string&) { return prepared = true; };
    DoEyeScan scan(locked, request(locked, {{"G1", {4}}}), hooks);
    EXPECT_EQ(scan.initate_eye_scan(), -1);
    EXPECT_FALSE(prepared);
    EXPECT_FALSE(std::filesystem::exists(root.path() / "run"));
    EXPECT_TRUE(scan.outcomes().empty());
    eye_test::LaneScan lane(machine.die0, "G1", 4);
    EXPECT_EQ(lane.scans(), 0u);
}

// Every lane runs on its own thread into one folder; a lane that fails says
// why and leaves the others be; the plot step sees every metadata file and
// the summaries it wrote are merged; an unknown link marks the result.
TEST(DoEyeScan, LanesRunSideBySideAndEachOutcomeIsKept) {
    eye_test::EyeMachine machine([](json& profile) {
        profile["phy_settings"] = json::array({{{"socket", 0}, {"link", "G1"}, {"tap_mode", 0}}});
        profile["faults"] = json::array({{{"type", "eye_ring_stall"}, {"socket", 0}, {"link", "G1"}, {"lane", 5}}});
    });
    TestTempFolder root;
    EyeScanHooks hooks;
    hooks.folder = (root.path() / "run").string();
    hooks.rate_gbps = 32;
    std::ostringstream console;
    hooks.console = &console;
    std::vector<std::string> plotted;
    hooks.plot = [&](const std::vector<std::string>& files) {
        plotted = files;
        for (const std::string& file : files) {
            const json meta = json::parse(eye_test::read_text(file));
            write(meta["summary_csv"].get<std::string>(),
                  "Name,Lane\n" + meta["header"].get<std::string>() + "," + std::to_string(meta["Lane"].get<int>()) + "\n");
        }
    };
    DoEyeScan scan(machine.die0, request(machine.die0, {{"G1", {4, 5}}, {"NOPE", {0}}, {"G1", {6}}}), hooks);
    EXPECT_EQ(scan.initate_eye_scan(), -1) << "the unknown link";
    ASSERT_EQ(scan.outcomes().size(), 3u);
    struct Expect {
        unsigned int lane;
        int id;
        bool done;
    };
    for (size_t i = 0; i < 3; ++i) {
        const Expect e = std::vector<Expect>{{4, 1000, true}, {5, 1001, false}, {6, 1002, true}}[i];
        const EyeScanLaneOutcome& o = scan.outcomes()[i];
        EXPECT_EQ(o.lane, e.lane);
        EXPECT_EQ(o.id, e.id);
        EXPECT_EQ(o.done, e.done) << o.error;
    }
    EXPECT_NE(scan.outcomes()[1].error.find("did not end within"), std::string::npos) << scan.outcomes()[1].error;
    ASSERT_EQ(plotted.size(), 2u);
    EXPECT_EQ(OSSpecific().get_file_name_from_path(plotted[0]), "1000_metadata.csv");
    EXPECT_EQ(eye_test::read_text(hooks.folder + "/analysis.csv"),
              "Name,Lane\nsocket_0_die_0_G1_4,4\nsocket_0_die_0_G1_6,6\n");
    EXPECT_NE(console.str().find("Results and images are available in folder: " + hooks.folder), std::string::npos);
    // Every lane ended with the override released, the stalled one too.
    const auto store = get_register_store(machine.die0);
    for (int lane : {4, 5, 6})
        EXPECT_EQ(store->get_lane_register("UPI2_DECODE_32_LANE_InjectionReadback", "G1", lane)->read() & 0x3400u, 0u);
}

TEST(MergeEyeScanCSVFiles, TakesTheFirstHeaderAndEverySecondLine) {
    struct Case {
        const char* name;
        std::vector<std::pair<std::string, std::string>> files;
        std::optional<std::string> merged;  // nullopt: no file written
    };
    const Case cases[] = {
        {"none", {{"1000_metadata.csv", "{}"}}, std::nullopt},
        {"one", {{"a_summary.csv", "H1,H2\r\n1,2\r\n"}}, "H1,H2\n1,2\n"},
        {"several, by name", {{"b_summary.csv", "B\nb\nextra\n"}, {"a_summary.csv", "A\na"}, {"c_summary.csv", "C\n"}},
         "A\na\nb\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        TestTempFolder folder;
        for (const auto& [name, text] : c.files) write(folder.path() / name, text);
        const auto out = folder.path() / "analysis.csv";
        std::string error;
        EXPECT_TRUE(MergeEyeScanCSVFiles(folder.path().string()).merge(out.string(), error)) << error;
        EXPECT_EQ(std::filesystem::exists(out), c.merged.has_value());
        if (c.merged) {
            EXPECT_EQ(eye_test::read_text(out.string()), *c.merged);
        }
    }
}

// The ring as a reader meets it: a read at the head yields nothing but is
// still acknowledged, and a reader that stays away loses what the firmware
// wrote over, which the overrun words tell.
TEST(StoneRingBufferReader, AcknowledgesAnEmptyReadAndSeesAnOverrun) {
    eye_test::EyeMachine machine;
    eye_test::LaneScan lane(machine.die0, "G1", 9);
    const unsigned int base = get_lane_base_address(*lane.lanes, "G1", 9), offset = e32::kRingOffsets[9 & 3];
    const unsigned int ack = base + offset - 0x10000 + e32::kRingAck;
    StoneRingBufferReader reader(lane.phy);
    std::string error;
    ASSERT_TRUE(lane.commands->enable_override());
    ASSERT_TRUE(lane.commands->do_rx_eye_phase(-50, 50, 2, error));  // 51 values: refused by the firmware
    ASSERT_TRUE(lane.commands->do_rx_eye_scan(10, error));
    unsigned int head = 0, length = 0, position = 0, lost = 0;
    reader.read_config(base, offset, head, length);
    EXPECT_EQ(length, e32::kRingBytes);
    std::vector<uint8_t> bytes;
    lane.phy->write(0, ack, 4, 77);
    ASSERT_TRUE(reader.read_buffer(base, offset, length, position, bytes));
    EXPECT_TRUE(bytes.empty()) << "a refused scan streams nothing";
    EXPECT_EQ(position, 0u);
    EXPECT_EQ(lane.phy->read(0, ack, 4), 0u) << "the empty read was acknowledged";
    EXPECT_FALSE(reader.read_buffer(base, offset, 1000, position, bytes)) << "not a power of two";

    // 49 x 41 points of 8 bytes at about 2 us each: 16072 bytes in 4 ms.
    ASSERT_TRUE(lane.commands->do_rx_eye_phase(-48, 48, 2, error));
    ASSERT_TRUE(lane.commands->do_rx_eye_scan(10, error));
    OSSpecific().milli_secs_sleep(10);
    EXPECT_TRUE(reader.overrun(base, offset, lost));
    EXPECT_EQ(lost, 49u * 41 * 8 - e32::kRingBytes);
    ASSERT_TRUE(lane.commands->do_rx_eye_scan(10, error));
    EXPECT_FALSE(reader.overrun(base, offset, lost)) << "a new scan clears it";
    EXPECT_EQ(lost, 0u);
    lane.commands->disable_override();
}
