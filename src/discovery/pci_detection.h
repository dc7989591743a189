// Finding PCI functions by asking configuration space about every address,
// and predicates over the functions found. Scans cover segments 0 to 7 and
// come out sorted by address.
#pragma once

#include <memory>
#include <vector>

#include "discovery/port_map_types.h"
#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"

// Every present function. A missing function 0 skips the device's other
// functions; a missing later function doesn't end the device, and the
// multi-function bit isn't consulted.
class DetectPCIDevices {
public:
    std::vector<PCIDeviceDetails> operator()(std::shared_ptr<ReadPCI> read) const;
};

// Functions of the platform's own vendor IDs. Other vendors' functions are
// skipped; a kept function 0 without the multi-function bit ends its device.
class DetectVEXPCIeDevices {
public:
    explicit DetectVEXPCIeDevices(std::shared_ptr<ReadPCI> read);
    std::vector<PCIDeviceDetails> operator()() const;

private:
    std::shared_ptr<ReadPCI> _read;
    std::vector<unsigned int> _vendor_ids;
};

// Function-0 endpoints of any vendor, root complex integrated endpoints
// excepted. Any missing function ends its device.
//
// The port type is asked through the reader given (the scan reads nothing
// through an accessor of its own), so the scan works over any ReadPCI.
class DetectEPPCIeDevices {
public:
    using DeviceDetails = PCIDeviceDetails;
    explicit DetectEPPCIeDevices(ReadPCI* read);
    std::vector<DeviceDetails> operator()() const;

private:
    ReadPCI* _read;
};

// Bridges of the platform's vendor IDs. Any missing function ends its device.
class DetectRCPCIeDevices {
public:
    using DeviceDetails = PCIDeviceDetails;
    explicit DetectRCPCIeDevices(ReadPCI* read);
    std::vector<DeviceDetails> operator()() const;

private:
    ReadPCI* _read;
};

// A predicate over functions; it reads the hardware each time, not the record's IDs.
class FilterPCIDevices {
public:
    enum FilterType : unsigned int {
        ENDPOINT_DEVICE = 0,      // header type 0
        BRIDGE_DEVICE = 1,        // header type 1
        VEX_DEVICE = 2,           // vendor 0x1F7D or 0x1F7E
        GEN4_AND_ABOVE = 3,       // link runs at 16 or 32 GT/s
        LINK_SPEED_KNOWN = 4,     // link speed can be read at all
        GEN3_AND_ABOVE = 5,       // link runs at 8, 16 or 32 GT/s
    };
    FilterPCIDevices(FilterType type, std::shared_ptr<ReadPCI> read);
    // Throws std::runtime_error for a type outside the list.
    bool operator()(PCIDeviceDetails const& device) const;

private:
    FilterType _type;
    std::shared_ptr<ReadPCI> _read;
};

// Keeps every function except the platform's internal bridges: a platform
// bridge passes only if its device ID is one of the bridges that lead off the chip.
class FilterPCIVEXExternalBridge {
public:
    explicit FilterPCIVEXExternalBridge(std::shared_ptr<ReadPCI> read);
    bool operator()(PCIDeviceDetails const& device) const;

private:
    std::shared_ptr<ReadPCI> _read;
};

// A bridge's address, the four bytes of its bus number dword and its link
// speed and width texts (empty where they can't be read).
PCIeBridgeInfo read_bridge_info(const PCIDeviceDetails& bridge, ReadPCI& read);

namespace PCIE {

// The bridges above a function, nearest first.
class FindParentDevice {
public:
    struct Output {
        bool found = false;
        PCIDeviceDetails device;              // the function asked about
        std::vector<PCIeBridgeInfo> parents;  // nearest bridge first
    };

    // Keeps the bridges of the list.
    FindParentDevice(std::vector<PCIDeviceDetails> devices, std::shared_ptr<ReadPCI> read);
    // found with the nearest `levels` bridges; not found (and no bridges) when there are fewer.
    Output find_parent(PCIDeviceDetails device, unsigned int levels) const;

private:
    std::vector<PCIDeviceDetails> _bridges;
    std::shared_ptr<ReadPCI> _read;
};

}  // namespace PCIE
