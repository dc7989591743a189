// The hVL device list over the simulated machines: both ends of each live
// link with their partner, and null on a machine with one socket, without
// holding up the PCIe list afterwards; and the hVL runner's test output.
#include <gtest/gtest.h>

#include "gui/gui_hvl_handle_test.h"
#include "gui/model_machine.h"

using nlohmann::json;

namespace {

TEST(HVLDeviceList, ListsBothEndsOfEachLiveLinkWithItsPartner) {
    gui_test::ModelMachine machine;
    const json list = GUIHVLGetDevice(machine.store).get_device_list(machine.devices);
    ASSERT_EQ(list.size(), 4u) << list.dump();
    struct End {
        unsigned socket;
        const char *link, *partner, *speed;
        bool reversed;
    };
    for (const End& e : {End{0, "G1", "G3", "32Gts", true}, End{0, "P1", "P3", "25Gts", false},
                         End{1, "G3", "G1", "32Gts", true}, End{1, "P3", "P1", "25Gts", false}}) {
        SCOPED_TRACE(e.link);
        bool found = false;
        for (const json& element : list) {
            const json& info = element["HVLCtrlInfo"];
            if (info["Socket"] != e.socket || info["SERDES"] != e.link) continue;
            found = true;
            EXPECT_EQ(info["PartnerSERDES"], e.partner);
            EXPECT_EQ(info["PartnerSocket"], 1 - e.socket);
            EXPECT_EQ(info["Speed"], e.speed);
            EXPECT_EQ(info["Width"], " x16");
            EXPECT_EQ(info["LaneReversed"], e.reversed);
            EXPECT_EQ(element["SERDES"]["SERDES"], e.link);
            EXPECT_EQ(element["HVLDestMarginData"]["Lanes"].size(), 16u);
            EXPECT_EQ(element["HVLDestMarginData"]["BER"].front(), "8");
        }
        EXPECT_TRUE(found);
    }
}

TEST(HVLDeviceList, OneSocketAnswersNullAndTheLockIsFreeAfterwards) {
    lw_test::Profile one_socket;
    one_socket.doc["sockets"].erase(1);
    one_socket.doc["hvl_links"] = json::array();
    gui_test::ModelMachine machine(one_socket);
    EXPECT_TRUE(GUIHVLGetDevice(machine.store).get_device_list(machine.devices).is_null());
    EXPECT_TRUE(GUIPCIEGetDevice(machine.store).get_device_list(machine.devices).is_array());
}

}  // namespace

namespace {

// "TestOutput" of an hVL run: complete only when every requested lane was
// margined; otherwise the first failed lane's reason, keeping what ran.
TEST(HVLTestOutput, CompleteOnlyWhenEveryLaneWasMargined) {
    auto lane = [](unsigned id, double left, bool failed = false) {
        json o = {{"LaneID", id}, {"ErrorPresent", failed}, {"PhaseLeftMargin", left}, {"PhaseRightMargin", 0.2},
                  {"VoltTopMargin", 0.06}, {"VoltBotomMargin", 0.05}};
        if (failed) o["ErrorMsg"] = "Margin failed at offset zero";
        return o;
    };
    struct Case {
        const char* name;
        json report;
        std::vector<unsigned int> lanes;
        const char* status;
        const char* reason;
    };
    const Case cases[] = {
        {"all lanes", json::array({lane(0, 0.2), lane(1, 0.15)}), {0, 1}, "complete", nullptr},
        {"a lane failed", json::array({lane(0, 0.2), lane(1, 0, true)}), {0, 1, 2}, "Failed",
         "Lane 1: Margin failed at offset zero"},
        {"short report", json::array({lane(0, 0.2)}), {0, 1}, "Failed", "The margin reported 1 of 2 lanes"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const json output = hvl_margin_test_output(c.report, c.lanes, "/f");
        EXPECT_EQ(output["Status"], c.status);
        EXPECT_EQ(output["FullMarginData"], c.report);
        EXPECT_EQ(output["ResultsFolder"], "/f");
        EXPECT_TRUE(output.contains("TimeStamp"));
        if (c.reason) EXPECT_EQ(output["FailureReason"], c.reason);
        else EXPECT_DOUBLE_EQ(output["PhaseLeft (UI)"].get<double>(), 0.15);
    }
}

}  // namespace
