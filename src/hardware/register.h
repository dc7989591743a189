// A register of a die's network that reads and writes itself. Code that
// works on links asks a register store for these by name and never writes
// an address. Narrow registers (size 1 or 2) go through the 32-bit network
// by read-modify-write (PhyAccessor); get_offset, get_size and get_name
// never touch hardware.
#pragma once

#include <memory>
#include <string>

#include "hardware/phy_accessor.h"

class Register {
public:
    virtual ~Register() = default;
    virtual unsigned int read() const = 0;
    virtual void write(unsigned int value) const = 0;
    virtual unsigned int get_offset() const = 0;
    virtual unsigned int get_size() const = 0;
    virtual std::string get_name() const = 0;
};

// The shape every chip's register class shares. A store built without a
// PhyAccessor hands out registers that throw on read and write.
class SizedRegister : public Register {
public:
    SizedRegister(std::shared_ptr<PhyAccessor> phy, unsigned int address, unsigned int size);
    SizedRegister(std::shared_ptr<PhyAccessor> phy, unsigned int address, unsigned int size, std::string name);

    unsigned int read() const override;
    void write(unsigned int value) const override;
    unsigned int get_offset() const override { return _address; }
    unsigned int get_size() const override { return _size; }
    std::string get_name() const override { return _name; }

private:
    const PhyAccessor& _accessor() const;

    std::shared_ptr<PhyAccessor> _phy;
    unsigned int _address;
    unsigned int _size;
    std::string _name;
};

class CorvaneRegister final : public SizedRegister {
    using SizedRegister::SizedRegister;
};
class SabrelRegister final : public SizedRegister {
    using SizedRegister::SizedRegister;
};
class TamblinRegister final : public SizedRegister {
    using SizedRegister::SizedRegister;
};
class FerrowRegister final : public SizedRegister {
    using SizedRegister::SizedRegister;
};
class Hesk31Register final : public SizedRegister {
    using SizedRegister::SizedRegister;
};
class Hesk48Register final : public SizedRegister {
    using SizedRegister::SizedRegister;
};
