// Register and bit-field layouts of the standard configuration structures,
// kept as data: one table per structure, each field with its access and a
// short meaning. The viewer fills values from the device; nothing here reads
// hardware.
#pragma once

#include <string>
#include <vector>

namespace pci_tables {

enum class StructureKind { header, capability, extended_capability };

// When a register exists: some lie only in one layout of their structure.
enum class Presence {
    always,
    msi_32bit,     // MSI with 32-bit message address
    msi_64bit,     // MSI with 64-bit message address
    root_port,     // PCI Express root ports (root control, root error registers)
};

struct FieldDef {
    std::string name;
    unsigned start_bit;
    unsigned end_bit;
    // "RO", "RW", "RW1C", "HwInit" or "RsvdP". Only "RW" fields may be
    // written from the viewer; RW1C bits are kept at 0 in every write so a
    // change of a neighbouring field never clears a status by accident.
    std::string access;
    std::string text;
};

struct RegisterDef {
    std::string name;   // per-lane registers: a "%u" stands for the lane
    unsigned offset;    // in the structure; per-lane: of lane 0
    unsigned size_bits; // 8, 16 or 32
    std::vector<FieldDef> fields;
    unsigned lane_stride = 0;  // not 0: one register per lane of the port's link, this far apart
    Presence presence = Presence::always;
};

struct StructureDef {
    std::string name;      // as the viewer lists it, e.g. "PMI_CAP"
    StructureKind kind;
    unsigned id;           // capability ID; unused for headers
    std::vector<RegisterDef> registers;
};

// Every structure the viewer can decode.
const std::vector<StructureDef>& all_structures();
// The table of a capability or extended capability ID; null when unknown.
const StructureDef* find_structure(StructureKind kind, unsigned id);
// By viewer name; null when unknown.
const StructureDef* find_structure(const std::string& name);
// The header of a capability the tables don't describe (its ID and link only).
const StructureDef& unknown_structure(StructureKind kind);

}  // namespace pci_tables
