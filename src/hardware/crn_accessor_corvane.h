// The register network of a CPU-mode die, reached through the index/data
// pair in its root function's configuration space. Serves every die whose
// registers are reached the CPU way, not only the chip it is named after.
#pragma once

#include <memory>
#include <string>

#include "hardware/crn_accessor.h"
#include "hardware/pci_access.h"

class CRNAccessorCorvane : public CRNAccessor {
public:
    // The lock name is "S<segment>B<bus>D<device>F<function>I<index_offset>" in
    // decimal: every accessor on the same pair shares it, in this process and,
    // with cross-process locks on, in others.
    CRNAccessorCorvane(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                       unsigned int index_offset, unsigned int data_offset, unsigned int extension_offset,
                       std::shared_ptr<WritePCI> write, std::shared_ptr<ReadPCI> read);

    // 32-bit accesses hold the pair's lock and clear a non-zero extension
    // register first, so the index selects the die's own network. A failed
    // read gives 0.
    unsigned int read32(unsigned int address) const override;
    void write32(unsigned int address, unsigned int value) const override;
    // The narrow forms take no lock and leave the extension register alone:
    // the index is written at the same width, so only addresses that fit it
    // can be reached.
    unsigned int read16(unsigned int address) const override;
    void write16(unsigned int address, unsigned int value) const override;
    unsigned int read8(unsigned int address) const override;
    void write8(unsigned int address, unsigned int value) const override;

    const std::string& get_lock_name() const { return _lock_name; }

private:
    void _clear_extension() const;

    unsigned int _segment;
    unsigned int _bus;
    unsigned int _device;
    unsigned int _function;
    unsigned int _index_offset;
    unsigned int _data_offset;
    unsigned int _extension_offset;
    std::shared_ptr<WritePCI> _write;
    std::shared_ptr<ReadPCI> _read;
    std::string _lock_name;
};
