// Shared by the discovery readers: one configuration dword of a function,
// preset to 0 because ReadPCIStd leaves the value alone for an absent function.
#pragma once

#include "hardware/chips/chip_identity.h"
#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"

namespace PCIE {

inline bool read_config_dword(const ReadPCI& read, const Device_ID& device, unsigned int offset,
                              unsigned int& value) {
    value = 0;
    return read.read32(device.segment, device.bus, device.device, device.function, offset, value);
}

inline bool is_vex_vendor_id(unsigned int vendor_id) {
    return vendor_id == chips::kProcessorVendorId || vendor_id == chips::kGraphicsVendorId;
}

// Header type field: bits 16 to 22 of dword 12 (bit 23 is the multi-function flag).
inline unsigned int header_type_of(unsigned int dword12) { return (dword12 >> 16) & 0x7F; }

}  // namespace PCIE
