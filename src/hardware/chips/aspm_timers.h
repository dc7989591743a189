// ASPM entry timers of the platform's own link ends: how long a transmitter
// must see no traffic before it goes to L0s, and before the end asks for (an
// upstream end) or accepts (a root port) L1. The standard capabilities hold
// only the enables; the idle times are the link controller's own.
//
// Both kinds of end keep the two timers in one control word, four bits each,
// coded alike. Code 0 turns a timer off: the end never starts that entry
// itself, even with ASPM enabled.
// - Root ports: the port register kRootPortRegister of the port's block.
// - The platform's graphics and accelerator endpoints: a vendor-specific
//   extended capability of function 0, kEndpointVsecId, control word at
//   kEndpointControl.
// The platform model builds both from these tables.
#pragma once

#include <array>

#include "hardware/chips/chip_identity.h"

namespace chips::aspm {

// What a code means, in nanoseconds; all ones: the timer is off.
constexpr unsigned int kTimerOff = 0xFFFFFFFFu;
constexpr unsigned int kTimerCodes = 16;
// L0s: the standard wants a transmitter in L0s after at most 7 us idle.
inline constexpr std::array<unsigned int, kTimerCodes> kL0sEntryNs = {
    kTimerOff, 40, 80, 120, 160, 200, 300, 400, 500, 700, 1000, 2000, 3000, 4000, 5000, 7000};
inline constexpr std::array<unsigned int, kTimerCodes> kL1EntryNs = {
    kTimerOff, 1000,   2000,   4000,    8000,    16000,   32000,    64000,
    100000,    200000, 500000, 1000000, 2000000, 4000000, 10000000, 20000000};

constexpr IdentityField kL0sField{8, 0xF};
constexpr IdentityField kL1Field{12, 0xF};
constexpr unsigned int kTimerBits = 0xFF00;  // both fields; the rest of the word is read-only here
// What firmware leaves at boot: L0s after 1 us, L1 after 32 us.
constexpr unsigned int kBootL0sCode = 10, kBootL1Code = 6;
constexpr unsigned int kBootControl = (kBootL0sCode << 8) | (kBootL1Code << 12);

constexpr const char* kRootPortRegister = "PCIE_LC_CNTL";

constexpr unsigned int kExtCapVendorSpecific = 0x000B;
constexpr unsigned int kEndpointVsecId = 0x0A51, kEndpointVsecRevision = 1, kEndpointVsecLength = 0x0C;
constexpr unsigned int kEndpointVsecHeader = 0x04;  // ID 15:0, revision 19:16, length 31:20
constexpr unsigned int kEndpointControl = 0x08;

}  // namespace chips::aspm
