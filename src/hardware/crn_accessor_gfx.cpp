#include "hardware/crn_accessor_gfx.h"

#include <stdexcept>

#include "hardware/resource_lock.h"

namespace {

constexpr unsigned int kCommandOffset = 4;
constexpr unsigned int kClassCodeOffset = 11;
constexpr unsigned int kFrameBufferBarOffset = 16;
constexpr unsigned int kIoBarOffset = 20;
constexpr unsigned int kUpperHalfBarOffset = 28;
constexpr unsigned int kIoFallbackOffset = 32;
constexpr unsigned int kRegisterBarOffset = 36;
constexpr unsigned int kMemoryAndIoEnable = 3;
constexpr unsigned int kMemorySpaceEnable = 2;
constexpr unsigned int kBar64Bit = 4;

const char* const kIndexChanged = "CRN Index Register value changed in-between read";

volatile unsigned int* word_at(unsigned long address) { return reinterpret_cast<volatile unsigned int*>(address); }

unsigned int high_half(unsigned long address) { return static_cast<unsigned int>(address >> 32); }
unsigned int low_half(unsigned long address) { return static_cast<unsigned int>(address & 0xFFFFFFFFul); }

std::unique_ptr<MMIO> make_mmio(const MMIOMaker& maker) {
    if (maker) return maker();
    return std::make_unique<MMIO_lin>();
}

struct ApertureBases {
    unsigned long mmreg = 0;
    unsigned long frame_buffer = 0;
    unsigned long io = 0;
};

// The register aperture, frame buffer and I/O bases from the function's BARs.
ApertureBases read_bases(const PCIDeviceDetails& f, const ReadPCI& read) {
    unsigned int class_code = 0;
    read.read8(f.segment, f.bus, f.device, f.function, kClassCodeOffset, class_code);
    if (class_code != 3 && class_code != 18) throw std::runtime_error("Unknown base code in GPU detection.");

    ApertureBases bases;
    unsigned int value = 0;
    read.read32(f.segment, f.bus, f.device, f.function, kRegisterBarOffset, value);
    if (value == 0) throw std::runtime_error("Unexpected bar6 value.");
    bases.mmreg = value & 0xFFFF0000u;
    if (value & kBar64Bit) {
        unsigned int upper = 0;
        // The upper half is taken from offset 28 although it isn't the
        // register BAR's neighbour; the hardware's BAR layout puts it there.
        read.read32(f.segment, f.bus, f.device, f.function, kUpperHalfBarOffset, upper);
        bases.mmreg |= static_cast<unsigned long>(upper) << 32;
    }

    value = 0;
    read.read32(f.segment, f.bus, f.device, f.function, kFrameBufferBarOffset, value);
    bases.frame_buffer = value & 0xFFFF0000u;
    unsigned int io_word = 0;
    if (value & kBar64Bit) {
        unsigned int upper = 0;
        read.read32(f.segment, f.bus, f.device, f.function, kUpperHalfBarOffset, upper);
        bases.frame_buffer |= static_cast<unsigned long>(upper) << 32;
        read.read16(f.segment, f.bus, f.device, f.function, kIoFallbackOffset, io_word);
    } else {
        read.read16(f.segment, f.bus, f.device, f.function, kIoBarOffset, io_word);
        if (io_word == 0) read.read16(f.segment, f.bus, f.device, f.function, kIoFallbackOffset, io_word);
    }
    bases.io = io_word & 0xFF00u;
    return bases;
}

}  // namespace

GFXApertureAccessor::GFXApertureAccessor(const PCIDeviceDetails& function, unsigned long mmreg_base,
                                         unsigned long frame_buffer_base, unsigned long io_base,
                                         std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write,
                                         std::unique_ptr<MMIO> mmio)
    : _function(function),
      _mmreg_base(mmreg_base),
      _frame_buffer_base(frame_buffer_base),
      _io_base(io_base),
      _read(std::move(read)),
      _write(std::move(write)),
      _mmio(std::move(mmio)),
      _lock_name("B" + std::to_string(function.bus) + "D" + std::to_string(function.device) + "F" +
                 std::to_string(function.function)) {}

GFXApertureAccessor::~GFXApertureAccessor() {
    if (_mapped && _mmio) _mmio->unmapMemory(_virtual, kApertureSize);
}

unsigned int GFXApertureAccessor::read16(unsigned int) const {
    throw std::runtime_error("Not implemented crn read 16 for CRNAccessorKX800");
}
void GFXApertureAccessor::write16(unsigned int, unsigned int) const {
    throw std::runtime_error("Not implemented crn write 16 for CRNAccessorKX800");
}
unsigned int GFXApertureAccessor::read8(unsigned int) const {
    throw std::runtime_error("Not implemented crn read 8 for CRNAccessorKX800");
}
void GFXApertureAccessor::write8(unsigned int, unsigned int) const {
    throw std::runtime_error("Not implemented crn write 8 for CRNAccessorKX800");
}

void GFXApertureAccessor::MapAndTranslatePhysicalAddress(unsigned long physical, unsigned int size,
                                                         unsigned long* virtual_address) {
    unsigned int mapped_length = 0;
    if (_mmio) _mmio->mapMemory(physical, size, *virtual_address, mapped_length, MMIO::UNCACHED);
}

// Reports success whatever the mapping gave. A failed mapping leaves the
// accessor unmapped, so accesses go through MMIO one at a time instead of
// through a null address.
bool GFXApertureAccessor::MapMMRegAperture() {
    if (_mapped) return true;
    unsigned long virtual_address = 0;
    MapAndTranslatePhysicalAddress(_mmreg_base, kApertureSize, &virtual_address);
    _virtual = virtual_address;
    _mapped = virtual_address != 0;
    return true;
}

void GFXApertureAccessor::_initalize() {
    const PCIDeviceDetails& f = _function;
    unsigned int command = 0;
    _read->read16(f.segment, f.bus, f.device, f.function, kCommandOffset, command);
    const bool changed = (command & kMemoryAndIoEnable) != kMemoryAndIoEnable;
    if (changed) _write->write16(f.segment, f.bus, f.device, f.function, kCommandOffset, command | kMemoryAndIoEnable);
    if (MapMMRegAperture()) {
        if (changed) _write->write16(f.segment, f.bus, f.device, f.function, kCommandOffset, command | kMemorySpaceEnable);
        return;
    }
    if (changed) _write->write16(f.segment, f.bus, f.device, f.function, kCommandOffset, command);
    throw std::runtime_error("MMReg Aperture failed");
}

bool GFXApertureAccessor::_mm_read(unsigned int offset, unsigned int& value) const {
    if (_mapped) {
        if (offset < kApertureSize) {
            value = *word_at(_virtual + (offset & ~3u));
        } else {
            *word_at(_virtual + kApertureIndexOffset) = offset;
            value = *word_at(_virtual + kApertureDataOffset);
        }
        return true;
    }
    if (!_mmio) return false;
    if (offset < kApertureSize) {
        const unsigned long physical = _mmreg_base + (offset & ~3u);
        return _mmio->read(high_half(physical), low_half(physical), value, true);
    }
    const unsigned long index = _mmreg_base + kApertureIndexOffset;
    const unsigned long data = _mmreg_base + kApertureDataOffset;
    if (!_mmio->write(high_half(index), low_half(index), offset, true)) return false;
    return _mmio->read(high_half(data), low_half(data), value, true);
}

bool GFXApertureAccessor::_mm_write(unsigned int offset, unsigned int value) const {
    if (_mapped) {
        if (offset < kApertureSize) {
            *word_at(_virtual + (offset & ~3u)) = value;
        } else {
            *word_at(_virtual + kApertureIndexOffset) = offset;
            *word_at(_virtual + kApertureDataOffset) = value;
        }
        return true;
    }
    if (!_mmio) return false;
    if (offset < kApertureSize) {
        const unsigned long physical = _mmreg_base + (offset & ~3u);
        return _mmio->write(high_half(physical), low_half(physical), value, true);
    }
    const unsigned long index = _mmreg_base + kApertureIndexOffset;
    const unsigned long data = _mmreg_base + kApertureDataOffset;
    if (!_mmio->write(high_half(index), low_half(index), offset, true)) return false;
    return _mmio->write(high_half(data), low_half(data), value, true);
}

bool GFXApertureAccessor::ReadMMReg(unsigned int offset, unsigned int& value, unsigned int, std::string&) {
    return _mm_read(offset, value);
}

bool GFXApertureAccessor::WriteMMReg(unsigned int offset, unsigned int value, unsigned int, std::string&) {
    return _mm_write(offset, value);
}

bool GFXApertureAccessor::_crn_access(unsigned int address, unsigned int* read_value, unsigned int write_value,
                                      std::string& error, const unsigned int* extension) const {
    bool ok = _mm_write(kCrnIndexOffset, address);
    if (extension) {
        const unsigned int selector = *extension == 0 ? 0 : (*extension | 4);
        ok = _mm_write(CRNAccessorKX900GPU::kCrnExtensionIndexOffset, selector) && ok;
    }
    unsigned int value = 0;
    if (ok) ok = read_value ? _mm_read(kCrnDataOffset, value) : _mm_write(kCrnDataOffset, write_value);
    unsigned int index = 0;
    _mm_read(kCrnIndexOffset, index);
    if (index != address) {
        error += kIndexChanged;
        ok = false;
    }
    if (read_value) *read_value = value;
    return ok;
}

CRNAccessorKX800::CRNAccessorKX800(const PCIDeviceDetails& function, unsigned long mmreg_base,
                                   unsigned long frame_buffer_base, unsigned long io_base,
                                   std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write,
                                   std::unique_ptr<MMIO> mmio)
    : GFXApertureAccessor(function, mmreg_base, frame_buffer_base, io_base, std::move(read), std::move(write),
                          std::move(mmio)) {}

unsigned int CRNAccessorKX800::read32(unsigned int address) const {
    std::string error;
    unsigned int value = 0;
    _crn_access(address, &value, 0, error, nullptr);
    return value;
}

void CRNAccessorKX800::write32(unsigned int address, unsigned int value) const {
    std::string error;
    _crn_access(address, nullptr, value, error, nullptr);
}

bool CRNAccessorKX800::ReadCRNReg(unsigned int address, unsigned int& value, unsigned int, std::string& error) {
    return _crn_access(address, &value, 0, error, nullptr);
}

bool CRNAccessorKX800::WriteCRNReg(unsigned int address, unsigned int value, unsigned int, std::string& error) {
    return _crn_access(address, nullptr, value, error, nullptr);
}

bool CRNAccessorKX800::TestRegAperture() {
    std::string error;
    unsigned int mirrored = 0;
    ReadCRNReg(kIdentityTestAddress, mirrored, 8, error);
    unsigned int identity = 0;
    _read->read32(_function.segment, _function.bus, _function.device, _function.function, 0, identity);
    return mirrored == identity;
}

CRNAccessorKX900GPU::CRNAccessorKX900GPU(const PCIDeviceDetails& function, unsigned long mmreg_base,
                                         unsigned long frame_buffer_base, unsigned long io_base,
                                         std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write,
                                         std::unique_ptr<MMIO> mmio, unsigned int die_selector)
    : GFXApertureAccessor(function, mmreg_base, frame_buffer_base, io_base, std::move(read), std::move(write),
                          std::move(mmio)),
      _die_selector(die_selector) {}

unsigned int CRNAccessorKX900GPU::read32(unsigned int address) const {
    NamedLockGuard guard(_lock_name);
    std::string error;
    unsigned int value = 0;
    _crn_access(address, &value, 0, error, &_die_selector);
    return value;
}

void CRNAccessorKX900GPU::write32(unsigned int address, unsigned int value) const {
    NamedLockGuard guard(_lock_name);
    std::string error;
    _crn_access(address, nullptr, value, error, &_die_selector);
}

bool CRNAccessorKX900GPU::ReadCRNReg(unsigned int address, unsigned int& value, unsigned int, std::string& error) {
    return _crn_access(address, &value, 0, error, &_die_selector);
}

bool CRNAccessorKX900GPU::WriteCRNReg(unsigned int address, unsigned int value, unsigned int,
                                      std::string& error) {
    return _crn_access(address, nullptr, value, error, &_die_selector);
}

bool CRNAccessorKX900GPU::TestRegAperture() { return true; }

GetKX800CRNAccessor::GetKX800CRNAccessor(PCIDeviceDetails function, std::shared_ptr<ReadPCI> read,
                                         std::shared_ptr<WritePCI> write, MMIOMaker make_mmio)
    : _function(function), _read(std::move(read)), _write(std::move(write)), _make_mmio(std::move(make_mmio)) {}

std::shared_ptr<CRNAccessorKX800> GetKX800CRNAccessor::operator()() {
    const ApertureBases bases = read_bases(_function, *_read);
    auto accessor = std::make_shared<CRNAccessorKX800>(_function, bases.mmreg, bases.frame_buffer, bases.io, _read,
                                                       _write, make_mmio(_make_mmio));
    accessor->_initalize();
    return accessor;
}

GetKX900GPUCRNAccessor::GetKX900GPUCRNAccessor(PCIDeviceDetails function, std::shared_ptr<ReadPCI> read,
                                               std::shared_ptr<WritePCI> write, unsigned int die_selector,
                                               MMIOMaker make_mmio)
    : _function(function),
      _read(std::move(read)),
      _write(std::move(write)),
      _die_selector(die_selector),
      _make_mmio(std::move(make_mmio)) {}

std::shared_ptr<CRNAccessorKX900GPU> GetKX900GPUCRNAccessor::operator()() {
    const ApertureBases bases = read_bases(_function, *_read);
    auto accessor = std::make_shared<CRNAccessorKX900GPU>(_function, bases.mmreg, bases.frame_buffer, bases.io,
                                                          _read, _write, make_mmio(_make_mmio), _die_selector);
    accessor->_initalize();
    return accessor;
}
