#include <gtest/gtest.h>

#include <algorithm>
#include <typeinfo>

#include "discovery/lane_generic_information.h"
#include "discovery/die_test_helpers.h"
#include "hardware/chips/corvane_lanes.h"
#include "hardware/chips/kx900_lanes.h"
#include "hardware/chips/other_chip_lanes.h"

using die_test::named_die;
using die_test::thrown_text;

TEST(CorvaneLanes, LinksInOrderWithTheirLanesAndPhys) {
    const auto info = get_lane_generic_info(named_die("Corvane"));
    const std::vector<std::string> expected = {"G0", "G1", "G2", "G3", "P0", "P1", "P2",
                                               "P3", "P4", "P5", "SSPUSB0CNTR0PORT0", "SSPUSB0CNTR0PORT1",
                                               "SSPUSB1CNTR0PORT0", "SSPUSB1CNTR0PORT1"};
    ASSERT_EQ(info->get_link_names(), expected);
    for (const auto& link : expected) {
        const bool usb = link.rfind("SSPUSB", 0) == 0;
        EXPECT_EQ(info->get_phy_name(link), usb ? "C10" : "E32") << link;
        EXPECT_EQ(info->is_mux_present(link), usb) << link;
        const unsigned lanes = usb ? 1 : (link == "P4" || link == "P5") ? 8 : 16;
        EXPECT_EQ(info->get_no_of_lanes(link), lanes) << link;
    }
}

TEST(CorvaneLanes, ChipletsLie0x20000Apart) {
    const CorvaneLaneGenericInformation info;
    for (unsigned chiplet = 0; chiplet < 4; ++chiplet) {
        EXPECT_EQ(info.get_base_address("G3", chiplet), 0x18650000u + chiplet * 0x20000);
        EXPECT_EQ(info.get_base_address("P0", chiplet), 0x17F50000u + chiplet * 0x20000);
    }
    EXPECT_EQ(get_lane_base_address(info, "G3", 9), 0x18690000u);
    const std::string missing = "Unable to find base address for given link and chiplet";
    EXPECT_EQ(thrown_text([&] { info.get_base_address("P9", 0); }), missing);
    EXPECT_EQ(thrown_text([&] { info.get_base_address("G3", 4); }), missing);
}

TEST(CorvaneLanes, ProtocolsAndPorts) {
    const CorvaneLaneGenericInformation info;
    EXPECT_EQ(info.which_protocol("G0"), 16u);
    EXPECT_EQ(info.which_protocol("P3"), 16u);
    EXPECT_EQ(info.which_protocol("P5"), static_cast<unsigned>(chips::kProtocolTEXL));
    EXPECT_EQ(info.which_protocol("SSPUSB1CNTR0PORT1"), static_cast<unsigned>(chips::kProtocolUSB3));
    EXPECT_EQ(thrown_text([&] { info.which_protocol("X7"); }),
              "CorvaneLaneGenericInformation::which_protocol should not be called.");
    EXPECT_EQ(info.get_port_no("SSPUSB0CNTR0PORT1", 0), 1u);
    EXPECT_EQ(info.get_port_no("G0", 5), 1u);
    EXPECT_EQ(thrown_text([&] { info.get_port_no("G0", 16); }), "Unable to find port number for given link and lane");
    EXPECT_EQ(thrown_text([&] { info.get_pcs_base_address("SSPUSB0CNTR0PORT0"); }),
              "Unable to find pcs base address for given link");
}

// Every chip table: each lane has a PHY block, and no two blocks of a chip
// overlap (a block spans 0x10000 either side of its base).
TEST(ChipLaneTables, EveryLaneHasItsOwnPhyBlock) {
    const std::pair<const char*, const chips::ChipLanes*> tables[] = {
        {"corvane", &chips::corvane_lanes()}, {"kx900", &chips::kx900_lanes()},   {"kx800", &chips::kx800_lanes()},
        {"ferrow", &chips::ferrow_lanes()},   {"ferrow2", &chips::ferrow2_lanes()}, {"sabrel", &chips::sabrel_lanes()},
        {"tamblin", &chips::tamblin_lanes()}, {"hesk31", &chips::hesk31_lanes()},   {"hesk48", &chips::hesk48_lanes()},
        {"ombrel", &chips::ombrel_lanes()},
    };
    for (const auto& [chip, table] : tables) {
        std::vector<unsigned> bases;
        for (const auto& link : table->links) {
            for (unsigned lane = 0; lane < link.lanes; ++lane)
                EXPECT_TRUE(link.chiplet_base.count(lane / chips::kLanesPerChiplet)) << chip << " " << link.name;
            for (const auto& [chiplet, base] : link.chiplet_base) bases.push_back(base);
        }
        std::sort(bases.begin(), bases.end());
        for (size_t i = 1; i < bases.size(); ++i)
            EXPECT_GE(bases[i] - bases[i - 1], chips::kChipletStride) << chip << std::hex << " 0x" << bases[i];
    }
}
