// Event counters of a PCIe core: a few counter slots per core, each with a
// select register (which port of the core, which event), a control register
// whose bit 0 resets the count when toggled, and a 48-bit count split over a
// low and a high register. Offsets are from the core's own register base.
#pragma once

#include <array>

namespace chips::perf {

constexpr unsigned int kCounterBlock = 0x800;   // first slot, from core_base
constexpr unsigned int kSlotStride = 0x10;
constexpr unsigned int kSelect = 0x0;           // bits 3:0 port (function index), 15:8 event
constexpr unsigned int kControl = 0x4;          // bit 0: toggle to reset
constexpr unsigned int kCountLow = 0x8;
constexpr unsigned int kCountHigh = 0xC;        // bits 15:0
constexpr unsigned int kCountBits = 48;
constexpr unsigned int kSlotsPerCore = 4;       // slot 0 counts NAKs; 1-3 count a chosen event

enum Event : unsigned int { tx_tlps, rx_tlps, tx_bytes, rx_bytes, replays, naks, kEventCount };
// Names as the panel shows them; direction is the port's (TX: toward the device).
inline constexpr std::array<const char*, kEventCount> kEventNames = {
    "TX TLPs", "RX TLPs", "TX Bytes", "RX Bytes", "Replays", "NAKs"};

constexpr unsigned int slot_address(unsigned int core_base, unsigned int slot) {
    return core_base + kCounterBlock + slot * kSlotStride;
}

}  // namespace chips::perf
