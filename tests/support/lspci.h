// What lspci prints, read back for comparison with what the product finds.
#pragma once

#include <cstdio>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "hardware/pci_device_details.h"

namespace lw_test {

// lspci's address form, "0000:41:00.0".
inline std::string lspci_address(const PCIDeviceDetails& d) {
    char text[32];
    std::snprintf(text, sizeof text, "%04x:%02x:%02x.%x", d.segment, d.bus, d.device, d.function);
    return text;
}

using LspciIds = std::tuple<unsigned, unsigned, unsigned, unsigned, unsigned, unsigned>;  // s b d f vendor device

// "0000:00:03.0 0200: 1af4:1041 (rev 01)" lines of `lspci -Dn`, in order.
inline std::vector<LspciIds> lspci_ids(const std::string& text) {
    static const std::regex line(
        R"(^([0-9a-f]+):([0-9a-f]{2}):([0-9a-f]{2})\.([0-7]) [0-9a-f]{4}: ([0-9a-f]{4}):([0-9a-f]{4}))");
    std::vector<LspciIds> functions;
    std::istringstream in(text);
    for (std::string row; std::getline(in, row);) {
        std::smatch m;
        if (!std::regex_search(row, m, line)) continue;
        auto hex = [&](int i) { return static_cast<unsigned>(std::stoul(m[i].str(), nullptr, 16)); };
        functions.emplace_back(hex(1), hex(2), hex(3), hex(4), hex(5), hex(6));
    }
    return functions;
}

}  // namespace lw_test
