#include "hardware/chips/corvane_lanes.h"

namespace chips {

namespace {

// One power gating control per link, in link order.
constexpr unsigned int power_gating(unsigned int slot) { return 0x0D8C0000 + 4 * slot; }

ChipLanes build() {
    ChipLanes chip;
    chip.links = {
        make_link("G0", "E32", 16, 0x18350000, 0x19100000, power_gating(0), kProtocolHVL),
        make_link("G1", "E32", 16, 0x18450000, 0x19110000, power_gating(1), kProtocolHVL),
        make_link("G2", "E32", 16, 0x18550000, 0x19120000, power_gating(2), kProtocolHVL),
        make_link("G3", "E32", 16, 0x18650000, 0x19130000, power_gating(3), kProtocolHVL),
        make_link("P0", "E32", 16, 0x17F50000, 0x19140000, power_gating(4), kProtocolHVL),
        make_link("P1", "E32", 16, 0x18050000, 0x19150000, power_gating(5), kProtocolHVL),
        make_link("P2", "E32", 16, 0x18150000, 0x19160000, power_gating(6), kProtocolHVL),
        make_link("P3", "E32", 16, 0x18250000, 0x19170000, power_gating(7), kProtocolHVL),
        make_link("P4", "E32", 8, 0x18750000, std::nullopt, power_gating(8), kProtocolPCIe),
        make_link("P5", "E32", 8, 0x18850000, 0x19190000, power_gating(9), kProtocolTEXL),
        make_usb_link("SSPUSB0CNTR0PORT0", "C10", 0x16D00000, 0, power_gating(10)),
        make_usb_link("SSPUSB0CNTR0PORT1", "C10", 0x16D20000, 1, power_gating(11)),
        make_usb_link("SSPUSB1CNTR0PORT0", "C10", 0x16F00000, 0, power_gating(12)),
        make_usb_link("SSPUSB1CNTR0PORT1", "C10", 0x16F20000, 1, power_gating(13)),
    };
    return chip;
}

}  // namespace

const ChipLanes& corvane_lanes() {
    static const ChipLanes chip = build();
    return chip;
}

}  // namespace chips
