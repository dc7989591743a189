#include "discovery/ltssm_state.h"

#include <sstream>

namespace {

std::map<unsigned int, std::string> build_state_map() {
    std::map<unsigned int, std::string> map;
    const auto span = [&map](unsigned int first, unsigned int last, const char* name) {
        for (unsigned int value = first; value <= last; ++value) map[value] = name;
    };
    span(0, 4, "Detect");
    span(42, 42, "Detect");
    span(5, 8, "Polling");
    span(50, 50, "Polling");
    span(9, 15, "Configuration");
    span(48, 48, "Configuration");
    span(16, 16, "L0");
    span(17, 23, "L0s");
    span(44, 47, "L0s");
    span(24, 27, "L1");
    span(28, 31, "L2");
    span(43, 43, "L2");
    span(32, 35, "Recovery");
    span(49, 49, "Recovery");
    span(52, 55, "Recovery");
    span(36, 37, "Loopback");
    span(51, 51, "Loopback");
    span(38, 38, "HotReset");
    span(39, 41, "Disabled");
    span(56, 59, "L1SS");
    span(63, 63, "N/A");
    return map;
}

std::string state_name(unsigned int value) {
    const auto found = GetCurrentLTSSMState::value_to_state.find(value);
    return found == GetCurrentLTSSMState::value_to_state.end() ? std::string() : found->second;
}

std::string hex(unsigned int value) {
    std::ostringstream text;
    text << "0x" << std::hex << value;
    return text.str();
}

}  // namespace

const std::map<unsigned int, std::string> GetCurrentLTSSMState::value_to_state = build_state_map();

std::vector<std::string> GetCurrentLTSSMState::get_list_of_lc_state() const {
    std::vector<std::string> list;
    for (const auto& [value, name] : value_to_state) list.push_back(name + "(" + hex(value) + ")");
    return list;
}

std::string GetCurrentLTSSMState::get_current_lc_state_val(VEX_DIE_INFO die, std::string core,
                                                            unsigned int port) const {
    try {
        return get_current_lc_state_val(*get_register_store(die), core, port);
    } catch (...) {
        return "";
    }
}

std::string GetCurrentLTSSMState::get_current_lc_state_val(const RegisterStorage& store, const std::string& core,
                                                            unsigned int port) const {
    try {
        const unsigned int value = store.get_pcie_core_func_register("PCIE_LC_STATE0", core, port)->read() & 0x3F;
        return state_name(value) + "(" + hex(value) + ")";
    } catch (...) {
        return "";
    }
}

std::vector<std::string> GetCurrentLTSSMState::get_full_lc_state_list(VEX_DIE_INFO die, std::string core,
                                                                      unsigned int port) const {
    return get_full_lc_state_list(*get_register_store(die), core, port);
}

std::vector<std::string> GetCurrentLTSSMState::get_full_lc_state_list(const RegisterStorage& store,
                                                                      const std::string& core,
                                                                      unsigned int port) const {
    std::vector<std::string> list;
    for (unsigned int index = 0; index < 12; ++index) {
        const unsigned int states =
            store.get_pcie_core_func_register("PCIE_LC_STATE" + std::to_string(index), core, port)->read();
        for (unsigned int shift = 0; shift < 32; shift += 8) {
            const unsigned int value = (states >> shift) & 0x3F;
            list.push_back("State " + std::to_string(list.size()) + ": " + state_name(value) + " (" + hex(value) +
                           ")");
        }
    }
    return list;
}
