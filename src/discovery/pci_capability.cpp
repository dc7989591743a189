#include "discovery/pci_capability.h"

namespace PCIE {

namespace {

constexpr unsigned int kStatusCommandOffset = 4;
constexpr unsigned int kCapabilityListBit = 1u << 20;
constexpr unsigned int kCapabilityPointerOffset = 52;
constexpr unsigned int kCapabilityLoopLimit = 20;
constexpr unsigned int kExtendedCapabilityStart = 256;
constexpr unsigned int kExtendedCapabilityLoopLimit = 100;

}  // namespace

std::string to_string(PCIE_CAPABILTTIES_IDS id) {
    return id == PCI_EXPRESS ? "PCI_EXPRESS" : "Unknown Capability";
}

std::string to_string(PCIE_EXTENDED_CAPABILTTIES_IDS id) {
    return id == LANE_MARGINING_AT_RECEIVER ? "Lane Margining" : "Unknown Capability";
}

DetectThisPCIECapability::DetectThisPCIECapability(Device_ID device, ReadPCI& read) : _device(device), _read(read) {}

bool DetectThisPCIECapability::detect(PCIE_CAPABILTTIES_IDS capability, unsigned int& offset,
                                      std::string& error) const {
    const auto read32 = [this](unsigned int at, unsigned int& value) {
        return _read.read32(_device.segment, _device.bus, _device.device, _device.function, at, value);
    };
    unsigned int value = 0;
    if (!read32(kStatusCommandOffset, value)) {
        error = "PCI read failed";
        return false;
    }
    if ((value & kCapabilityListBit) == 0) {
        error = " Capability List not present. " + to_string(capability) + " pcie capability.";
        return false;
    }
    value = 0;
    if (!read32(kCapabilityPointerOffset, value)) {
        error = "PCI read failed";
        return false;
    }
    unsigned int pointer = value & 0xFC;
    for (unsigned int count = 0;;) {
        value = 0;
        if (!read32(pointer, value)) {
            error = "PCI read failed";
            return false;
        }
        const unsigned int id = value & 0xFF;
        const unsigned int next = (value >> 8) & 0xFF;
        if (id == capability) {
            offset = pointer;
            return true;
        }
        if (id == 0 || next == 0) {
            error = "PCIe Capability " + to_string(capability) + " not found. Capability list end.";
            return false;
        }
        if (++count > kCapabilityLoopLimit) {
            error = "PCIe Capability " + to_string(capability) + " not found. Loop count exceeded.";
            return false;
        }
        pointer = next;
    }
}

DetectThisPCIEExtendedCapability::DetectThisPCIEExtendedCapability(Device_ID device, ReadPCI& read)
    : _device(device), _read(read) {}

bool DetectThisPCIEExtendedCapability::detect(PCIE_EXTENDED_CAPABILTTIES_IDS capability, unsigned int& offset,
                                              std::string& error) const {
    const auto read32 = [this](unsigned int at, unsigned int& value) {
        return _read.read32(_device.segment, _device.bus, _device.device, _device.function, at, value);
    };
    unsigned int value = 0;
    if (!read32(kExtendedCapabilityStart, value)) {
        error = "PCI read failed";
        return false;
    }
    unsigned int next = value >> 20;
    // The successor is tested before the ID, so a lone first entry is never found.
    if (next == 0) {
        error = "Extended Capability not found. " + to_string(capability) + " Extended PCIe capability.";
        return false;
    }
    if ((value & 0xFF) == capability) {
        offset = kExtendedCapabilityStart;
        return true;
    }
    for (unsigned int count = 0;;) {
        value = 0;
        if (!read32(next, value)) {
            error = "PCI read failed";
            return false;
        }
        if ((value & 0xFF) == capability) {
            offset = next;
            return true;
        }
        next = value >> 20;
        if (next == 0) {
            error = "PCIe Extended Capability " + to_string(capability) + " not found. Extended Capability list end.";
            return false;
        }
        if (++count > kExtendedCapabilityLoopLimit) {
            error = "PCIe Extended Capability " + to_string(capability) + " not found. Loop count exceeded.";
            return false;
        }
    }
}

}  // namespace PCIE
