// What the margin engine, the eye scan and the device lists share about a
// live hVL link: its PCS error registers, link state and recovery counter,
// the links of a die that run hVL, and the management messages that keep
// power management out of a destructive margin.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "discovery/lane_generic_information.h"
#include "hardware/register_storage.h"
#include "hardware/vex_die_info.h"

class CorvanehVLOperations {
public:
    CorvanehVLOperations(std::vector<VEX_DIE_INFO> dies, VEX_DIE_INFO die, std::string link,
                         std::shared_ptr<RegisterStorage> store);

    // A link is TEXL when named "P5" or "TEXLPCS"; every register below is
    // picked by that test (the TEXL PCS is one per lane, the hVL PCS one per link).
    bool is_texl() const;
    // 1 when the link is in L0.
    int check_link_state(unsigned int lane);
    unsigned int get_error_count(unsigned int lane);
    unsigned int get_ber_exceeded_flag(unsigned int lane);
    void init_error_regs(unsigned int& control_out, unsigned int& mask_out, unsigned int lane);
    void deinit_error_regs(unsigned int control, unsigned int mask, unsigned int lane);
    void clear_errors_recovery_flag(unsigned int lane);
    void pcs_error_check(std::ostream& out);
    void pcs_error_clear();

private:
    std::shared_ptr<Register> _reg(const char* hvl, const char* texl, unsigned int lane) const;

    std::vector<VEX_DIE_INFO> _dies;
    VEX_DIE_INFO _die;
    std::string _link;
    std::shared_ptr<RegisterStorage> _store;
    std::shared_ptr<LaneGenericInformation> _lanes;
};

class CorvaneHVLLinkStatus {
public:
    struct LinkStatus {
        std::string link;
        int data_rate = 0;  // Gb/s
        unsigned int width = 2;  // 0: x4, 1: x8, 2: x16
    };
    explicit CorvaneHVLLinkStatus(VEX_DIE_INFO die) : _die(std::move(die)) {}
    // The die's links whose lane 0 runs the hVL controller, in the chip's order.
    std::vector<LinkStatus> operator()();

private:
    VEX_DIE_INFO _die;
};

// Power states a destructive margin switches off through the die's
// management controller; they stay off for the rest of the boot. Returns
// false with `error` when a message wasn't answered.
bool disable_power_states_for_hvl(const VEX_DIE_INFO& die, std::string& error);
bool enable_power_states_for_hvl(const VEX_DIE_INFO& die, std::string& error);
// Receiver termination off through the MPIO messages, on "Corvane" and
// "Dellmar": 1; other dies: 0.
int E32DisableODT(const VEX_DIE_INFO& die, const std::string& link);
