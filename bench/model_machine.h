// The platform model's embedded machine for a benchmark: loaded at a time
// scale, installed as this process's machine, its dies detected.
#pragma once

#include <optional>
#include <vector>

#include "discovery/die_detection.h"
#include "discovery/pci_detection.h"
#include "hardware/crn_factory.h"
#include "simulator/platform.h"

struct ModelMachine {
    sim::Platform platform;
    std::vector<VEX_DIE_INFO> dies;
    VEX_DIE_INFO die0;  // socket 0's

    explicit ModelMachine(double time_scale) : platform(sim::load_platform("", std::nullopt, time_scale)) {
        platform.install();
        CRNFactory::initalize(platform.read_pci(), platform.write_pci());
        auto devices = DetectPCIDevices()(platform.read_pci());
        dies = DetectVEXDies(platform.write_pci())(devices, platform.read_pci());
        for (const auto& die : dies)
            if (die.socket() == 0) die0 = die;
    }
};
