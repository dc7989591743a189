// Sized access to byte-addressed registers over the 32-bit-only register
// network. The address of an access is base | offset.
//
// The network answers whole dwords and ignores the two low address bits, so
// narrow registers are read as the dword that holds them and written by
// read-modify-write (not atomic against another thread). Models of the
// network must do the same: width 1 passes the byte's own address to
// read32, width 2 the address with bit 0 cleared.
#pragma once

#include <memory>

#include "hardware/crn_accessor.h"

class PhyAccessor {
public:
    // A null accessor makes a PhyAccessor that throws on every access; register
    // stores built on one still answer names, addresses and sizes.
    explicit PhyAccessor(std::shared_ptr<CRNAccessor> accessor);

    // width 1: the byte that offset's two low bits select; 2: the half that
    // bit 1 of offset selects; anything else: the dword.
    unsigned int read(unsigned int base, unsigned int offset, unsigned int width) const;
    void write(unsigned int base, unsigned int offset, unsigned int width, unsigned int value) const;

    const std::shared_ptr<CRNAccessor>& get_accessor() const { return _accessor; }

private:
    const CRNAccessor& _crn() const;

    std::shared_ptr<CRNAccessor> _accessor;
};
