// How each platform wires its hVL links, and how a link's hVL PCS tells
// its lane order and data rate. Link discovery reads these tables and the
// platform model presents the same registers from them.
#pragma once

#include <optional>
#include <vector>

namespace chips {

// One hVL link: the link at one die and the link it meets at the other.
struct HvlLinkRow {
    unsigned int socket = 0, die = 0;
    const char* link = "";
    unsigned int partner_socket = 0, partner_die = 0;
    const char* partner_link = "";
};

// Two Corvane sockets, socket 0's link first.
const std::vector<HvlLinkRow>& corvane_hvl_links();
// Two Dellmar sockets, socket 0's link first.
const std::vector<HvlLinkRow>& dellmar_hvl_links();

// KX900A and KX900C: four dies per socket in a ring on G0 and G2 (die d's
// G0 meets die d+1's G2), the two diagonals on G1, and with two sockets
// each die's G3 meets the same die of the other socket. Rows for sockets
// 0 .. sockets-1.
std::vector<HvlLinkRow> kx900a_hvl_links(unsigned int sockets);
// KX900X accelerators: four dies per device in a ring on G0 and G2; devices
// 2k and 2k+1 form a pair whose same-numbered dies meet on G1. G3 is not
// wired. Rows for devices 0 .. devices-1.
std::vector<HvlLinkRow> kx900xo_hvl_links(unsigned int devices);

// The hVL PCS of a link (PCS_HVL3X16_PCS_STATUS1): set when the link came
// up lane-reversed, lane l of one end meeting lane 15 - l of the other.
constexpr unsigned int kHvlLaneReversedBit = 25;

// P-states of the hVL PCS. PCS_HVL3X16_PCS_PSTATE_SELECT bits 1:0 hold the
// P-state the link runs in. PCS_HVL3X16_PCS_PSTATE_CONTEXT2 describes the
// four P-states, one byte each (P-state n in bits 8n+7:8n): bits 7:6 the
// PCS word size code, bits 5:0 the word clock in steps of 62.5 MHz. The
// data rate is word size times word clock.
constexpr unsigned int kHvlPstateSelectMask = 3;
constexpr unsigned int kHvlWordSizeShift = 6;
constexpr unsigned int kHvlWordClockMask = 0x3F;
constexpr double kHvlWordClockStepGHz = 0.0625;
// Word size codes 0, 1, 2; code 3 names none.
inline constexpr unsigned int kHvlWordSizes[] = {16, 20, 32};

// Data rate in Gb/s of the selected P-state; nothing when its word size
// code names no word size.
std::optional<double> hvl_data_rate_gbps(unsigned int pstate_select, unsigned int pstate_context2);
// The context byte that runs at `gbps` exactly, with the widest word that
// gets there; nothing when no word size and clock step give that rate.
std::optional<unsigned int> hvl_pstate_context_byte(double gbps);

}  // namespace chips
