// A model machine installed behind the product's seams, with its functions
// detected into a resource store, as the service holds it after start. The
// device lists and margin figures the product keeps for the life of the
// process start empty and are emptied again on destruction.
#pragma once

#include "gui/gui_hvl_get_device.h"
#include "gui/gui_pcie_get_device.h"
#include "gui/gui_resource_store.h"
#include "margin_pcie/margin_plan.h"
#include "support/model_profile.h"

namespace gui_test {

struct ModelMachine : lw_test::BootedModel {
    explicit ModelMachine(const lw_test::Profile& profile = {}, double time_scale = 1e6)
        : BootedModel(profile, time_scale) {
        forget_gui_caches();
        store.store_pcie_device_list(devices, read, write);
    }
    ~ModelMachine() { forget_gui_caches(); }
    static void forget_gui_caches() {
        GUIPCIEGetDevice::forget_cached_list();
        GUIHVLGetDevice::forget_cached_list();
        PCIE::MarginRegisterClaim::forget_figures();
    }

    std::shared_ptr<ReadPCI> read = platform->read_pci();
    std::shared_ptr<WritePCI> write = platform->write_pci();
    GUIResourceStore store{"/nonexistent"};
};

}  // namespace gui_test
