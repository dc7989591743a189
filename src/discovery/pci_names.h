// Vendor and class names of PCI functions, from the system's PCI ID database.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"

namespace PCIE {

// The vendor and class sections of a pci.ids file. A file that can't be read
// gives an empty database, so every lookup falls back.
class PCIIdDatabase {
public:
    explicit PCIIdDatabase(const std::string& path);

    // Short and long name; two empty strings for an unknown vendor. The file
    // holds one name per vendor: a trailing "[...]" is the short name and the
    // text before it the long one; without it both are the whole name.
    // 0x0000 and 0xFFFF, what absent functions read, have no name.
    std::pair<std::string, std::string> vendor_names(unsigned int vendor_id) const;
    // The sub-class name, followed by " (" programming interface name ")"
    // when the file lists that interface; nothing when the sub-class is unknown.
    std::optional<std::string> class_text(unsigned int base_class, unsigned int sub_class,
                                          unsigned int programming_interface) const;

    // The device's name under its vendor; empty when the file has none.
    std::string device_name(unsigned int vendor_id, unsigned int device_id) const;

    // The process-wide database, read on first use.
    static std::shared_ptr<const PCIIdDatabase> shared();
    // The file the process-wide database is read from (default
    // "/usr/share/misc/pci.ids"); it is read again on next use.
    static void set_path(const std::string& path);

private:
    std::unordered_map<unsigned int, std::string> _vendors;
    std::unordered_map<unsigned int, std::string> _devices;  // vendor << 16 | device
    std::map<unsigned int, std::string> _sub_classes;  // base << 8 | sub
    std::map<unsigned int, std::string> _interfaces;   // base << 16 | sub << 8 | interface
};

// Short and long vendor name of a function, from vendor ID in dword 0.
class GetVendorName {
public:
    GetVendorName(Device_ID device, ReadPCI& read);
    std::pair<std::string, std::string> operator()() const;

private:
    Device_ID _device;
    ReadPCI& _read;
};

// Class text of a function from its class code (dword 8 without the revision
// byte); "[Unknown Class:BB:SS.II]" in upper-case hexadecimal when unknown.
class GetClassName {
public:
    GetClassName(Device_ID device, ReadPCI& read);
    std::string operator()() const;

private:
    Device_ID _device;
    ReadPCI& _read;
};

}  // namespace PCIE
