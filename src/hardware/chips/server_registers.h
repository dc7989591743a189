// Register map layout shared by the server CPU dies (Corvane, Dellmar): the
// same SerDes links (corvane_lanes()), the same register blocks per PCIe
// core and port, and the same MPIO and SATA registers. The chips differ in
// where their PCIe cores lie (pcie_cores.h). Each function makes the rows
// of one group; strides are applied here, once.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "hardware/chips/chip_identity.h"
#include "hardware/chips/lane_layout.h"
#include "hardware/chips/pcie_cores.h"
#include "hardware/chips/register_rows.h"

namespace chips::server_io {

struct NamedOffset {
    const char* name;
    unsigned int offset;
    unsigned int size;
};

// The run of the core's controller lanes a port owns (see LaneMapLayout).
constexpr const char* kPortLaneMapRegister = "PCIE_PORT_LANE_MAP";

// In a port's block (PcieCore::port_address(port) + offset): the port's
// configuration registers, its ESM capability and its link controller.
inline constexpr NamedOffset kPortRegisters[] = {
    {"SUB_BUS_NUMBER_LATENCY", 0x018, 4},   {"LINK_CAP", 0x064, 4},
    {"PCIE_CCIX_ESM_STATUS", 0x488, 4},     {"PCIE_CCIX_ESM_CNTL", 0x48C, 4},
    {"PCIE_P_PORT_LANE_STATUS", 0xB08, 4},  {"PCIEP_NAK_COUNTER", 0xB0C, 4},
    {"PCIE_LC_CNTL", 0xC00, 4},  // ASPM entry timers (aspm_timers.h)
    {"PCIE_LC_LINK_WIDTH_CNTL", 0xC08, 4},  {"PCIE_LC_SPEED_CNTL", 0xC10, 4},
    {"PCIE_LC_STATE0", 0xC40, 4},           {"PCIE_LC_STATE1", 0xC44, 4},
    {"PCIE_LC_STATE2", 0xC48, 4},           {"PCIE_LC_STATE3", 0xC4C, 4},
    {"PCIE_LC_STATE4", 0xC50, 4},           {"PCIE_LC_STATE5", 0xC54, 4},
    {"PCIE_LC_STATE6", 0xC58, 4},           {"PCIE_LC_STATE7", 0xC5C, 4},
    {"PCIE_LC_STATE8", 0xC60, 4},           {"PCIE_LC_STATE9", 0xC64, 4},
    {"PCIE_LC_STATE10", 0xC68, 4},          {"PCIE_LC_STATE11", 0xC6C, 4},
    {kPortLaneMapRegister, 0xC30, 4},
};
// Link controller registers of the transmitter equalisation reads, in the
// port's block.
inline constexpr NamedOffset kPortTxEqRegisters[] = {
    {"PCIE_LC_CNTL5", 0xC18, 4},           {"PCIE_LC_DEBUG_CNTL", 0xC1C, 4},
    {"PCIE_LC_EQ_CNTL_8GT", 0xCA0, 4},     {"PCIE_LC_EQ_CNTL_16GT", 0xCA4, 4},
    {"PCIE_LC_EQ_CNTL_32GT", 0xCA8, 4},    {"PCIE_LC_BEST_EQ_SETTINGS", 0xCB0, 4},
};
// Per-lane equalisation controls in the port's block: lane l at offset +
// l * size (the layout of the standard capabilities they mirror).
inline constexpr NamedOffset kPortLaneRegisters[] = {
    {"PCIE_LANE_EQUALIZATION_CNTL", 0x27C, 2},
    {"LANE_EQUALIZATION_CNTL_16GT", 0x420, 1},
    {"LANE_EQUALIZATION_CNTL_32GT", 0x460, 1},
    {"ESM_LANE_EQUALIZATION_CNTL_20GT", 0x490, 1},
    {"ESM_LANE_EQUALIZATION_CNTL_25GT", 0x4A0, 1},
};
constexpr unsigned int kLanesPerPort = 16;
// In the core's block (PcieCore::core_base + offset).
inline constexpr NamedOffset kCoreRegisters[] = {
    {"NB_BUS_NUM_CNTL", 0x1C04, 4},  // segment of the core in bits 16 and up
};
// The link controller's speed and width registers lie in this window of a
// port's block (the registers at the window's low offsets mirror the
// standard capabilities' lane controls). Offsets inside the window are the
// link model's own; the core's reconfiguration enable is at core base +
// kCoreLinkReconfigureOffset.
constexpr unsigned int kPortLinkControlWindow = 0x800;
constexpr unsigned int kCoreLinkReconfigureOffset = 0x100;
// CXL root complex register block base, in the port's block.
inline constexpr NamedOffset kCxlRegisters[] = {
    {"CXL_RCRB_BASE_ADDR_LO", 0xE00, 4},
    {"CXL_RCRB_BASE_ADDR_HI", 0xE04, 4},
};

// E32 PHY, in a chiplet's block (LinkLanes::chiplet_base): common registers,
// then four lane blocks. The window of 64 KiB below a chiplet's base is the
// PHY firmware's memory (training records, eye-scan ring, version words at
// the 128 KiB-aligned start).
inline constexpr NamedOffset kChipletRegisters[] = {
    {"CMN_BMASK6", 0x18, 4}, {"CMN_BMASKA", 0x28, 4}, {"CMN_BMASKC", 0x30, 4}, {"CMN_BMASKE", 0x38, 4},
};
constexpr unsigned int kPhyLaneBlock = 0x1000, kPhyLaneStride = 0x400;
inline constexpr NamedOffset kPhyLaneRegisters[] = {
    {"TX_FFE_COEF0", 0x000, 4}, {"TX_FFE_COEF1", 0x004, 4}, {"CMD_OVRD", 0x100, 4},
    {"CMD_PARM0", 0x104, 4},    {"CMD_PARM1", 0x108, 4},    {"CMD_STATUS", 0x10C, 4},
};
// The lane's controller selection (bit 0 enabled, bits 1-3 the protocol).
constexpr unsigned int kLaneControllerBlock = 0x6000;
constexpr const char* kLaneControllerRegister = "KPMX_SERDES_LANE_LN_Controller";
// How a PCIe port's lanes reach the SerDes, in three registers:
// - "PCIE_PORT_LANE_MAP" (port block, above): the run of the core's
//   controller lanes the port owns: first lane, width (0: none) and whether
//   the port's lanes run reversed (logical lane 0 on the last of the run).
// - "KPMX_SERDES_LANE_LN_ControllerLane" (per SerDes lane, in the chiplet's
//   controller block after the controller selections): the controller lane
//   of the link's core that drives this SerDes lane, when valid.
// - "KPMX_SERDES_LANE_MAP_CNTL" (per link, chiplet 0's controller block):
//   bit 0 deasserts the lanes' TX power-down; the PHY answers the lane
//   registers only while it is set and reads 0 otherwise.
struct LaneMapLayout {
    const char* port_register;     // pcie core function table
    IdentityField first_lane, width, reversed;
    const char* lane_register;     // lane table
    IdentityField controller_lane, valid;
    const char* control_register;  // link table
    IdentityField deassert_tx_pdnb;
};
inline constexpr LaneMapLayout kLaneMap{
    kPortLaneMapRegister,        {0, 0x1F}, {8, 0x3F}, {16, 1},
    "KPMX_SERDES_LANE_LN_ControllerLane", {0, 0x1F}, {7, 1},
    "KPMX_SERDES_LANE_MAP_CNTL", {0, 1},
};
constexpr unsigned int kLaneMapBlock = kLaneControllerBlock + 0x10;        // + 4 per lane of the chiplet
constexpr unsigned int kLaneMapControlOffset = kLaneControllerBlock + 0x20;  // in chiplet 0's block

// Firmware version words read by the PHY version check.
inline constexpr NamedOffset kPhyFirmwareRegisters[] = {
    {"PHY_FW_VERSION0", 0x0, 4},
    {"PHY_FW_VERSION1", 0x4, 4},
};

// In a link's PCS block (LinkLanes::pcs_base): per-lane injection and
// coefficient registers, lane l at kPcsLaneBlock + l * kPcsLaneStride.
constexpr unsigned int kPcsLaneBlock = 0x1000, kPcsLaneStride = 0x80;
inline constexpr NamedOffset kPcsLaneRegisters[] = {
    {"UPI2_DECODE_32_LANE_InjectionParamCode", 0x00, 4},
    {"UPI2_DECODE_32_LANE_InjectionReadback", 0x04, 4},
    {"PCS_LANEX_COEFF", 0x10, 4},
};
// The hVL PCS is one per link: these answer every lane of the link with the
// same register.
inline constexpr NamedOffset kHvlPcsRegisters[] = {
    {"PCS_HVL3X16_PCS_STATUS1", 0x004, 4},
    {"PCS_HVL3X16_PCS_ERROR_CONTROL1", 0x010, 4},
    {"PCS_HVL3X16_PCS_ERROR_MASK", 0x014, 4},
    {"PCS_HVL3X16_PCS_ERROR_STATUS", 0x018, 4},
    {"PCS_HVL3X16_PCS_ERROR_STATUS1", 0x01C, 4},
    {"PCS_HVL3X16_PCS_STATE_HIST1", 0x024, 4},
    {"PCS_HVL3X16_PCS_PSTATE_SELECT", 0x040, 4},
    {"PCS_HVL3X16_PCS_PSTATE_CONTEXT2", 0x048, 4},
    {"PCS_HVL3X16_PCS_PERFORMANCE_COUNTER_REGISTERS0", 0x080, 4},
    {"PCS_HVL3X16_PCS_PERFORMANCE_COUNTER_REGISTERS1", 0x084, 4},
    {"PCS_HVL3X16_PCS_PERFORMANCE_COUNTER_REGISTERS2", 0x088, 4},
};
// The TEXL PCS has one set per lane: lane l at kTexlPcsBlock + l * kTexlPcsStride.
constexpr unsigned int kTexlPcsBlock = 0x2000, kTexlPcsStride = 0x40;
inline constexpr NamedOffset kTexlPcsRegisters[] = {
    {"PCS_GOPX1_PCS_ERROR_CONTROL1", 0x10, 4},
    {"PCS_GOPX1_PCS_ERROR_MASK", 0x14, 4},
    {"PCS_GOPX1_PCS_ERROR_STATUS", 0x18, 4},
    {"PCS_GOPX1_PCS_STATE_HIST1", 0x24, 4},
};
// The TEXL link is also named by its PCS; both names reach the same registers.
constexpr const char* kTexlAlias = "TEXLPCS";

// MPIO firmware messages: MPIO_C2PMSG_<n> for n below kMpioMessageCount.
constexpr unsigned int kMpioMessageBase = 0x10920400, kMpioMessageCount = 128;
// SATA controllers' base address registers.
constexpr unsigned int kSataBase = 0x10C00000, kSataStride = 0x1000, kSataControllers = 4;
inline constexpr NamedOffset kSataRegisters[] = {
    {"SATA_BASE_ADDR_LO", 0x0, 4},
    {"SATA_BASE_ADDR_HI", 0x4, 4},
};

// The E32 links of the layout and the TEXL alias, in link order.
std::vector<std::string> link_names(const ChipLanes& lanes);

RegisterRows link_rows(const ChipLanes& lanes);
RegisterRows chiplet_rows(const ChipLanes& lanes);
RegisterRows lane_rows(const ChipLanes& lanes);
RegisterRows link_pcs_rows(const ChipLanes& lanes);
RegisterRows pcie_core_func_rows(std::span<const PcieCore> cores);
RegisterRows pcie_core_rows(std::span<const PcieCore> cores);
RegisterRows pcie_tx_eq_rows(std::span<const PcieCore> cores);
RegisterRows cxl_rows(std::span<const PcieCore> cores);
RegisterRows iohc_rows(std::span<const PcieCore> cores);
RegisterRows sata_rows();
RegisterRows mpio_rows();

// A server die's whole map, one group per population step of its register
// store; an empty iohc group where the chip's store has no I/O hub lookup.
struct ServerRegisterMap {
    std::vector<std::string> link_names;
    RegisterRows link, chiplet, lane, pcie_core_func, pcie_core, pcie_tx_eq, cxl, sata, mpio, iohc, link_pcs;
    // Every row, in the population order of the store.
    RegisterRows all;
};
ServerRegisterMap make_server_register_map(const ChipLanes& lanes, std::span<const PcieCore> cores, bool with_iohc);

}  // namespace chips::server_io
