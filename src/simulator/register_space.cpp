#include "simulator/register_space.h"

namespace sim {

RegisterSpace::Register& RegisterSpace::_entry(uint32_t address) {
    auto [it, fresh] = _registers.try_emplace(address & ~3u);
    if (fresh) it->second.value = _default;
    return it->second;
}

void RegisterSpace::define(uint32_t address, uint32_t value, uint32_t writable_mask) {
    Register& r = _entry(address);
    r.value = value;
    r.writable = writable_mask;
}

void RegisterSpace::on_read(uint32_t address, ReadHook hook) { _entry(address).read = std::move(hook); }

void RegisterSpace::on_write(uint32_t address, WriteHook hook) { _entry(address).write = std::move(hook); }

uint32_t RegisterSpace::read32(uint32_t address, const ModelTime& now) const {
    auto it = _registers.find(address & ~3u);
    if (it == _registers.end()) return _default;
    const Register& r = it->second;
    return r.read ? r.read(r.value, now) : r.value;
}

void RegisterSpace::write(uint32_t address, uint32_t value, uint32_t byte_mask, const ModelTime& now) {
    Register& r = _entry(address);
    const uint32_t old_value = r.value;
    const uint32_t change = r.writable & byte_mask;
    uint32_t merged = (old_value & ~change) | (value & change);
    if (r.write) r.write(old_value, merged, byte_mask, now);
    r.value = merged;
}

uint32_t RegisterSpace::peek(uint32_t address) const {
    auto it = _registers.find(address & ~3u);
    return it == _registers.end() ? _default : it->second.value;
}

void RegisterSpace::poke(uint32_t address, uint32_t value) { _entry(address).value = value; }

}  // namespace sim
