// One PCI function as found at start-up, and its bare address.
#pragma once

#include <tuple>

struct PCIDeviceDetails {
    unsigned int segment = 0;
    unsigned int bus = 0;
    unsigned int device = 0;
    unsigned int function = 0;
    unsigned int vendor_id = 0;
    unsigned int device_id = 0;

    PCIDeviceDetails() = default;
    // An address only: the IDs are left for the caller to fill in.
    PCIDeviceDetails(unsigned int seg, unsigned int b, unsigned int d, unsigned int f)
        : segment(seg), bus(b), device(d), function(f) {}

    // A record made from an address equals the detected record of that address.
    bool operator==(const PCIDeviceDetails& other) const {
        return std::tie(segment, bus, device, function) ==
               std::tie(other.segment, other.bus, other.device, other.function);
    }
    bool operator<(const PCIDeviceDetails& other) const {
        return std::tie(segment, bus, device, function) <
               std::tie(other.segment, other.bus, other.device, other.function);
    }
};

namespace PCIE {

struct Device_ID {
    unsigned int segment = 0;
    unsigned int bus = 0;
    unsigned int device = 0;
    unsigned int function = 0;

    Device_ID() = default;
    Device_ID(unsigned int seg, unsigned int b, unsigned int d, unsigned int f)
        : segment(seg), bus(b), device(d), function(f) {}
    Device_ID(const Device_ID&) = default;
    Device_ID& operator=(const Device_ID&) = default;
    explicit Device_ID(const PCIDeviceDetails& details)
        : segment(details.segment), bus(details.bus), device(details.device), function(details.function) {}

    bool operator==(const Device_ID& other) const {
        return std::tie(segment, bus, device, function) ==
               std::tie(other.segment, other.bus, other.device, other.function);
    }
    bool operator<(const Device_ID& other) const {
        return std::tie(segment, bus, device, function) <
               std::tie(other.segment, other.bus, other.device, other.function);
    }
};

}  // namespace PCIE
