// The port map built by the product's own discovery over the default machine.
#include <gtest/gtest.h>

#include <algorithm>

#include "hardware/register_storage.h"
#include "simulator/config_space.h"
#include "support/model_profile.h"

namespace {

// lane l -> l, or width - 1 - l reversed.
std::map<unsigned int, unsigned int> lanes(unsigned width, bool reversed) {
    std::map<unsigned int, unsigned int> map;
    for (unsigned l = 0; l < width; ++l) map[l] = reversed ? width - 1 - l : l;
    return map;
}

class PortMapping : public ::testing::Test {
protected:
    PortMapData build() { return get_all_port_data(dies, devices, read); }
    std::shared_ptr<RegisterStorage> store(unsigned socket) {
        return make_register_store("Corvane",
                                   std::make_shared<PhyAccessor>(model.platform->model().die_accessor(socket, 0)));
    }

    lw_test::BootedModel model;
    std::shared_ptr<ReadPCI> read = model.read();
    const std::vector<PCIDeviceDetails>& devices = model.devices;
    const std::vector<VEX_DIE_INFO>& dies = model.dies;
};

TEST_F(PortMapping, EveryRootPortMapsToItsCoreLinkAndLanes) {
    const struct {
        unsigned bus, device, function, socket;
        const char* core;
        unsigned function_index, port;
        const char* serdes;
        unsigned width;
        bool controller_reversed, serdes_reversed;
        unsigned secondary, subordinate;
        const char* lc_state;
    } expected[] = {
        {0x00, 1, 0, 0, "PCIE0_nbio0", 0, 0, "P0", 16, false, false, 0x01, 0x05, "L0(0x10)"},
        {0x00, 1, 1, 0, "PCIE4_nbio0", 1, 1, "P4", 4, false, false, 0x06, 0x06, "Detect(0x1)"},
        {0x40, 1, 0, 0, "PCIE0_nbio1", 0, 0, "P2", 16, false, true, 0x41, 0x41, "L0(0x10)"},
        {0x80, 1, 0, 1, "PCIE0_nbio0", 0, 0, "P0", 16, false, false, 0x81, 0x81, "L0(0x10)"},
        {0x80, 2, 0, 1, "PCIE3_nbio0", 0, 0, "P1", 16, true, true, 0x82, 0x82, "L0(0x10)"},
        {0xC0, 1, 0, 1, "PCIE0_nbio1", 0, 0, "P2", 4, false, false, 0xC1, 0xC1, "L0(0x10)"},
        {0xC0, 2, 0, 1, "PCIE1_nbio1", 0, 0, "G2", 8, true, true, 0xC2, 0xC2, "L0(0x10)"},
    };
    const PortMapData map = build();
    size_t rows = 0;
    for (const auto& [die, die_rows] : map) rows += die_rows.size();
    EXPECT_EQ(rows, std::size(expected));  // the switch's ports belong to no core

    for (const auto& e : expected) {
        SCOPED_TRACE(::testing::Message() << std::hex << e.bus << ":" << e.device << "." << e.function);
        ASSERT_TRUE(is_device_mapped(0, e.bus, e.device, e.function, map));
        const auto [die, row] = get_mapped_device(0, e.bus, e.device, e.function, map);
        EXPECT_EQ(die.socket(), e.socket);
        EXPECT_EQ(row.core, e.core);
        EXPECT_EQ(row.function_index, e.function_index);
        EXPECT_EQ(row.port, e.port);
        EXPECT_EQ(row.serdes, e.serdes);
        EXPECT_EQ(row.package, e.serdes);
        EXPECT_EQ(row.phy, "E32");
        EXPECT_EQ(row.port_type, "Root Port");
        EXPECT_EQ(row.lc_state, e.lc_state);
        EXPECT_EQ(row.secondary_bus, e.secondary);
        EXPECT_EQ(row.subordinate_bus, e.subordinate);
        EXPECT_FALSE(row.esm_active);
        EXPECT_EQ(row.logical_to_controller_lane, lanes(e.width, e.controller_reversed));
        EXPECT_EQ(row.logical_to_serdes_lane, lanes(e.width, e.serdes_reversed));
    }
}

// The lanes are read with the PHY's TX power-down deasserted, and it is
// asserted again afterwards; while asserted the lane registers tell nothing.
TEST_F(PortMapping, LaneWalkLeavesThePhyPoweredDownAsFound) {
    build();
    const auto die0 = store(0);
    EXPECT_EQ(die0->get_link_register("KPMX_SERDES_LANE_MAP_CNTL", "P2")->read(), 0u);
    EXPECT_EQ(die0->get_lane_register("KPMX_SERDES_LANE_LN_ControllerLane", "P2", 0)->read(), 0u);
    die0->get_link_register("KPMX_SERDES_LANE_MAP_CNTL", "P2")->write(1);
    EXPECT_EQ(die0->get_lane_register("KPMX_SERDES_LANE_LN_ControllerLane", "P2", 0)->read(), 0x8Fu);  // lane 15
}

TEST_F(PortMapping, PortWithoutBusNumbersIsLeftOut) {
    model.write()->write32(0, 0x00, 1, 1, sim::cfg::kBusNumbers, 0);  // slot2: nothing below it
    const PortMapData map = build();
    EXPECT_FALSE(is_device_mapped(0, 0x00, 1, 1, map));
    EXPECT_TRUE(is_device_mapped(0, 0x00, 1, 0, map));
    EXPECT_EQ(map.at(dies[0]).size(), 2u);
}

TEST_F(PortMapping, FirstCallDecidesTheMapUntilReset) {
    const PortMapData first = build();
    const PortMapData again = get_all_port_data({}, {}, read);
    ASSERT_EQ(again.size(), first.size());
    for (const auto& [die, rows] : first) {
        ASSERT_EQ(again.at(die).size(), rows.size());
        for (size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(again.at(die)[i].device, rows[i].device);
    }
    reset_all_port_data();
    EXPECT_TRUE(get_all_port_data({}, {}, read).empty());
}

// Only bridges are rows: an endpoint is found through its parent port,
// which is mapped only when it is a root port of a core.
TEST_F(PortMapping, EndpointsAreFoundThroughTheirPort) {
    const PortMapData map = build();
    const PCIE::FindParentDevice parents(devices, read);
    const struct {
        PCIDeviceDetails endpoint;
        bool port_mapped;
        const char* core;
    } cases[] = {
        {PCIDeviceDetails(0, 0x41, 0, 1), true, "PCIE0_nbio1"},   // nic-400g, below slot3
        {PCIDeviceDetails(0, 0xC2, 0, 0), true, "PCIE1_nbio1"},   // raid, below slot6
        {PCIDeviceDetails(0, 0x03, 0, 0), false, ""},             // nvme0, below a switch port
    };
    for (const auto& c : cases) {
        const auto& e = c.endpoint;
        SCOPED_TRACE(::testing::Message() << std::hex << e.bus);
        EXPECT_FALSE(is_device_mapped(e.segment, e.bus, e.device, e.function, map));
        const auto found = parents.find_parent(e, 1);
        ASSERT_TRUE(found.found);
        const PCIeBridgeInfo& port = found.parents.front();
        ASSERT_EQ(is_device_mapped(port.segment, port.bus, port.device, port.function, map), c.port_mapped);
        if (c.port_mapped)
            EXPECT_EQ(get_mapped_device(port.segment, port.bus, port.device, port.function, map).second.core, c.core);
        else
            EXPECT_THROW(get_mapped_device(port.segment, port.bus, port.device, port.function, map),
                         std::runtime_error);
    }
    // All four address fields count.
    EXPECT_FALSE(is_device_mapped(1, 0x40, 1, 0, map));
    EXPECT_FALSE(is_device_mapped(0, 0x40, 1, 1, map));
    EXPECT_FALSE(is_device_mapped(0, 0x40, 2, 0, map));
}

// ESM on: the row takes the second rate at 32 GT/s, and the block shows it.
TEST_F(PortMapping, PrintedBlockShowsEsmSpeedAndLanes) {
    const auto die0 = store(0);
    die0->get_pcie_core_func_register("PCIE_CCIX_ESM_CNTL", "PCIE0_nbio1", 0)->write(1u << 15 | 15u << 8 | 6u);
    die0->get_pcie_core_func_register("PCIE_CCIX_ESM_STATUS", "PCIE0_nbio1", 0)->write(1u << 7);
    const PortMap row = get_mapped_device(0, 0x40, 1, 0, build()).second;
    EXPECT_TRUE(row.esm_active);
    EXPECT_EQ(row.esm_speed, 25u);

    const auto lines = port_mapping_lines({row});
    ASSERT_EQ(lines.size(), 13u);
    EXPECT_EQ(lines[0], "PCIe Bridge               : 0000:40:01.0");
    EXPECT_EQ(lines[1], "    Speed                     : 25GT/s (ESM Speed)");
    EXPECT_EQ(lines[5], "    PCIe Core & Func          : PCIE0_nbio1 & 0");
    EXPECT_EQ(lines[6], "    SERDES & Port             : P2 & 0");
    const std::string serdes = "    Logical to SERDES Lane    : [0:15] [1:14] ";
    const std::string controller = "    Logical to Controller Lane: [0:0] [1:1] ";
    EXPECT_EQ(lines[11].substr(0, serdes.size()), serdes);
    EXPECT_EQ(lines[12].substr(0, controller.size()), controller);
    EXPECT_EQ(port_mapping_lines({}), std::vector<std::string>{"    No PCIe ports detected."});
}

}  // namespace
