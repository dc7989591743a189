// The ASPM panel over the model's links: both ends change together, in
// order, and what was changed reads back; control registers survive a
// save and restore.
#include <gtest/gtest.h>

#include "panels/pci_device.h"
#include "panels/pcie_aspm_gui_interface.h"
#include "simulator/platform.h"

using nlohmann::json;

namespace {

class AspmPanel : public ::testing::Test {
protected:
    void SetUp() override {
        platform = std::make_unique<sim::Platform>(sim::load_platform("", std::nullopt, 1e5));
        devices = platform->model().present_functions();
        panel = std::make_unique<PCIEASPMGUIInterface>(devices, platform->read_pci(), platform->write_pci());
    }
    json row(int index) { return panel->GetPCIEASPMInfo().at(index); }

    std::unique_ptr<sim::Platform> platform;
    std::vector<PCIDeviceDetails> devices;
    std::unique_ptr<PCIEASPMGUIInterface> panel;
};

struct Toggle {
    const char* name;
    const char* key;  // "L0s", "L1", "L11", "L12"
    bool (PCIEASPMGUIInterface::*call)(int, bool);
};

TEST_F(AspmPanel, EveryStateTurnsOnAndOffOnBothEndsOfEveryLink) {
    const json info = panel->GetPCIEASPMInfo();
    // Every up link of the default machine: root ports and switch downstream ports with a device.
    ASSERT_GE(info.size(), 4u);
    const Toggle toggles[] = {{"L0s", "L0s", &PCIEASPMGUIInterface::OnL0sEnabledToggled},
                              {"L1", "L1", &PCIEASPMGUIInterface::OnL1EnabledToggled},
                              {"L1.1", "L11", &PCIEASPMGUIInterface::OnL11EnabledToggled},
                              {"L1.2", "L12", &PCIEASPMGUIInterface::OnL12EnabledToggled}};
    for (int index = 0; index < static_cast<int>(info.size()); ++index) {
        const std::string link = info[index]["Port"]["SBDF"].get<std::string>() + " -> " +
                                 info[index]["Device"]["SBDF"].get<std::string>();
        for (const Toggle& t : toggles) {
            const std::string capable = std::string(t.key) + "Capable", enabled = std::string(t.key) + "Enabled";
            ASSERT_TRUE(row(index)[capable]) << link << " " << t.name;
            for (bool value : {true, false}) {
                EXPECT_TRUE((panel.get()->*t.call)(index, value)) << link << " " << t.name << " " << value;
                const json r = row(index);
                EXPECT_EQ(r[enabled], value) << link << " " << t.name;
                EXPECT_EQ(r["Port"][enabled], value) << link << " " << t.name << " port end";
                EXPECT_EQ(r["Device"][enabled], value) << link << " " << t.name << " device end";
            }
        }
        EXPECT_EQ(row(index)["L0TimerValues"], json::array());
    }
    EXPECT_FALSE(panel->OnL1EnabledToggled(static_cast<int>(info.size()), true)) << "a row past the list";
    EXPECT_FALSE(panel->OnL0TimerIndexChanged(0, 0, "1 us")) << "links offer no timers to choose";
}

TEST(AspmPanelWithoutSubstates, ALinkWhoseDeviceLacksThemRefusesAndTouchesNeitherEnd) {
    sim::Profile profile = sim::load_platform("", std::nullopt, 1e5).profile();
    auto& first_port = profile.sockets.at(0).root_complexes.at(0).root_ports.at(0);
    auto child = std::make_shared<sim::DeviceProfile>(*first_port.child);
    child->functions.at(0).capabilities.l1_pm_substates = false;
    first_port.child = child;
    const sim::Platform platform = sim::make_platform(profile, std::nullopt, 1e5);
    PCIEASPMGUIInterface panel(platform.model().present_functions(), platform.read_pci(), platform.write_pci());
    const json before = panel.GetPCIEASPMInfo().at(0);
    ASSERT_TRUE(before["Port"]["L11Capable"]);
    ASSERT_FALSE(before["Device"]["L11Capable"]);
    EXPECT_FALSE(before["L11Capable"]);
    EXPECT_FALSE(panel.OnL11EnabledToggled(0, true));
    EXPECT_FALSE(panel.OnL12EnabledToggled(0, true));
    EXPECT_EQ(panel.GetPCIEASPMInfo().at(0), before) << "a refused enable changed an end";
    EXPECT_TRUE(panel.OnL1EnabledToggled(0, true)) << "L1 itself stays available";
}

TEST_F(AspmPanel, SavedControlRegistersComeBackAfterChanges) {
    const auto port = parse_sbdf_string(row(0)["Port"]["SBDF"]);
    ASSERT_TRUE(port);
    CPCIDevice device(*port, platform->read_pci(), platform->write_pci());
    toollib::CPCIECaps caps(device);
    const unsigned at = caps.offset();
    const unsigned before_link = device.read(at + 0x10, 2), before_device = device.read(at + 0x08, 2);
    caps.SaveControlRegs();
    ASSERT_TRUE(caps.SetASPML1Enabled(true));
    ASSERT_TRUE(caps.SetASPML0sEnabled(true));
    device.write(at + 0x08, 2, before_device ^ 0x1);  // correctable error reporting
    ASSERT_NE(device.read(at + 0x10, 2), before_link);
    caps.RestoreControlRegs();
    EXPECT_EQ(device.read(at + 0x10, 2), before_link);
    EXPECT_EQ(device.read(at + 0x08, 2), before_device);
}

TEST(AspmTimerText, UnitsFollowTheValue) {
    const std::pair<unsigned, const char*> cases[] = {
        {999, "999 ns"}, {1000, "1 us"}, {999999, "999 us"}, {1000000, "1 ms"}, {0xFFFFFFFFu, "Disabled"}, {0, "0 ns"}};
    for (const auto& [value, text] : cases) EXPECT_EQ(PCIEASPMGUIInterface::GetTimerValueStr(value), text) << value;
    EXPECT_EQ(PCIEASPMGUIInterface().GetPCIEASPMInfo(), json::array()) << "no devices: an empty list";
}

}  // namespace
