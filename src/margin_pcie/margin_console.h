// Console output of margin engines. Lanes run on threads of their own, so
// each group of lines is written whole under "ConsoleLock".
#pragma once

#include <string>
#include <vector>

namespace PCIE {

void print_console_lines(const std::vector<std::string>& lines);
inline void print_console_line(const std::string& line) { print_console_lines({line}); }

}  // namespace PCIE
