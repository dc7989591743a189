#include "panels/pci_register_tables.h"

namespace pci_tables {

namespace {

using K = StructureKind;
using P = Presence;

// The first register of every capability and of every extended capability.
const RegisterDef kCapList = {"CAP_LIST", 0x0, 16, {
    {"CAP_ID", 0, 7, "RO", "Capability ID"},
    {"NEXT_PTR", 8, 15, "RO", "Offset of the next capability; 0 ends the list"}}};
const RegisterDef kExtCapHeader = {"ENH_CAP_HDR", 0x0, 32, {
    {"CAP_ID", 0, 15, "RO", "Extended capability ID"},
    {"CAP_VER", 16, 19, "RO", "Capability version"},
    {"NEXT_PTR", 20, 31, "RO", "Offset of the next extended capability; 0 ends the list"}}};

RegisterDef named(RegisterDef r, std::string name) {
    r.name = std::move(name);
    return r;
}

const std::vector<RegisterDef> kCommonHeader = {
    {"VENDORID", 0x00, 16, {{"VENDOR_ID", 0, 15, "RO", "Maker of the function"}}},
    {"DEVICEID", 0x02, 16, {{"DEVICE_ID", 0, 15, "RO", "The maker's number for the function"}}},
    {"COMMAND", 0x04, 16, {
        {"IO_SPACE_EN", 0, 0, "RW", "Respond to I/O space accesses"},
        {"MEM_SPACE_EN", 1, 1, "RW", "Respond to memory space accesses"},
        {"BUS_MASTER_EN", 2, 2, "RW", "Allow the function to issue requests"},
        {"PARITY_ERROR_RESPONSE", 6, 6, "RW", "Report data parity errors"},
        {"SERR_EN", 8, 8, "RW", "Report fatal and non-fatal errors as SERR"},
        {"INTERRUPT_DISABLE", 10, 10, "RW", "Stop the function from sending INTx messages"}}},
    {"STATUS", 0x06, 16, {
        {"IMMEDIATE_READINESS", 0, 0, "RO", "Ready for any request after reset"},
        {"INTERRUPT_STATUS", 3, 3, "RO", "An INTx interrupt is pending"},
        {"CAP_LIST", 4, 4, "RO", "The capability list at 0x34 is present"},
        {"MASTER_DATA_PARITY_ERROR", 8, 8, "RW1C", "A poisoned completion or write was seen as requester"},
        {"SIGNALED_TARGET_ABORT", 11, 11, "RW1C", "The function completed a request with Completer Abort"},
        {"RECEIVED_TARGET_ABORT", 12, 12, "RW1C", "A completion with Completer Abort was received"},
        {"RECEIVED_MASTER_ABORT", 13, 13, "RW1C", "A completion with Unsupported Request was received"},
        {"SIGNALED_SYSTEM_ERROR", 14, 14, "RW1C", "An ERR_FATAL or ERR_NONFATAL message was sent"},
        {"DETECTED_PARITY_ERROR", 15, 15, "RW1C", "A poisoned TLP was received"}}},
    {"REVISIONID", 0x08, 8, {{"REVISION_ID", 0, 7, "RO", "Revision of the function"}}},
    {"CLASSCODE", 0x09, 24, {
        {"PROG_IF", 0, 7, "RO", "Programming interface"},
        {"SUB_CLASS", 8, 15, "RO", "Sub-class"},
        {"BASE_CLASS", 16, 23, "RO", "Base class"}}},
    {"CACHE_LINE_SIZE", 0x0C, 8, {{"CACHE_LINE_SIZE", 0, 7, "RW", "System cache line size in dwords (no effect on PCI Express)"}}},
    {"LATENCY_TIMER", 0x0D, 8, {{"LATENCY_TIMER", 0, 7, "RO", "Not used by PCI Express; reads 0"}}},
    {"HEADER_TYPE", 0x0E, 8, {
        {"HEADER_LAYOUT", 0, 6, "RO", "0: type 0 (endpoint), 1: type 1 (bridge)"},
        {"MULTI_FUNCTION", 7, 7, "RO", "The device has more than one function"}}},
    {"BIST", 0x0F, 8, {{"BIST", 0, 7, "RO", "Built-in self test control"}}},
};

std::vector<RegisterDef> header(std::vector<RegisterDef> specific) {
    std::vector<RegisterDef> all = kCommonHeader;
    all.insert(all.end(), specific.begin(), specific.end());
    return all;
}

RegisterDef bar(unsigned n) {
    return {"BASE_ADDR_" + std::to_string(n), 0x10 + 4 * n, 32, {
        {"SPACE_INDICATOR", 0, 0, "RO", "1: I/O space, 0: memory space"},
        {"TYPE", 1, 2, "RO", "Memory: 0 for 32-bit, 2 for 64-bit decoding"},
        {"PREFETCHABLE", 3, 3, "RO", "Memory: reads have no side effects"},
        {"BASE_ADDRESS", 4, 31, "RW", "Address the range is placed at (low bits read 0 to tell its size)"}}};
}

std::vector<RegisterDef> lane_registers(const std::string& name, unsigned offset, unsigned bits, unsigned stride,
                                        std::vector<FieldDef> fields) {
    return {{name, offset, bits, std::move(fields), stride}};
}

std::vector<RegisterDef> concat(std::vector<std::vector<RegisterDef>> parts) {
    std::vector<RegisterDef> all;
    for (auto& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

const std::vector<StructureDef>& build() {
    static const std::vector<StructureDef> tables = {
        {"PCIE_HEADER_TYPE0", K::header, 0, header({
            bar(0), bar(1), bar(2), bar(3), bar(4), bar(5),
            {"CARDBUS_CIS_PTR", 0x28, 32, {{"CARDBUS_CIS_PTR", 0, 31, "RO", "Not used by PCI Express"}}},
            {"SUBSYSTEM_VENDOR_ID", 0x2C, 16, {{"SUBSYSTEM_VENDOR_ID", 0, 15, "RO", "Maker of the board or system"}}},
            {"SUBSYSTEM_ID", 0x2E, 16, {{"SUBSYSTEM_ID", 0, 15, "RO", "The board maker's number"}}},
            {"EXP_ROM_BASE_ADDR", 0x30, 32, {
                {"ROM_ENABLE", 0, 0, "RW", "Decode the expansion ROM"},
                {"ROM_BASE_ADDRESS", 11, 31, "RW", "Address of the expansion ROM"}}},
            {"CAP_PTR", 0x34, 8, {{"CAP_PTR", 0, 7, "RO", "Offset of the first capability"}}},
            {"INTERRUPT_LINE", 0x3C, 8, {{"INTERRUPT_LINE", 0, 7, "RW", "Interrupt routing noted by system software"}}},
            {"INTERRUPT_PIN", 0x3D, 8, {{"INTERRUPT_PIN", 0, 7, "RO", "INTx pin used: 1 = INTA .. 4 = INTD, 0 none"}}},
            {"MIN_GNT", 0x3E, 8, {{"MIN_GNT", 0, 7, "RO", "Not used by PCI Express"}}},
            {"MAX_LAT", 0x3F, 8, {{"MAX_LAT", 0, 7, "RO", "Not used by PCI Express"}}},
        })},
        {"PCIE_HEADER_TYPE1", K::header, 1, header({
            bar(0), bar(1),
            {"PRIMARY_BUS", 0x18, 8, {{"PRIMARY_BUS", 0, 7, "RW", "Bus the bridge sits on"}}},
            {"SECONDARY_BUS", 0x19, 8, {{"SECONDARY_BUS", 0, 7, "RW", "Bus directly below the bridge"}}},
            {"SUBORDINATE_BUS", 0x1A, 8, {{"SUBORDINATE_BUS", 0, 7, "RW", "Highest bus below the bridge"}}},
            {"SECONDARY_LATENCY_TIMER", 0x1B, 8, {{"SECONDARY_LATENCY_TIMER", 0, 7, "RO", "Not used by PCI Express"}}},
            {"IO_BASE", 0x1C, 8, {
                {"IO_ADDRESSING", 0, 3, "RO", "1: 32-bit I/O addresses"},
                {"IO_BASE", 4, 7, "RW", "Address bits 15:12 of the I/O window's start"}}},
            {"IO_LIMIT", 0x1D, 8, {
                {"IO_ADDRESSING", 0, 3, "RO", "1: 32-bit I/O addresses"},
                {"IO_LIMIT", 4, 7, "RW", "Address bits 15:12 of the I/O window's end"}}},
            {"SECONDARY_STATUS", 0x1E, 16, {
                {"MASTER_DATA_PARITY_ERROR", 8, 8, "RW1C", "Poisoned TLP forwarded upstream"},
                {"SIGNALED_TARGET_ABORT", 11, 11, "RW1C", "Completer Abort sent on the secondary side"},
                {"RECEIVED_TARGET_ABORT", 12, 12, "RW1C", "Completer Abort received on the secondary side"},
                {"RECEIVED_MASTER_ABORT", 13, 13, "RW1C", "Unsupported Request received on the secondary side"},
                {"RECEIVED_SYSTEM_ERROR", 14, 14, "RW1C", "ERR_FATAL or ERR_NONFATAL received from below"},
                {"DETECTED_PARITY_ERROR", 15, 15, "RW1C", "Poisoned TLP received on the secondary side"}}},
            {"MEM_BASE", 0x20, 16, {{"MEM_BASE", 4, 15, "RW", "Address bits 31:20 of the memory window's start"}}},
            {"MEM_LIMIT", 0x22, 16, {{"MEM_LIMIT", 4, 15, "RW", "Address bits 31:20 of the memory window's end"}}},
            {"PREF_MEM_BASE", 0x24, 16, {
                {"PREF_ADDRESSING", 0, 3, "RO", "1: 64-bit prefetchable window"},
                {"PREF_MEM_BASE", 4, 15, "RW", "Address bits 31:20 of the prefetchable window's start"}}},
            {"PREF_MEM_LIMIT", 0x26, 16, {
                {"PREF_ADDRESSING", 0, 3, "RO", "1: 64-bit prefetchable window"},
                {"PREF_MEM_LIMIT", 4, 15, "RW", "Address bits 31:20 of the prefetchable window's end"}}},
            {"PREF_BASE_UPPER", 0x28, 32, {{"PREF_BASE_UPPER", 0, 31, "RW", "Address bits 63:32 of the prefetchable window's start"}}},
            {"PREF_LIMIT_UPPER", 0x2C, 32, {{"PREF_LIMIT_UPPER", 0, 31, "RW", "Address bits 63:32 of the prefetchable window's end"}}},
            {"IO_BASE_UPPER", 0x30, 16, {{"IO_BASE_UPPER", 0, 15, "RW", "Address bits 31:16 of the I/O window's start"}}},
            {"IO_LIMIT_UPPER", 0x32, 16, {{"IO_LIMIT_UPPER", 0, 15, "RW", "Address bits 31:16 of the I/O window's end"}}},
            {"CAP_PTR", 0x34, 8, {{"CAP_PTR", 0, 7, "RO", "Offset of the first capability"}}},
            {"EXP_ROM_BASE_ADDR", 0x38, 32, {
                {"ROM_ENABLE", 0, 0, "RW", "Decode the expansion ROM"},
                {"ROM_BASE_ADDRESS", 11, 31, "RW", "Address of the expansion ROM"}}},
            {"INTERRUPT_LINE", 0x3C, 8, {{"INTERRUPT_LINE", 0, 7, "RW", "Interrupt routing noted by system software"}}},
            {"INTERRUPT_PIN", 0x3D, 8, {{"INTERRUPT_PIN", 0, 7, "RO", "INTx pin used: 1 = INTA .. 4 = INTD, 0 none"}}},
            {"BRIDGE_CONTROL", 0x3E, 16, {
                {"PARITY_ERROR_RESPONSE", 0, 0, "RW", "Report poisoned TLPs on the secondary side"},
                {"SERR_EN", 1, 1, "RW", "Forward error messages from below"},
                {"ISA_EN", 2, 2, "RW", "Restrict I/O forwarding to the ISA-compatible ranges"},
                {"VGA_EN", 3, 3, "RW", "Forward legacy VGA ranges"},
                {"VGA_16BIT_DECODE", 4, 4, "RW", "Decode VGA I/O addresses with 16 bits"},
                {"MASTER_ABORT_MODE", 5, 5, "RW", "Not used by PCI Express"},
                {"SECONDARY_BUS_RESET", 6, 6, "RW", "Hot reset of everything below the bridge"}}},
        })},
        {"PMI_CAP", K::capability, 0x01, {
            named(kCapList, "PMI_CAP_LIST"),
            {"PMI_CAP", 0x2, 16, {
                {"VERSION", 0, 2, "RO", "Version of the power management interface"},
                {"PME_CLOCK", 3, 3, "RO", "Not used by PCI Express; 0"},
                {"IMMEDIATE_READINESS_D0", 4, 4, "RO", "Ready at once on return to D0"},
                {"DSI", 5, 5, "RO", "Device-specific initialisation needed after D0"},
                {"AUX_CURRENT", 6, 8, "RO", "Auxiliary current drawn in D3cold"},
                {"D1_SUPPORT", 9, 9, "RO", "Supports D1"},
                {"D2_SUPPORT", 10, 10, "RO", "Supports D2"},
                {"PME_SUPPORT", 11, 15, "RO", "States from which PME can be sent: D0, D1, D2, D3hot, D3cold"}}},
            {"PMI_STATUS_CNTL", 0x4, 32, {
                {"POWER_STATE", 0, 1, "RW", "Current power state: 0 = D0 .. 3 = D3hot"},
                {"NO_SOFT_RESET", 3, 3, "RO", "State is kept across D3hot to D0"},
                {"PME_EN", 8, 8, "RW", "Allow the function to send PME"},
                {"DATA_SELECT", 9, 12, "RW", "Which power figure DATA reports"},
                {"DATA_SCALE", 13, 14, "RO", "Scale of DATA"},
                {"PME_STATUS", 15, 15, "RW1C", "The function asked for a PME"},
                {"B2_B3_SUPPORT", 22, 22, "RO", "Not used by PCI Express"},
                {"BUS_PWR_CLK_CON_EN", 23, 23, "RO", "Not used by PCI Express"},
                {"DATA", 24, 31, "RO", "Power figure chosen by DATA_SELECT"}}},
        }},
        {"PCIE_CAP", K::capability, 0x10, {
            named(kCapList, "PCIE_CAP_LIST"),
            {"PCIE_CAP", 0x2, 16, {
                {"VERSION", 0, 3, "RO", "Capability version"},
                {"DEVICE_PORT_TYPE", 4, 7, "RO", "0 endpoint, 4 root port, 5 switch upstream, 6 switch downstream"},
                {"SLOT_IMPLEMENTED", 8, 8, "HwInit", "The port is connected to a slot"},
                {"INT_MESSAGE_NUMBER", 9, 13, "RO", "MSI/MSI-X vector of this capability's interrupts"}}},
            {"DEVICE_CAP", 0x4, 32, {
                {"MAX_PAYLOAD_SUPPORTED", 0, 2, "RO", "Largest payload: 128 << n bytes"},
                {"PHANTOM_FUNC", 3, 4, "RO", "Function number bits usable as tag"},
                {"EXTENDED_TAG", 5, 5, "RO", "8-bit tags supported"},
                {"L0S_ACCEPTABLE_LATENCY", 6, 8, "RO", "Endpoint: L0s exit latency it tolerates"},
                {"L1_ACCEPTABLE_LATENCY", 9, 11, "RO", "Endpoint: L1 exit latency it tolerates"},
                {"ROLE_BASED_ERR_REPORTING", 15, 15, "RO", "Role-based error reporting"},
                {"CAPTURED_SLOT_POWER_LIMIT_VALUE", 18, 25, "RO", "Slot power limit value from upstream"},
                {"CAPTURED_SLOT_POWER_LIMIT_SCALE", 26, 27, "RO", "Slot power limit scale"},
                {"FLR_CAPABLE", 28, 28, "RO", "Function level reset supported"}}},
            {"DEVICE_CNTL", 0x8, 16, {
                {"CORR_ERR_EN", 0, 0, "RW", "Report correctable errors"},
                {"NON_FATAL_ERR_EN", 1, 1, "RW", "Report non-fatal errors"},
                {"FATAL_ERR_EN", 2, 2, "RW", "Report fatal errors"},
                {"USR_REPORT_EN", 3, 3, "RW", "Report Unsupported Requests"},
                {"RELAXED_ORDERING_EN", 4, 4, "RW", "Allow relaxed ordering"},
                {"MAX_PAYLOAD_SIZE", 5, 7, "RW", "Payload limit: 128 << n bytes"},
                {"EXTENDED_TAG_EN", 8, 8, "RW", "Use 8-bit tags"},
                {"PHANTOM_FUNC_EN", 9, 9, "RW", "Use phantom functions"},
                {"AUX_POWER_PM_EN", 10, 10, "RW", "Draw auxiliary power"},
                {"NO_SNOOP_EN", 11, 11, "RW", "Allow no-snoop requests"},
                {"MAX_READ_REQUEST_SIZE", 12, 14, "RW", "Read request limit: 128 << n bytes"},
                {"BRIDGE_CFG_RETRY_EN_OR_FLR", 15, 15, "RW", "Endpoint: start a function level reset"}}},
            {"DEVICE_STATUS", 0xA, 16, {
                {"CORR_ERR", 0, 0, "RW1C", "Correctable error detected"},
                {"NON_FATAL_ERR", 1, 1, "RW1C", "Non-fatal error detected"},
                {"FATAL_ERR", 2, 2, "RW1C", "Fatal error detected"},
                {"USR_DETECTED", 3, 3, "RW1C", "Unsupported Request received"},
                {"AUX_PWR", 4, 4, "RO", "Auxiliary power present"},
                {"TRANSACTIONS_PEND", 5, 5, "RO", "Non-posted requests outstanding"}}},
            {"LINK_CAP", 0xC, 32, {
                {"MAX_LINK_SPEED", 0, 3, "RO", "Highest speed: index into the supported speeds vector"},
                {"MAX_LINK_WIDTH", 4, 9, "RO", "Widest link in lanes"},
                {"ASPM_SUPPORT", 10, 11, "RO", "Active state power management: bit 0 L0s, bit 1 L1"},
                {"L0S_EXIT_LATENCY", 12, 14, "RO", "L0s exit latency: 0 below 64 ns .. 7 above 4 us"},
                {"L1_EXIT_LATENCY", 15, 17, "RO", "L1 exit latency: 0 below 1 us .. 7 above 64 us"},
                {"CLOCK_POWER_MANAGEMENT", 18, 18, "RO", "Reference clock may be removed in L1"},
                {"SURPRISE_DOWN_ERR_REPORTING", 19, 19, "RO", "Surprise down is reported"},
                {"DLL_ACTIVE_REPORTING", 20, 20, "RO", "Data link layer active is reported"},
                {"LINK_BW_NOTIFICATION", 21, 21, "RO", "Bandwidth notification supported"},
                {"ASPM_OPTIONALITY", 22, 22, "RO", "ASPM support follows the optionality rules"},
                {"PORT_NUMBER", 24, 31, "HwInit", "Port number"}}},
            {"LINK_CNTL", 0x10, 16, {
                {"ASPM_CONTROL", 0, 1, "RW", "Enabled ASPM states: bit 0 L0s, bit 1 L1"},
                {"RCB", 3, 3, "RW", "Read completion boundary: 0 = 64, 1 = 128 bytes"},
                {"LINK_DISABLE", 4, 4, "RW", "Downstream ports: hold the link down"},
                {"RETRAIN_LINK", 5, 5, "RW", "Downstream ports: retrain; always reads 0"},
                {"COMMON_CLOCK_CFG", 6, 6, "RW", "Both ends share the reference clock"},
                {"EXTENDED_SYNCH", 7, 7, "RW", "Longer ordered sets on leaving L0s"},
                {"CLOCK_PM_EN", 8, 8, "RW", "Allow the reference clock to stop in L1"},
                {"HW_AUTONOMOUS_WIDTH_DISABLE", 9, 9, "RW", "Forbid width changes except for reliability"},
                {"LINK_BW_MGMT_INT_EN", 10, 10, "RW", "Interrupt on bandwidth management status"},
                {"LINK_AUTONOMOUS_BW_INT_EN", 11, 11, "RW", "Interrupt on autonomous bandwidth status"}}},
            {"LINK_STATUS", 0x12, 16, {
                {"CURRENT_LINK_SPEED", 0, 3, "RO", "Speed: index into the supported speeds vector"},
                {"NEGOTIATED_LINK_WIDTH", 4, 9, "RO", "Lanes in use"},
                {"LINK_TRAINING", 11, 11, "RO", "Downstream ports: training in progress"},
                {"SLOT_CLOCK_CFG", 12, 12, "HwInit", "The reference clock comes from the connector"},
                {"DL_ACTIVE", 13, 13, "RO", "Downstream ports: data link layer is up"},
                {"LINK_BW_MGMT_STATUS", 14, 14, "RW1C", "Downstream ports: a retrain or reliability change happened"},
                {"LINK_AUTONOMOUS_BW_STATUS", 15, 15, "RW1C", "Downstream ports: hardware changed speed or width by itself"}}},
            {"SLOT_CAP", 0x14, 32, {{"SLOT_CAP", 0, 31, "HwInit", "Slot capabilities (ports with a slot)"}}},
            {"SLOT_CNTL", 0x18, 16, {{"SLOT_CNTL", 0, 15, "RO", "Slot control (ports with a slot)"}}},
            {"SLOT_STATUS", 0x1A, 16, {{"SLOT_STATUS", 0, 15, "RO", "Slot status (ports with a slot)"}}},
            {"ROOT_CNTL", 0x1C, 16, {
                {"SERR_ON_CORR_ERR_EN", 0, 0, "RW", "System error on correctable errors"},
                {"SERR_ON_NON_FATAL_ERR_EN", 1, 1, "RW", "System error on non-fatal errors"},
                {"SERR_ON_FATAL_ERR_EN", 2, 2, "RW", "System error on fatal errors"},
                {"PME_INT_EN", 3, 3, "RW", "Interrupt on PME messages"},
                {"CRS_SW_VISIBILITY_EN", 4, 4, "RW", "Return configuration retry status to software"}}, 0, P::root_port},
            {"ROOT_STATUS", 0x20, 32, {
                {"PME_REQUESTOR_ID", 0, 15, "RO", "Requester of the last PME"},
                {"PME_STATUS", 16, 16, "RW1C", "A PME was received"},
                {"PME_PENDING", 17, 17, "RO", "Further PMEs are waiting"}}, 0, P::root_port},
            {"DEVICE_CAP2", 0x24, 32, {
                {"COMPLETION_TIMEOUT_RANGES", 0, 3, "RO", "Completion timeout ranges offered"},
                {"COMPLETION_TIMEOUT_DISABLE", 4, 4, "RO", "Completion timeout can be disabled"},
                {"ARI_FORWARDING", 5, 5, "RO", "Downstream ports: alternative routing-ID forwarding"},
                {"ATOMICOP_ROUTING", 6, 6, "RO", "AtomicOp routing"},
                {"LTR_SUPPORTED", 11, 11, "RO", "Latency tolerance reporting"},
                {"TPH_COMPLETER", 12, 13, "RO", "TLP processing hints as completer"},
                {"TEN_BIT_TAG_COMPLETER", 16, 16, "RO", "Completes requests with 10-bit tags"},
                {"TEN_BIT_TAG_REQUESTER", 17, 17, "RO", "Can issue 10-bit tags"},
                {"OBFF_SUPPORTED", 18, 19, "RO", "Optimised buffer flush/fill"}}},
            {"DEVICE_CNTL2", 0x28, 16, {
                {"COMPLETION_TIMEOUT_VALUE", 0, 3, "RW", "Completion timeout range chosen"},
                {"COMPLETION_TIMEOUT_DISABLE", 4, 4, "RW", "Disable the completion timeout"},
                {"ARI_FORWARDING_EN", 5, 5, "RW", "Downstream ports: use alternative routing-ID forwarding"},
                {"ATOMICOP_REQUESTER_EN", 6, 6, "RW", "Allow AtomicOp requests"},
                {"IDO_REQUEST_EN", 8, 8, "RW", "ID-based ordering on requests"},
                {"IDO_COMPLETION_EN", 9, 9, "RW", "ID-based ordering on completions"},
                {"LTR_EN", 10, 10, "RW", "Send latency tolerance messages"},
                {"TEN_BIT_TAG_REQUESTER_EN", 12, 12, "RW", "Issue 10-bit tags"}}},
            {"DEVICE_STATUS2", 0x2A, 16, {{"DEVICE_STATUS2", 0, 15, "RO", "Reserved"}}},
            {"LINK_CAP2", 0x2C, 32, {
                {"SUPPORTED_LINK_SPEEDS", 1, 7, "RO", "Speeds supported: bit 1 2.5 GT/s .. bit 5 32 GT/s"},
                {"CROSSLINK_SUPPORTED", 8, 8, "RO", "Crosslink supported"},
                {"LOWER_SKP_OS_GEN_SPEEDS", 9, 15, "RO", "Speeds with lower SKP ordered set generation"},
                {"LOWER_SKP_OS_RCV_SPEEDS", 16, 22, "RO", "Speeds with lower SKP ordered set reception"},
                {"RETIMER_PRESENCE_DETECT", 23, 23, "RO", "Retimer presence is detected"},
                {"DRS_SUPPORTED", 31, 31, "RO", "Device readiness status messages"}}},
            {"LINK_CNTL2", 0x30, 16, {
                {"TARGET_LINK_SPEED", 0, 3, "RW", "Highest speed to train to, as in MAX_LINK_SPEED"},
                {"ENTER_COMPLIANCE", 4, 4, "RW", "Enter the compliance state on the next training"},
                {"HW_AUTONOMOUS_SPEED_DISABLE", 5, 5, "RW", "Forbid speed changes except for reliability"},
                {"SELECTABLE_DEEMPHASIS", 6, 6, "HwInit", "De-emphasis at 5 GT/s for downstream ports"},
                {"TRANSMIT_MARGIN", 7, 9, "RW", "Transmitter voltage for compliance testing"},
                {"ENTER_MODIFIED_COMPLIANCE", 10, 10, "RW", "Modified compliance pattern"},
                {"COMPLIANCE_SOS", 11, 11, "RW", "SKP ordered sets during compliance"},
                {"COMPLIANCE_PRESET_DEEMPHASIS", 12, 15, "RW", "Transmitter preset in compliance"}}},
            {"LINK_STATUS2", 0x32, 16, {
                {"CURRENT_DEEMPHASIS_LEVEL", 0, 0, "RO", "De-emphasis at 5 GT/s: 1 = -3.5 dB"},
                {"EQUALIZATION_8GT_COMPLETE", 1, 1, "RO", "8 GT/s equalisation complete"},
                {"EQUALIZATION_8GT_PHASE1", 2, 2, "RO", "8 GT/s phase 1 successful"},
                {"EQUALIZATION_8GT_PHASE2", 3, 3, "RO", "8 GT/s phase 2 successful"},
                {"EQUALIZATION_8GT_PHASE3", 4, 4, "RO", "8 GT/s phase 3 successful"},
                {"LINK_EQUALIZATION_REQUEST_8GT", 5, 5, "RW1C", "Hardware asks for 8 GT/s equalisation"},
                {"RETIMER_PRESENCE_DETECTED", 6, 6, "RO", "A retimer was seen during training"}}},
        }},
        {"MSI_CAP", K::capability, 0x05, {
            named(kCapList, "MSI_CAP_LIST"),
            {"MSI_MSG_CNTL", 0x2, 16, {
                {"MSI_EN", 0, 0, "RW", "Interrupts are sent as MSI"},
                {"MULTIPLE_MESSAGE_CAPABLE", 1, 3, "RO", "Vectors requested: 1 << n"},
                {"MULTIPLE_MESSAGE_EN", 4, 6, "RW", "Vectors granted: 1 << n"},
                {"ADDRESS_64BIT_CAPABLE", 7, 7, "RO", "64-bit message address"},
                {"PER_VECTOR_MASKING", 8, 8, "RO", "Mask and pending registers present"}}},
            {"MSI_MSG_ADDR_LO", 0x4, 32, {{"MSG_ADDR_LO", 2, 31, "RW", "Message address bits 31:2"}}},
            {"MSI_MSG_DATA", 0x8, 16, {{"MSG_DATA", 0, 15, "RW", "Message data"}}, 0, P::msi_32bit},
            {"MSI_MSG_ADDR_HI", 0x8, 32, {{"MSG_ADDR_HI", 0, 31, "RW", "Message address bits 63:32"}}, 0, P::msi_64bit},
            {"MSI_MSG_DATA", 0xC, 16, {{"MSG_DATA", 0, 15, "RW", "Message data"}}, 0, P::msi_64bit},
        }},
        {"MSIX_CAP", K::capability, 0x11, {
            named(kCapList, "MSIX_CAP_LIST"),
            {"MSIX_MSG_CNTL", 0x2, 16, {
                {"TABLE_SIZE", 0, 10, "RO", "Vectors in the table, less one"},
                {"FUNCTION_MASK", 14, 14, "RW", "Mask every vector"},
                {"MSIX_EN", 15, 15, "RW", "Interrupts are sent as MSI-X"}}},
            {"MSIX_TABLE", 0x4, 32, {
                {"TABLE_BIR", 0, 2, "RO", "Base address register holding the table"},
                {"TABLE_OFFSET", 3, 31, "RO", "Offset of the table in that range, in 8-byte units"}}},
            {"MSIX_PBA", 0x8, 32, {
                {"PBA_BIR", 0, 2, "RO", "Base address register holding the pending bits"},
                {"PBA_OFFSET", 3, 31, "RO", "Offset of the pending bits in that range, in 8-byte units"}}},
        }},
        {"PCIE_ADV_ERR_RPT_ENH_CAP", K::extended_capability, 0x01, {
            kExtCapHeader,
            {"UNCORR_ERR_STATUS", 0x4, 32, {
                {"DL_PROTOCOL_ERR", 4, 4, "RW1C", "Data link protocol error"},
                {"SURPRISE_DOWN_ERR", 5, 5, "RW1C", "Link went down unexpectedly"},
                {"POISONED_TLP", 12, 12, "RW1C", "Poisoned TLP received"},
                {"FC_PROTOCOL_ERR", 13, 13, "RW1C", "Flow control protocol error"},
                {"COMPLETION_TIMEOUT", 14, 14, "RW1C", "A request got no completion in time"},
                {"COMPLETER_ABORT", 15, 15, "RW1C", "The function aborted a request"},
                {"UNEXPECTED_COMPLETION", 16, 16, "RW1C", "Completion for no outstanding request"},
                {"RECEIVER_OVERFLOW", 17, 17, "RW1C", "Receive buffer overflow"},
                {"MALFORMED_TLP", 18, 18, "RW1C", "Malformed TLP"},
                {"ECRC_ERR", 19, 19, "RW1C", "End-to-end CRC check failed"},
                {"UNSUPPORTED_REQ_ERR", 20, 20, "RW1C", "Unsupported Request"},
                {"ACS_VIOLATION", 21, 21, "RW1C", "Access control services violation"},
                {"UNCORRECTABLE_INTERNAL_ERR", 22, 22, "RW1C", "Internal error that could not be corrected"}}},
            {"UNCORR_ERR_MASK", 0x8, 32, {
                {"DL_PROTOCOL_ERR_MASK", 4, 4, "RW", "Do not report data link protocol errors"},
                {"SURPRISE_DOWN_ERR_MASK", 5, 5, "RW", "Do not report surprise down"},
                {"POISONED_TLP_MASK", 12, 12, "RW", "Do not report poisoned TLPs"},
                {"FC_PROTOCOL_ERR_MASK", 13, 13, "RW", "Do not report flow control errors"},
                {"COMPLETION_TIMEOUT_MASK", 14, 14, "RW", "Do not report completion timeouts"},
                {"COMPLETER_ABORT_MASK", 15, 15, "RW", "Do not report completer aborts"},
                {"UNEXPECTED_COMPLETION_MASK", 16, 16, "RW", "Do not report unexpected completions"},
                {"RECEIVER_OVERFLOW_MASK", 17, 17, "RW", "Do not report receiver overflows"},
                {"MALFORMED_TLP_MASK", 18, 18, "RW", "Do not report malformed TLPs"},
                {"ECRC_ERR_MASK", 19, 19, "RW", "Do not report ECRC errors"},
                {"UNSUPPORTED_REQ_ERR_MASK", 20, 20, "RW", "Do not report Unsupported Requests"},
                {"ACS_VIOLATION_MASK", 21, 21, "RW", "Do not report ACS violations"},
                {"UNCORRECTABLE_INTERNAL_ERR_MASK", 22, 22, "RW", "Do not report internal errors"}}},
            {"UNCORR_ERR_SEVERITY", 0xC, 32, {
                {"DL_PROTOCOL_ERR_SEVERITY", 4, 4, "RW", "1: fatal, 0: non-fatal"},
                {"SURPRISE_DOWN_ERR_SEVERITY", 5, 5, "RW", "1: fatal, 0: non-fatal"},
                {"POISONED_TLP_SEVERITY", 12, 12, "RW", "1: fatal, 0: non-fatal"},
                {"FC_PROTOCOL_ERR_SEVERITY", 13, 13, "RW", "1: fatal, 0: non-fatal"},
                {"COMPLETION_TIMEOUT_SEVERITY", 14, 14, "RW", "1: fatal, 0: non-fatal"},
                {"COMPLETER_ABORT_SEVERITY", 15, 15, "RW", "1: fatal, 0: non-fatal"},
                {"UNEXPECTED_COMPLETION_SEVERITY", 16, 16, "RW", "1: fatal, 0: non-fatal"},
                {"RECEIVER_OVERFLOW_SEVERITY", 17, 17, "RW", "1: fatal, 0: non-fatal"},
                {"MALFORMED_TLP_SEVERITY", 18, 18, "RW", "1: fatal, 0: non-fatal"},
                {"ECRC_ERR_SEVERITY", 19, 19, "RW", "1: fatal, 0: non-fatal"},
                {"UNSUPPORTED_REQ_ERR_SEVERITY", 20, 20, "RW", "1: fatal, 0: non-fatal"},
                {"ACS_VIOLATION_SEVERITY", 21, 21, "RW", "1: fatal, 0: non-fatal"},
                {"UNCORRECTABLE_INTERNAL_ERR_SEVERITY", 22, 22, "RW", "1: fatal, 0: non-fatal"}}},
            {"CORR_ERR_STATUS", 0x10, 32, {
                {"RECEIVER_ERR", 0, 0, "RW1C", "Receiver error"},
                {"BAD_TLP", 6, 6, "RW1C", "TLP with a bad LCRC or sequence number"},
                {"BAD_DLLP", 7, 7, "RW1C", "DLLP with a bad CRC"},
                {"REPLAY_NUM_ROLLOVER", 8, 8, "RW1C", "Replay counter rolled over"},
                {"REPLAY_TIMER_TIMEOUT", 12, 12, "RW1C", "Replay timer expired"},
                {"ADVISORY_NON_FATAL_ERR", 13, 13, "RW1C", "Non-fatal error handled as advisory"},
                {"CORRECTED_INTERNAL_ERR", 14, 14, "RW1C", "Internal error that was corrected"},
                {"HEADER_LOG_OVERFLOW", 15, 15, "RW1C", "Header log overflowed"}}},
            {"CORR_ERR_MASK", 0x14, 32, {
                {"RECEIVER_ERR_MASK", 0, 0, "RW", "Do not report receiver errors"},
                {"BAD_TLP_MASK", 6, 6, "RW", "Do not report bad TLPs"},
                {"BAD_DLLP_MASK", 7, 7, "RW", "Do not report bad DLLPs"},
                {"REPLAY_NUM_ROLLOVER_MASK", 8, 8, "RW", "Do not report replay rollovers"},
                {"REPLAY_TIMER_TIMEOUT_MASK", 12, 12, "RW", "Do not report replay timeouts"},
                {"ADVISORY_NON_FATAL_ERR_MASK", 13, 13, "RW", "Do not report advisory non-fatal errors"},
                {"CORRECTED_INTERNAL_ERR_MASK", 14, 14, "RW", "Do not report corrected internal errors"},
                {"HEADER_LOG_OVERFLOW_MASK", 15, 15, "RW", "Do not report header log overflow"}}},
            {"ADV_ERR_CAP_CNTL", 0x18, 32, {
                {"FIRST_ERR_POINTER", 0, 4, "RO", "Bit of the first uncorrectable error logged"},
                {"ECRC_GEN_CAP", 5, 5, "RO", "Can generate ECRC"},
                {"ECRC_GEN_EN", 6, 6, "RW", "Generate ECRC"},
                {"ECRC_CHECK_CAP", 7, 7, "RO", "Can check ECRC"},
                {"ECRC_CHECK_EN", 8, 8, "RW", "Check ECRC"},
                {"MULTI_HEADER_REC_CAP", 9, 9, "RO", "Can log several headers"},
                {"MULTI_HEADER_REC_EN", 10, 10, "RW", "Log several headers"},
                {"TLP_PREFIX_LOG_PRESENT", 11, 11, "RO", "The prefix log holds a prefix"}}},
            {"HEADER_LOG_DW0", 0x1C, 32, {{"HEADER_LOG_DW0", 0, 31, "RO", "First dword of the logged TLP header"}}},
            {"HEADER_LOG_DW1", 0x20, 32, {{"HEADER_LOG_DW1", 0, 31, "RO", "Second dword of the logged TLP header"}}},
            {"HEADER_LOG_DW2", 0x24, 32, {{"HEADER_LOG_DW2", 0, 31, "RO", "Third dword of the logged TLP header"}}},
            {"HEADER_LOG_DW3", 0x28, 32, {{"HEADER_LOG_DW3", 0, 31, "RO", "Fourth dword of the logged TLP header"}}},
            {"ROOT_ERR_CMD", 0x2C, 32, {
                {"CORR_ERR_REPORTING_EN", 0, 0, "RW", "Interrupt on correctable error messages"},
                {"NON_FATAL_ERR_REPORTING_EN", 1, 1, "RW", "Interrupt on non-fatal error messages"},
                {"FATAL_ERR_REPORTING_EN", 2, 2, "RW", "Interrupt on fatal error messages"}}, 0, P::root_port},
            {"ROOT_ERR_STATUS", 0x30, 32, {
                {"ERR_COR_RECEIVED", 0, 0, "RW1C", "A correctable error message was received"},
                {"MULTI_ERR_COR_RECEIVED", 1, 1, "RW1C", "More than one was received"},
                {"ERR_FATAL_NONFATAL_RECEIVED", 2, 2, "RW1C", "An uncorrectable error message was received"},
                {"MULTI_ERR_FATAL_NONFATAL_RECEIVED", 3, 3, "RW1C", "More than one was received"},
                {"FIRST_UNCORRECTABLE_FATAL", 4, 4, "RW1C", "The first uncorrectable message was fatal"},
                {"NON_FATAL_ERR_MSG_RECEIVED", 5, 5, "RW1C", "A non-fatal message was received"},
                {"FATAL_ERR_MSG_RECEIVED", 6, 6, "RW1C", "A fatal message was received"},
                {"ADV_ERR_INT_MSG_NUMBER", 27, 31, "RO", "MSI/MSI-X vector of this capability"}}, 0, P::root_port},
            {"ERR_SRC_ID", 0x34, 32, {
                {"ERR_COR_SOURCE_ID", 0, 15, "RO", "Requester of the last correctable error message"},
                {"ERR_FATAL_NONFATAL_SOURCE_ID", 16, 31, "RO", "Requester of the last uncorrectable error message"}}, 0, P::root_port},
        }},
        {"PCIE_SECONDARY_PCIE_ENH_CAP", K::extended_capability, 0x19, concat({{
            kExtCapHeader,
            {"LINK_CNTL3", 0x4, 32, {
                {"PERFORM_EQUALIZATION", 0, 0, "RW", "Equalise on the next retrain to 8 GT/s or above"},
                {"LINK_EQ_REQUEST_INT_EN", 1, 1, "RW", "Interrupt on a link equalisation request"},
                {"ENABLE_LOWER_SKP_OS_GEN", 9, 15, "RW", "Speeds at which fewer SKP ordered sets are sent"}}},
            {"LANE_ERR_STATUS", 0x8, 32, {{"LANE_ERR_STATUS", 0, 31, "RW1C", "A lane saw an error: one bit per lane"}}}},
            lane_registers("LANE_EQ_CNTL_%u", 0xC, 16, 2, {
                {"DSP_TX_PRESET", 0, 3, "HwInit", "Transmitter preset of the downstream port at 8 GT/s"},
                {"DSP_RX_PRESET_HINT", 4, 6, "HwInit", "Receiver preset hint of the downstream port"},
                {"USP_TX_PRESET", 8, 11, "HwInit", "Transmitter preset asked of the upstream port"},
                {"USP_RX_PRESET_HINT", 12, 14, "HwInit", "Receiver preset hint of the upstream port"}})})},
        {"PCIE_PHY_16GT_ENH_CAP", K::extended_capability, 0x26, concat({{
            kExtCapHeader,
            {"CAP_16GT", 0x4, 32, {{"CAP_16GT", 0, 31, "RO", "Reserved"}}},
            {"CNTL_16GT", 0x8, 32, {{"CNTL_16GT", 0, 31, "RO", "Reserved"}}},
            {"STATUS_16GT", 0xC, 32, {
                {"EQUALIZATION_16GT_COMPLETE", 0, 0, "RO", "16 GT/s equalisation complete"},
                {"EQUALIZATION_16GT_PHASE1", 1, 1, "RO", "Phase 1 successful"},
                {"EQUALIZATION_16GT_PHASE2", 2, 2, "RO", "Phase 2 successful"},
                {"EQUALIZATION_16GT_PHASE3", 3, 3, "RO", "Phase 3 successful"},
                {"LINK_EQUALIZATION_REQUEST_16GT", 4, 4, "RW1C", "Hardware asks for 16 GT/s equalisation"}}},
            {"LOCAL_PARITY_MISMATCH_STATUS", 0x10, 32, {{"LOCAL_PARITY_MISMATCH", 0, 31, "RW1C", "Data parity mismatch seen by this port: one bit per lane"}}},
            {"FIRST_RETIMER_PARITY_MISMATCH_STATUS", 0x14, 32, {{"FIRST_RETIMER_PARITY_MISMATCH", 0, 31, "RW1C", "Parity mismatch seen by the first retimer"}}},
            {"SECOND_RETIMER_PARITY_MISMATCH_STATUS", 0x18, 32, {{"SECOND_RETIMER_PARITY_MISMATCH", 0, 31, "RW1C", "Parity mismatch seen by the second retimer"}}}},
            lane_registers("LANE_EQ_CNTL_16GT_%u", 0x20, 8, 1, {
                {"DSP_16GT_TX_PRESET", 0, 3, "HwInit", "Transmitter preset of the downstream port at 16 GT/s"},
                {"USP_16GT_TX_PRESET", 4, 7, "HwInit", "Transmitter preset of the upstream port at 16 GT/s"}})})},
        {"PCIE_PHY_32GT_ENH_CAP", K::extended_capability, 0x2A, concat({{
            kExtCapHeader,
            {"CAP_32GT", 0x4, 32, {
                {"EQ_BYPASS_TO_HIGHEST_RATE", 0, 0, "RO", "Can skip equalisation at lower rates"},
                {"NO_EQ_NEEDED", 1, 1, "RO", "Can train to 32 GT/s without equalisation"},
                {"MODIFIED_TS_USAGE_MODES", 8, 10, "RO", "Modified training set usages supported"}}},
            {"CNTL_32GT", 0x8, 32, {
                {"EQ_BYPASS_TO_HIGHEST_RATE_DISABLE", 0, 0, "RW", "Do not skip equalisation at lower rates"},
                {"NO_EQ_NEEDED_DISABLE", 1, 1, "RW", "Always equalise at 32 GT/s"},
                {"MODIFIED_TS_USAGE_MODE", 8, 10, "RW", "Modified training set usage chosen"}}},
            {"STATUS_32GT", 0xC, 32, {
                {"EQUALIZATION_32GT_COMPLETE", 0, 0, "RO", "32 GT/s equalisation complete"},
                {"EQUALIZATION_32GT_PHASE1", 1, 1, "RO", "Phase 1 successful"},
                {"EQUALIZATION_32GT_PHASE2", 2, 2, "RO", "Phase 2 successful"},
                {"EQUALIZATION_32GT_PHASE3", 3, 3, "RO", "Phase 3 successful"},
                {"LINK_EQUALIZATION_REQUEST_32GT", 4, 4, "RW1C", "Hardware asks for 32 GT/s equalisation"}}},
            {"RCVD_MODIFIED_TS_DATA1", 0x10, 32, {{"RCVD_MODIFIED_TS_DATA1", 0, 31, "RO", "Modified training set data received"}}},
            {"RCVD_MODIFIED_TS_DATA2", 0x14, 32, {{"RCVD_MODIFIED_TS_DATA2", 0, 31, "RO", "Modified training set data received"}}},
            {"TRANS_MODIFIED_TS_DATA1", 0x18, 32, {{"TRANS_MODIFIED_TS_DATA1", 0, 31, "RO", "Modified training set data sent"}}},
            {"TRANS_MODIFIED_TS_DATA2", 0x1C, 32, {{"TRANS_MODIFIED_TS_DATA2", 0, 31, "RO", "Modified training set data sent"}}}},
            lane_registers("LANE_EQ_CNTL_32GT_%u", 0x20, 8, 1, {
                {"DSP_32GT_TX_PRESET", 0, 3, "HwInit", "Transmitter preset of the downstream port at 32 GT/s"},
                {"USP_32GT_TX_PRESET", 4, 7, "HwInit", "Transmitter preset of the upstream port at 32 GT/s"}})})},
        {"PCIE_MARGINING_ENH_CAP", K::extended_capability, 0x27, concat({{
            kExtCapHeader,
            {"MARGINING_PORT_CAP", 0x4, 16, {{"MARGINING_USES_DRIVER_SW", 0, 0, "RO", "Margining needs the device's driver"}}},
            {"MARGINING_PORT_STATUS", 0x6, 16, {
                {"MARGINING_READY", 0, 0, "RO", "Margining commands are accepted"},
                {"MARGINING_SW_READY", 1, 1, "RO", "The driver is ready for margining"}}}},
            lane_registers("MARGINING_LANE_CNTL_%u", 0x8, 16, 4, {
                {"RECEIVER_NUMBER", 0, 2, "RW", "Receiver the command is for"},
                {"MARGIN_TYPE", 3, 5, "RW", "Command type (report, set up, step left/right, up/down, no command)"},
                {"USAGE_MODEL", 6, 6, "RW", "0: lane margining at the receiver"},
                {"MARGIN_PAYLOAD", 8, 15, "RW", "Command payload (step, direction, report number)"}}),
            lane_registers("MARGINING_LANE_STATUS_%u", 0xA, 16, 4, {
                {"RECEIVER_NUMBER_STATUS", 0, 2, "RO", "Receiver that answered"},
                {"MARGIN_TYPE_STATUS", 3, 5, "RO", "Command type answered"},
                {"USAGE_MODEL_STATUS", 6, 6, "RO", "Usage model answered"},
                {"MARGIN_PAYLOAD_STATUS", 8, 15, "RO", "Answer payload (report value, error count, status)"}})})},
        {"PCIE_ACS_ENH_CAP", K::extended_capability, 0x0D, {
            kExtCapHeader,
            {"ACS_CAP", 0x4, 16, {
                {"SOURCE_VALIDATION", 0, 0, "RO", "Source validation supported"},
                {"TRANSLATION_BLOCKING", 1, 1, "RO", "Translation blocking supported"},
                {"P2P_REQUEST_REDIRECT", 2, 2, "RO", "Peer-to-peer request redirect supported"},
                {"P2P_COMPLETION_REDIRECT", 3, 3, "RO", "Peer-to-peer completion redirect supported"},
                {"UPSTREAM_FORWARDING", 4, 4, "RO", "Upstream forwarding supported"},
                {"P2P_EGRESS_CONTROL", 5, 5, "RO", "Peer-to-peer egress control supported"},
                {"DIRECT_TRANSLATED_P2P", 6, 6, "RO", "Direct translated peer-to-peer supported"},
                {"EGRESS_CONTROL_VECTOR_SIZE", 8, 15, "RO", "Bits in the egress control vector"}}},
            {"ACS_CNTL", 0x6, 16, {
                {"SOURCE_VALIDATION_EN", 0, 0, "RW", "Check requesters' bus numbers"},
                {"TRANSLATION_BLOCKING_EN", 1, 1, "RW", "Block translated requests"},
                {"P2P_REQUEST_REDIRECT_EN", 2, 2, "RW", "Redirect peer-to-peer requests upstream"},
                {"P2P_COMPLETION_REDIRECT_EN", 3, 3, "RW", "Redirect peer-to-peer completions upstream"},
                {"UPSTREAM_FORWARDING_EN", 4, 4, "RW", "Forward upstream requests that come back"},
                {"P2P_EGRESS_CONTROL_EN", 5, 5, "RW", "Apply the egress control vector"},
                {"DIRECT_TRANSLATED_P2P_EN", 6, 6, "RW", "Pass translated peer-to-peer requests directly"}}},
        }},
        {"PCIE_DEV_SERIAL_NUM_ENH_CAP", K::extended_capability, 0x03, {
            kExtCapHeader,
            {"SERIAL_NUMBER_LO", 0x4, 32, {{"SERIAL_NUMBER_LO", 0, 31, "RO", "Low half of the device's serial number"}}},
            {"SERIAL_NUMBER_HI", 0x8, 32, {{"SERIAL_NUMBER_HI", 0, 31, "RO", "High half of the device's serial number"}}},
        }},
        {"PCIE_L1_PM_SUBSTATES_ENH_CAP", K::extended_capability, 0x1E, {
            kExtCapHeader,
            {"L1SUB_CAP", 0x4, 32, {
                {"PCI_PM_L1_2_SUPPORTED", 0, 0, "RO", "L1.2 from the D3 power states"},
                {"PCI_PM_L1_1_SUPPORTED", 1, 1, "RO", "L1.1 from the D3 power states"},
                {"ASPM_L1_2_SUPPORTED", 2, 2, "RO", "L1.2 under ASPM"},
                {"ASPM_L1_1_SUPPORTED", 3, 3, "RO", "L1.1 under ASPM"},
                {"L1_PM_SUBSTATES_SUPPORTED", 4, 4, "RO", "L1 substates supported"},
                {"LINK_ACTIVATION_SUPPORTED", 5, 5, "RO", "Link activation supported"},
                {"PORT_COMMON_MODE_RESTORE_TIME", 8, 15, "RO", "Common mode restore time in us"},
                {"PORT_T_POWER_ON_SCALE", 16, 17, "RO", "T_POWER_ON scale: 2 us, 10 us, 100 us"},
                {"PORT_T_POWER_ON_VALUE", 19, 23, "RO", "T_POWER_ON value"}}},
            {"L1SUB_CNTL1", 0x8, 32, {
                {"PCI_PM_L1_2_EN", 0, 0, "RW", "Allow L1.2 from the D3 power states"},
                {"PCI_PM_L1_1_EN", 1, 1, "RW", "Allow L1.1 from the D3 power states"},
                {"ASPM_L1_2_EN", 2, 2, "RW", "Allow L1.2 under ASPM"},
                {"ASPM_L1_1_EN", 3, 3, "RW", "Allow L1.1 under ASPM"},
                {"COMMON_MODE_RESTORE_TIME", 8, 15, "RW", "Common mode restore time in us"},
                {"LTR_L1_2_THRESHOLD_VALUE", 16, 25, "RW", "Latency below which L1.2 is not entered"},
                {"LTR_L1_2_THRESHOLD_SCALE", 29, 31, "RW", "Scale of that value: 1 ns << 5n"}}},
            {"L1SUB_CNTL2", 0xC, 32, {
                {"T_POWER_ON_SCALE", 0, 1, "RW", "T_POWER_ON scale"},
                {"T_POWER_ON_VALUE", 3, 7, "RW", "T_POWER_ON value"}}},
            {"L1SUB_STATUS", 0x10, 32, {{"LINK_ACTIVATION_STATUS", 0, 0, "RW1C", "Link activation completed"}}},
        }},
    };
    return tables;
}

}  // namespace

const std::vector<StructureDef>& all_structures() { return build(); }

const StructureDef* find_structure(StructureKind kind, unsigned id) {
    for (const StructureDef& s : build())
        if (s.kind == kind && s.id == id && kind != StructureKind::header) return &s;
    return nullptr;
}

const StructureDef* find_structure(const std::string& name) {
    for (const StructureDef& s : build())
        if (s.name == name) return &s;
    return nullptr;
}

const StructureDef& unknown_structure(StructureKind kind) {
    static const StructureDef capability = {"CAP", StructureKind::capability, 0, {kCapList}};
    static const StructureDef extended = {"ENH_CAP", StructureKind::extended_capability, 0, {kExtCapHeader}};
    return kind == StructureKind::extended_capability ? extended : capability;
}

}  // namespace pci_tables
