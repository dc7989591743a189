// Records that join a PCI bridge with what stands behind it.
#pragma once

#include <map>
#include <string>

#include "hardware/pci_device_details.h"

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

// A bridge function joined with the silicon behind it: PCIe core and port,
// SerDes link and lanes. Speed, width and LC state are those of start-up.
struct PortMap {
    PCIE::Device_ID device;  // the bridge function
    std::string speed;
    std::string width;
    unsigned int secondary_bus = 0;
    unsigned int subordinate_bus = 0;
    std::string core;                 // "PCIE0_nbio0"
    unsigned int function_index = 0;  // of the port in the core
    std::string serdes;               // "P0", "G1"; "Not Available" when no link row matches
    std::string package;              // package link name, or "Not Available"
    unsigned int port = 0;            // port number in the SerDes
    std::string phy;                  // "E32", or "Not Available"
    std::string phy_version;          // "Not Available" when unknown
    std::string lc_state;             // "L0(0x10)"
    std::string port_type;            // "Root Port", "Upstream", "Downstream" or "Unkown"
    bool esm_active = false;
    unsigned int esm_speed = 0;  // GT/s
    std::map<unsigned int, unsigned int> logical_to_serdes_lane;
    std::map<unsigned int, unsigned int> logical_to_controller_lane;
};
