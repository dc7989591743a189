// The lane objects of a PCIe margin report. Each lane of a run gives one
// JSON object; the first also carries the device's keys. The CSV writer, the
// console dump, the test runner and the archive all read these keys, so
// their spelling (including "VoltBotomMargin") is fixed.
//
// Every dump operation takes the lane's position in the lane list, its
// record and the lane's object. An object that already names another
// position in "LaneSerialID" is refused with a runtime_error; otherwise the
// position is written there, so no operation can mix two lanes' data.
//
// Choices of our own:
// - "Segment", "Bus", "Device" and "Function" are numbers; "VENDORID" and
//   "PCIEID" are hexadecimal texts without prefix ("1f7e").
// - Speed and width are the readers' texts ("32 GT/s", "x16"), or
//   "Not Available" when they can't be read.
// - "ErrorMsg", "WarningMsg" and "Information" exist from the first text put
//   into them; each new text goes in front, followed by a newline.
#pragma once

#include <array>
#include <map>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

namespace PCIE {

// The function under test. stage 1 is the start of the run, any other
// stage its end.
struct PCIEDeviceDetails {
    unsigned int segment = 0;
    unsigned int bus = 0;
    unsigned int device = 0;
    unsigned int function = 0;
    unsigned int vendor_id = 0;
    unsigned int device_id = 0;
    std::string bios_version;
    std::string speed;
    std::string width;
};

// What the receiver reports about margining.
struct MarginCapabilities {
    unsigned int MarginingSupport = 0;  // 1 once the pre-checks passed
    unsigned int NumTimingSteps = 0;
    unsigned int MaxTimingOffset = 0;
    unsigned int NumVoltSteps = 0;
    unsigned int MaxVoltOffset = 0;
    unsigned int MaxLanes = 0;
    bool IndErrSampler = false;
    bool SampleReportingMethod = false;
    bool LeftRightTiming = false;
    bool IndUpDownVolt = false;
    bool VoltSupported = false;
};

// What the run was asked for.
struct MarginParams {
    unsigned int BER = 0;  // exponent; 0 when a dwell was given instead
    unsigned int ErrCnt = 0;
    unsigned int DwellTime = 0;  // ms
    unsigned int ReceiverNo = 0;
};

// (offset, dwell in ms) to error count.
using MarginErrorMap = std::map<std::pair<unsigned int, unsigned int>, unsigned int>;

// One lane's margins.
struct MarginData {
    unsigned int PhaseRightOffset = 0;
    unsigned int PhaseLeftOffset = 0;
    float PhaseRightMargin = 0;  // UI
    float PhaseLeftMargin = 0;
    unsigned int VoltTopOffset = 0;
    unsigned int VoltBottomOffset = 0;
    float VoltTopMargin = 0;  // volt
    float VoltBotomMargin = 0;
    unsigned int DwellTime = 0;
    MarginErrorMap PhaseLeftErrorMap;
    MarginErrorMap PhaseRightErrorMap;
    MarginErrorMap VoltBottomErrorMap;
    MarginErrorMap VoltTopErrorMap;
};

// The silicon behind a mapped port.
struct VEXDeviceDetails {
    std::string DeviceName;
    unsigned int Socket = 0;
    unsigned int Die = 0;
    std::string ASICID = "Not Available";  // "0x" and hexadecimal when known
    std::string PCIeController;
    unsigned int PCIeFunctionIndex = 0;
    unsigned int PortNo = 0;
    std::string SERDES;
    unsigned int LanePhysicalID = 0;
    std::string PhyFwVersion;
    std::string PhyName;
};

// The general run keys of the first object.
struct MarginRunDetails {
    int loop = 0;
    std::string time_stamp;
    std::string margin_type = "std-fm";
};

class DumpPCIEMarginDataToJSON {
public:
    static constexpr unsigned int STAGE_START = 1;

    // "ErrorPresent" false, "VEXDevicePresent" false, "loop", "TimeStamp", "MarginType".
    void dump_run_details(unsigned int lane, const MarginRunDetails& run, nlohmann::json& data) const;
    // Sets "ErrorPresent" true as well.
    void dump_err_msg(unsigned int lane, const std::string& text, nlohmann::json& data) const;
    void dump_warning_msg(unsigned int lane, const std::string& text, nlohmann::json& data) const;
    void dump_information_msg(unsigned int lane, const std::string& text, nlohmann::json& data) const;
    // "LanePCIeNo" and "loop".
    void dump_lane_details(unsigned int lane, unsigned int lane_pcie_no, int loop, nlohmann::json& data) const;
    // Speed and width go to "SpeedStart"/"WidthStart" at stage 1, else
    // "SpeedEnd"/"WidthEnd".
    void dump_pcie_device_details(unsigned int lane, const PCIEDeviceDetails& details, unsigned int stage,
                                  nlohmann::json& data) const;
    void dump_margin_capabilities(unsigned int lane, const MarginCapabilities& capabilities,
                                  nlohmann::json& data) const;
    // "BER" is "Not Available" when 0.
    void dump_margin_params(unsigned int lane, const MarginParams& params, nlohmann::json& data) const;
    // Error maps become arrays of {"Offset", "DwellTime", "ErrCnt"} sorted by
    // offset, then dwell.
    void dump_margin_data(unsigned int lane, const MarginData& margin, nlohmann::json& data) const;
    // Sets "VEXDevicePresent" true.
    void dump_vex_device_details(unsigned int lane, const VEXDeviceDetails& details, nlohmann::json& data) const;

private:
    void _check_lane(unsigned int lane, const char* function, nlohmann::json& data) const;
    void _prepend(const char* key, const std::string& text, nlohmann::json& data) const;
};

// The keys of each group, in the order the console prints them.
inline constexpr std::array<const char*, 11> kPCIeDeviceKeys{"Segment",   "Bus",        "Device",     "Function",
                                                           "VENDORID",  "PCIEID",     "BIOSVERSION", "SpeedStart",
                                                           "WidthStart", "SpeedEnd",  "WidthEnd"};
inline constexpr std::array<const char*, 11> kMarginCapabilityKeys{
    "MarginingSupport", "NumTimingSteps",  "MaxTimingOffset",        "NumVoltSteps",
    "MaxVoltOffset",    "MaxLanes",        "IndErrSampler",          "SampleReportingMethod",
    "LeftRightTiming",  "IndUpDownVolt",   "VoltSupported"};
inline constexpr std::array<const char*, 4> kMarginParamKeys{"BER", "ErrCnt", "DwellTime", "ReceiverNo"};
inline constexpr std::array<const char*, 12> kVEXDeviceKeys{
    "VEXDevicePresent", "DeviceName", "Socket", "Die",  "ASICID",        "PCIeController",
    "PCIeFunctionIndex", "PortNo",    "SERDES", "LanePhysicalID", "PhyFwVersion", "PhyName"};

}  // namespace PCIE

// The margin keys PCIe and hVL lane objects share: each pair of sides'
// offsets, margins, their total and error maps (already in JSON form, since
// the two kinds keep different error maps).
void dump_phase_margins(nlohmann::json& data, unsigned int right_offset, unsigned int left_offset, float right_margin,
                        float left_margin, nlohmann::json left_map, nlohmann::json right_map);
void dump_volt_margins(nlohmann::json& data, unsigned int top_offset, unsigned int bottom_offset, float top_margin,
                       float bottom_margin, nlohmann::json bottom_map, nlohmann::json top_map);
