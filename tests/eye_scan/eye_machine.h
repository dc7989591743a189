// A model machine for eye scans: the default profile with changes, its dies
// detected and the product's register network installed over it.
#pragma once

#include <memory>
#include <vector>

#include <nlohmann/json.hpp>

#include "discovery/die_detection.h"
#include "discovery/pci_detection.h"
#include "discovery/port_mapping.h"
#include "hardware/crn_factory.h"
#include "hardware/gfx_accessor_maker.h"
#include "hardware/system_facts.h"
#include "simulator/platform.h"
#include "simulator/profile.h"

namespace eye_test {

struct EyeMachine {
    // edit changes the default profile before it is loaded.
    explicit EyeMachine(const std::function<void(nlohmann::json&)>& edit = nullptr) {
        nlohmann::json profile = nlohmann::json::parse(sim::default_profile_text());
        if (edit) edit(profile);
        platform = std::make_unique<sim::Platform>(sim::make_platform(sim::parse_profile(profile), std::nullopt, 1e7));
        platform->install();
        reset_all_port_data();
        CRNFactory::reset();
        CRNFactory::initalize(platform->read_pci(), platform->write_pci());
        devices = DetectPCIDevices()(platform->read_pci());
        dies = DetectVEXDies(platform->write_pci())(devices, platform->read_pci());
        for (const auto& die : dies)
            if (die.socket() == 0) die0 = die;
    }
    ~EyeMachine() {
        reset_all_port_data();
        CRNFactory::reset();
        set_system_facts(nullptr);
        set_gfx_accessor_maker(nullptr);
    }

    std::unique_ptr<sim::Platform> platform;
    std::vector<PCIDeviceDetails> devices;
    std::vector<VEX_DIE_INFO> dies;
    VEX_DIE_INFO die0;
};

}  // namespace eye_test
