#include "hardware/register.h"

#include <stdexcept>

SizedRegister::SizedRegister(std::shared_ptr<PhyAccessor> phy, unsigned int address, unsigned int size)
    : _phy(std::move(phy)), _address(address), _size(size) {}

SizedRegister::SizedRegister(std::shared_ptr<PhyAccessor> phy, unsigned int address, unsigned int size,
                             std::string name)
    : _phy(std::move(phy)), _address(address), _size(size), _name(std::move(name)) {}

const PhyAccessor& SizedRegister::_accessor() const {
    if (!_phy) throw std::runtime_error("Register " + _name + " has no register accessor");
    return *_phy;
}

unsigned int SizedRegister::read() const { return _accessor().read(0, _address, _size); }

void SizedRegister::write(unsigned int value) const { _accessor().write(0, _address, _size, value); }
