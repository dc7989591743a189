// The embedded default machine installed behind the product's seams, with its
// functions detected into a resource store, as the service holds it after
// start. Process-wide caches (register network factory, port map, device
// list) start empty and are emptied again on destruction.
#pragma once

#include "discovery/pci_detection.h"
#include "discovery/port_mapping.h"
#include "gui/gui_pcie_get_device.h"
#include "gui/gui_resource_store.h"
#include "hardware/crn_factory.h"
#include "margin_pcie/margin_plan.h"
#include "simulator/platform.h"

namespace gui_test {

struct ModelMachine {
    ModelMachine() {
        platform.install();
        forget_caches();
        CRNFactory::initalize(read, write);
        devices = DetectPCIDevices()(read);
        store.store_pcie_device_list(devices, read, write);
    }
    ~ModelMachine() {
        forget_caches();
        set_system_facts(nullptr);
        set_gfx_accessor_maker(nullptr);
    }
    static void forget_caches() {
        GUIPCIEGetDevice::forget_cached_list();
        reset_all_port_data();
        CRNFactory::reset();
        PCIE::MarginRegisterClaim::forget_figures();
    }

    sim::Platform platform = sim::load_platform("", std::nullopt, 1e6);
    std::shared_ptr<ReadPCI> read = platform.read_pci();
    std::shared_ptr<WritePCI> write = platform.write_pci();
    GUIResourceStore store{"/nonexistent"};
    std::vector<PCIDeviceDetails> devices;
};

}  // namespace gui_test
