// Small readers that ask a function about its link, power state, port type
// and bus range. Each is made for one question and re-reads the hardware on
// every call; failures come back as false with a text in error.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "discovery/pci_capability.h"
#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"

namespace PCIE {

// Link speeds as the readers report them.
enum LINK_SPEEDS : unsigned int {
    SPEED_2_5_GT = 0,
    SPEED_5_GT = 1,
    SPEED_8_GT = 2,
    SPEED_16_GT = 3,
    SPEED_32_GT = 4,
};

// "2.5 GT/s" ... "32 GT/s"; false with "Unknown speed value" outside the range.
bool link_speed_to_string(LINK_SPEEDS speed, std::string& text, std::string& error);

// What the capability readers share: the function, its reader and the
// capability search they go through.
class PCIeCapabilityReader {
public:
    PCIeCapabilityReader(Device_ID device, ReadPCI& read, DetectThisPCIECapability& capability)
        : _device(device), _read(read), _capability(capability) {}

protected:
    Device_ID _device;
    ReadPCI& _read;
    DetectThisPCIECapability& _capability;
};

// The speed the link runs at, accepted only when the port also lists it as supported.
class GetCurrentLinkSpeed : public PCIeCapabilityReader {
public:
    using PCIeCapabilityReader::PCIeCapabilityReader;
    using SPEEDS = LINK_SPEEDS;
    bool get(SPEEDS& value, std::string& error) const;
    bool get(std::string& value, std::string& error) const;

};

// The highest speed of the port's link capabilities, checked against the supported vector.
class GetMaxLinkSpeed : public PCIeCapabilityReader {
public:
    using PCIeCapabilityReader::PCIeCapabilityReader;
    using SPEEDS = LINK_SPEEDS;
    bool get(SPEEDS& value, std::string& error) const;
    bool get(std::string& value, std::string& error) const;

};

// The negotiated width: 1, 2, 4, 8, 16 or 32 lanes.
class GetCurrentLinkWidth : public PCIeCapabilityReader {
public:
    using PCIeCapabilityReader::PCIeCapabilityReader;
    enum WIDTH : unsigned int { X1 = 1, X2 = 2, X4 = 4, X8 = 8, X16 = 16, X32 = 32 };
    bool get(WIDTH& value, std::string& error) const;
    // "x1" ... "x32".
    bool get(std::string& value, std::string& error) const;

};

// The widest link the port supports, from its link capabilities; the same
// values and text as GetCurrentLinkWidth.
class GetMaxLinkWidth : public PCIeCapabilityReader {
public:
    using PCIeCapabilityReader::PCIeCapabilityReader;
    using WIDTH = GetCurrentLinkWidth::WIDTH;
    bool get(WIDTH& value, std::string& error) const;
    bool get(std::string& value, std::string& error) const;
};

class GetPowerState : public PCIeCapabilityReader {
public:
    using PCIeCapabilityReader::PCIeCapabilityReader;
    // Power management status, low two bits.
    enum POWER_STATE : unsigned int { D0 = 0, D1 = 1, D2 = 2, D3 = 3 };
    // Link control, low two bits.
    enum ASPM_STATE : unsigned int { ASPM_DISABLED = 0, ASPM_L0S = 1, ASPM_L1 = 2, ASPM_L0S_AND_L1 = 3 };

    // On a missing capability the search's text is followed by a sentence of its own.
    bool get_power_state(POWER_STATE& value, std::string& error) const;
    bool get_aspm_state(ASPM_STATE& value, std::string& error) const;

};

// A 16-bit register at a fixed offset in the PCI Express capability. set
// writes the whole dword back with the upper half as read, so status bits
// that clear on a written one are written back as they were.
class PCIeRegAccessor : public PCIeCapabilityReader {
public:
    PCIeRegAccessor(Device_ID device, ReadPCI& read, WritePCI& write, DetectThisPCIECapability& capability,
                    unsigned int offset);
    bool get(unsigned int& value, std::string& error) const;
    bool set(const unsigned int& value, std::string& error) const;

private:
    WritePCI& _write;
    unsigned int _offset;
};

// The PCI Express device/port type of a function.
class GetPortType {
public:
    enum PORT_TYPE : unsigned int {
        ROOT_PORT = 0,
        UPSTREAM_PORT = 1,
        DOWNSTREAM_PORT = 2,
        PCI_EXPRESS_ENDPOINT = 3,
        LEGACY_PCI_EXPRESS_ENDPOINT = 4,
        EXPRESS_TO_PCI_BRIDGE = 5,
        PCI_TO_EXPRESS_BRIDGE = 6,
        ROOT_COMPLEX_INTEGERATED_ENDPOINT = 7,
        ROOT_COMPLEX_EVENT_CONTROLLER = 8,
        UNKNOWN_PORT_TYPE = 9,
    };

    GetPortType(Device_ID device, std::shared_ptr<ReadPCI> read);
    // UNKNOWN_PORT_TYPE for a function without the PCI Express capability.
    PORT_TYPE detect() const;
    // Ports of the platform's own vendor IDs read "VEX RootPort" and the like.
    std::string get_as_str() const;

private:
    Device_ID _device;
    std::shared_ptr<ReadPCI> _read;
};

}  // namespace PCIE

// Secondary and subordinate bus numbers of a bridge.
class GetSecondarySubordinateBus {
public:
    std::pair<unsigned int, unsigned int> operator()(PCIDeviceDetails device, std::shared_ptr<ReadPCI> read) const;
};
