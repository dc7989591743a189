// A placeholder accessor: every access throws. Nothing builds it; it stands
// ready where an accessor object is needed but the network must not be used.
#pragma once

#include <stdexcept>

#include "hardware/crn_accessor.h"

class CRNAccessorDummy : public CRNAccessor {
public:
    unsigned int read32(unsigned int) const override { fail(); }
    void write32(unsigned int, unsigned int) const override { fail(); }
    unsigned int read16(unsigned int) const override { fail(); }
    void write16(unsigned int, unsigned int) const override { fail(); }
    unsigned int read8(unsigned int) const override { fail(); }
    void write8(unsigned int, unsigned int) const override { fail(); }

private:
    [[noreturn]] static void fail() { throw std::runtime_error("Not implemented CRNAccessorDummy"); }
};
