// Records that join a PCI bridge with what stands behind it.
#pragma once

#include <string>

// A bridge with its link state and the four bytes of configuration dword 24.
struct PCIeBridgeInfo {
    unsigned int segment = 0;
    unsigned int bus = 0;
    unsigned int device = 0;
    unsigned int function = 0;
    std::string speed;  // current link speed text, empty when unknown
    std::string width;  // current link width text, empty when unknown
    unsigned int primary_bus = 0;
    unsigned int secondary_bus = 0;
    unsigned int subordinate_bus = 0;
    unsigned int latency_timer = 0;
};
