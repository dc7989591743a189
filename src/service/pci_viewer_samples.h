// Fixed documents behind the PCI viewer routes.
//
// The viewer's REST side is not tied to live configuration space yet: it
// answers these constants, in exactly the shapes the front end reads, and
// accepts writes without touching hardware. One function, "0:4:0.0", a switch
// port with a full type-1 header and extended capabilities, is the device the
// viewer shows in detail; every other SBDF gets the generic answers.
//
// Hexadecimal texts are "0x" followed by upper-case digits without padding
// ("0x4", "0x1F7E", "0x9C389C38") for offsets and values alike, as in
// {"offset":"0x4","value":"0x1"}. Bit numbers and sizes are decimal texts.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

// Array of 20 functions: "SBDF", "DeviceID", "VendorID", "ClassCode",
// "DeviceDescription", "ParentSBDF". Parents are listed before their children;
// root ports name the host bridge "0:0:0.0", which isn't itself listed.
nlohmann::json pci_device_list_sample();

// ["PMI_CAP","PCIE_CAP","MSI_CAP"], whatever the device.
nlohmann::json pci_cap_struct_list_sample();

// ["PCIE_ADV_ERR_RPT_ENH_CAP","PCIE_MARGINING_ENH_CAP"], whatever the device.
nlohmann::json pci_ext_cap_struct_list_sample();

// "PCIE_CONFIG_RAW": for "0:4:0.0" every dword from 0x0 to 0x444, the end of
// its last extended capability (274 entries); for any other SBDF 64 dwords,
// 0x0 to 0xFC, in which dword n holds n.
nlohmann::json pci_raw_view_sample(const std::string& sbdf);

// A register table. "PCIE_HEADER" gives the type-1 header (27 registers) for
// "0:4:0.0" and the type-0 header (12 registers) for any other SBDF; any other
// table name gives the power management capability at 0x80.
nlohmann::json pci_table_info_sample(const std::string& sbdf, const std::string& table_name);
