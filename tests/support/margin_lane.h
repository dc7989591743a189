// A lane of a PCIe margin report as the engine leaves it, for the report
// writers and the archive.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace lw_test {

// One lane of a PCIe margin report on a mapped port, with every group of
// keys a report row reads present.
inline nlohmann::json margin_lane(unsigned serial) {
    nlohmann::json lane = {
        {"Segment", 0}, {"Bus", 65}, {"Device", 0}, {"Function", 0}, {"BIOSVERSION", "SIM2S.1.09"},
        {"SpeedStart", "16 GT/s"}, {"SpeedEnd", "16 GT/s"}, {"WidthStart", "x16"}, {"WidthEnd", "x16"},
        {"VENDORID", "15b3"}, {"PCIEID", "1021"}, {"loop", 1}, {"LaneSerialID", serial}, {"LanePCIeNo", serial},
        {"BER", 1e-12}, {"ErrCnt", 4}, {"DwellTime", 120}, {"ReceiverNo", 1},
        {"NumTimingSteps", 32}, {"MaxTimingOffset", 50}, {"VoltSupported", true}, {"NumVoltSteps", 64},
        {"MaxVoltOffset", 20}, {"MaxLanes", 31},
        {"PhaseTotalMargin", 0.5}, {"VoltTotalMargin", 0.1}, {"PhaseLeftMargin", 0.25}, {"PhaseRightMargin", 0.25},
        {"VoltTopMargin", 0.05}, {"VoltBotomMargin", 0.05}, {"PhaseLeftOffset", 16}, {"PhaseRightOffset", 16},
        {"VoltTopOffset", 32}, {"VoltBottomOffset", 32},
        {"VEXDevicePresent", true}, {"DeviceName", "Corvane"}, {"PCIeController", "PCIE0_nbio0"},
        {"PCIeFunctionIndex", 0}, {"PortNo", 0}, {"SERDES", "P0"}, {"PhyName", "E32"}, {"PhyFwVersion", "3.10.2"},
        {"LanePhysicalID", 15 - serial}, {"Socket", 0}, {"Die", 0}, {"ASICID", "Not Available"},
        {"RxEqValid", true}, {"vga", 7}, {"ctleidx", 3}, {"iq", 1}, {"H0", 40}, {"H1", -2}, {"H2", 1}, {"H3", 0},
        {"TimeStamp", "2024-05-01 10:00:00"}, {"MarginType", "std-fm"},
    };
    unsigned value = 1;
    for (const char* key : {"TxPreset", "LCBestPreset", "LCLocalPreset", "USPTxPreset", "LCLocalPreCursor",
                            "LCLocalCursor", "LCLocalPostCursor", "LCBestPreCursor", "LCBestCursor",
                            "LCBestPostCursor", "LCBestFom"}) {
        lane[key] = value++;
        lane[std::string(key) + "Got"] = true;
    }
    return lane;
}

}  // namespace lw_test
