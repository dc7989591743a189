#include "hardware/crn_accessor_corvane.h"

#include "hardware/resource_lock.h"

CRNAccessorCorvane::CRNAccessorCorvane(unsigned int segment, unsigned int bus, unsigned int device,
                                       unsigned int function, unsigned int index_offset, unsigned int data_offset,
                                       unsigned int extension_offset, std::shared_ptr<WritePCI> write,
                                       std::shared_ptr<ReadPCI> read)
    : _segment(segment),
      _bus(bus),
      _device(device),
      _function(function),
      _index_offset(index_offset),
      _data_offset(data_offset),
      _extension_offset(extension_offset),
      _write(std::move(write)),
      _read(std::move(read)),
      _lock_name("S" + std::to_string(segment) + "B" + std::to_string(bus) + "D" + std::to_string(device) + "F" +
                 std::to_string(function) + "I" + std::to_string(index_offset)) {}

void CRNAccessorCorvane::_clear_extension() const {
    unsigned int extension = 0;
    _read->read32(_segment, _bus, _device, _function, _extension_offset, extension);
    if (extension != 0) _write->write32(_segment, _bus, _device, _function, _extension_offset, 0);
}

unsigned int CRNAccessorCorvane::read32(unsigned int address) const {
    NamedLockGuard guard(_lock_name);
    _clear_extension();
    _write->write32(_segment, _bus, _device, _function, _index_offset, address);
    unsigned int value = 0;
    _read->read32(_segment, _bus, _device, _function, _data_offset, value);
    return value;
}

void CRNAccessorCorvane::write32(unsigned int address, unsigned int value) const {
    NamedLockGuard guard(_lock_name);
    _clear_extension();
    _write->write32(_segment, _bus, _device, _function, _index_offset, address);
    _write->write32(_segment, _bus, _device, _function, _data_offset, value);
}

unsigned int CRNAccessorCorvane::read16(unsigned int address) const {
    _write->write16(_segment, _bus, _device, _function, _index_offset, address);
    unsigned int value = 0;
    _read->read16(_segment, _bus, _device, _function, _data_offset, value);
    return value;
}

void CRNAccessorCorvane::write16(unsigned int address, unsigned int value) const {
    _write->write16(_segment, _bus, _device, _function, _index_offset, address);
    _write->write16(_segment, _bus, _device, _function, _data_offset, value);
}

unsigned int CRNAccessorCorvane::read8(unsigned int address) const {
    _write->write8(_segment, _bus, _device, _function, _index_offset, address);
    unsigned int value = 0;
    _read->read8(_segment, _bus, _device, _function, _data_offset, value);
    return value;
}

void CRNAccessorCorvane::write8(unsigned int address, unsigned int value) const {
    _write->write8(_segment, _bus, _device, _function, _index_offset, address);
    _write->write8(_segment, _bus, _device, _function, _data_offset, value);
}
