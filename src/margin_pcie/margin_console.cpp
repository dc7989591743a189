#include "margin_pcie/margin_console.h"

#include <iomanip>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "hardware/resource_lock.h"
#include "margin_pcie/margin_report_json.h"

using nlohmann::json;

namespace PCIE {

namespace {

std::string value_text(const json& value) { return value.is_string() ? value.get<std::string>() : value.dump(); }

template <class Keys>
void print_group(const char* title, const Keys& keys, const json& data, std::ostream& out) {
    out << title << '\n';
    for (const char* key : keys)
        if (data.contains(key)) out << "    " << key << ": " << value_text(data[key]) << '\n';
}

double number_or_zero(const json& data, const char* key) {
    return data.contains(key) && data[key].is_number() ? data[key].get<double>() : 0.0;
}

void print_margins(const json& data, std::ostream& out) {
    std::ostringstream lines;
    lines << std::setprecision(2);
    lines << "  Margin\n";
    lines << "    Bot  : " << number_or_zero(data, "VoltBotomMargin") << " volt\n";
    lines << "    Top  : " << number_or_zero(data, "VoltTopMargin") << " volt\n";
    lines << "    Left : " << number_or_zero(data, "PhaseLeftMargin") << "   ui\n";
    lines << "    Right: " << number_or_zero(data, "PhaseRightMargin") << "   ui\n";
    lines << "  Offset:DwellTime:ErrCnt\n";
    for (const char* map : {"PhaseLeftErrorMap", "PhaseRightErrorMap", "VoltBottomErrorMap", "VoltTopErrorMap"}) {
        if (!data.contains(map) || !data[map].is_array()) continue;
        for (const json& entry : data[map]) {
            const unsigned int count = entry.value("ErrCnt", 0u);
            if (count == 0) continue;
            lines << "    " << std::setw(2) << entry.value("Offset", 0u) << ":" << std::setw(4)
                  << entry.value("DwellTime", 0u) << "." << std::setw(2) << count << '\n';
        }
    }
    out << lines.str();
}

}  // namespace

void print_console_lines(const std::vector<std::string>& lines) {
    NamedLockGuard console("ConsoleLock");
    for (const std::string& line : lines) std::cout << line << '\n';
    std::cout.flush();
}

void DumpPCIEMarginDataToConsole::operator()(DumpWhat what, const json& data, unsigned int lane,
                                             std::ostream& out) const {
    if (!_enabled) return;
    NamedLockGuard console("ConsoleLock");
    if (!data.is_object() || !data.contains("LaneSerialID"))
        throw std::runtime_error("Lane ID not found in DumpPCIEMarginDataToConsole::operator.");
    const json& id = data["LaneSerialID"];
    if (!id.is_number_integer() || id.get<long long>() != static_cast<long long>(lane))
        throw std::runtime_error("Lane ID is not matching in DumpPCIEMarginDataToConsole::operator.");
    switch (what) {
        case DUMP_MARGIN_CAPABILITIES: print_group("Margin Capabilities:    ", kMarginCapabilityKeys, data, out); break;
        case DUMP_INPUT_INFORMATION: print_group("Input Information:", kMarginParamKeys, data, out); break;
        case DUMP_PCIE_DEVICE_DETAILS: print_group("PCIe Device Details:", kPCIeDeviceKeys, data, out); break;
        case DUMP_VEX_DEVICE_DETAILS: print_group("VEX Device Details:", kVEXDeviceKeys, data, out); break;
        case DUMP_LANE_MARGINS: print_margins(data, out); break;
        case DUMP_ERROR_MSG:
            out << "ErrorMsg: " << (data.contains("ErrorMsg") ? value_text(data["ErrorMsg"]) : std::string()) << '\n';
            break;
    }
    out.flush();
}

}  // namespace PCIE
