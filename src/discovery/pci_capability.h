// Searches of a function's capability lists.
#pragma once

#include <string>

#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"

namespace PCIE {

// Standard capability IDs of the list that starts at configuration offset 52.
enum PCIE_CAPABILTTIES_IDS : unsigned int {
    PCI_POWER_MANAGEMENT = 0x01,
    AGP = 0x02,
    VITAL_PRODUCT_DATA = 0x03,
    SLOT_IDENTIFICATION = 0x04,
    MSI = 0x05,
    COMPACT_PCI_HOT_SWAP = 0x06,
    PCI_X = 0x07,
    HYPER_TRANSPORT = 0x08,
    VENDOR_SPECIFIC = 0x09,
    DEBUG_PORT = 0x0A,
    COMPACT_PCI_CENTRAL_RESOURCE_CONTROL = 0x0B,
    PCI_HOT_PLUG = 0x0C,
    PCI_BRIDGE_SUBSYSTEM_VENDOR_ID = 0x0D,
    AGP_8X = 0x0E,
    SECURE_DEVICE = 0x0F,
    PCI_EXPRESS = 0x10,
    MSI_X = 0x11,
    SERIAL_ATA_DATA_INDEX_CONFIGURATION = 0x12,
    ADVANCED_FEATURES = 0x13,
    ENHANCED_ALLOCATION = 0x14,
    FLATTENING_PORTAL_BRIDGE = 0x15,
};

// Standard extended capability IDs of the list that starts at offset 256.
enum PCIE_EXTENDED_CAPABILTTIES_IDS : unsigned int {
    ADVANCED_ERROR_REPORTING = 0x01,
    VIRTUAL_CHANNEL = 0x02,
    DEVICE_SERIAL_NUMBER = 0x03,
    POWER_BUDGETING = 0x04,
    ROOT_COMPLEX_LINK_DECLARATION = 0x05,
    ROOT_COMPLEX_INTERNAL_LINK_CONTROL = 0x06,
    ROOT_COMPLEX_EVENT_COLLECTOR_ENDPOINT_ASSOCIATION = 0x07,
    MULTI_FUNCTION_VIRTUAL_CHANNEL = 0x08,
    VIRTUAL_CHANNEL_MFVC = 0x09,
    ROOT_COMPLEX_REGISTER_BLOCK = 0x0A,
    VENDOR_SPECIFIC_EXTENDED = 0x0B,
    CONFIGURATION_ACCESS_CORRELATION = 0x0C,
    ACCESS_CONTROL_SERVICES = 0x0D,
    ALTERNATIVE_ROUTING_ID_INTERPRETATION = 0x0E,
    ADDRESS_TRANSLATION_SERVICES = 0x0F,
    SINGLE_ROOT_IO_VIRTUALIZATION = 0x10,
    MULTI_ROOT_IO_VIRTUALIZATION = 0x11,
    MULTICAST = 0x12,
    PAGE_REQUEST = 0x13,
    RESIZABLE_BAR = 0x15,
    DYNAMIC_POWER_ALLOCATION = 0x16,
    TPH_REQUESTER = 0x17,
    LATENCY_TOLERANCE_REPORTING = 0x18,
    SECONDARY_PCI_EXPRESS = 0x19,
    PROTOCOL_MULTIPLEXING = 0x1A,
    PROCESS_ADDRESS_SPACE_ID = 0x1B,
    LN_REQUESTER = 0x1C,
    DOWNSTREAM_PORT_CONTAINMENT = 0x1D,
    L1_PM_SUBSTATES = 0x1E,
    PRECISION_TIME_MEASUREMENT = 0x1F,
    PCI_EXPRESS_OVER_MPHY = 0x20,
    FRS_QUEUEING = 0x21,
    READINESS_TIME_REPORTING = 0x22,
    DESIGNATED_VENDOR_SPECIFIC = 0x23,
    VF_RESIZABLE_BAR = 0x24,
    DATA_LINK_FEATURE = 0x25,
    PHYSICAL_LAYER_16_GT = 0x26,
    LANE_MARGINING_AT_RECEIVER = 0x27,
    HIERARCHY_ID = 0x28,
    NATIVE_PCIE_ENCLOSURE_MANAGEMENT = 0x29,
    PHYSICAL_LAYER_32_GT = 0x2A,
    ALTERNATE_PROTOCOL = 0x2B,
    SYSTEM_FIRMWARE_INTERMEDIARY = 0x2C,
};

// "PCI_EXPRESS" for 16, else "Unknown Capability".
std::string to_string(PCIE_CAPABILTTIES_IDS id);
// "Lane Margining" for 39, else "Unknown Capability".
std::string to_string(PCIE_EXTENDED_CAPABILTTIES_IDS id);

// Walks the capability list (at most 21 entries). False with a text in error
// when the list is absent, ends, or runs on too long.
class DetectThisPCIECapability {
public:
    DetectThisPCIECapability(Device_ID device, ReadPCI& read);
    bool detect(PCIE_CAPABILTTIES_IDS capability, unsigned int& offset, std::string& error) const;

private:
    Device_ID _device;
    ReadPCI& _read;
};

// Walks the extended capability list from offset 256 (at most 102 entries).
// Only the low 8 bits of an entry's ID are compared, and a list whose first
// entry has no successor counts as holding nothing.
class DetectThisPCIEExtendedCapability {
public:
    DetectThisPCIEExtendedCapability(Device_ID device, ReadPCI& read);
    bool detect(PCIE_EXTENDED_CAPABILTTIES_IDS capability, unsigned int& offset, std::string& error) const;

private:
    Device_ID _device;
    ReadPCI& _read;
};

}  // namespace PCIE
