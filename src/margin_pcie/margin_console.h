// Console output of margin engines. Lanes run on threads of their own, so
// each group of lines is written whole under "ConsoleLock".
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace PCIE {

void print_console_lines(const std::vector<std::string>& lines);
inline void print_console_line(const std::string& line) { print_console_lines({line}); }

// What DumpPCIEMarginDataToConsole prints of a lane object.
enum DumpWhat : unsigned int {
    DUMP_MARGIN_CAPABILITIES = 0,
    DUMP_INPUT_INFORMATION = 1,
    DUMP_PCIE_DEVICE_DETAILS = 2,
    DUMP_VEX_DEVICE_DETAILS = 3,
    DUMP_LANE_MARGINS = 4,
    DUMP_ERROR_MSG = 5,
};

// Prints one group of a lane object of a margin report. Groups 0 to 3 are
// a title and then "    <key>: <value>", one key a line, for the keys of
// the group the object has. Group 4 gives the lane's margins with two
// significant digits and the non-zero entries of its error maps; group 5
// the "ErrorMsg".
class DumpPCIEMarginDataToConsole {
public:
    explicit DumpPCIEMarginDataToConsole(bool enabled) : _enabled(enabled) {}

    // Nothing when not enabled. Throws runtime_error when the object has no
    // "LaneSerialID" or another one than lane.
    void operator()(DumpWhat what, const nlohmann::json& data, unsigned int lane, std::ostream& out) const;

    bool enabled() const { return _enabled; }

private:
    bool _enabled;
};

}  // namespace PCIE
