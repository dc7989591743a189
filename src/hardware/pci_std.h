// The configuration-space accessors the rest of the system holds on hardware.
#pragma once

#include <string>

#include "hardware/pci_access.h"
#include "hardware/pci_lin.h"

// Every read reports success: absence shows as the value read. A failed
// read32 leaves the caller's value as it was (callers preset it); read16 and
// read8 give 0. Segment, bus, device and function are narrowed to 8 bits,
// the offset to 16.
//
// All instances share one process-wide PCI_lin (readers and writers have one
// each, so two handle tables at most). It is made by the first instance under
// "GlobalPCIInstanceLock"; later instances only load a pointer, so making
// many short-lived accessors costs nothing.
class ReadPCIStd : public ReadPCI {
public:
    ReadPCIStd();

    bool read32(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                unsigned int offset, unsigned int& value) const override;
    bool read16(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                unsigned int offset, unsigned int& value) const override;
    bool read8(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
               unsigned int offset, unsigned int& value) const override;

    // Where the shared object finds configuration files, for instances made
    // after the call (tests point it at a folder of fake "config" files).
    // Instances made before keep the object they have; it stays alive.
    static void set_sysfs_root(const std::string& root);

private:
    const PCI* _pci;
};

// Writes report success whatever happened; values are narrowed to the
// operation's width.
class WritePCIStd : public WritePCI {
public:
    WritePCIStd();

    bool write32(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                 unsigned int offset, unsigned int value) const override;
    bool write16(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                 unsigned int offset, unsigned int value) const override;
    bool write8(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                unsigned int offset, unsigned int value) const override;

    // As ReadPCIStd::set_sysfs_root, for the writers' object.
    static void set_sysfs_root(const std::string& root);

private:
    const PCI* _pci;
};
