// A live PCI function as the panels see it: its configuration space through
// the machine's ReadPCI and WritePCI, the capability structures actually
// present, and the PCI Express capability's ASPM and link controls.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"

// "seg:bus:dev.fn" in hexadecimal, as the panels' "SBDF" keys carry it.
std::string sbdf_string(const PCIE::Device_ID& device);
std::optional<PCIE::Device_ID> parse_sbdf_string(const std::string& text);

// One capability structure found in a function's lists.
class CPCICaps {
public:
    CPCICaps(unsigned int offset, unsigned int id, unsigned int size, bool extended)
        : _offset(offset), _id(id), _size(size), _extended(extended) {}
    unsigned int GetCapsOffset() const { return _offset; }
    unsigned int GetCapsID() const { return _id; }
    // Bytes the structure spans, as far as its layout is known (the header alone otherwise).
    unsigned int GetCapsSize() const { return _size; }
    bool IsExtended() const { return _extended; }

private:
    unsigned int _offset, _id, _size;
    bool _extended;
};

class CPCIDevice {
public:
    CPCIDevice(PCIE::Device_ID address, std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write);

    const PCIE::Device_ID& address() const { return _address; }
    // width 1, 2 or 4 bytes; the value as the accessor gives it.
    unsigned int read(unsigned int offset, unsigned int width) const;
    void write(unsigned int offset, unsigned int width, unsigned int value) const;
    // Vendor ID is not all ones.
    bool present() const;
    bool is_bridge() const;
    // The lists in the order they are linked. Walks stop at a pointer into the
    // header, at a repeated pointer or after as many entries as can fit, so a
    // broken list never loops.
    std::vector<CPCICaps> capabilities() const;
    std::vector<CPCICaps> extended_capabilities() const;
    std::optional<unsigned int> find_capability(unsigned int id) const;
    std::optional<unsigned int> find_extended_capability(unsigned int id) const;
    // Bytes of configuration space the function has: 4096 with a PCI Express
    // capability, 256 otherwise.
    unsigned int config_size() const;

private:
    PCIE::Device_ID _address;
    std::shared_ptr<ReadPCI> _read;
    std::shared_ptr<WritePCI> _write;
};

// A node of the device tree: a function and the bridge above it.
struct CPCIDeviceNode {
    PCIE::Device_ID address;
    std::optional<PCIE::Device_ID> parent;
};

// A bridge function.
class CPCIDeviceType1 : public CPCIDevice {
public:
    CPCIDeviceType1(PCIE::Device_ID address, std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write)
        : CPCIDevice(address, std::move(read), std::move(write)) {}
    unsigned int secondary_bus() const { return (read(0x18, 4) >> 8) & 0xFF; }
    unsigned int subordinate_bus() const { return (read(0x18, 4) >> 16) & 0xFF; }
};

namespace toollib {

// The PCI Express capability of a function: ASPM enables, link capabilities
// and the link controls that are saved and restored around changes.
class CPCIECaps {
public:
    explicit CPCIECaps(CPCIDevice& device);
    bool present() const { return _offset != 0; }
    unsigned int offset() const { return _offset; }

    bool GetASPML0sSupported() const;
    bool GetASPML1Supported() const;
    bool SetASPML0sEnabled(bool enable);
    bool GetASPML0sEnabled() const;
    bool SetASPML1Enabled(bool enable);
    bool GetASPML1Enabled() const;
    // Exit latencies from the link capabilities, in nanoseconds (the upper
    // bound of the coded range; all ones for "more than" the largest).
    unsigned int GetL0sExitLatencyNs() const;
    unsigned int GetL1ExitLatencyNs() const;
    unsigned int GetPortType() const;
    // Device, link and link 2 controls; Restore writes back what Save read.
    void SaveControlRegs();
    void RestoreControlRegs();
    bool SetLinkDisable(unsigned int disable);

private:
    CPCIDevice& _device;
    unsigned int _offset = 0;
    std::optional<unsigned int> _saved_device_control, _saved_link_control, _saved_link_control2;
};

}  // namespace toollib
