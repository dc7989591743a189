// The link training state machine state of a PCIe port, from the port's
// LC state registers on the die's network.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "hardware/register_storage.h"
#include "hardware/vex_die_info.h"

class GetCurrentLTSSMState {
public:
    // 6-bit hardware value to state name; 60 to 62 have no entry.
    static const std::map<unsigned int, std::string> value_to_state;

    // "Detect(0x0)" ... "N/A(0x3f)", one per map entry, in value order.
    std::vector<std::string> get_list_of_lc_state() const;

    // "L0(0x10)" from "PCIE_LC_STATE0" of the port; empty when the store or
    // the register can't be had or read (a value without a name gives "(0x3d)").
    std::string get_current_lc_state_val(VEX_DIE_INFO die, std::string core, unsigned int port) const;
    std::string get_current_lc_state_val(const RegisterStorage& store, const std::string& core,
                                         unsigned int port) const;

    // The 48 recorded states of "PCIE_LC_STATE0" to "PCIE_LC_STATE11", four
    // per register from the low byte up: "State 0: Detect (0x1)". A failed
    // lookup throws, as register lookups do.
    std::vector<std::string> get_full_lc_state_list(VEX_DIE_INFO die, std::string core, unsigned int port) const;
    std::vector<std::string> get_full_lc_state_list(const RegisterStorage& store, const std::string& core,
                                                    unsigned int port) const;
};
