// The PCI viewer over live functions: the device tree from detection, the
// capability structures each function holds, its configuration space as a
// raw dump, and any structure as a table of registers and bit fields with
// the values read from the device. Answers keep the viewer's JSON shapes.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"

class PCIViewer {
public:
    PCIViewer(std::vector<PCIDeviceDetails> devices, std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write);

    // [{"SBDF","DeviceID","VendorID","ClassCode","DeviceDescription","ParentSBDF"}]:
    // a function's parent is the bridge whose bus range holds its bus, else
    // function 0.0 of its root bus; "" for the roots of the tree.
    nlohmann::json device_list() const;
    // Names of the structures present, in list order: the tables' names,
    // "CAP_0xNN" / "ENH_CAP_0xNNNN" for structures without a table, a
    // repeated name gets "_2", "_3"... The header is "PCIE_HEADER".
    nlohmann::json cap_struct_list(const std::string& sbdf) const;
    nlohmann::json ext_cap_struct_list(const std::string& sbdf) const;
    // "PCIE_CONFIG_RAW": every dword of the function's configuration space.
    nlohmann::json raw_view(const std::string& sbdf) const;
    // The descriptor of a structure named by a list above (or "PCIE_HEADER").
    // An unknown function or name gives {"OperationStatus": false, "ErrMsg"}.
    nlohmann::json table_info(const std::string& sbdf, const std::string& table_name) const;
    // Writes one field: "SBDF", "tableName", "absoluteOffset" (the
    // structure's, checked against the device), "register" (its name),
    // "field" (its name) and "value" (number or hex text). Read-modify-write
    // of the register with RW1C bits written as 0. "success", or the reason
    // it was refused.
    std::string table_write(const nlohmann::json& request) const;

private:
    std::vector<PCIDeviceDetails> _devices;
    std::shared_ptr<ReadPCI> _read;
    std::shared_ptr<WritePCI> _write;
};
