// Extended speed mode (ESM) of a PCIe port, from the port's registers on the
// die's network. Register lookups that fail throw, as they do everywhere.
#pragma once

#include <string>

#include "hardware/register_storage.h"
#include "hardware/vex_die_info.h"

// A data rate above the standard ones that some dies' PCIe cores can run.
class ESMHandler {
public:
    // False for a die outside "KX900X", "KX900A", "KX900C", "Corvane",
    // "Dellmar"; else whether ESM is enabled (control bit 15) and reached (status bit 7).
    bool is_esm_active(VEX_DIE_INFO die, std::string core, unsigned int port) const;
    bool is_esm_active(const std::string& die_name, const RegisterStorage& store, const std::string& core,
                       unsigned int port) const;
    // GT/s of the first rate field: 16, 8 or 0.
    unsigned int get_esm_data_rate0(VEX_DIE_INFO die, std::string core, unsigned int port) const;
    unsigned int get_esm_data_rate0(const RegisterStorage& store, const std::string& core, unsigned int port) const;
    // GT/s of the second rate field: 25, 20, 16 or 0.
    unsigned int get_esm_data_rate1(VEX_DIE_INFO die, std::string core, unsigned int port) const;
    unsigned int get_esm_data_rate1(const RegisterStorage& store, const std::string& core, unsigned int port) const;
};
