#include "hardware/chips/other_chip_lanes.h"

namespace chips {

namespace {

ChipLanes of(std::vector<LinkLanes> links) {
    ChipLanes chip;
    chip.links = std::move(links);
    return chip;
}

}  // namespace

// KX800 has no link PCS block addressable by base: its PCS registers are named.
const ChipLanes& kx800_lanes() {
    static const ChipLanes chip = of({
        make_link("G0", "E32", 16, 0x11450000, std::nullopt, 0x0E100000, kProtocolHVL),
        make_link("G1", "E32", 16, 0x11550000, std::nullopt, 0x0E100004, kProtocolHVL),
        make_link("P0", "E32", 16, 0x11650000, std::nullopt, 0x0E100008, kProtocolPCIe),
    });
    return chip;
}

const ChipLanes& ferrow_lanes() {
    static const ChipLanes chip = of({
        make_link("P0", "C20", 8, 0x16450000, std::nullopt, 0x0E200000, kProtocolPCIe),
        make_link("P1", "C20", 4, 0x16550000, std::nullopt, 0x0E200004, kProtocolPCIe),
        make_usb_link("SSPUSB0CNTR0PORT0", "C10", 0x16D00000, 0, 0x0E200008),
    });
    return chip;
}

const ChipLanes& ferrow2_lanes() {
    static const ChipLanes chip = of({
        make_link("P0", "C20", 8, 0x16450000, std::nullopt, 0x0E200000, kProtocolPCIe),
        make_link("P1", "C20", 8, 0x16550000, std::nullopt, 0x0E200004, kProtocolPCIe),
        make_usb_link("SSPUSB0CNTR0PORT0", "C10", 0x16D00000, 0, 0x0E200008),
    });
    return chip;
}

const ChipLanes& sabrel_lanes() {
    static const ChipLanes chip = of({
        make_link("P0", "C20", 8, 0x16850000, 0x17100000, 0x0E300000, kProtocolPCIe),
        make_link("P1", "C20", 4, 0x16950000, 0x17110000, 0x0E300004, kProtocolPCIe),
        make_usb_link("SSPUSB0CNTR0PORT0", "C10", 0x16D00000, 0, 0x0E300008),
    });
    return chip;
}

const ChipLanes& tamblin_lanes() {
    static const ChipLanes chip = of({
        make_link("P0", "CDNS", 8, 0x16A50000, 0x17200000, 0x0E400000, kProtocolPCIe),
        make_link("P1", "CDNS", 4, 0x16B50000, 0x17210000, 0x0E400004, kProtocolPCIe),
    });
    return chip;
}

const ChipLanes& hesk31_lanes() {
    static const ChipLanes chip = of({
        make_link("P0", "E32", 16, 0x11850000, 0x11900000, 0x0E500000, kProtocolPCIe),
    });
    return chip;
}

const ChipLanes& hesk48_lanes() {
    static const ChipLanes chip = of({
        make_link("P0", "C20", 16, 0x11A50000, 0x11B00000, 0x0E600000, kProtocolPCIe),
    });
    return chip;
}

// The only family here with USB4 routers: two, with two ports each.
const ChipLanes& ombrel_lanes() {
    static const ChipLanes chip = [] {
        ChipLanes lanes = of({
            make_link("P0", "C20", 8, 0x16C50000, 0x17300000, 0x0E700000, kProtocolPCIe),
            make_link("P1", "C20", 4, 0x16D50000, 0x17310000, 0x0E700004, kProtocolPCIe),
        });
        lanes.usb4_router_device_ids = {0x2BC0, 0x2BC1};
        lanes.usb4_port_base = {{{0, 0}, 0x16E00000}, {{0, 1}, 0x16E10000}, {{1, 0}, 0x16E40000}, {{1, 1}, 0x16E50000}};
        return lanes;
    }();
    return chip;
}

}  // namespace chips
