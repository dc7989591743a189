#include "result_data/hvl_margin_data_handler.h"

#include <sstream>

#include "hardware/tool_version.h"
#include "result_data/static_data.h"

using nlohmann::json;

namespace {

constexpr const char* kNotAvailable = "Not Available";
constexpr const char* kLead[] = {"Device, ", "Socket,", "Die,", "Link,", "LaneNo,", "BIOS,", "PhyName,",
                                 "PhyFwVersion (Dec),"};
constexpr const char* kLeadKeys[] = {"DeviceName", "Socket", "Die", "Link", "LaneID", "BIOSVersion", "PhyName",
                                     "PhyFwVersion"};
constexpr const char* kSettings[] = {"BER,", "ErrCnt,", "Speed(GT/s),", "Dwell Time(ms),", "Tool Version,"};
constexpr const char* kHvlFigures[] = {
    "NumTimingSteps,", "MaxTimingOffset,", "NumVoltageSteps,", "MaxVoltageOffset,", "Total Phase(UI),",
    "Total Volt(volt),", "Margin Left (ui),", "Margin Right (ui),", "Margin Top (volt),", "Margin Bottom (volt),",
    "Margin Left Offset, ", "Left Offset ErrCnt, ", "Margin Right Offset,", "Right Offset Err Cnt, ",
    "Margin Top Offset,", "Top Offset Err Cnt,", "Margin Bottom Offset,", "Bottom Offset Err Cnt, "};
constexpr const char* kTexlFigures[] = {"NumVoltageSteps,", "MaxVoltageOffset,", "Total Volt(volt),",
                                        "Margin Top (volt),", "Margin Bottom (volt),", "Margin Top Offset,",
                                        "Top Offset Err Cnt,", "Margin Bottom Offset,", "Bottom Offset Err Cnt, "};
constexpr const char* kRxHead[] = {"vga,", "ctleidx,", "iq,", "H0,", "H1,", "H2,", "H3,"};
constexpr const char* kRxKeys[] = {"vga", "ctleidx", "iq", "H0", "H1", "H2", "H3"};
constexpr unsigned int kFailedCells = 19;

std::string text_of(const json& object, const char* key) {
    if (!object.is_object() || !object.contains(key)) return kNotAvailable;
    const json& value = object.at(key);
    if (value.is_string()) return value.get<std::string>();
    if (value.is_boolean()) return value.get<bool>() ? "true" : "false";
    if (value.is_number_float()) {
        std::ostringstream out;
        out << value.get<double>();
        return out.str();
    }
    return value.dump();
}

bool flag(const json& object, const char* key) {
    return object.is_object() && object.contains(key) && object.at(key).is_boolean() && object.at(key).get<bool>();
}

std::string pair_cells(const json& object, const char* key) {
    if (!object.contains(key) || !object.at(key).is_array() || object.at(key).size() != 2)
        return std::string(kNotAvailable) + "," + kNotAvailable + ",";
    return object.at(key).at(0).dump() + "," + object.at(key).at(1).dump() + ",";
}

}  // namespace

std::string HVLMarginDataHandler::_header() {
    std::string line;
    for (const char* head : kLead) line += head;
    for (const char* head : kSettings) line += head;
    if (_texl) {
        for (const char* head : kTexlFigures) line += head;
        if (_dump_internal_data())
            for (const char* head : kRxHead) line += head;
        for (const auto& entry : _static_fields()) line += entry.first + ",";
        return line + "TimeStamp," + "MarginType,";
    }
    for (const char* head : kHvlFigures) line += head;
    if (_dump_internal_data())
        for (const char* head : kRxHead) line += head;
    line += "cnm1_phy,";
    line += "cnp1_phy,";
    if (_dump_internal_data()) line += "fom,";
    line += "preset,";
    line += "TimeStamp, ";
    line += "MarginType, ";
    for (const auto& entry : _static_fields()) line += entry.first + ",";
    return line + "ASIC ID,";
}

std::string HVLMarginDataHandler::_row(const json& o) {
    std::string line;
    for (const char* key : kLeadKeys) line += text_of(o, key) + ",";
    const bool failed = flag(o, "ErrorPresent");
    if (failed) {
        for (unsigned int i = 0; i < kFailedCells; ++i) line += "Failed Margin,";
    } else {
        for (const char* key : {"BER", "ErrCnt", "DataRate", "DwellTime"}) line += text_of(o, key) + ",";
        line += tool_version + ",";
        if (_texl) {
            for (const char* key : {"VoltSteps", "MaxVoltOffset", "VoltTotalMargin", "VoltTopMargin", "VoltBotomMargin"})
                line += text_of(o, key) + ",";
            line += pair_cells(o, "TopErrCnt") + pair_cells(o, "BotErrCnt");
        } else {
            for (const char* key : {"TimingSteps", "MaxTimingOffset", "VoltSteps", "MaxVoltOffset", "PhaseTotalMargin",
                                    "VoltTotalMargin", "PhaseLeftMargin", "PhaseRightMargin", "VoltTopMargin",
                                    "VoltBotomMargin"})
                line += text_of(o, key) + ",";
            for (const char* key : {"LeftErrCnt", "RightErrCnt", "TopErrCnt", "BotErrCnt"}) line += pair_cells(o, key);
        }
    }
    if (_dump_internal_data()) {
        if (flag(o, "RxEqValid"))
            for (const char* key : kRxKeys) line += text_of(o, key) + ",";
        else line += ",,,,,,,";
    }
    if (_texl) {
        for (const auto& entry : _static_fields()) line += entry.second + ",";
        return line + text_of(o, "TimeStamp") + "," + text_of(o, "MarginType") + ",";
    }
    if (!flag(o, "TxEqValid")) {
        line += _dump_internal_data() ? ",,,," : ",,,";
    } else {
        line += text_of(o, "cnm1_phy") + "," + text_of(o, "cnp1_phy") + ",";
        if (_dump_internal_data()) line += (flag(o, "fom_valid") ? text_of(o, "fom") : std::string()) + ",";
        line += text_of(o, "preset") + ",";
    }
    line += text_of(o, "TimeStamp") + "," + text_of(o, "MarginType") + ",";
    for (const auto& entry : _static_fields()) line += entry.second + ",";
    return line + text_of(o, "ASICID") + ",";
}

void HVLMarginDataHandler::dump_data(const json& element, const json&, std::ostream& out) {
    _finish_line(_row(element), out);
}
void HVLMarginDataHandler::dump_header(std::ostream& out) { _finish_line(_header(), out); }
void HVLMarginDataHandler::dump_header(const json&, std::ostream& out) { _finish_line(_header(), out); }
void HVLMarginDataHandler::dump_4pt_data(const json& element, const json& first, std::ostream& out) {
    dump_data(element, first, out);
}
void HVLMarginDataHandler::dump_4pt_header(std::ostream& out) { dump_header(out); }
void HVLMarginDataHandler::dump_4pt_header(const json& first, std::ostream& out) { dump_header(first, out); }
