// Bit fields of the equalisation registers of the server dies' PCIe ports
// and E32 PHY lanes. The equalisation readers decode by these and the
// platform model encodes by them, so the two can never disagree. The
// registers themselves are rows of server_registers.h.
#pragma once

#include "hardware/chips/chip_identity.h"

namespace chips::equalisation {

// Per-lane transmitter presets the link negotiated, downstream port (the
// port's own transmitter) and upstream port. "PCIE_LANE_EQUALIZATION_CNTL"
// (8 GT/s) keeps the upstream preset in its second byte; the 16 and 32 GT/s
// controls, and the ESM ones, pack both in one byte.
constexpr IdentityField kPreset8Downstream{0, 0xF}, kPreset8Upstream{8, 0xF};
constexpr IdentityField kPresetDownstream{0, 0xF}, kPresetUpstream{4, 0xF};
// "PCIE_LC_EQ_CNTL_<speed>": the controller's equalisation mode for the rate.
constexpr IdentityField kLcEqMode{6, 1};

// "PCIE_LC_DEBUG_CNTL": one bit per controller lane from bit 16 selects the
// lane that the two reads below answer for; the low four bits are kept.
constexpr unsigned int kDebugLaneSelectShift = 16;
constexpr unsigned int kDebugKeepMask = 0xF;

// "PCIE_LC_CNTL5": the rate selector written, and the selected lane's
// local settings read back.
constexpr IdentityField kLocalSelector{0, 3};
constexpr IdentityField kLocalPreset{2, 0xF}, kLocalPreCursor{6, 0xF}, kLocalCursor{10, 0x3F},
    kLocalPostCursor{16, 0x1F};
// "PCIE_LC_BEST_EQ_SETTINGS": the rate selector written, and the best
// settings and their figure of merit read back.
constexpr IdentityField kBestSelector{30, 3};
constexpr IdentityField kBestPreset{0, 0xF}, kBestPreCursor{4, 0x3F}, kBestCursor{10, 0x3F},
    kBestPostCursor{16, 0x3F}, kBestFom{22, 0xFF};
// The rate selector of both registers.
constexpr unsigned int kSelector8GT = 0, kSelector16GT = 1, kSelector32GT = 2;

// E32 PHY lane: "TX_FFE_COEF0" holds the pre cursor and "TX_FFE_COEF1" the
// post cursor in their low six bits; "PCS_LANEX_COEFF" the PCS's copy of
// both and the main cursor.
constexpr IdentityField kFfeCoefficient{0, 0x3F};
constexpr IdentityField kPcsPre{0, 0x3F}, kPcsPost{12, 0x3F}, kPcsMain{24, 0xFF};

// Transmitter presets by their (pre, post) coefficients; any other pair is "P10".
struct PresetCoefficients {
    unsigned int pre, post;
    const char* preset;
};
inline constexpr PresetCoefficients kPresets[] = {
    {0, 12, "P0"}, {0, 8, "P1"}, {0, 10, "P2"}, {0, 6, "P3"}, {0, 0, "P4"},
    {4, 0, "P5"},  {6, 0, "P6"}, {4, 10, "P7"}, {6, 6, "P8"}, {8, 0, "P9"},
};
constexpr const char* kOtherPreset = "P10";

}  // namespace chips::equalisation
