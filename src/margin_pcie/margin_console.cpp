#include "margin_pcie/margin_console.h"

#include <iostream>

#include "hardware/resource_lock.h"

namespace PCIE {

void print_console_lines(const std::vector<std::string>& lines) {
    NamedLockGuard console("ConsoleLock");
    for (const std::string& line : lines) std::cout << line << '\n';
    std::cout.flush();
}

}  // namespace PCIE
