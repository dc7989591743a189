// The PCIe device list the browser composes margin and eye scan tests from,
// built over the embedded two-socket machine.
#include <gtest/gtest.h>

#include "gui/model_machine.h"
#include "simulator/config_space.h"

using nlohmann::json;

namespace {

class PCIEDeviceList : public ::testing::Test {
protected:
    json list() { return GUIPCIEGetDevice(store).get_device_list(devices); }
    static json element(const json& list, const std::string& sbdf) {
        for (const auto& e : list) {
            if (e["PCIeInfo"]["SBDF"] == sbdf) return e;
        }
        ADD_FAILURE() << sbdf << " is not listed";
        return json::object();
    }
    static json range(unsigned first, unsigned count, bool descending = false) {
        json lanes = json::array();
        for (unsigned i = 0; i < count; ++i) lanes.push_back(descending ? first + count - 1 - i : first + i);
        return lanes;
    }

    gui_test::ModelMachine machine;
    GUIResourceStore& store = machine.store;
    const std::vector<PCIDeviceDetails>& devices = machine.devices;
};

struct Expected {
    const char* sbdf;
    const char* speed;
    const char* width;
    bool bridge;
    bool margin;         // 16 or 32 GT/s and passes the pre-check
    unsigned receiver;   // 0: none offered
    const char* serdes;  // nullptr: not a mapped port
};

// Host bridges and the dies' own functions have no readable link speed and
// are left out; the order is that of the scan.
const Expected kMachine[] = {
    {"0:0:1.0", "16 GT/s", "x16", true, true, 1, "P0"},
    {"0:0:1.1", "2.5 GT/s", "", true, false, 1, "P4"},  // slot without a card: no width
    {"0:1:0.0", "16 GT/s", "x16", true, true, 6, nullptr},  // switch upstream port
    {"0:2:0.0", "16 GT/s", "x4", true, true, 1, nullptr},   // switch downstream ports
    {"0:2:1.0", "8 GT/s", "x8", true, false, 1, nullptr},
    {"0:2:2.0", "2.5 GT/s", "", true, false, 1, nullptr},
    {"0:3:0.0", "16 GT/s", "x4", false, true, 6, nullptr},
    {"0:4:0.0", "8 GT/s", "x8", false, false, 6, nullptr},
    {"0:4:0.1", "8 GT/s", "x8", false, false, 6, nullptr},
    {"0:40:1.0", "32 GT/s", "x16", true, true, 1, "P2"},
    {"0:41:0.0", "32 GT/s", "x16", false, true, 6, nullptr},
    {"0:41:0.1", "32 GT/s", "x16", false, false, 6, nullptr},  // margining lives on function 0
    {"0:80:1.0", "32 GT/s", "x16", true, true, 1, "P0"},
    {"0:80:2.0", "32 GT/s", "x8", true, true, 1, "P1"},  // x16 slot of a x8 card
    {"0:81:0.0", "32 GT/s", "x16", false, true, 6, nullptr},
    {"0:82:0.0", "32 GT/s", "x8", false, true, 6, nullptr},
    {"0:c0:1.0", "16 GT/s", "x4", true, true, 1, "P2"},
    {"0:c0:2.0", "8 GT/s", "x8", true, false, 1, "G2"},
    {"0:c1:0.0", "16 GT/s", "x4", false, true, 6, nullptr},
    {"0:c2:0.0", "8 GT/s", "x8", false, false, 6, nullptr},
};

TEST_F(PCIEDeviceList, EachFunctionWithAKnownLinkSpeedIsListedAsItStands) {
    const json answer = list();
    ASSERT_EQ(answer.size(), std::size(kMachine));
    for (size_t i = 0; i < std::size(kMachine); ++i) {
        const Expected& x = kMachine[i];
        const json& e = answer[i];
        SCOPED_TRACE(x.sbdf);
        const json& info = e["PCIeInfo"];
        EXPECT_EQ(info["SBDF"], x.sbdf);
        EXPECT_EQ(info["Speed"], x.speed);
        EXPECT_EQ(info["Width"], x.width);
        EXPECT_EQ(info["DeviceType"], x.bridge ? "Bridge" : "Endpoint");
        EXPECT_EQ(info.contains("BridgeInfo"), x.bridge);
        EXPECT_EQ(e["PCIeMarginSupported"], x.margin);
        EXPECT_EQ(e["PCIeMarginData"]["Receivers"], x.receiver ? json::array({x.receiver}) : json::array());
        EXPECT_EQ(e["NonDestMarginSupported"], false);
        const bool mapped = x.serdes != nullptr;
        for (const char* key : {"SERDES", "PCIeCtrlInfo", "EyeScanData", "NonDestMarginData"}) {
            EXPECT_EQ(e.contains(key), mapped) << key;
        }
        EXPECT_EQ(e["EyeScanSupported"], mapped);
        if (mapped) {
            EXPECT_EQ(e["SERDES"]["SERDES"], x.serdes);
        } else {
            const unsigned width = x.width[0] ? std::stoul(x.width + 1) : 0;
            EXPECT_EQ(e["PCIeMarginData"]["Lanes"], range(0, width));
        }
    }
}

// A mapped port's margin lanes are the SerDes lanes of the logical lanes the
// trained link runs on; the eye scan offers all logical lanes, and the
// non-destructive margin the logical lane on each SerDes lane up to the width.
// A x8 card in the reversed x16 slot7 runs on its top lanes.
TEST_F(PCIEDeviceList, MappedPortsOfferTheirSerdesLanes) {
    const json answer = list();
    const struct {
        const char* sbdf;
        json margin_lanes, eye_lanes, nd_lanes;
    } ports[] = {
        {"0:0:1.0", range(0, 16), range(0, 16), range(0, 16)},
        {"0:40:1.0", range(0, 16, true), range(0, 16), range(0, 16, true)},  // SerDes lanes reversed
        {"0:c0:2.0", range(0, 8, true), range(0, 8), range(0, 8, true)},
        {"0:80:2.0", range(8, 8, true), range(0, 16), range(8, 8, true)},
        {"0:0:1.1", json::array(), range(0, 4), json::array()},  // link down: no lanes to margin
    };
    for (const auto& p : ports) {
        SCOPED_TRACE(p.sbdf);
        const json e = element(answer, p.sbdf);
        EXPECT_EQ(e["PCIeMarginData"]["Lanes"], p.margin_lanes);
        EXPECT_EQ(e["EyeScanData"]["Lanes"], p.eye_lanes);
        EXPECT_EQ(e["NonDestMarginData"]["Lanes"], p.nd_lanes);
    }
}

TEST_F(PCIEDeviceList, ElementOfAMappedRootPortInFull) {
    const json ber_eye = {"7.65", "7.345", "7.045", "6.745", "6.445", "6.145", "5.84",
                          "5.54", "5.24",  "4.94",  "4.64",  "4.335", "4.035", "3.735"};
    const std::string die = "Corvane SBDF:0:0:19.0 Socket:1 Die:0";
    const json expected = {
        {"PCIeInfo",
         {{"SBDF", "0:c0:1.0"},
          {"VendorName", "Platform"},
          {"Speed", "16 GT/s"},
          {"Width", "x4"},
          {"MaxSpeed", "32 GT/s"},
          {"MaxWidth", "x4"},
          {"Downtrained", true},
          {"LTSSM", "L0(0x10)"},
          {"DeviceType", "Bridge"},
          {"BridgeInfo", {{"SecondaryBus", 0xC1}, {"SubordinateBus", 0xC1}}}}},
        {"PCIeMarginSupported", true},
        {"PCIeMarginData",
         {{"BER", {"8", "9", "10", "11", "12", "13", "14"}},
          {"ErrCnt", {{"Max", 63}, {"Min", 1}}},
          {"Lanes", {0, 1, 2, 3}},
          {"Receivers", {1}}}},
        {"SERDES", {{"DeviceName", die}, {"SERDES", "P2"}}},
        {"PCIeCtrlInfo", {{"PCIeCore", "PCIE0_nbio1"}, {"Function", 0}, {"DeviceName", die}, {"Port", 0}}},
        {"EyeScanSupported", true},
        {"EyeScanData", {{"BER", ber_eye}, {"Lanes", {0, 1, 2, 3}}}},
        {"NonDestMarginSupported", false},
        {"NonDestMarginData", {{"BER", ber_eye}, {"Lanes", {0, 1, 2, 3}}}},
    };
    EXPECT_EQ(element(list(), "0:c0:1.0"), expected);
}

// What the link can do beside what it does, its state where the platform
// tells it, and why margining is refused.
TEST_F(PCIEDeviceList, LinkCapabilitiesStateAndRefusalReason) {
    const json answer = list();
    const struct {
        const char* sbdf;
        const char* max_speed;
        const char* max_width;
        bool downtrained;
        const char* ltssm;   // nullptr: not known for this function
        const char* reason;  // part of "PCIeMarginUnsupportedReason"; nullptr: margining supported
    } cases[] = {
        {"0:80:2.0", "32 GT/s", "x16", true, "L0(0x10)", nullptr},  // narrower than the slot
        {"0:82:0.0", "32 GT/s", "x8", false, nullptr, nullptr},
        {"0:2:1.0", "16 GT/s", "x8", true, nullptr, "speed is lower than 16 GT/s"},  // slower than it can
        {"0:0:1.1", "32 GT/s", "x4", false, "Detect(0x1)", "speed is lower than 16 GT/s"},  // link down
        {"0:41:0.1", "32 GT/s", "x16", false, nullptr, "lacking Lane Margining feature Capability"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sbdf);
        const json e = element(answer, c.sbdf);
        EXPECT_EQ(e["PCIeInfo"]["MaxSpeed"], c.max_speed);
        EXPECT_EQ(e["PCIeInfo"]["MaxWidth"], c.max_width);
        EXPECT_EQ(e["PCIeInfo"]["Downtrained"], c.downtrained);
        EXPECT_EQ(e["PCIeInfo"].value("LTSSM", ""), c.ltssm ? c.ltssm : "");
        EXPECT_EQ(e.contains("PCIeMarginUnsupportedReason"), c.reason != nullptr);
        if (c.reason) EXPECT_NE(e["PCIeMarginUnsupportedReason"].get<std::string>().find(c.reason), std::string::npos);
    }
    // The platform's own functions, which no ID database names.
    EXPECT_EQ(element(answer, "0:81:0.0")["PCIeInfo"]["VendorName"], "Platform");
}

// The first answer stands for the life of the process, whatever the machine
// or the caller's list does later, until the cache is forgotten; only what a
// link does (speed, width, the lanes offered) is read again.
TEST_F(PCIEDeviceList, FirstAnswerIsServedUntilForgottenButLinksAreLive) {
    const json first = list();
    machine.write->write32(0, 0x00, 1, 0, sim::cfg::kBusNumbers, 0x00090100);  // slot1 now spans buses 1 to 9
    EXPECT_EQ(list(), first);
    EXPECT_EQ(GUIPCIEGetDevice(store).get_device_list({}), first);

    unsigned at = 0, id = 0;  // the PCI Express capability of 0:40:1.0, whose link is then disabled
    machine.read->read8(0, 0x40, 1, 0, 0x34, at);
    for (; at && (machine.read->read8(0, 0x40, 1, 0, at, id), id != 0x10);) machine.read->read8(0, 0x40, 1, 0, at + 1, at);
    ASSERT_NE(at, 0u);
    unsigned control = 0;
    machine.read->read16(0, 0x40, 1, 0, at + 0x10, control);
    machine.write->write16(0, 0x40, 1, 0, at + 0x10, control | 0x10);
    const json down = element(list(), "0:40:1.0");
    EXPECT_EQ(down["PCIeInfo"]["Width"], "");
    EXPECT_EQ(down["PCIeMarginData"]["Lanes"], json::array());
    machine.write->write16(0, 0x40, 1, 0, at + 0x10, control);

    GUIPCIEGetDevice::forget_cached_list();
    EXPECT_EQ(element(list(), "0:0:1.0")["PCIeInfo"]["BridgeInfo"]["SubordinateBus"], 9);
}

}  // namespace
