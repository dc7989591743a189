// The two interfaces through which all configuration space goes. Instances
// are made as their concrete type and held by shared pointers, so a read path
// and a write path can be chosen separately.
#pragma once

class ReadPCI {
public:
    virtual bool read32(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                        unsigned int offset, unsigned int& value) const = 0;
    // Narrow results arrive zero-extended.
    virtual bool read16(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                        unsigned int offset, unsigned int& value) const = 0;
    virtual bool read8(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                       unsigned int offset, unsigned int& value) const = 0;

protected:
    ~ReadPCI() = default;
};

class WritePCI {
public:
    virtual bool write32(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                         unsigned int offset, unsigned int value) const = 0;
    virtual bool write16(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                         unsigned int offset, unsigned int value) const = 0;
    virtual bool write8(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                        unsigned int offset, unsigned int value) const = 0;

protected:
    ~WritePCI() = default;
};
