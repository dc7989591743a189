#include "hardware/df_indirect.h"

#include <optional>
#include <stdexcept>

#include "hardware/resource_lock.h"

namespace {

constexpr unsigned int kQwordShift = 26;

// Holds the named lock for its life, or nothing for an empty name.
struct OptionalLock {
    explicit OptionalLock(const std::string& name) {
        if (!name.empty()) guard.emplace(name);
    }
    std::optional<NamedLockGuard> guard;
};

}  // namespace

DFIndirectImp::DFIndirectImp(std::string name, unsigned int die, std::shared_ptr<ReadPCI> read,
                             std::shared_ptr<WritePCI> write)
    : _name(std::move(name)), _die(die), _read_pci(std::move(read)), _write_pci(std::move(write)) {
    unsigned int config = 0;
    _read(kConfigOffset, config);
    if (!(config & kBroadcastModeBit)) throw std::runtime_error("DF Access not configured.");
}

unsigned int DFIndirectImp::control_word(unsigned int function, unsigned int offset, int instance, bool qword) {
    unsigned int word = ((offset >> 2) & 0x3FF) << 1 | (function & 7) << 11;
    if (qword) word |= 1u << 14;
    if (instance != kBroadcast) word |= 1u | (static_cast<unsigned int>(instance) & 0xFF) << 16;
    return word;
}

bool DFIndirectImp::_read(unsigned int offset, unsigned int& value) const {
    return _read_pci->read32(0, 0, kDataFabricDevice + _die, kFunction, offset, value);
}

bool DFIndirectImp::_write(unsigned int offset, unsigned int value) const {
    return _write_pci->write32(0, 0, kDataFabricDevice + _die, kFunction, offset, value);
}

bool DFIndirectImp::readDWord(unsigned int function, unsigned int offset, int instance, unsigned int& value, bool,
                              bool) const {
    const OptionalLock guard(_name);
    if (!_write(kControlOffset, control_word(function, offset, instance, false))) return false;
    return _read(kDataLowOffset, value);
}

bool DFIndirectImp::readQWord(unsigned int function, unsigned int offset, int instance, unsigned long long& value,
                              bool, bool) const {
    const OptionalLock guard(_name);
    if (!_write(kControlOffset, control_word(function, offset, instance, true))) return false;
    unsigned int low = 0, high = 0;
    if (!_read(kDataLowOffset, low)) return false;
    if (!_read(kDataHighOffset, high)) return false;
    value = static_cast<unsigned long long>(low) | static_cast<unsigned long long>(high) << kQwordShift;
    return true;
}

bool DFIndirectImp::writeDWord(unsigned int function, unsigned int offset, int instance, unsigned int value,
                               bool) const {
    const OptionalLock guard(_name);
    if (!_write(kControlOffset, control_word(function, offset, instance, false))) return false;
    return _write(kDataLowOffset, value);
}

bool DFIndirectImp::writeQWord(unsigned int function, unsigned int offset, int instance, unsigned long long value,
                               bool) const {
    const OptionalLock guard(_name);
    if (!_write(kControlOffset, control_word(function, offset, instance, true))) return false;
    if (!_write(kDataLowOffset, static_cast<unsigned int>(value))) return false;
    return _write(kDataHighOffset, static_cast<unsigned int>(value >> kQwordShift));
}

DFIndirect::DFIndirect(std::string name, unsigned int die, std::shared_ptr<ReadPCI> read,
                       std::shared_ptr<WritePCI> write)
    : _imp(std::make_unique<DFIndirectImp>(std::move(name), die, std::move(read), std::move(write))) {}

bool DFIndirect::readDWord(unsigned int function, unsigned int offset, int instance, unsigned int& value, bool a,
                           bool b) const {
    return _imp->readDWord(function, offset, instance, value, a, b);
}
bool DFIndirect::readQWord(unsigned int function, unsigned int offset, int instance, unsigned long long& value,
                           bool a, bool b) const {
    return _imp->readQWord(function, offset, instance, value, a, b);
}
bool DFIndirect::writeDWord(unsigned int function, unsigned int offset, int instance, unsigned int value,
                            bool a) const {
    return _imp->writeDWord(function, offset, instance, value, a);
}
bool DFIndirect::writeQWord(unsigned int function, unsigned int offset, int instance, unsigned long long value,
                            bool a) const {
    return _imp->writeQWord(function, offset, instance, value, a);
}
