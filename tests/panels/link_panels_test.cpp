// The link model and the two link panels over the simulated machine, with
// faults on some of its links.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "discovery/ltssm_state.h"
#include "discovery/pci_detection.h"
#include "discovery/pcie_core_info.h"
#include "gui/model_machine.h"
#include "hardware/chips/server_registers.h"
#include "hardware/crn_factory.h"
#include "hardware/os_specific.h"
#include "panels/pcie_link_control_gui_interface.h"
#include "panels/pcie_port_status_gui_interface.h"
#include "support/case_name.h"

using nlohmann::json;

namespace {

class LinkPanels : public ::testing::Test {
protected:
    LinkPanels() { std::filesystem::remove_all(reports); }
    ~LinkPanels() override { std::filesystem::remove_all(reports); }
    PanelMachineSource source() {
        return [this]() -> std::optional<PanelMachine> { return machine; };
    }
    const LinkPort& port(unsigned bus, unsigned device) {
        for (const LinkPort& p : ports)
            if (p.device.bus == bus && p.device.device == device) return p;
        throw std::runtime_error("no port");
    }
    int index(unsigned bus, unsigned device) {
        for (size_t i = 0; i < ports.size(); ++i)
            if (ports[i].device.bus == bus && ports[i].device.device == device) return static_cast<int>(i);
        return -1;
    }
    CPCIELink link(unsigned bus, unsigned device) { return CPCIELink(port(bus, device), read, write); }
    unsigned config16(unsigned bus, unsigned device, unsigned offset) {
        unsigned value = 0;
        read->read16(0, bus, device, 0, offset, value);
        return value;
    }
    // A port's link controller register (offset in its window) and its core's enable.
    unsigned window(const LinkPort& p, unsigned offset) {
        const auto cores = get_pcie_core_generic_info(p.die);
        return CRNFactory::instance()->get_crn_accessor(p.die)->read32(
            cores->get_port_base_address(p.core, p.function_index) + chips::server_io::kPortLinkControlWindow + offset);
    }
    unsigned core_enable(const LinkPort& p) {
        const auto cores = get_pcie_core_generic_info(p.die);
        return CRNFactory::instance()->get_crn_accessor(p.die)->read32(cores->get_core_base_address(p.core) +
                                                                       chips::server_io::kCoreLinkReconfigureOffset);
    }

    gui_test::ModelMachine model{
        lw_test::Profile()
            .fault({{"type", "link_speed_fail"}, {"device", "accelerator"}, {"speed", 32}})
            .fault({{"type", "link_aer_errors"}, {"device", "nvme1"}, {"every", 2}, {"error", "receiver"}})
            .fault({{"type", "link_no_return"}, {"device", "raid"}, {"return_ms", 60000}})
            .fault({{"type", "link_flap"}, {"device", "nvme0"}, {"period_ms", 30}})};
    std::shared_ptr<ReadPCI> read = model.read;
    std::shared_ptr<WritePCI> write = model.write;
    PanelMachine machine{model.devices, model.store.get_die_list(), read, write};
    std::vector<LinkPort> ports = detect_link_ports(machine, get_all_port_data(machine.dies, model.devices, read));
    // One folder per process: ctest runs cases side by side.
    std::string reports =
        (std::filesystem::temp_directory_path() / ("links_panel_reports_" + std::to_string(::getpid()))).string();
};

TEST_F(LinkPanels, SpeedChangesThroughTheCapabilityAndTheLinkController) {
    struct Case {
        const char* name;
        unsigned bus, device;
        bool upstream_path;
        int speed;
        bool succeeds;
        int runs_at;
    };
    const Case cases[] = {
        {"down to 16 GT/s", 0x40, 1, false, PCIE_GEN4, true, PCIE_GEN4},
        {"back up to 32 GT/s", 0x40, 1, false, PCIE_GEN5, true, PCIE_GEN5},
        {"down by the link controller", 0x40, 1, true, PCIE_GEN3, true, PCIE_GEN3},
        {"up by the link controller", 0x40, 1, true, PCIE_GEN5, true, PCIE_GEN5},
        {"above what the device does", 0xC0, 2, false, PCIE_GEN4, false, PCIE_GEN3},
        {"a link that fails at 32 GT/s stays at 16", 0x80, 1, false, PCIE_GEN5, false, PCIE_GEN4},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CPCIELink l = link(c.bus, c.device);
        std::string error;
        const bool ok = c.upstream_path ? l.SetPCIELinkSpeedUpstream(c.speed, error) : l.SetPCIELinkSpeed(c.speed, error);
        EXPECT_EQ(ok, c.succeeds) << error;
        EXPECT_EQ(ok, error.empty()) << error;
        int speed = -1;
        ASSERT_TRUE(l.GetPCIELinkSpeed(speed));
        EXPECT_EQ(speed, c.runs_at);
        if (c.upstream_path) {
            const LinkPort& p = port(c.bus, c.device);
            const unsigned change = window(p, 0x414), control = window(p, 0x290);
            EXPECT_EQ(change & 0x4F, 0x09u) << "bits 0 and 3 set, 1, 2 and 6 clear";
            EXPECT_EQ(control & 0xF800, static_cast<unsigned>(c.speed) << 12 | 0x800);
            EXPECT_EQ(window(p, 0x2D4) & (1u << 30), 0u) << "the advertisement was taken";
        }
    }
    // Each retrain went through Recovery back to L0, newest first.
    const LinkPort& p = port(0x40, 1);
    const auto history = GetCurrentLTSSMState().get_full_lc_state_list(p.die, p.core, p.function_index);
    ASSERT_EQ(history.size(), 48u);
    EXPECT_EQ(history[0], "State 0: L0 (0x10)");
    EXPECT_EQ(history[1], "State 1: Recovery (0x22)");
    EXPECT_EQ(history[4], "State 4: L0 (0x10)");
    EXPECT_EQ(window(p, 0x294), 0x10u) << "the LC state register reads L0";
}

TEST_F(LinkPanels, WidthReconfigurationOnAPlatformPortRestoresItsRegisters) {
    CPCIELink l = link(0x40, 1);
    const LinkPort& p = port(0x40, 1);
    const unsigned width_before = window(p, 0x288);
    struct Case {
        PCIE_LINK_WIDTH width;
        bool supported;
    };
    for (const Case& c : {Case{PCIE_X1, true}, Case{PCIE_X4, true}, Case{PCIE_X12, false}, Case{PCIE_X16, true},
                          Case{static_cast<PCIE_LINK_WIDTH>(7), false}})
        EXPECT_EQ(l.IsLinkSupported(c.width), c.supported) << c.width;
    EXPECT_FALSE(link(0xC0, 1).IsLinkSupported(PCIE_X8)) << "an x4 port";

    for (PCIE_LINK_WIDTH width : {PCIE_X4, PCIE_X16}) {
        std::string error;
        EXPECT_TRUE(l.SetLinkWidth(width, error)) << error;
        unsigned lanes = 0;
        ASSERT_TRUE(l.GetLinkWidth(lanes));
        EXPECT_EQ(lanes, lanes_of(width));
        EXPECT_EQ(core_enable(p), 0u) << "the core's enable is restored";
        EXPECT_EQ(window(p, 0x288) & (0x20400u | 0x100u), width_before & 0x20400u) << "bits 10 and 17 restored";
    }
    std::string error;
    EXPECT_FALSE(link(0xC0, 1).SetLinkWidth(PCIE_X8, error));
    EXPECT_NE(error, "");
}

TEST_F(LinkPanels, ResetAndDisableHideTheDeviceUntilTheLinkIsBack) {
    struct Case {
        const char* name;
        unsigned bus, device;
        bool reset;
        bool returns;
    };
    for (const Case& c : {Case{"reset below a switch", 0x00, 1, true, true},
                          Case{"disable", 0x40, 1, false, true},
                          Case{"a device that does not return", 0xC0, 2, true, false}}) {
        SCOPED_TRACE(c.name);
        CPCIELink l = link(c.bus, c.device);
        const unsigned below = l.port().secondary_bus;
        ASSERT_NE(config16(below, 0, 0), 0xFFFFu);
        std::string error;
        ASSERT_TRUE(c.reset ? l.SetSecondaryBusReset(true, error) : l.SetLinkDisable(true, error)) << error;
        EXPECT_EQ(config16(below, 0, 0), 0xFFFFu) << "all ones while held";
        EXPECT_FALSE(l.IsLinkUp());
        ASSERT_TRUE(c.reset ? l.SetSecondaryBusReset(false, error) : l.SetLinkDisable(false, error)) << error;
        OSSpecific().milli_secs_sleep(100);
        EXPECT_EQ(config16(below, 0, 0) != 0xFFFFu, c.returns);
        EXPECT_EQ(l.IsLinkUp(), c.returns);
    }
    const LinkPort& p = port(0x00, 1);
    const auto history = GetCurrentLTSSMState().get_full_lc_state_list(p.die, p.core, p.function_index);
    EXPECT_EQ(history[5], "State 5: HotReset (0x26)");
}

struct LoopCase {
    const char* name;
    unsigned bus, device;
    int mode;  // 0 disable/enable, 1 bus reset, 2 retrain
    int loops;
    bool stop_on_aer;
    int max_wait_index;
    // expected
    unsigned loop_count;
    int success;  // -1: depends on when the link flaps
    bool failures;
    const char* count_key;  // a failure cause that must be counted, or ""
    const char* log_text;   // a text the run's log must hold
};
LW_PRINT_BY_NAME(LoopCase)

class LinkStressLoops : public LinkPanels, public ::testing::WithParamInterface<LoopCase> {};

TEST_P(LinkStressLoops, RunEndsWithItsCountsPushed) {
    const LoopCase& c = GetParam();
    PCIEPortStatusGUIInterface panel(source(), reports);
    std::vector<json> pushes;
    panel.set_push([&](const json& message) { pushes.push_back(message); });
    panel.OnPortSelectCurrentIndexChanged(index(c.bus, c.device));
    json settings;
    panel.GetContLoopSettingsInfo(settings);
    settings["settingsSelection"]["selectedIndex"] = c.mode;
    settings["continuousRun"]["selectedIndex"] = 8;  // 50 msec
    settings["maxWait"]["selectedIndex"] = c.max_wait_index;
    settings["loopCount"]["value"] = c.loops;
    settings["stopOnAERError"]["checked"] = c.stop_on_aer;
    panel.StartContinuousRun(settings);

    ASSERT_FALSE(pushes.empty());
    std::string log;
    for (const json& push : pushes) {
        ASSERT_EQ(push["key"], "contRunPortStatusUpdates");
        log += push["contRunPortStatusUpdates"]["logs"].get<std::string>();
    }
    const json counts = pushes.back()["contRunPortStatusUpdates"]["counts"];
    EXPECT_EQ(counts["loopCount"], c.loop_count) << log;
    if (c.success >= 0) EXPECT_EQ(counts["successCount"], c.success) << log;
    EXPECT_EQ(counts["failureCount"].get<unsigned>() > 0, c.failures) << log;
    if (*c.count_key) EXPECT_GT(counts[c.count_key].get<unsigned>(), 0u) << log;
    EXPECT_FALSE(counts["running"].get<bool>());
    EXPECT_NE(log.find(c.log_text), std::string::npos) << log;
    EXPECT_NE(log.find("Summary: LoopCount="), std::string::npos) << "the summary is always pushed";
    // Whoever reads the link next finds it as the run found it, or the log says it isn't.
    if (c.loop_count > 0)
        EXPECT_EQ(link(c.bus, c.device).IsLinkUp(), log.find("The link is not back") == std::string::npos) << log;
    EXPECT_TRUE(claim_link_port(port(c.bus, c.device).device)) << "the run released its port";
    release_link_port(port(c.bus, c.device).device);
}

INSTANTIATE_TEST_SUITE_P(
    Modes, LinkStressLoops,
    ::testing::Values(
        LoopCase{"DisableEnable", 0x40, 1, 0, 7, false, 0, 7, 4, false, "", "Disabling.."},
        LoopCase{"BusResetOnTheSwitchPort", 0x00, 1, 1, 6, false, 0, 6, 3, false, "", "Reset completed.."},
        LoopCase{"Retrain", 0x40, 1, 2, 5, false, 0, 5, 5, false, "", "RETRAIN_LINK to 1.."},
        LoopCase{"FlappingLinkCountsFailures", 0x02, 0, 2, 12, false, 0, 12, -1, true, "linkStatusMismatchFail",
                 "Link Status Mismatch"},
        LoopCase{"StopOnAerEndsAtTheInjectedError", 0xC0, 1, 2, 20, true, 0, 2, 2, true, "aerErrorFail", "AER Error"},
        LoopCase{"DeviceNeverReturnsEndsAtMaxWait", 0xC0, 2, 1, 20, false, 7, 9, 1, true, "maxWaitFail",
                 "hit MaxWait Time"},
        LoopCase{"UnfitLinkIsRefused", 0x80, 1, 0, 5, false, 0, 0, 0, false, "", "not Enabled with Max Speed:32 GT/s"}),
    lw_test::by_name);

TEST_F(LinkPanels, StopEndsAnEndlessRunAndTwoRunsNeverShareAPort) {
    PCIEPortStatusGUIInterface panel(source(), reports);
    std::vector<json> pushes;
    std::mutex pushes_mutex;
    panel.set_push([&](const json& message) {
        std::lock_guard<std::mutex> lock(pushes_mutex);
        pushes.push_back(message);
    });
    panel.OnPortSelectCurrentIndexChanged(index(0x40, 1));
    json settings;
    panel.GetContLoopSettingsInfo(settings);
    settings["settingsSelection"]["selectedIndex"] = 2;
    settings["continuousRun"]["selectedIndex"] = 8;
    std::thread run([&] { panel.StartContinuousRun(settings); });
    while (panel.panel().loop_count < 3) std::this_thread::yield();

    // The link control panel may not touch the port meanwhile.
    PCIELinkControlGUIInterface control(source());
    const json rows = control.GetPCIELinkControlInfo()["ports"];
    int row = -1;
    for (const json& r : rows)
        if (r["SBDF"] == "0:40:1.0") row = r["key"];
    ASSERT_GE(row, 0);
    control.GetPCIELinkPortInfo(row);
    const json refused = control.OnLinkSpeedChange(PCIE_GEN4);
    EXPECT_FALSE(refused["OperationStatus"]);
    EXPECT_EQ(refused["ErrMsg"], "A stress run is using this port");
    EXPECT_EQ(panel.GetPCIEPortInfo()["portSelection"]["enabled"], false);

    panel.StopContinuousRun();
    run.join();
    std::lock_guard<std::mutex> lock(pushes_mutex);
    EXPECT_NE(pushes.back()["contRunPortStatusUpdates"]["logs"].get<std::string>().find("Summary: LoopCount="),
              std::string::npos);
    EXPECT_TRUE(control.OnLinkSpeedChange(PCIE_GEN4)["OperationStatus"]) << "free again after the stop";
}

TEST_F(LinkPanels, LinkControlRunWalksTheSpeedBetweenItsLimits) {
    PCIELinkControlGUIInterface control(source());
    std::vector<json> pushes;
    control.set_push([&](const json& message) { pushes.push_back(message); });
    int row = -1;
    const json rows = control.GetPCIELinkControlInfo()["ports"];
    for (const json& r : rows)
        if (r["SBDF"] == "0:c0:1.0") row = r["key"];
    ASSERT_GE(row, 0);
    json info = control.GetPCIELinkPortInfo(row)["linkControlInfo"];
    info["linkSpeedLower"]["selectedValue"] = "8 Gt/s";
    info["contRunIntervals"]["selectedValue"] = "50 msec";
    info["loopCount"]["value"] = 4;
    control.OnContinuousRunToggled(info);

    ASSERT_EQ(pushes.size(), 5u) << "one per tick and the last";
    std::vector<std::string> speeds;
    for (size_t i = 0; i + 1 < pushes.size(); ++i) speeds.push_back(pushes[i]["linkControlData"]["port"]["Link Speed"]);
    EXPECT_EQ(speeds, (std::vector<std::string>{"8 GT/s", "16 GT/s", "8 GT/s", "16 GT/s"}));
    const json last = pushes.back()["linkControlData"];
    EXPECT_FALSE(last["running"]);
    EXPECT_EQ(last["loopCount"], 4);
    EXPECT_EQ(last["failureCount"], 0) << last.dump();
}

}  // namespace
