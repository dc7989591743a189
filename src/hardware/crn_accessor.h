// Sized access to a die's on-chip register network: a flat 32-bit address
// space reached only through an index/data pair. Accessors come from
// CRNFactory by die; nothing else speaks to the network.
#pragma once

class CRNAccessor {
public:
    virtual ~CRNAccessor() = default;
    virtual unsigned int read32(unsigned int address) const = 0;
    virtual void write32(unsigned int address, unsigned int value) const = 0;
    virtual unsigned int read16(unsigned int address) const = 0;
    virtual void write16(unsigned int address, unsigned int value) const = 0;
    virtual unsigned int read8(unsigned int address) const = 0;
    virtual void write8(unsigned int address, unsigned int value) const = 0;
};
