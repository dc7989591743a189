#include "hardware/phy_accessor.h"

#include <stdexcept>

PhyAccessor::PhyAccessor(std::shared_ptr<CRNAccessor> accessor) : _accessor(std::move(accessor)) {}

const CRNAccessor& PhyAccessor::_crn() const {
    if (!_accessor) throw std::runtime_error("PhyAccessor has no register accessor");
    return *_accessor;
}

unsigned int PhyAccessor::read(unsigned int base, unsigned int offset, unsigned int width) const {
    const unsigned int address = base | offset;
    if (width == 1) {
        const unsigned int shift = (offset & 3) * 8;
        return (_crn().read32(address) >> shift) & 0xFF;
    }
    if (width == 2) {
        const unsigned int shift = (offset & 2) ? 16 : 0;
        return (_crn().read32(address & ~1u) >> shift) & 0xFFFF;
    }
    return _crn().read32(address & ~3u);
}

void PhyAccessor::write(unsigned int base, unsigned int offset, unsigned int width, unsigned int value) const {
    const unsigned int address = base | offset;
    if (width == 1) {
        const unsigned int shift = (offset & 3) * 8;
        const unsigned int word = _crn().read32(address);
        _crn().write32(address, (word & ~(0xFFu << shift)) | ((value & 0xFF) << shift));
        return;
    }
    if (width == 2) {
        const unsigned int shift = (offset & 2) ? 16 : 0;
        const unsigned int word = _crn().read32(address & ~1u);
        _crn().write32(address & ~1u, (word & ~(0xFFFFu << shift)) | ((value & 0xFFFF) << shift));
        return;
    }
    _crn().write32(address & ~3u, value);
}
