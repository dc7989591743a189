#include "hardware/pci_mmio.h"

#include <stdexcept>

namespace {

unsigned int high_half(unsigned long base) { return static_cast<unsigned int>(base >> 32); }

// A carry out of the low half is dropped: the access stays in the base's 4 GiB block.
unsigned int low_half(unsigned long base, unsigned int offset) {
    return static_cast<unsigned int>(base) + offset;
}

}  // namespace

ReadPCIMMIO::ReadPCIMMIO(unsigned long base_address, std::string fmem_path, std::string mem_path)
    : _mmio(std::make_unique<MMIO_lin>(std::move(fmem_path), std::move(mem_path))), base(base_address) {}

ReadPCIMMIO::ReadPCIMMIO(const ReadPCIMMIO& other)
    : _mmio(std::make_unique<MMIO_lin>(other._mmio->fmem_path(), other._mmio->mem_path())), base(other.base) {}

bool ReadPCIMMIO::read32(unsigned int, unsigned int, unsigned int, unsigned int, unsigned int offset,
                         unsigned int& value) const {
    _mmio->read(high_half(base), low_half(base, offset), value, true);
    return true;
}

bool ReadPCIMMIO::read16(unsigned int, unsigned int, unsigned int, unsigned int, unsigned int, unsigned int&) const {
    throw std::runtime_error("Not implemented ReadPCIMMIO::read16");
}

bool ReadPCIMMIO::read8(unsigned int, unsigned int, unsigned int, unsigned int, unsigned int, unsigned int&) const {
    throw std::runtime_error("Not implemented ReadPCIMMIO::read8");
}

WritePCIMMIO::WritePCIMMIO(unsigned long base_address, std::string fmem_path, std::string mem_path)
    : _mmio(std::make_unique<MMIO_lin>(std::move(fmem_path), std::move(mem_path))), base(base_address) {}

WritePCIMMIO::WritePCIMMIO(const WritePCIMMIO& other)
    : _mmio(std::make_unique<MMIO_lin>(other._mmio->fmem_path(), other._mmio->mem_path())), base(other.base) {}

bool WritePCIMMIO::write32(unsigned int, unsigned int, unsigned int, unsigned int, unsigned int offset,
                           unsigned int value) const {
    return _mmio->write(high_half(base), low_half(base, offset), value, true);
}

bool WritePCIMMIO::write16(unsigned int, unsigned int, unsigned int, unsigned int, unsigned int, unsigned int) const {
    throw std::runtime_error("Not implemented WritePCIMMIO::write16");
}

bool WritePCIMMIO::write8(unsigned int, unsigned int, unsigned int, unsigned int, unsigned int, unsigned int) const {
    throw std::runtime_error("Not implemented WritePCIMMIO::write8");
}
