// Configuration space of a device whose registers are reached through a
// physical base address (CXL margining of a downstream device). Only 32-bit
// access is offered. The device paths default to the real ones and are
// parameters for tests.
#pragma once

#include <memory>
#include <string>

#include "hardware/mmio_lin.h"
#include "hardware/pci_access.h"

// Segment, bus, device and function are ignored: the base names the device.
// The address is base + offset with the low 32 bits wrapping inside the
// base's 4 GiB block. read32 always reports success and leaves value as it
// was when the mapping fails.
class ReadPCIMMIO : public ReadPCI {
public:
    // Throws what MMIO_lin throws when physical memory can't be opened.
    explicit ReadPCIMMIO(unsigned long base_address, std::string fmem_path = "/dev/fmem", std::string mem_path = "/dev/mem");
    // A copy opens physical memory of its own.
    ReadPCIMMIO(const ReadPCIMMIO& other);
    ReadPCIMMIO& operator=(const ReadPCIMMIO&) = delete;

    bool read32(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                unsigned int offset, unsigned int& value) const override;
    // Throw std::runtime_error.
    bool read16(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                unsigned int offset, unsigned int& value) const override;
    bool read8(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
               unsigned int offset, unsigned int& value) const override;

private:
    std::unique_ptr<MMIO_lin> _mmio;
    unsigned long base;
};

// write32 reports what the physical write reported.
class WritePCIMMIO : public WritePCI {
public:
    explicit WritePCIMMIO(unsigned long base_address, std::string fmem_path = "/dev/fmem", std::string mem_path = "/dev/mem");
    WritePCIMMIO(const WritePCIMMIO& other);
    WritePCIMMIO& operator=(const WritePCIMMIO&) = delete;

    bool write32(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                 unsigned int offset, unsigned int value) const override;
    // Throw std::runtime_error.
    bool write16(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                 unsigned int offset, unsigned int value) const override;
    bool write8(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                unsigned int offset, unsigned int value) const override;

private:
    std::unique_ptr<MMIO_lin> _mmio;
    unsigned long base;
};
