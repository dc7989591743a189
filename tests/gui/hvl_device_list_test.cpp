// The hVL device list over the simulated machines: both ends of each live
// link with their partner, and null on a machine with one socket, without
// holding up the PCIe list afterwards.
#include <gtest/gtest.h>

#include "gui/gui_hvl_get_device.h"
#include "gui/model_machine.h"
#include "simulator/profile.h"

using nlohmann::json;

namespace {

TEST(HVLDeviceList, ListsBothEndsOfEachLiveLinkWithItsPartner) {
    gui_test::ModelMachine machine;
    GUIHVLGetDevice::forget_cached_list();
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
    GUIHVLGetDevice::forget_cached_list();
}

TEST(HVLDeviceList, OneSocketAnswersNullAndTheLockIsFreeAfterwards) {
    json profile = json::parse(sim::default_profile_text());
    profile["sockets"].erase(1);
    profile["hvl_links"] = json::array();
    sim::Platform platform = sim::make_platform(sim::parse_profile(profile), std::nullopt, 1e6);
    platform.install();
    gui_test::ModelMachine::forget_caches();
    GUIHVLGetDevice::forget_cached_list();
    CRNFactory::initalize(platform.read_pci(), platform.write_pci());
    auto devices = DetectPCIDevices()(platform.read_pci());
    GUIResourceStore store("/nonexistent");
    store.store_pcie_device_list(devices, platform.read_pci(), platform.write_pci());
    EXPECT_TRUE(GUIHVLGetDevice(store).get_device_list(devices).is_null());
    EXPECT_TRUE(GUIPCIEGetDevice(store).get_device_list(devices).is_array());
    gui_test::ModelMachine::forget_caches();
    set_system_facts(nullptr);
    set_gfx_accessor_maker(nullptr);
}

}  // namespace
