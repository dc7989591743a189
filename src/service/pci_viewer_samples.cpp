#include "service/pci_viewer_samples.h"

#include <cstdint>
#include <cstdio>
#include <utility>
#include <vector>

using nlohmann::json;

namespace {

const std::string kDetailedSbdf = "0:4:0.0";

std::string hex(std::uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", static_cast<unsigned>(value));
    return text;
}

// Configuration space as dwords, index = offset / 4.
using ConfigSpace = std::vector<std::uint32_t>;

// Bits [offset, offset + bits) of the space; registers never straddle a dword.
std::uint32_t read_bits(const ConfigSpace& space, std::uint32_t offset, unsigned bits) {
    const std::uint32_t dword = space.at(offset / 4) >> ((offset % 4) * 8);
    return bits >= 32 ? dword : dword & ((1u << bits) - 1);
}

// The switch upstream port "0:4:0.0": type-1 header, power management at 0x80,
// PCI Express at 0x88, MSI at 0xC8, then AER, Secondary PCI Express, the 16
// and 32 GT/s physical layer, Lane Margining at the Receiver, Data Link
// Feature and a vendor-specific block that ends at 0x447.
ConfigSpace bridge_config_space() {
    ConfigSpace space(0x444 / 4 + 1, 0);
    const std::pair<std::uint32_t, std::uint32_t> dwords[] = {
        {0x000, 0x37001DB2},  // device, vendor
        {0x004, 0x00100407},  // capability list; I/O, memory, bus master, INTx off
        {0x008, 0x06040001},  // PCI-to-PCI bridge, revision 1
        {0x00C, 0x00010010},  // header type 1, 64-byte cache line
        {0x018, 0x00060504},  // primary 4, secondary 5, subordinate 6
        {0x01C, 0x000001F1},  // I/O window closed (base above limit)
        {0x020, 0xFC10FC00},  // memory window 0xFC000000-0xFC1FFFFF
        {0x024, 0x0001FFF1},  // prefetchable window closed
        {0x034, 0x00000080},
        {0x03C, 0x000301FF},  // SERR and parity response on, INTA
        {0x080, 0xC8038801},  // PM: version 3, PME from D0/D3hot/D3cold, next 0x88
        {0x084, 0x00000008},  // D0, no soft reset
        {0x088, 0x0052C810},  // PCIe v2, upstream switch port, next 0xC8
        {0x08C, 0x00008022},  // 512-byte payload, extended tags, role-based errors
        {0x090, 0x0000293F},  // error reporting on, 256-byte payload, 512-byte reads
        {0x094, 0x00434D05},  // 32 GT/s, x16, L0s and L1
        {0x098, 0x11050040},  // running at 32 GT/s x16, common clock
        {0x0AC, 0x0000081F},
        {0x0B0, 0x00000400},  // LTR on
        {0x0B4, 0x0000003E},  // 2.5 to 32 GT/s supported
        {0x0B8, 0x001E0005},  // target 32 GT/s, equalisation complete
        {0x0C8, 0x01810005},  // MSI: per-vector masking, 64-bit, enabled
        {0x0CC, 0xFEE00000},
        {0x0D4, 0x00000024},
        {0x100, 0x15020001},  // AER v2, next 0x150
        {0x108, 0x00400000},  // uncorrectable internal error masked
        {0x10C, 0x00462030},  // default severities
        {0x114, 0x0000E000},  // advisory and internal correctable errors masked
        {0x118, 0x000000A0},  // ECRC generation and check capable
        {0x150, 0x18010019},  // Secondary PCI Express, next 0x180
        {0x180, 0x1C010026},  // Physical Layer 16.0 GT/s, next 0x1C0
        {0x18C, 0x0000000F},  // equalisation phases 1 to 3 successful
        {0x1C0, 0x2001002A},  // Physical Layer 32.0 GT/s, next 0x200
        {0x1C4, 0x00000003},
        {0x1CC, 0x0000000F},
        {0x200, 0x40010027},  // Lane Margining at the Receiver, next 0x400
        {0x204, 0x00010000},  // margining ready
        {0x400, 0x41010025},  // Data Link Feature, next 0x410
        {0x404, 0x80000001},  // scaled flow control, exchange enabled
        {0x408, 0x80000001},
        {0x410, 0x0001000B},  // vendor-specific, last in the list
        {0x414, 0x03810001},  // 0x38 bytes long
        {0x418, 0x00000003},
        {0x41C, 0x00020010},
    };
    for (const auto& [offset, value] : dwords) space[offset / 4] = value;
    for (std::uint32_t i = 0; i < 8; ++i) space[(0x15C + 4 * i) / 4] = 0x47474747;  // lane presets
    for (std::uint32_t i = 0; i < 4; ++i) {
        space[(0x1A0 + 4 * i) / 4] = 0x77777777;  // 16 GT/s lane presets
        space[(0x1E0 + 4 * i) / 4] = 0x77777777;  // 32 GT/s lane presets
    }
    // Each lane's margining control and status read "no command".
    for (std::uint32_t lane = 0; lane < 16; ++lane) space[(0x208 + 4 * lane) / 4] = 0x9C389C38;
    return space;
}

// An NVMe end point, the device behind every SBDF but "0:4:0.0".
ConfigSpace endpoint_config_space() {
    ConfigSpace space(64, 0);
    const std::pair<std::uint32_t, std::uint32_t> dwords[] = {
        {0x00, 0x50121E93}, {0x04, 0x00100406}, {0x08, 0x01080201}, {0x0C, 0x00000010},
        {0x10, 0xFCE00004}, {0x2C, 0x50121E93}, {0x34, 0x00000080}, {0x3C, 0x000001FF},
        {0x80, 0x00039001}, {0x84, 0x00000008},
    };
    for (const auto& [offset, value] : dwords) space[offset / 4] = value;
    return space;
}

struct Field {
    const char* name;
    unsigned start_bit;
    unsigned end_bit;
    const char* access;
    const char* text;
    const char* add_desc;
};
using Fields = std::vector<Field>;

struct RegisterDef {
    const char* name;
    std::uint32_t offset;
    unsigned size;
    Fields fields;
};

// A register that is one field of the same name.
RegisterDef whole(const char* name, std::uint32_t offset, unsigned size, const char* access, const char* text) {
    return {name, offset, size, {{name, 0, size - 1, access, text, ""}}};
}

const Fields& command_fields() {
    static const Fields fields = {
        {"IO_SPACE_EN", 0, 0, "RW", "Responds to I/O space accesses.", ""},
        {"MEM_SPACE_EN", 1, 1, "RW", "Responds to memory space accesses.", ""},
        {"BUS_MASTER_EN", 2, 2, "RW", "May issue memory and I/O requests.", "Also gates MSI."},
        {"SPECIAL_CYCLE_EN", 3, 3, "RO", "Special cycles.", "Not used by PCI Express; 0."},
        {"MEM_WRITE_INVALIDATE_EN", 4, 4, "RO", "Memory write and invalidate.", "Not used by PCI Express; 0."},
        {"VGA_PALETTE_SNOOP", 5, 5, "RO", "VGA palette snoop.", "Not used by PCI Express; 0."},
        {"PARITY_ERROR_RESPONSE", 6, 6, "RW", "Logs poisoned requests as parity errors.", ""},
        {"IDSEL_STEPPING", 7, 7, "RO", "IDSEL stepping.", "Not used by PCI Express; 0."},
        {"SERR_EN", 8, 8, "RW", "Reports non-fatal and fatal errors.", ""},
        {"FAST_B2B_EN", 9, 9, "RO", "Fast back-to-back transactions.", "Not used by PCI Express; 0."},
        {"INTERRUPT_DIS", 10, 10, "RW", "Disables INTx messages.", ""},
        {"RSVD", 11, 15, "RsvdP", "Reserved.", ""},
    };
    return fields;
}

const Fields& status_fields() {
    static const Fields fields = {
        {"IMMEDIATE_READINESS", 0, 0, "RO", "Ready for any request after reset.", ""},
        {"RSVD0", 1, 2, "RsvdZ", "Reserved.", ""},
        {"INTERRUPT_STATUS", 3, 3, "RO", "An INTx interrupt is pending.", ""},
        {"CAP_LIST", 4, 4, "RO", "A capability list starts at the capabilities pointer.", ""},
        {"PCI_66MHZ_CAP", 5, 5, "RO", "66 MHz capable.", "Not used by PCI Express; 0."},
        {"RSVD1", 6, 6, "RsvdZ", "Reserved.", ""},
        {"FAST_B2B_CAP", 7, 7, "RO", "Fast back-to-back capable.", "Not used by PCI Express; 0."},
        {"MASTER_DATA_PARITY_ERROR", 8, 8, "RW1C", "A poisoned completion or request was seen.", ""},
        {"DEVSEL_TIMING", 9, 10, "RO", "DEVSEL timing.", "Not used by PCI Express; 0."},
        {"SIGNALED_TARGET_ABORT", 11, 11, "RW1C", "A completer abort was sent.", ""},
        {"RECEIVED_TARGET_ABORT", 12, 12, "RW1C", "A completer abort was received.", ""},
        {"RECEIVED_MASTER_ABORT", 13, 13, "RW1C", "An unsupported request completion was received.", ""},
        {"SIGNALED_SYSTEM_ERROR", 14, 14, "RW1C", "A fatal or non-fatal error message was sent.", ""},
        {"DETECTED_PARITY_ERROR", 15, 15, "RW1C", "A poisoned TLP was received.", ""},
    };
    return fields;
}

const Fields& memory_bar_fields() {
    static const Fields fields = {
        {"MEM_SPACE_INDICATOR", 0, 0, "RO", "0 for a memory BAR.", ""},
        {"TYPE", 1, 2, "RO", "Address width.", "0: 32-bit, 2: 64-bit."},
        {"PREFETCHABLE", 3, 3, "RO", "The range is prefetchable.", ""},
        {"BASE_ADDRESS", 4, 31, "RW", "Base address of the range.", ""},
    };
    return fields;
}

// Registers both header layouts begin with.
std::vector<RegisterDef> common_header_start() {
    return {
        whole("VENDORID", 0x0, 16, "RO", "Vendor identification."),
        whole("DEVICEID", 0x2, 16, "RO", "Device identification."),
        {"COMMAND", 0x4, 16, command_fields()},
        {"STATUS", 0x6, 16, status_fields()},
        whole("REVISIONID", 0x8, 8, "RO", "Revision of the device."),
        {"CLASSCODE",
         0x9,
         24,
         {{"PROG_IF", 0, 7, "RO", "Programming interface.", ""},
          {"SUB_CLASS", 8, 15, "RO", "Sub-class.", ""},
          {"BASE_CLASS", 16, 23, "RO", "Base class.", ""}}},
    };
}

const Field kHeaderLayout = {"HEADER_LAYOUT", 0, 6, "RO", "Layout of bytes 0x10 to 0x3F.", "0: type 0, 1: type 1."};
const Field kMultiFunction = {"MULTI_FUNCTION_DEVICE", 7, 7, "RO", "The device has more than one function.", ""};

std::vector<RegisterDef> type0_header() {
    std::vector<RegisterDef> regs = common_header_start();
    const std::vector<RegisterDef> rest = {
        {"HEADERTYPE", 0xE, 8, {kHeaderLayout, kMultiFunction}},
        {"BAR0", 0x10, 32, memory_bar_fields()},
        whole("BAR1", 0x14, 32, "RW", "Upper 32 bits of the 64-bit BAR0."),
        whole("SUBSYSTEMVENDORID", 0x2C, 16, "HwInit", "Vendor of the subsystem."),
        whole("SUBSYSTEMID", 0x2E, 16, "HwInit", "Subsystem identification."),
        whole("CAPABILITIESPOINTER", 0x34, 8, "RO", "Offset of the first capability."),
    };
    regs.insert(regs.end(), rest.begin(), rest.end());
    return regs;
}

std::vector<RegisterDef> type1_header() {
    std::vector<RegisterDef> regs = common_header_start();
    const Fields window = {
        {"ADDRESSING_CAP", 0, 3, "RO", "Width of the window's addresses.", "0: 16-bit or 32-bit, 1: 32-bit or 64-bit."},
        {"ADDRESS", 4, 7, "RW", "Address bits 15:12 of the window.", ""},
    };
    const Fields memory_window = {
        {"RSVD", 0, 3, "RsvdP", "Reserved.", ""},
        {"ADDRESS", 4, 15, "RW", "Address bits 31:20 of the window.", ""},
    };
    const Fields prefetch_window = {
        {"ADDRESSING_CAP", 0, 3, "RO", "Width of the window's addresses.", "1: 64-bit."},
        {"ADDRESS", 4, 15, "RW", "Address bits 31:20 of the window.", ""},
    };
    const std::vector<RegisterDef> rest = {
        whole("CACHELINESIZE", 0xC, 8, "RW", "Cache line size in dwords."),
        whole("LATENCYTIMER", 0xD, 8, "RO", "Not used by PCI Express; 0."),
        {"HEADERTYPE", 0xE, 8, {kHeaderLayout, kMultiFunction}},
        {"BIST",
         0xF,
         8,
         {{"COMPLETION_CODE", 0, 3, "RO", "Result of the last self test.", ""},
          {"RSVD", 4, 5, "RsvdP", "Reserved.", ""},
          {"START_BIST", 6, 6, "RW", "Starts a self test.", ""},
          {"BIST_CAPABLE", 7, 7, "RO", "A self test is implemented.", ""}}},
        {"BAR0", 0x10, 32, memory_bar_fields()},
        {"BAR1", 0x14, 32, memory_bar_fields()},
        whole("PRIMARYBUSNUMBER", 0x18, 8, "RW", "Bus on the upstream side."),
        whole("SECONDARYBUSNUMBER", 0x19, 8, "RW", "Bus directly behind the bridge."),
        whole("SUBORDINATEBUSNUMBER", 0x1A, 8, "RW", "Highest bus behind the bridge."),
        whole("SECONDARYLATENCYTIMER", 0x1B, 8, "RO", "Not used by PCI Express; 0."),
        {"IOBASE", 0x1C, 8, window},
        {"IOLIMIT", 0x1D, 8, window},
        {"SECONDARYSTATUS",
         0x1E,
         16,
         {{"RSVD0", 0, 4, "RsvdZ", "Reserved.", ""},
          {"PCI_66MHZ_CAP", 5, 5, "RO", "Not used by PCI Express; 0.", ""},
          {"RSVD1", 6, 6, "RsvdZ", "Reserved.", ""},
          {"FAST_B2B_CAP", 7, 7, "RO", "Not used by PCI Express; 0.", ""},
          {"MASTER_DATA_PARITY_ERROR", 8, 8, "RW1C", "A poisoned TLP was seen on the secondary side.", ""},
          {"DEVSEL_TIMING", 9, 10, "RO", "Not used by PCI Express; 0.", ""},
          {"SIGNALED_TARGET_ABORT", 11, 11, "RW1C", "A completer abort was sent downstream.", ""},
          {"RECEIVED_TARGET_ABORT", 12, 12, "RW1C", "A completer abort was received from below.", ""},
          {"RECEIVED_MASTER_ABORT", 13, 13, "RW1C", "An unsupported request completion came from below.", ""},
          {"RECEIVED_SYSTEM_ERROR", 14, 14, "RW1C", "A fatal or non-fatal error message came from below.", ""},
          {"DETECTED_PARITY_ERROR", 15, 15, "RW1C", "A poisoned TLP came from below.", ""}}},
        {"MEMORYBASE", 0x20, 16, memory_window},
        {"MEMORYLIMIT", 0x22, 16, memory_window},
        {"PREFETCHABLEMEMORYBASE", 0x24, 16, prefetch_window},
        {"PREFETCHABLEMEMORYLIMIT", 0x26, 16, prefetch_window},
        whole("CAPABILITIESPOINTER", 0x34, 8, "RO", "Offset of the first capability."),
        whole("INTERRUPTLINE", 0x3C, 8, "RW", "Interrupt routing information for software."),
        whole("INTERRUPTPIN", 0x3D, 8, "RO", "INTx pin used; 1 is INTA."),
        {"BRIDGECONTROL",
         0x3E,
         16,
         {{"PARITY_ERROR_RESPONSE", 0, 0, "RW", "Reports poisoned TLPs from below.", ""},
          {"SERR_EN", 1, 1, "RW", "Forwards error messages from below.", ""},
          {"ISA_EN", 2, 2, "RW", "Restricts I/O forwarding to the first 256 bytes of each 1 KiB.", ""},
          {"VGA_EN", 3, 3, "RW", "Forwards legacy VGA ranges.", ""},
          {"VGA_16BIT_DECODE", 4, 4, "RW", "Decodes 16 bits of VGA I/O addresses.", ""},
          {"MASTER_ABORT_MODE", 5, 5, "RO", "Not used by PCI Express; 0.", ""},
          {"SECONDARY_BUS_RESET", 6, 6, "RW", "Holds the secondary side in hot reset.", ""},
          {"FAST_B2B_EN", 7, 7, "RO", "Not used by PCI Express; 0.", ""},
          {"PRIMARY_DISCARD_TIMEOUT", 8, 8, "RO", "Not used by PCI Express; 0.", ""},
          {"SECONDARY_DISCARD_TIMEOUT", 9, 9, "RO", "Not used by PCI Express; 0.", ""},
          {"DISCARD_TIMER_STATUS", 10, 10, "RO", "Not used by PCI Express; 0.", ""},
          {"DISCARD_TIMER_SERR_EN", 11, 11, "RO", "Not used by PCI Express; 0.", ""},
          {"RSVD", 12, 15, "RsvdP", "Reserved.", ""}}},
    };
    regs.insert(regs.end(), rest.begin(), rest.end());
    return regs;
}

std::vector<RegisterDef> power_management_capability() {
    return {
        {"PMI_CAP_LIST",
         0x0,
         16,
         {{"CAP_ID", 0, 7, "RO", "Capability ID; 0x1 is power management.", ""},
          {"NXT_PTR", 8, 15, "RO", "Offset of the next capability.", "0 ends the list."}}},
        {"PMI_CAP",
         0x2,
         16,
         {{"VERSION", 0, 2, "RO", "Version of the capability.", ""},
          {"PME_CLOCK", 3, 3, "RO", "Not used by PCI Express; 0.", ""},
          {"IMMEDIATE_READINESS_ON_RETURN_TO_D0", 4, 4, "RO", "Ready at once after D3hot to D0.", ""},
          {"DEV_SPECIFIC_INIT", 5, 5, "RO", "Needs a device-specific initialisation.", ""},
          {"AUX_CURRENT", 6, 8, "RO", "Auxiliary current required in D3cold.", ""},
          {"D1_SUPPORT", 9, 9, "RO", "D1 is supported.", ""},
          {"D2_SUPPORT", 10, 10, "RO", "D2 is supported.", ""},
          {"PME_SUPPORT", 11, 15, "RO", "States from which PME can be sent.", "Bit 11 D0 up to bit 15 D3cold."}}},
        {"PMI_STATUS_CNTL",
         0x4,
         32,
         {{"POWER_STATE", 0, 1, "RW", "Current power state.", "0: D0, 1: D1, 2: D2, 3: D3hot."},
          {"RSVD0", 2, 2, "RsvdP", "Reserved.", ""},
          {"NO_SOFT_RESET", 3, 3, "RO", "State is kept across D3hot to D0.", ""},
          {"RSVD1", 4, 7, "RsvdP", "Reserved.", ""},
          {"PME_EN", 8, 8, "RW", "PME generation enabled.", ""},
          {"DATA_SELECT", 9, 12, "RW", "Selects what the data register reports.", ""},
          {"DATA_SCALE", 13, 14, "RO", "Scale of the data register.", ""},
          {"PME_STATUS", 15, 15, "RW1C", "A PME was signalled.", ""},
          {"RSVD2", 16, 21, "RsvdP", "Reserved.", ""},
          {"B2_B3_SUPPORT", 22, 22, "RO", "Not used by PCI Express; 0.", ""},
          {"BUS_PWR_CLK_CON_EN", 23, 23, "RO", "Not used by PCI Express; 0.", ""},
          {"PMI_DATA", 24, 31, "RO", "Power data selected by DATA_SELECT.", ""}}},
    };
}

json table(const char* name, const char* cap_id, std::uint32_t absolute_offset, const ConfigSpace& space,
           std::uint32_t read_base, const std::vector<RegisterDef>& regs) {
    json registers = json::array();
    for (const RegisterDef& reg : regs) {
        const std::uint32_t value = read_bits(space, read_base + reg.offset, reg.size);
        json fields = json::array();
        for (const Field& field : reg.fields) {
            const unsigned width = field.end_bit - field.start_bit + 1;
            const std::uint32_t field_value =
                width >= 32 ? value : (value >> field.start_bit) & ((1u << width) - 1);
            fields.push_back({{"name", field.name},
                              {"startBit", std::to_string(field.start_bit)},
                              {"endBit", std::to_string(field.end_bit)},
                              {"value", hex(field_value)},
                              {"access", field.access},
                              {"text", field.text},
                              {"addDesc", field.add_desc}});
        }
        registers.push_back({{"name", reg.name},
                             {"offset", hex(reg.offset)},
                             {"size", std::to_string(reg.size)},
                             {"field", std::move(fields)}});
    }
    return {{"name", name},
            {"capId", cap_id},
            {"absoluteOffset", hex(absolute_offset)},
            {"register", std::move(registers)}};
}

}  // namespace

json pci_device_list_sample() {
    struct Row {
        const char* sbdf;
        const char* device_id;
        const char* vendor_id;
        const char* class_code;
        const char* description;
        const char* parent;
    };
    // Root ports of the processor, each with one drive behind it; 0:0:3.1 leads
    // through a switch whose upstream port is the viewer's detailed device.
    static const Row rows[] = {
        {"0:0:1.1", "0x14AB", "0x1F7E", "PCI/PCIBridge", "VEXBridge", "0:0:0.0"},
        {"0:1:0.0", "0x5012", "0x1E93", "NVMExpressIO", "NVMeSSDController", "0:0:1.1"},
        {"0:0:1.2", "0x14AB", "0x1F7E", "PCI/PCIBridge", "VEXBridge", "0:0:0.0"},
        {"0:2:0.0", "0x5012", "0x1E93", "NVMExpressIO", "NVMeSSDController", "0:0:1.2"},
        {"0:0:2.4", "0x14AB", "0x1F7E", "PCI/PCIBridge", "VEXBridge", "0:0:0.0"},
        {"0:3:0.0", "0xA808", "0x1F21", "NVMExpressIO", "NVMeSSDController", "0:0:2.4"},
        {"0:0:3.1", "0x14AB", "0x1F7E", "PCI/PCIBridge", "VEXBridge", "0:0:0.0"},
        {"0:4:0.0", "0x3700", "0x1DB2", "PCI/PCIBridge", "PCIeSwitchUpstreamPort", "0:0:3.1"},
        {"0:5:0.0", "0x3701", "0x1DB2", "PCI/PCIBridge", "PCIeSwitchDownstreamPort", "0:4:0.0"},
        {"0:6:0.0", "0x5012", "0x1E93", "NVMExpressIO", "NVMeSSDController", "0:5:0.0"},
        {"0:0:3.2", "0x14AB", "0x1F7E", "PCI/PCIBridge", "VEXBridge", "0:0:0.0"},
        {"0:7:0.0", "0x0611", "0x1D47", "SATA/AHCI", "SATAController", "0:0:3.2"},
        {"0:0:3.3", "0x14AB", "0x1F7E", "PCI/PCIBridge", "VEXBridge", "0:0:0.0"},
        {"0:8:0.0", "0xA808", "0x1F21", "NVMExpressIO", "NVMeSSDController", "0:0:3.3"},
        {"0:0:5.1", "0x14AB", "0x1F7E", "PCI/PCIBridge", "VEXBridge", "0:0:0.0"},
        {"0:9:0.0", "0x0740", "0x1D47", "SerialAttachedSCSI", "SASHostBusAdapter", "0:0:5.1"},
        {"0:0:5.2", "0x14AB", "0x1F7E", "PCI/PCIBridge", "VEXBridge", "0:0:0.0"},
        {"0:a:0.0", "0x5012", "0x1E93", "NVMExpressIO", "NVMeSSDController", "0:0:5.2"},
        {"0:0:7.1", "0x14AB", "0x1F7E", "PCI/PCIBridge", "VEXBridge", "0:0:0.0"},
        {"0:b:0.0", "0xA808", "0x1F21", "NVMExpressIO", "NVMeSSDController", "0:0:7.1"},
    };
    json list = json::array();
    for (const Row& row : rows) {
        list.push_back({{"SBDF", row.sbdf},
                        {"DeviceID", row.device_id},
                        {"VendorID", row.vendor_id},
                        {"ClassCode", row.class_code},
                        {"DeviceDescription", row.description},
                        {"ParentSBDF", row.parent}});
    }
    return list;
}

json pci_cap_struct_list_sample() { return json::array({"PMI_CAP", "PCIE_CAP", "MSI_CAP"}); }

json pci_ext_cap_struct_list_sample() {
    return json::array({"PCIE_ADV_ERR_RPT_ENH_CAP", "PCIE_MARGINING_ENH_CAP"});
}

json pci_raw_view_sample(const std::string& sbdf) {
    json registers = json::array();
    if (sbdf == kDetailedSbdf) {
        const ConfigSpace space = bridge_config_space();
        for (std::uint32_t i = 0; i < space.size(); ++i)
            registers.push_back({{"offset", hex(4 * i)}, {"value", hex(space[i])}});
    } else {
        for (std::uint32_t i = 0; i < 64; ++i) registers.push_back({{"offset", hex(4 * i)}, {"value", hex(i)}});
    }
    return {{"name", "PCIE_CONFIG_RAW"}, {"absoluteOffset", "0x0"}, {"register", std::move(registers)}};
}

json pci_table_info_sample(const std::string& sbdf, const std::string& table_name) {
    const bool bridge = sbdf == kDetailedSbdf;
    const ConfigSpace space = bridge ? bridge_config_space() : endpoint_config_space();
    if (table_name == "PCIE_HEADER") {
        // Header registers keep their offsets in configuration space; the
        // viewer anchors the bridge's table at 0x10 all the same.
        if (bridge) return table("PCIE_HEADER_TYPE1", "NA", 0x10, space, 0, type1_header());
        return table("PCIE_HEADER_TYPE0", "NA", 0x0, space, 0, type0_header());
    }
    return table("PMI_CAP", "0x1", 0x80, space, 0x80, power_management_capability());
}
