#include "result_data/pcie_margin_data_handler.h"

#include <iostream>
#include <sstream>
#include <stdexcept>

#include "hardware/tool_version.h"
#include "result_data/static_data.h"

using nlohmann::json;

namespace {

constexpr const char* kNotAvailable = "Not Available";

// A header cell as the report shows it (with its comma and any blank) and
// the lane key whose value fills it.
struct Column {
    const char* head;
    const char* key;
};

constexpr Column kLeadColumns[] = {
    {"Segment, ", "Segment"},          {"Bus,", "Bus"},
    {"Device,", "Device"},             {"Function,", "Function"},
    {"BIOS,", "BIOSVERSION"},          {"loop,", "loop"},
    {"LaneSerialNo,", "LaneSerialID"}, {"LanePCIeNo,", "LanePCIeNo"},
};
constexpr Column kLanePhysical = {"LanePhysicalNo,", "LanePhysicalID"};
constexpr Column kParameterColumns[] = {
    {"BER,", "BER"},
    {"Dwell Time(ms),", "DwellTime"},
    {"Speed before margin,", "SpeedStart"},
    {"Speed after margin,", "SpeedEnd"},
    {"Width before margin,", "WidthStart"},
    {"Width after margin,", "WidthEnd"},
    {"ErrCnt,", "ErrCnt"},
    {"ReceiverNo,", "ReceiverNo"},
    {"NumTimingSteps,", "NumTimingSteps"},
    {"MaxTimingOffset,", "MaxTimingOffset"},
    {"VoltSupported,", "VoltSupported"},
    {"NumVoltageSteps,", "NumVoltSteps"},
    {"MaxVoltageOffset,", "MaxVoltOffset"},
};
constexpr Column kMaxLanes = {"MaxLanes,", "MaxLanes"};
constexpr Column kMarginColumns[] = {
    {"Total Phase(UI),", "PhaseTotalMargin"},     {"Total Volt(volt),", "VoltTotalMargin"},
    {"Margin Left (ui),", "PhaseLeftMargin"},     {"Margin Right (ui),", "PhaseRightMargin"},
    {"Margin Top (volt),", "VoltTopMargin"},      {"Margin Bottom (volt),", "VoltBotomMargin"},
    {"Margin Left Offset, ", "PhaseLeftOffset"},  {"Margin Right Offset,", "PhaseRightOffset"},
    {"Margin Top Offset,", "VoltTopOffset"},      {"Margin Bottom Offset,", "VoltBottomOffset"},
};
constexpr Column kFourPointErrorColumns[] = {
    {"Margin Left ErrCnt, ", "PhaseLeftMarginErrCnt"},
    {"Margin Right ErrCnt,", "PhaseRightMarginErrCnt"},
    {"Margin Top ErrCnt,", "VoltTopMarginErrCnt"},
    {"Margin Bottom ErrCnt,", "VoltBotomMarginErrCnt"},
};
constexpr Column kDeviceColumns[] = {
    {"Device Name,", "DeviceName"}, {"PCIe controller Name,", "PCIeController"},
    {"PCIe Function Index,", "PCIeFunctionIndex"}, {"PCIe Port No,", "PortNo"},
    {"SERDES,", "SERDES"}, {"PhyName,", "PhyName"}, {"PhyFwVersion (Dec),", "PhyFwVersion"},
};
constexpr Column kRxEqColumns[] = {
    {"vga,", "vga"}, {"ctleidx,", "ctleidx"}, {"iq,", "iq"}, {"H0,", "H0"},
    {"H1,", "H1"},   {"H2,", "H2"},           {"H3,", "H3"},
};
constexpr Column kPresetColumns[] = {
    {"TxPreset,", "TxPreset"}, {"LCBestPreset,", "LCBestPreset"},
    {"LCLocalPreset,", "LCLocalPreset"}, {"USPTxPreset,", "USPTxPreset"},
};
constexpr Column kLocalCursorColumns[] = {
    {"LCLocalCursor,", "LCLocalCursor"}, {"LCLocalPreCursor,", "LCLocalPreCursor"},
    {"LCLocalPostCursor,", "LCLocalPostCursor"},
};
constexpr Column kBestCursorColumns[] = {
    {"LCBestCursor,", "LCBestCursor"}, {"LCBestPreCursor,", "LCBestPreCursor"},
    {"LCBestPostCursor,", "LCBestPostCursor"},
};
constexpr Column kBestFom = {"LCBestFom,", "LCBestFom"};
constexpr Column kTrailColumns[] = {
    {"TimeStamp,", "TimeStamp"}, {"MarginType, ", "MarginType"},
    {"VENDORID, ", "VENDORID"},  {"PCIEID, ", "PCIEID"},
};

// The lane's own value, else the first object's; neither throws the JSON
// library's out_of_range.
const json& lookup(const json& element, const json& first, const char* key) {
    if (element.is_object() && element.contains(key)) return element.at(key);
    return first.at(key);
}

bool flag(const json& element, const json& first, const std::string& key) {
    const json* value = nullptr;
    if (element.is_object() && element.contains(key)) value = &element.at(key);
    else if (first.is_object() && first.contains(key)) value = &first.at(key);
    return value && value->is_boolean() && value->get<bool>();
}

std::string text_of(const json& value) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_boolean()) return value.get<bool>() ? "true" : "false";
    if (value.is_number_float()) {
        std::ostringstream out;
        out << value.get<double>();
        return out.str();
    }
    if (value.is_null()) return "";
    return value.dump();
}

// Builds one line: the column names for the header, else the values of one
// lane, so both always run through the same column order.
class LineBuilder {
public:
    LineBuilder(const json* element, const json& first) : _element(element), _first(first) {}

    bool header() const { return _element == nullptr; }
    void column(const Column& c) {
        if (header()) _line += c.head;
        else _line += text_of(lookup(*_element, _first, c.key)) + ",";
    }
    void column_or_absent(const Column& c, bool present) {
        if (header() || present) column(c);
        else _line += std::string(kNotAvailable) + ",";
    }
    template <std::size_t N>
    void columns(const Column (&cs)[N]) {
        for (const Column& c : cs) column(c);
    }
    template <std::size_t N>
    void columns_or_absent(const Column (&cs)[N], bool present) {
        for (const Column& c : cs) column_or_absent(c, present);
    }
    void cell(const std::string& head, const std::string& value) { _line += header() ? head : value + ","; }
    void raw(const std::string& text) { _line += text; }
    bool has(const char* key) const { return flag(*_element, _first, key); }
    bool all(std::initializer_list<const char*> keys) const {
        for (const char* key : keys)
            if (!has(key)) return false;
        return true;
    }
    std::string take() { return std::move(_line); }

private:
    const json* _element;
    const json& _first;
    std::string _line;
};

}  // namespace

PCIEMarginDataHandler::PCIEMarginDataHandler(ModesOfDumps mode) : DataHandler(mode) {}

void PCIEMarginDataHandler::dump_data(const json& element, const json& first, std::ostream& out) {
    _finish_line(_line(&element, first, false, false), out);
}

void PCIEMarginDataHandler::dump_header(std::ostream&) {
    static const char* const kText = "Unexpected scenario in PCIEMarginDataHandler::dump_header.";
    std::cout << kText << std::endl;
    throw std::runtime_error(kText);
}

void PCIEMarginDataHandler::dump_header(const json& first, std::ostream& out) {
    _finish_line(_line(nullptr, first, false, true), out);
}

void PCIEMarginDataHandler::dump_4pt_data(const json& element, const json& first, std::ostream& out) {
    _finish_line(_line(&element, first, true, false), out);
}

void PCIEMarginDataHandler::dump_4pt_header(std::ostream&) {
    static const char* const kText = "Unexpected scenario in PCIEMarginDataHandler::dump_4pt_header.";
    std::cout << kText << std::endl;
    throw std::runtime_error(kText);
}

void PCIEMarginDataHandler::dump_4pt_header(const json& first, std::ostream& out) {
    _finish_line(_line(nullptr, first, true, true), out);
}

std::string PCIEMarginDataHandler::_line(const json* element, const json& first, bool four_point, bool header) {
    LineBuilder line(header ? nullptr : element, first);
    const bool internal = _mode == DUMP_MODE_INTERNAL;
    // The PHY of the device decides the receiver columns for the whole
    // report, so every row lines up with the header.
    const bool c20 = first.is_object() && first.contains("PhyName") && first.at("PhyName") == "C20";
    const bool device = !header && line.has("VEXDevicePresent");

    line.columns(kLeadColumns);
    line.column_or_absent(kLanePhysical, device);
    line.columns(kParameterColumns);
    if (!four_point) line.column(kMaxLanes);
    line.columns(kMarginColumns);
    if (four_point) line.columns(kFourPointErrorColumns);
    line.columns_or_absent(kDeviceColumns, device);
    if (internal && !c20) line.columns_or_absent(kRxEqColumns, !header && line.has("RxEqValid"));
    line.columns_or_absent(kPresetColumns,
                           device && line.all({"TxPresetGot", "LCBestPresetGot", "LCLocalPresetGot", "USPTxPresetGot"}));
    line.columns_or_absent(kLocalCursorColumns,
                           device && line.all({"LCLocalCursorGot", "LCLocalPreCursorGot", "LCLocalPostCursorGot"}));
    line.columns_or_absent(kBestCursorColumns,
                           device && line.all({"LCBestCursorGot", "LCBestPreCursorGot", "LCBestPostCursorGot"}));
    if (internal) line.column_or_absent(kBestFom, device && line.has("LCBestFomGot"));
    line.cell("Tool Version,", tool_version);
    line.columns(kTrailColumns);
    for (const auto& [name, value] : _static_fields()) line.cell(name + ",", value);
    if (header) {
        line.cell("Socket,", "");
        line.cell("Die,", "");
        line.cell("ASIC ID,", "");
    } else if (device) {
        line.column({"Socket,", "Socket"});
        line.column({"Die,", "Die"});
        line.column({"ASIC ID,", "ASICID"});
    } else {
        // Without a device the last two cells end in ", ".
        line.raw(std::string(kNotAvailable) + ",");
        line.raw(std::string(kNotAvailable) + ", ");
        line.raw(std::string(kNotAvailable) + ", ");
    }
    return line.take();
}
