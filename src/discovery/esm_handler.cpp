#include "discovery/esm_handler.h"

#include <algorithm>
#include <array>

namespace {

unsigned int esm_control(const RegisterStorage& store, const std::string& core, unsigned int port) {
    return store.get_pcie_core_func_register("PCIE_CCIX_ESM_CNTL", core, port)->read();
}

// The dies whose cores have ESM registers.
bool has_esm(const std::string& die_name) {
    static const std::array<const char*, 5> kEsmDies{"KX900X", "KX900A", "KX900C", "Corvane", "Dellmar"};
    return std::find(kEsmDies.begin(), kEsmDies.end(), die_name) != kEsmDies.end();
}

}  // namespace

bool ESMHandler::is_esm_active(VEX_DIE_INFO die, std::string core, unsigned int port) const {
    const std::string name = die.name();
    if (!has_esm(name)) return false;  // before building a store the die may not have
    return is_esm_active(name, *get_register_store(die), core, port);
}

bool ESMHandler::is_esm_active(const std::string& die_name, const RegisterStorage& store, const std::string& core,
                               unsigned int port) const {
    if (!has_esm(die_name)) return false;
    const unsigned int control = esm_control(store, core, port);
    const unsigned int status = store.get_pcie_core_func_register("PCIE_CCIX_ESM_STATUS", core, port)->read();
    return (control & (1u << 15)) && (status & (1u << 7));
}

unsigned int ESMHandler::get_esm_data_rate0(VEX_DIE_INFO die, std::string core, unsigned int port) const {
    return get_esm_data_rate0(*get_register_store(die), core, port);
}

unsigned int ESMHandler::get_esm_data_rate0(const RegisterStorage& store, const std::string& core,
                                            unsigned int port) const {
    switch (esm_control(store, core, port) & 0x7F) {
        case 6: return 16;
        case 3: return 8;
        default: return 0;
    }
}

unsigned int ESMHandler::get_esm_data_rate1(VEX_DIE_INFO die, std::string core, unsigned int port) const {
    return get_esm_data_rate1(*get_register_store(die), core, port);
}

unsigned int ESMHandler::get_esm_data_rate1(const RegisterStorage& store, const std::string& core,
                                            unsigned int port) const {
    switch ((esm_control(store, core, port) >> 8) & 0x7F) {
        case 15: return 25;
        case 10: return 20;
        case 6: return 16;
        default: return 0;
    }
}
