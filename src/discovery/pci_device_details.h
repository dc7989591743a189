// One PCI function as found at start-up.
#pragma once

#include <cstdint>
#include <string>
#include <tuple>

struct PCIDeviceDetails {
    uint16_t segment = 0;
    uint8_t bus = 0;
    uint8_t device = 0;
    uint8_t function = 0;
    uint16_t vendor_id = 0xFFFF;
    uint16_t device_id = 0xFFFF;

    // Functions are the same function when their addresses are.
    bool operator==(const PCIDeviceDetails& other) const {
        return std::tie(segment, bus, device, function) ==
               std::tie(other.segment, other.bus, other.device, other.function);
    }
};
