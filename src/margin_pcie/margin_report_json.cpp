#include "margin_pcie/margin_report_json.h"

#include <sstream>
#include <stdexcept>
#include <utility>

using nlohmann::json;

namespace PCIE {

namespace {

std::string hex_text(unsigned int value) {
    std::ostringstream out;
    out << std::hex << value;
    return out.str();
}

json error_map_json(const MarginErrorMap& map) {
    json entries = json::array();
    // The map's order is offset, then dwell: the report's order.
    for (const auto& [where, count] : map)
        entries.push_back({{"Offset", where.first}, {"DwellTime", where.second}, {"ErrCnt", count}});
    return entries;
}

}  // namespace

void DumpPCIEMarginDataToJSON::_check_lane(unsigned int lane, const char* function, json& data) const {
    if (data.is_object() && data.contains("LaneSerialID")) {
        const json& id = data["LaneSerialID"];
        if (!id.is_number_integer() || id.get<long long>() != static_cast<long long>(lane))
            throw std::runtime_error(std::string("Lane ID is not matching in DumpPCIEMarginDataToJSON::") + function +
                                     ".");
    }
    data["LaneSerialID"] = lane;
}

void DumpPCIEMarginDataToJSON::_prepend(const char* key, const std::string& text, json& data) const {
    const std::string old = data.contains(key) && data[key].is_string() ? data[key].get<std::string>() : "";
    data[key] = text + "\n" + old;
}

void DumpPCIEMarginDataToJSON::dump_run_details(unsigned int lane, const MarginRunDetails& run, json& data) const {
    _check_lane(lane, "dump_run_details", data);
    data["ErrorPresent"] = false;
    data["VEXDevicePresent"] = false;
    data["loop"] = run.loop;
    data["TimeStamp"] = run.time_stamp;
    data["MarginType"] = run.margin_type;
}

void DumpPCIEMarginDataToJSON::dump_err_msg(unsigned int lane, const std::string& text, json& data) const {
    _check_lane(lane, "dump_err_msg", data);
    data["ErrorPresent"] = true;
    _prepend("ErrorMsg", text, data);
}

void DumpPCIEMarginDataToJSON::dump_warning_msg(unsigned int lane, const std::string& text, json& data) const {
    _check_lane(lane, "dump_warning_msg", data);
    _prepend("WarningMsg", text, data);
}

void DumpPCIEMarginDataToJSON::dump_information_msg(unsigned int lane, const std::string& text, json& data) const {
    _check_lane(lane, "dump_information_msg", data);
    _prepend("Information", text, data);
}

void DumpPCIEMarginDataToJSON::dump_lane_details(unsigned int lane, unsigned int lane_pcie_no, int loop,
                                                 json& data) const {
    _check_lane(lane, "dump_lane_details", data);
    data["LanePCIeNo"] = lane_pcie_no;
    data["loop"] = loop;
}

void DumpPCIEMarginDataToJSON::dump_pcie_device_details(unsigned int lane, const PCIEDeviceDetails& details,
                                                        unsigned int stage, json& data) const {
    _check_lane(lane, "dump_pcie_device_details", data);
    data["Segment"] = details.segment;
    data["Bus"] = details.bus;
    data["Device"] = details.device;
    data["Function"] = details.function;
    data["VENDORID"] = hex_text(details.vendor_id);
    data["PCIEID"] = hex_text(details.device_id);
    data["BIOSVERSION"] = details.bios_version;
    const bool start = stage == STAGE_START;
    data[start ? "SpeedStart" : "SpeedEnd"] = details.speed;
    data[start ? "WidthStart" : "WidthEnd"] = details.width;
}

void DumpPCIEMarginDataToJSON::dump_margin_capabilities(unsigned int lane, const MarginCapabilities& c,
                                                        json& data) const {
    _check_lane(lane, "dump_margin_capabilities", data);
    data["MarginingSupport"] = c.MarginingSupport;
    data["NumTimingSteps"] = c.NumTimingSteps;
    data["MaxTimingOffset"] = c.MaxTimingOffset;
    data["NumVoltSteps"] = c.NumVoltSteps;
    data["MaxVoltOffset"] = c.MaxVoltOffset;
    data["MaxLanes"] = c.MaxLanes;
    data["IndErrSampler"] = c.IndErrSampler;
    data["SampleReportingMethod"] = c.SampleReportingMethod;
    data["LeftRightTiming"] = c.LeftRightTiming;
    data["IndUpDownVolt"] = c.IndUpDownVolt;
    data["VoltSupported"] = c.VoltSupported;
}

void DumpPCIEMarginDataToJSON::dump_margin_params(unsigned int lane, const MarginParams& params, json& data) const {
    _check_lane(lane, "dump_margin_params", data);
    if (params.BER == 0)
        data["BER"] = "Not Available";
    else
        data["BER"] = params.BER;
    data["ErrCnt"] = params.ErrCnt;
    data["DwellTime"] = params.DwellTime;
    data["ReceiverNo"] = params.ReceiverNo;
}

void DumpPCIEMarginDataToJSON::dump_margin_data(unsigned int lane, const MarginData& m, json& data) const {
    _check_lane(lane, "dump_margin_data", data);
    data["DwellTime"] = m.DwellTime;
    dump_phase_margins(data, m.PhaseRightOffset, m.PhaseLeftOffset, m.PhaseRightMargin, m.PhaseLeftMargin,
                       error_map_json(m.PhaseLeftErrorMap), error_map_json(m.PhaseRightErrorMap));
    dump_volt_margins(data, m.VoltTopOffset, m.VoltBottomOffset, m.VoltTopMargin, m.VoltBotomMargin,
                      error_map_json(m.VoltBottomErrorMap), error_map_json(m.VoltTopErrorMap));
}

void DumpPCIEMarginDataToJSON::dump_vex_device_details(unsigned int lane, const VEXDeviceDetails& d,
                                                       json& data) const {
    _check_lane(lane, "dump_vex_device_details", data);
    data["VEXDevicePresent"] = true;
    data["DeviceName"] = d.DeviceName;
    data["Socket"] = d.Socket;
    data["Die"] = d.Die;
    data["ASICID"] = d.ASICID;
    data["PCIeController"] = d.PCIeController;
    data["PCIeFunctionIndex"] = d.PCIeFunctionIndex;
    data["PortNo"] = d.PortNo;
    data["SERDES"] = d.SERDES;
    data["LanePhysicalID"] = d.LanePhysicalID;
    data["PhyFwVersion"] = d.PhyFwVersion;
    data["PhyName"] = d.PhyName;
}

}  // namespace PCIE

void dump_phase_margins(json& data, unsigned int right_offset, unsigned int left_offset, float right_margin,
                        float left_margin, json left_map, json right_map) {
    data["PhaseRightOffset"] = right_offset;
    data["PhaseLeftOffset"] = left_offset;
    data["PhaseRightMargin"] = right_margin;
    data["PhaseLeftMargin"] = left_margin;
    data["PhaseTotalMargin"] = left_margin + right_margin;
    data["PhaseLeftErrorMap"] = std::move(left_map);
    data["PhaseRightErrorMap"] = std::move(right_map);
}

void dump_volt_margins(json& data, unsigned int top_offset, unsigned int bottom_offset, float top_margin,
                       float bottom_margin, json bottom_map, json top_map) {
    data["VoltTopOffset"] = top_offset;
    data["VoltBottomOffset"] = bottom_offset;
    data["VoltTopMargin"] = top_margin;
    data["VoltBotomMargin"] = bottom_margin;
    data["VoltTotalMargin"] = top_margin + bottom_margin;
    data["VoltBottomErrorMap"] = std::move(bottom_map);
    data["VoltTopErrorMap"] = std::move(top_map);
}
