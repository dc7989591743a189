#include "panels/pci_viewer.h"

#include <cstdio>
#include <map>
#include <optional>

#include "discovery/pci_names.h"
#include "panels/pci_device.h"
#include "panels/pci_register_tables.h"

using nlohmann::json;
using pci_tables::StructureDef;
using pci_tables::StructureKind;

namespace {

constexpr const char* kHeaderName = "PCIE_HEADER";
constexpr unsigned int kPciExpressId = 0x10, kMsiId = 0x05;

std::string hex(unsigned int value, int digits = 0) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%0*X", digits, value);
    return text;
}

unsigned int mask_of(unsigned int bits) { return bits >= 32 ? 0xFFFFFFFFu : (1u << bits) - 1; }

json failure(const std::string& reason) { return json{{"OperationStatus", false}, {"ErrMsg", reason}}; }

// One structure of a function as found in its lists.
struct Found {
    std::string name;
    const StructureDef* table;
    unsigned int offset;
    unsigned int id;
    StructureKind kind;
};

std::vector<Found> found_structures(const CPCIDevice& device, StructureKind kind) {
    const auto caps = kind == StructureKind::capability ? device.capabilities() : device.extended_capabilities();
    std::vector<Found> found;
    std::map<std::string, int> seen;
    for (const CPCICaps& c : caps) {
        const StructureDef* table = pci_tables::find_structure(kind, c.GetCapsID());
        std::string name = table ? table->name
                                 : (kind == StructureKind::capability ? "CAP_" + hex(c.GetCapsID(), 2)
                                                                      : "ENH_CAP_" + hex(c.GetCapsID(), 4));
        if (const int n = ++seen[name]; n > 1) name += "_" + std::to_string(n);
        found.push_back({name, table ? table : &pci_tables::unknown_structure(kind), c.GetCapsOffset(), c.GetCapsID(), kind});
    }
    return found;
}

std::optional<Found> resolve(const CPCIDevice& device, const std::string& name) {
    if (name == kHeaderName || name == "PCIE_HEADER_TYPE0" || name == "PCIE_HEADER_TYPE1") {
        const bool bridge = device.is_bridge();
        const StructureDef* table = pci_tables::find_structure(bridge ? "PCIE_HEADER_TYPE1" : "PCIE_HEADER_TYPE0");
        return Found{table->name, table, 0, 0, StructureKind::header};
    }
    for (StructureKind kind : {StructureKind::capability, StructureKind::extended_capability})
        for (const Found& f : found_structures(device, kind))
            if (f.name == name) return f;
    return std::nullopt;
}

// A register of a structure as it lies on this function.
struct Placed {
    std::string name;
    unsigned int offset;  // in the structure
    const pci_tables::RegisterDef* def;
};

std::vector<Placed> placed_registers(const CPCIDevice& device, const Found& s) {
    unsigned int lanes = 0, port_type = 0;
    if (const auto pcie = device.find_capability(kPciExpressId)) {
        lanes = (device.read(*pcie + 0x0C, 4) >> 4) & 0x3F;
        port_type = (device.read(*pcie + 2, 2) >> 4) & 0xF;
    }
    const bool msi64 = s.kind == StructureKind::capability && s.id == kMsiId && ((device.read(s.offset + 2, 2) >> 7) & 1);
    std::vector<Placed> placed;
    for (const auto& r : s.table->registers) {
        using P = pci_tables::Presence;
        if ((r.presence == P::msi_64bit && !msi64) || (r.presence == P::msi_32bit && msi64) ||
            (r.presence == P::root_port && port_type != 4))
            continue;
        if (!r.lane_stride) {
            placed.push_back({r.name, r.offset, &r});
            continue;
        }
        for (unsigned int lane = 0; lane < lanes; ++lane) {
            std::string name = r.name;
            if (const auto at = name.find("%u"); at != std::string::npos) name.replace(at, 2, std::to_string(lane));
            placed.push_back({name, r.offset + lane * r.lane_stride, &r});
        }
    }
    return placed;
}

// Registers never straddle a dword, so one aligned read gives any of them.
unsigned int read_register(const CPCIDevice& device, unsigned int absolute, unsigned int bits) {
    const unsigned int dword = device.read(absolute & ~3u, 4);
    return (dword >> (8 * (absolute & 3))) & mask_of(bits);
}

std::optional<unsigned int> parse_value(const json& value) {
    if (value.is_number_unsigned()) {
        const auto v = value.get<unsigned long long>();
        if (v <= 0xFFFFFFFFull) return static_cast<unsigned int>(v);
        return std::nullopt;
    }
    if (!value.is_string()) return std::nullopt;
    const std::string text = value.get<std::string>();
    try {
        std::size_t used = 0;
        const unsigned long long v = std::stoull(text, &used, 0);
        if (used != text.size() || v > 0xFFFFFFFFull || text.empty() || text[0] == '-') return std::nullopt;
        return static_cast<unsigned int>(v);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

}  // namespace

PCIViewer::PCIViewer(std::vector<PCIDeviceDetails> devices, std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write)
    : _devices(std::move(devices)), _read(std::move(read)), _write(std::move(write)) {}

json PCIViewer::device_list() const {
    struct Bridge {
        PCIE::Device_ID address;
        unsigned int secondary, subordinate;
    };
    json list = json::array();
    if (!_read) return list;
    std::vector<Bridge> bridges;
    for (const auto& d : _devices) {
        const CPCIDeviceType1 device(PCIE::Device_ID(d), _read, _write);
        if (device.is_bridge() && device.secondary_bus() > d.bus)
            bridges.push_back({PCIE::Device_ID(d), device.secondary_bus(), device.subordinate_bus()});
    }
    const auto database = PCIE::PCIIdDatabase::shared();
    for (const auto& d : _devices) {
        const PCIE::Device_ID address(d);
        // The nearest bridge is the one with the narrowest range holding the bus.
        const Bridge* parent = nullptr;
        for (const Bridge& b : bridges)
            if (b.address.segment == d.segment && d.bus >= b.secondary && d.bus <= b.subordinate &&
                (!parent || b.subordinate - b.secondary < parent->subordinate - parent->secondary))
                parent = &b;
        std::string parent_sbdf;
        if (parent) {
            parent_sbdf = sbdf_string(parent->address);
        } else if (d.device != 0 || d.function != 0) {
            for (const auto& other : _devices)
                if (other.segment == d.segment && other.bus == d.bus && other.device == 0 && other.function == 0)
                    parent_sbdf = sbdf_string(PCIE::Device_ID(other));
        }
        const CPCIDevice device(address, _read, _write);
        std::string description = database->device_name(d.vendor_id, d.device_id);
        if (description.empty()) {
            const auto vendor = database->vendor_names(d.vendor_id);
            description = (vendor.first.empty() ? hex(d.vendor_id, 4) : vendor.first) + " device " + hex(d.device_id, 4);
        }
        list.push_back({{"SBDF", sbdf_string(address)},
                        {"DeviceID", hex(d.device_id, 4)},
                        {"VendorID", hex(d.vendor_id, 4)},
                        {"ClassCode", PCIE::GetClassName(address, *_read)()},
                        {"DeviceDescription", description},
                        {"ParentSBDF", parent_sbdf}});
    }
    return list;
}

json PCIViewer::cap_struct_list(const std::string& sbdf) const {
    json names = json::array();
    if (const auto address = parse_sbdf_string(sbdf))
        for (const Found& f : found_structures(CPCIDevice(*address, _read, _write), StructureKind::capability))
            names.push_back(f.name);
    return names;
}

json PCIViewer::ext_cap_struct_list(const std::string& sbdf) const {
    json names = json::array();
    if (const auto address = parse_sbdf_string(sbdf))
        for (const Found& f : found_structures(CPCIDevice(*address, _read, _write), StructureKind::extended_capability))
            names.push_back(f.name);
    return names;
}

json PCIViewer::raw_view(const std::string& sbdf) const {
    const auto address = parse_sbdf_string(sbdf);
    if (!address) return failure("\"SBDF\" \"" + sbdf + "\" is not of the form segment:bus:device.function in hex");
    const CPCIDevice device(*address, _read, _write);
    if (!device.present()) return failure("No PCI function " + sbdf + " answers");
    json registers = json::array();
    // The whole space, as the operating system offers it; functions without
    // an extended space read 0 or all ones past 0x100, which is worth seeing.
    for (unsigned int offset = 0; offset < 4096; offset += 4)
        registers.push_back({{"offset", hex(offset)}, {"value", hex(device.read(offset, 4))}});
    return json{{"name", "PCIE_CONFIG_RAW"}, {"absoluteOffset", "0x0"}, {"register", registers}};
}

json PCIViewer::table_info(const std::string& sbdf, const std::string& table_name) const {
    const auto address = parse_sbdf_string(sbdf);
    if (!address) return failure("\"SBDF\" \"" + sbdf + "\" is not of the form segment:bus:device.function in hex");
    const CPCIDevice device(*address, _read, _write);
    if (!device.present()) return failure("No PCI function " + sbdf + " answers");
    const auto found = resolve(device, table_name);
    if (!found) return failure("Function " + sbdf + " has no structure \"" + table_name + "\"");
    json registers = json::array();
    for (const Placed& r : placed_registers(device, *found)) {
        const unsigned int value = read_register(device, found->offset + r.offset, r.def->size_bits);
        json fields = json::array();
        for (const auto& f : r.def->fields)
            fields.push_back({{"name", f.name},
                              {"startBit", std::to_string(f.start_bit)},
                              {"endBit", std::to_string(f.end_bit)},
                              {"value", hex((value >> f.start_bit) & mask_of(f.end_bit - f.start_bit + 1))},
                              {"access", f.access},
                              {"text", f.text},
                              {"addDesc", ""}});
        registers.push_back({{"name", r.name},
                             {"offset", hex(r.offset)},
                             {"size", std::to_string(r.def->size_bits)},
                             {"value", hex(value)},
                             {"field", fields}});
    }
    return json{{"name", found->kind == StructureKind::header ? found->table->name : found->name},
                {"capId", found->kind == StructureKind::header ? "NA" : hex(found->id)},
                {"absoluteOffset", hex(found->offset)},
                {"register", registers}};
}

std::string PCIViewer::table_write(const json& request) const {
    auto text = [&](const char* key) -> std::string {
        const auto it = request.find(key);
        return it != request.end() && it->is_string() ? it->get<std::string>() : std::string();
    };
    const std::string sbdf = text("SBDF"), table = text("tableName"), reg_name = text("register"),
                      field_name = text("field");
    const auto address = parse_sbdf_string(sbdf);
    if (!address) return "\"SBDF\" \"" + sbdf + "\" is not of the form segment:bus:device.function in hex";
    const CPCIDevice device(*address, _read, _write);
    if (!device.present()) return "No PCI function " + sbdf + " answers";
    if (!_write) return "This service has no configuration writer";
    const auto found = resolve(device, table);
    if (!found) return "Function " + sbdf + " has no structure \"" + table + "\"";
    if (const std::string at = text("absoluteOffset"); !at.empty()) {
        const auto given = parse_value(json(at));
        if (!given || *given != found->offset)
            return "\"" + table + "\" lies at " + hex(found->offset) + " on " + sbdf + ", not at " + at;
    }
    const Placed* reg = nullptr;
    const auto registers = placed_registers(device, *found);
    for (const Placed& r : registers)
        if (r.name == reg_name) reg = &r;
    if (!reg) return "\"" + table + "\" has no register \"" + reg_name + "\"";
    const pci_tables::FieldDef* field = nullptr;
    unsigned int clear_on_one = 0;
    for (const auto& f : reg->def->fields) {
        const unsigned int bits = mask_of(f.end_bit - f.start_bit + 1) << f.start_bit;
        if (f.access == "RW1C") clear_on_one |= bits;
        if (f.name == field_name) field = &f;
    }
    if (!field) return "Register \"" + reg_name + "\" has no field \"" + field_name + "\"";
    if (field->access != "RW")
        return "Field " + field_name + " of " + reg_name + " is " + field->access + " and is not written from here";
    const auto value_it = request.find("value");
    const auto value = value_it == request.end() ? std::nullopt : parse_value(*value_it);
    const unsigned int width = field->end_bit - field->start_bit + 1;
    if (!value || *value > mask_of(width))
        return "Not written: " + field_name + " of " + reg_name + " takes a number from 0x0 to " + hex(mask_of(width)) +
               " (" + std::to_string(width) + (width == 1 ? " bit)" : " bits)");
    const unsigned int absolute = found->offset + reg->offset;
    const unsigned int bits = reg->def->size_bits;
    const unsigned int field_mask = mask_of(width) << field->start_bit;
    const unsigned int old_value = read_register(device, absolute, bits);
    // Status bits are written as 0, so the write never clears one by accident.
    const unsigned int new_value = (old_value & ~field_mask & ~clear_on_one) | (*value << field->start_bit);
    device.write(absolute, bits / 8, new_value);
    const unsigned int now = (read_register(device, absolute, bits) & field_mask) >> field->start_bit;
    if (now != *value)
        return "Wrote " + hex(*value) + " to " + field_name + " of " + reg_name + " but the device reads back " + hex(now);
    return "success";
}
