// The PCIe cores of each chip: where each core's registers and its ports'
// registers lie on the register network, how many ports it has and which
// SerDes link it drives. Ports of a core lie kPortStride apart from port
// 0's base; at most kMaxPortsPerCore ports (0 to 8) are addressable.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace chips {

struct PcieCore {
    const char* name;
    unsigned int core_base;  // the core's own registers
    unsigned int port_base;  // port 0's registers
    unsigned int ports;      // function indexes 0 .. ports - 1
    const char* serdes;      // the link it drives, "" where not known

    // The block both lie in; register stores name a core by this address.
    constexpr unsigned int block_base() const { return port_base & ~0xFFFFFu; }
    constexpr unsigned int port_address(unsigned int port) const { return port_base + port * 0x1000; }
};

constexpr unsigned int kPortStride = 0x1000;
constexpr unsigned int kMaxPortsPerCore = 9;

namespace corvane {
// Two I/O hubs of five cores. PCIE0-PCIE3 carry x16 links bifurcable to nine
// ports; PCIE4 carries an x8 link of up to four.
inline constexpr PcieCore kPcieCores[] = {
    {"PCIE0_nbio0", 0x1A380000, 0x1A340000, 9, "P0"}, {"PCIE1_nbio0", 0x1A780000, 0x1A740000, 9, "G0"},
    {"PCIE2_nbio0", 0x1A880000, 0x1A840000, 9, "G1"}, {"PCIE3_nbio0", 0x1A480000, 0x1A440000, 9, "P1"},
    {"PCIE4_nbio0", 0x1AB80000, 0x1AB40000, 4, "P4"}, {"PCIE0_nbio1", 0x1A580000, 0x1A540000, 9, "P2"},
    {"PCIE1_nbio1", 0x1A980000, 0x1A940000, 9, "G2"}, {"PCIE2_nbio1", 0x1AA80000, 0x1AA40000, 9, "G3"},
    {"PCIE3_nbio1", 0x1A680000, 0x1A640000, 9, "P3"}, {"PCIE4_nbio1", 0x1AD80000, 0x1AD40000, 4, "P5"},
};
}  // namespace corvane

namespace dellmar {
// Two I/O hubs of four x16 cores, and one small core (PCIE5) on the first
// hub for the x8 link.
inline constexpr PcieCore kPcieCores[] = {
    {"PCIE0_nbio0", 0x1C180000, 0x1C140000, 9, "P0"}, {"PCIE1_nbio0", 0x1C280000, 0x1C240000, 9, "G0"},
    {"PCIE2_nbio0", 0x1C380000, 0x1C340000, 9, "G1"}, {"PCIE3_nbio0", 0x1C480000, 0x1C440000, 9, "P1"},
    {"PCIE0_nbio1", 0x1C580000, 0x1C540000, 9, "P2"}, {"PCIE1_nbio1", 0x1C680000, 0x1C640000, 9, "G2"},
    {"PCIE2_nbio1", 0x1C780000, 0x1C740000, 9, "G3"}, {"PCIE3_nbio1", 0x1C880000, 0x1C840000, 9, "P3"},
    {"PCIE5_nbio0", 0x1C980000, 0x1C940000, 2, "P4"},
};
}  // namespace dellmar

namespace kx900 {
inline constexpr PcieCore kPcieCores[] = {
    {"PCIE0", 0x1A300000, 0x1A340000, 9, "P0"},
    {"PCIE1", 0x1AB00000, 0x1AB40000, 9, "P1"},
};
}  // namespace kx900

namespace kx800 {
inline constexpr PcieCore kPcieCores[] = {
    {"PCIE0_nbio0", 0x11180000, 0x11140000, 9, "P0"},
};
}  // namespace kx800

// Null when the name isn't one of the cores.
inline const PcieCore* find_core(std::span<const PcieCore> cores, const char* name) {
    for (const PcieCore& core : cores)
        if (std::string_view(core.name) == name) return &core;
    return nullptr;
}

}  // namespace chips
