// The hVL half of the front end's device lists: one element per end of a
// live hVL link, with the choices a destructive margin and an eye scan
// offer. Built at the first request and served from a cache.
#pragma once

#include <vector>

#include <nlohmann/json.hpp>

#include "gui/gui_resource_store.h"
#include "hardware/pci_device_details.h"

class GUIHVLGetDevice {
public:
    explicit GUIHVLGetDevice(GUIResourceStore& store) : _store(store) {}

    // JSON array under the lock "GUIPCIEGetDevice", shared with the PCIe
    // list. A machine without a second socket has no socket-to-socket link:
    // the answer is null then, and the lock is released on that path too
    // (so a later request for either list doesn't wait for good).
    nlohmann::json get_device_list(std::vector<PCIDeviceDetails> devices) const;
    static void forget_cached_list();

private:
    nlohmann::json _get_eyescan_data() const;
    GUIResourceStore& _store;
};
