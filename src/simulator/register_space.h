// One die's on-chip register network as the model holds it: a sparse map of
// 32-bit registers. An address nobody defined reads the default value and
// keeps what is written to it, as plain storage. Defined registers can be
// read-only in part, and can have behaviour: a reader that makes the value
// (mirrors of configuration registers, state histories) and a writer that
// reacts. Not thread-safe on its own: the platform serialises access.
#pragma once

#include <cstdint>
#include <functional>
#include <unordered_map>

#include "simulator/model_clock.h"

namespace sim {

class RegisterSpace {
public:
    // Produces the register's value; stored is what the map holds.
    using ReadHook = std::function<uint32_t(uint32_t stored, const ModelTime& now)>;
    // Told of a write after the writable bits were merged; value is the new
    // stored value and may be changed; byte_mask has 0xFF per byte written.
    using WriteHook = std::function<void(uint32_t old_value, uint32_t& value, uint32_t byte_mask, const ModelTime& now)>;

    explicit RegisterSpace(uint32_t default_value = 0) : _default(default_value) {}

    void define(uint32_t address, uint32_t value, uint32_t writable_mask = 0xFFFFFFFFu);
    void on_read(uint32_t address, ReadHook hook);
    void on_write(uint32_t address, WriteHook hook);
    bool defined(uint32_t address) const { return _registers.count(address & ~3u) != 0; }

    // Access as through the network: address bits 1:0 pick the byte lanes of
    // a narrow access within its dword.
    uint32_t read32(uint32_t address, const ModelTime& now) const;
    void write32(uint32_t address, uint32_t value, const ModelTime& now) { write(address & ~3u, value, 0xFFFFFFFFu, now); }
    // value is in the dword's byte positions; byte_mask selects the lanes.
    void write(uint32_t address, uint32_t value, uint32_t byte_mask, const ModelTime& now);

    // The stored value, without behaviour (the model itself, tests).
    uint32_t peek(uint32_t address) const;
    void poke(uint32_t address, uint32_t value);

private:
    struct Register {
        uint32_t value = 0;
        uint32_t writable = 0xFFFFFFFFu;
        ReadHook read;
        WriteHook write;
    };
    Register& _entry(uint32_t address);

    uint32_t _default;
    std::unordered_map<uint32_t, Register> _registers;
};

}  // namespace sim
