// The ASPM panel over the model's links: detection finds every link once
// with the class its ends call for, both ends change together and read
// back, entry timers take every selection on the end that holds them, and
// control registers survive a save and restore.
#include <gtest/gtest.h>

#include "gui/model_machine.h"
#include "hardware/chips/aspm_timers.h"
#include "hardware/os_specific.h"
#include "panels/pci_device.h"
#include "panels/pcie_aspm_gui_interface.h"

using nlohmann::json;

namespace {

class AspmPanel : public ::testing::Test {
protected:
    AspmPanel()
        : panel([this]() -> std::optional<PanelMachine> {
              return PanelMachine{machine.devices, machine.store.get_die_list(), machine.read, machine.write};
          }) {}
    json row(int index) { return panel.GetPCIEASPMInfo().at(index); }
    int index_of(const std::string& port) {
        const json info = panel.GetPCIEASPMInfo();
        for (const json& r : info)
            if (r["Port"]["SBDF"] == port) return r["id"];
        return -1;
    }

    gui_test::ModelMachine machine;
    PCIEASPMGUIInterface panel;
};

TEST_F(AspmPanel, DetectionListsEveryLinkOnceWithTheClassItsEndsCallFor) {
    struct Expected {
        const char* port;
        const char* device;
        const char* kind;
        const char* timer_end;
    };
    // The platform's root ports first, then the link to the platform's
    // accelerator (the port above it is the platform's too), then the
    // switch's downstream ports; ports without a device are left out.
    const Expected expected[] = {
        {"0:0:1.0", "0:1:0.0", "Platform root port", "Port"},  {"0:40:1.0", "0:41:0.0", "Platform root port", "Port"},
        {"0:80:2.0", "0:82:0.0", "Platform root port", "Port"}, {"0:c0:1.0", "0:c1:0.0", "Platform root port", "Port"},
        {"0:c0:2.0", "0:c2:0.0", "Platform root port", "Port"}, {"0:80:1.0", "0:81:0.0", "Platform endpoint", "Device"},
        {"0:2:0.0", "0:3:0.0", "PCI Express", ""},             {"0:2:1.0", "0:4:0.0", "PCI Express", ""},
    };
    const json info = panel.GetPCIEASPMInfo();
    ASSERT_EQ(info.size(), std::size(expected));
    for (size_t i = 0; i < info.size(); ++i) {
        const json& r = info[i];
        const Expected& e = expected[i];
        SCOPED_TRACE(e.port);
        EXPECT_EQ(r["id"], i);
        EXPECT_EQ(r["Port"]["SBDF"], e.port);
        EXPECT_EQ(r["Device"]["SBDF"], e.device);
        EXPECT_EQ(r["Kind"], e.kind);
        EXPECT_EQ(r["TimerEnd"], e.timer_end);
        const bool timers = *e.timer_end != '\0';
        EXPECT_EQ(r["L0TimerValues"].size(), timers ? 16u : 0u);
        EXPECT_EQ(r["L1TimerValues"].size(), timers ? 16u : 0u);
        // What firmware left: L0s after 1 us, L1 after 32 us.
        EXPECT_EQ(r["L0TimerIndex"], timers ? 10 : -1);
        EXPECT_EQ(r["L1TimerIndex"], timers ? 6 : -1);
        if (timers) {
            EXPECT_EQ(r["L0TimerValues"][10], "1 us");
            EXPECT_EQ(r["L1TimerValues"][6], "32 us");
        }
    }
}

struct Toggle {
    const char* name;
    const char* key;  // "L0s", "L1", "L11", "L12"
    bool (PCIEASPMGUIInterface::*call)(int, bool);
};

TEST_F(AspmPanel, EveryStateTurnsOnAndOffOnBothEndsOfEveryLink) {
    const json info = panel.GetPCIEASPMInfo();
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
                EXPECT_TRUE((panel.*t.call)(index, value)) << link << " " << t.name << " " << value;
                const json r = row(index);
                EXPECT_EQ(r[enabled], value) << link << " " << t.name;
                EXPECT_EQ(r["Port"][enabled], value) << link << " " << t.name << " port end";
                EXPECT_EQ(r["Device"][enabled], value) << link << " " << t.name << " device end";
            }
        }
    }
    EXPECT_FALSE(panel.OnL1EnabledToggled(static_cast<int>(info.size()), true)) << "a row past the list";
}

// A root port's register on its die, found as the chip tables place it.
std::shared_ptr<Register> port_register(gui_test::ModelMachine& m, const std::string& sbdf, const std::string& name) {
    const auto id = *parse_sbdf_string(sbdf);
    const auto [die, map] = get_mapped_device(id.segment, id.bus, id.device, id.function,
                                              get_all_port_data(m.store.get_die_list(), m.devices, m.read));
    return make_register_store(die.name(), std::make_shared<PhyAccessor>(CRNFactory::instance()->get_crn_accessor(die)))
        ->get_pcie_core_func_register(name, map.core, map.function_index);
}

// The timer word as the hardware holds it, read past the panel: the root
// port's register, or the endpoint's capability.
unsigned timer_word(gui_test::ModelMachine& m, const json& row) {
    namespace aspm = chips::aspm;
    if (row["TimerEnd"] == "Port") return port_register(m, row["Port"]["SBDF"], aspm::kRootPortRegister)->read();
    CPCIDevice device(*parse_sbdf_string(row["Device"]["SBDF"]), m.read, m.write);
    for (const CPCICaps& c : device.extended_capabilities())
        if (c.GetCapsID() == aspm::kExtCapVendorSpecific) return device.read(c.GetCapsOffset() + aspm::kEndpointControl, 4);
    return 0xFFFFFFFFu;
}

TEST_F(AspmPanel, TimersTakeEverySelectionOnTheEndThatHoldsThemAndLeaveTheOtherTimer) {
    struct Timer {
        const char* name;
        const char* values;
        const char* index;
        const char* other_index;
        unsigned shift, other_shift;
        bool (PCIEASPMGUIInterface::*set)(int, int, const std::string&);
    };
    const Timer timers[] = {
        {"L0s", "L0TimerValues", "L0TimerIndex", "L1TimerIndex", 8, 12, &PCIEASPMGUIInterface::OnL0TimerIndexChanged},
        {"L1", "L1TimerValues", "L1TimerIndex", "L0TimerIndex", 12, 8, &PCIEASPMGUIInterface::OnL1TimerIndexChanged},
    };
    for (const char* port : {"0:40:1.0", "0:80:1.0"}) {
        const int index = index_of(port);
        ASSERT_GE(index, 0) << port;
        for (const Timer& t : timers) {
            SCOPED_TRACE(std::string(port) + " " + t.name);
            const json before = row(index);
            for (int entry = 0; entry < 16; ++entry) {
                const std::string text = before[t.values][entry];
                ASSERT_TRUE((panel.*t.set)(index, entry, text)) << text;
                const json after = row(index);
                EXPECT_EQ(after[t.index], entry);
                EXPECT_EQ(after[t.other_index], before[t.other_index]);
                const unsigned word = timer_word(machine, after);
                EXPECT_EQ((word >> t.shift) & 0xF, static_cast<unsigned>(entry)) << "the hardware's field";
                EXPECT_EQ((word >> t.other_shift) & 0xF, static_cast<unsigned>(before[t.other_index].get<int>()));
            }
            const std::string first = before[t.values][1];
            EXPECT_FALSE((panel.*t.set)(index, 1, "not " + first)) << "a text that names another entry";
            EXPECT_FALSE((panel.*t.set)(index, 16, "Disabled")) << "past the list";
            EXPECT_FALSE((panel.*t.set)(index, -1, "Disabled"));
            EXPECT_EQ(row(index)[t.index], 15) << "refusals changed the timer";
        }
    }
    EXPECT_FALSE(panel.OnL0TimerIndexChanged(index_of("0:2:0.0"), 0, "Disabled")) << "a plain link has no timers";
    EXPECT_FALSE(panel.OnL1TimerIndexChanged(99, 0, "Disabled")) << "a row past the list";
}

// An idle link goes to L1 once the entry timers of its ends have run out
// (the later of the two), a busy one never; a request across it wakes it.
TEST_F(AspmPanel, AnIdleLinkEntersL1WhenItsEntryTimersRunOut) {
    struct Case {
        const char* name;
        const char* port;
        const char* l1_timer;           // the entry the link's timer end is set to
        const char* port_timer;         // the root port's own, where the timer end is the device; "" otherwise
        unsigned before_ms, after_ms;   // idle time at which it must still be in L0, and must be in L1 (0: never)
    };
    const Case cases[] = {
        {"root port timer 1 ms", "0:c0:1.0", "1 ms", "", 0, 2},
        {"root port timer 4 ms", "0:c0:1.0", "4 ms", "", 3, 5},
        {"root port timer off", "0:c0:1.0", "Disabled", "", 50, 0},
        {"busy device", "0:40:1.0", "1 us", "", 50, 0},
        {"endpoint 10 ms, port 1 us", "0:80:1.0", "10 ms", "1 us", 8, 12},
        {"endpoint 1 us, port 4 ms", "0:80:1.0", "1 us", "4 ms", 3, 5},
    };
    const auto in_l1 = [&](const std::string& port) {
        return (port_register(machine, port, "PCIE_LC_STATE0")->read() & 0x3F) == 0x18;
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const int index = index_of(c.port);
        json r = row(index);
        const auto entry = [](const json& values, const std::string& text) {
            return static_cast<int>(std::find(values.begin(), values.end(), text) - values.begin());
        };
        ASSERT_TRUE(panel.OnL1TimerIndexChanged(index, entry(r["L1TimerValues"], c.l1_timer), c.l1_timer));
        if (*c.port_timer) {
            const unsigned code = entry(r["L1TimerValues"], c.port_timer);
            const auto reg = port_register(machine, c.port, chips::aspm::kRootPortRegister);
            reg->write((reg->read() & ~0xF000u) | code << 12);
        }
        ASSERT_TRUE(panel.OnL1EnabledToggled(index, true));  // a request to the device: the idle time starts here
        OSSpecific().milli_secs_sleep(c.before_ms);
        EXPECT_FALSE(in_l1(c.port)) << "after " << c.before_ms << " ms";
        if (c.after_ms) {
            OSSpecific().milli_secs_sleep(c.after_ms - c.before_ms);
            EXPECT_TRUE(in_l1(c.port)) << "after " << c.after_ms << " ms";
            row(index);  // reads the device's registers across the link
            EXPECT_FALSE(in_l1(c.port)) << "a request woke it";
        }
        ASSERT_TRUE(panel.OnL1EnabledToggled(index, false));
    }
}

TEST(AspmPanelWithoutSubstates, ALinkWhoseDeviceLacksThemRefusesAndTouchesNeitherEnd) {
    sim::Profile profile = sim::load_platform("", std::nullopt, 1e5).profile();
    auto& first_port = profile.sockets.at(0).root_complexes.at(0).root_ports.at(0);
    auto child = std::make_shared<sim::DeviceProfile>(*first_port.child);
    child->functions.at(0).capabilities.l1_pm_substates = false;
    first_port.child = child;
    const sim::Platform platform = sim::make_platform(profile, std::nullopt, 1e5);
    // Without dies no root port counts as the platform's: the accelerator's
    // link comes first, then the plain links in address order.
    PCIEASPMGUIInterface panel(platform.model().present_functions(), platform.read_pci(), platform.write_pci());
    const json before = panel.GetPCIEASPMInfo().at(1);
    ASSERT_EQ(before["Port"]["SBDF"], "0:0:1.0");
    ASSERT_EQ(before["TimerEnd"], "");
    ASSERT_TRUE(before["Port"]["L11Capable"]);
    ASSERT_FALSE(before["Device"]["L11Capable"]);
    EXPECT_FALSE(before["L11Capable"]);
    EXPECT_FALSE(panel.OnL11EnabledToggled(1, true));
    EXPECT_FALSE(panel.OnL12EnabledToggled(1, true));
    EXPECT_EQ(panel.GetPCIEASPMInfo().at(1), before) << "a refused enable changed an end";
    EXPECT_TRUE(panel.OnL1EnabledToggled(1, true)) << "L1 itself stays available";
}

TEST_F(AspmPanel, SavedControlRegistersComeBackAfterChanges) {
    const auto port = parse_sbdf_string(row(0)["Port"]["SBDF"]);
    ASSERT_TRUE(port);
    CPCIDevice device(*port, machine.read, machine.write);
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
