// A machine of the platform model installed behind the product's seams,
// with its dies detected: what the result-data readers run over.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "discovery/die_detection.h"
#include "discovery/pci_detection.h"
#include "discovery/port_mapping.h"
#include "hardware/crn_factory.h"
#include "hardware/gfx_accessor_maker.h"
#include "hardware/system_facts.h"
#include "simulator/platform.h"
#include "simulator/profile.h"

class ResultDataOnModel : public ::testing::Test {
protected:
    // The default machine; tests that change it call boot() again.
    void SetUp() override { boot(default_profile()); }
    void TearDown() override {
        reset_all_port_data();
        CRNFactory::reset();
        set_system_facts(nullptr);
        set_gfx_accessor_maker(nullptr);
    }

    static nlohmann::json default_profile() { return nlohmann::json::parse(sim::default_profile_text()); }

    void boot(const nlohmann::json& profile) {
        platform = std::make_unique<sim::Platform>(sim::make_platform(sim::parse_profile(profile), std::nullopt, 1e6));
        platform->install();
        reset_all_port_data();
        CRNFactory::reset();
        CRNFactory::initalize(platform->read_pci(), platform->write_pci());
        devices = DetectPCIDevices()(platform->read_pci());
        dies = DetectVEXDies(platform->write_pci())(devices, platform->read_pci());
        ASSERT_EQ(dies.size(), 2u);
    }

    std::unique_ptr<sim::Platform> platform;
    std::vector<PCIDeviceDetails> devices;
    std::vector<VEX_DIE_INFO> dies;
};
