// Event counters of a PCIe core, 38 slots per core. Offsets are bytes from
// the core's own register base (PcieCore::core_base).
//
// - Slot 0 counts NAKs of one port, slot 1 the link controller's TX clock.
//   Both are reset by toggling their bit (0, 1) of one control register,
//   which also holds slot 0's port (bits 11:8).
// - Slots 2 to 37 come in pairs, each pair one 12-byte group: a select
//   register (event of the even slot in bits 7:0, of the odd one in 15:8,
//   ports in 19:16 and 23:20) and the two counts. Any write of the select
//   register resets both counts of the pair.
// - Every count is 48 bits wide: bits 31:0 at the slot's own place, bits
//   47:32 in a bank of high words, one per slot.
//
// The model places these registers from the same tables the panel reads
// them by.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

namespace chips::perf {

// What a device's link carries, as the model's traffic profile gives it
// (profile keys "tx_tlps" ... "naks", in this order).
enum Event : unsigned int { tx_tlps, rx_tlps, tx_bytes, rx_bytes, replays, naks, kEventCount };

constexpr unsigned int kSlotsPerSpace = 38;

// What an event of a table counts: link traffic, or the cycles of the
// counter's own clock domain.
enum class Source : unsigned int { traffic, cycles };
enum class Domain : unsigned int { txclk, sclk };

struct EventEntry {
    unsigned int id;  // the value of the select field
    const char* name;
    Source source;
    Event event;      // for Source::traffic
    bool external;    // shown in an external release too
};

struct SlotGroup {
    unsigned int first, last;  // slots
    const char* format;        // the row's name; %s is the core
    Domain domain;
    std::span<const EventEntry> events;
};

struct CounterLayout {
    unsigned int nak_count, nak_control, lc_count;
    unsigned int txclk_pairs, sclk_pairs, pair_stride;  // groups of slots 2-13 and 14-37
    unsigned int high_bank;
    unsigned int count_bits;
    double txclk_hz, sclk_hz;  // what the cycle events count
    std::array<SlotGroup, 7> groups;
};

// The registers of one slot.
struct SlotRegisters {
    unsigned int control;  // slot 0/1: the shared control; pairs: the select register
    unsigned int low, high;
    bool pair;
    unsigned int reset_bit;      // slots 0 and 1: the bit whose toggle resets
    unsigned int event_shift;    // pairs: the 8-bit event field
    unsigned int port_shift;     // the 4-bit port field
    bool has_port;
};

constexpr unsigned int kPortMask = 0xF, kEventMask = 0xFF;

constexpr std::optional<SlotRegisters> slot_registers(const CounterLayout& l, unsigned int slot) {
    if (slot >= kSlotsPerSpace) return std::nullopt;
    const unsigned int high = l.high_bank + slot * 4;
    if (slot == 0) return SlotRegisters{l.nak_control, l.nak_count, high, false, 0, 0, 8, true};
    if (slot == 1) return SlotRegisters{l.nak_control, l.lc_count, high, false, 1, 0, 0, false};
    const unsigned int group = slot < 14 ? l.txclk_pairs + (slot - 2) / 2 * l.pair_stride
                                         : l.sclk_pairs + (slot - 14) / 2 * l.pair_stride;
    const bool odd = slot % 2 == 1;
    return SlotRegisters{group, group + (odd ? 8u : 4u), high, true, 0, odd ? 8u : 0u, odd ? 20u : 16u, true};
}

constexpr const SlotGroup* slot_group(const CounterLayout& l, unsigned int slot) {
    for (const SlotGroup& g : l.groups)
        if (slot >= g.first && slot <= g.last) return &g;
    return nullptr;
}

// Event tables of the Corvane generation's cores; the debug events are for
// internal builds only.
inline constexpr EventEntry kNakEvents[] = {{0, "NAKs", Source::traffic, naks, true}};
inline constexpr EventEntry kClockEvents[] = {{0, "TX Clock Cycles", Source::cycles, naks, true}};
inline constexpr EventEntry kRxEvents[] = {
    {0, "Clock Cycles", Source::cycles, naks, true},  {1, "RX TLPs", Source::traffic, rx_tlps, true},
    {2, "RX Bytes", Source::traffic, rx_bytes, true}, {3, "NAKs Sent", Source::traffic, naks, false},
};
inline constexpr EventEntry kTxEvents[] = {
    {0, "Clock Cycles", Source::cycles, naks, true},  {1, "TX TLPs", Source::traffic, tx_tlps, true},
    {2, "TX Bytes", Source::traffic, tx_bytes, true}, {3, "Replays", Source::traffic, replays, false},
};
inline constexpr EventEntry kLinkEvents[] = {
    {0, "Clock Cycles", Source::cycles, naks, true}, {1, "Replays", Source::traffic, replays, true},
    {2, "NAKs", Source::traffic, naks, true},        {3, "RX TLPs", Source::traffic, rx_tlps, false},
    {4, "TX TLPs", Source::traffic, tx_tlps, false},
};

constexpr std::array<SlotGroup, 7> kCoreGroups = {{
    {0, 0, "%s NAK", Domain::txclk, kNakEvents},
    {1, 1, "%s LC TXCLK", Domain::txclk, kClockEvents},
    {2, 5, "%s RX TXCLK", Domain::txclk, kRxEvents},
    {6, 13, "%s TX TXCLK", Domain::txclk, kTxEvents},
    {14, 21, "%s RX SCLK", Domain::sclk, kRxEvents},
    {22, 29, "%s TX SCLK", Domain::sclk, kTxEvents},
    {30, 37, "%s LINK SCLK", Domain::sclk, kLinkEvents},
}};

// Corvane and Dellmar cores.
inline constexpr CounterLayout kCorvaneLayout = {56, 72, 64, 516, 2184, 12, 0xC00, 48, 1.0e9, 8.0e8, kCoreGroups};
// KX900 cores keep the counter block 0x100 higher and a 32-bit count.
inline constexpr CounterLayout kKX900Layout = {0x138, 0x148, 0x140, 0x304, 0x988, 12, 0xD00, 32, 1.0e9, 1.0e9, kCoreGroups};
// Later generations moved the block behind the port registers.
inline constexpr CounterLayout kHeskLayout = {0x1038, 0x1048, 0x1040, 0x1204, 0x1888, 12, 0x1C00, 48, 1.0e9, 1.0e9, kCoreGroups};

}  // namespace chips::perf
