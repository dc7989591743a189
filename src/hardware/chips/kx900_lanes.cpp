#include "hardware/chips/kx900_lanes.h"

namespace chips {

const ChipLanes& kx900_lanes() {
    static const ChipLanes chip = [] {
        ChipLanes lanes;
        lanes.links = {
            make_link("G0", "E32", 16, 0x12050000, 0x13100000, 0x0E0C0000, kProtocolHVL),
            make_link("G1", "E32", 16, 0x12150000, 0x13110000, 0x0E0C0004, kProtocolHVL),
            make_link("G2", "E32", 16, 0x12250000, 0x13120000, 0x0E0C0008, kProtocolHVL),
            make_link("G3", "E32", 16, 0x12350000, 0x13130000, 0x0E0C000C, kProtocolHVL),
            make_link("P0", "E32", 16, 0x12450000, std::nullopt, 0x0E0C0010, kProtocolPCIe),
            make_link("P1", "E32", 16, 0x12550000, std::nullopt, 0x0E0C0014, kProtocolPCIe),
        };
        return lanes;
    }();
    return chip;
}

}  // namespace chips
