// The list of PCIe functions the browser offers for margin and eye scan
// tests: one element per function whose link speed can be read, with the
// parameter choices of a margin test and, for the platform's own mapped root
// ports, the SerDes link, controller and lanes behind it. The front end copies
// parts of an element into a test record, so the keys are those of the record.
//
// The list is built at the first request and served from a cache until the
// process ends: the pre-checks walk every function's configuration space.
// What a link panel or a retrain changes ("Speed", "Width", "Downtrained" and
// the trained lanes) is read again at every answer.
//
// Beyond the record's keys, "PCIeInfo" tells "MaxSpeed" and "MaxWidth" (the
// link capabilities, in the text form of "Speed" and "Width"), "Downtrained"
// and, for mapped ports, "LTSSM" (the port's link state); a function that
// can't be margined carries "PCIeMarginUnsupportedReason", the pre-check's
// reason. "PCIeMarginData"."Lanes" holds the lanes of the trained link only,
// so a narrow card in a wide slot isn't margined on lanes it doesn't have.
// The queue checks test records against this list.
#pragma once

#include <memory>
#include <vector>

#include <nlohmann/json.hpp>

#include "discovery/port_mapping.h"
#include "gui/gui_resource_store.h"
#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"
#include "hardware/vex_die_info.h"

class GUIPCIEGetDevice {
public:
    // Configuration space is read through the store's accessor (the real one
    // when the store holds none), and the dies are those the store detected
    // at start: the same detection over the same list, so it isn't run again.
    explicit GUIPCIEGetDevice(GUIResourceStore& store);

    // JSON array, one element per function of `devices` whose current link
    // speed can be read, in list order. The first call in the process decides
    // the content; later calls return a copy of it whatever they pass, its link fields read again. Built
    // and served under the named lock "GUIPCIEGetDevice". With nothing to
    // list the answer is an empty array, never null.
    nlohmann::json get_device_list(std::vector<PCIDeviceDetails> devices) const;

    // Forgets the cached list so that the next call builds it anew; for tests
    // and a machine model rebuilt within one process.
    static void forget_cached_list();

private:
    void _refresh_link_state(const std::shared_ptr<ReadPCI>& read) const;
    nlohmann::json _build(const std::vector<PCIDeviceDetails>& devices, const std::shared_ptr<ReadPCI>& read) const;
    nlohmann::json _get_pcie_info(const PCIDeviceDetails& device, const std::shared_ptr<ReadPCI>& read) const;
    nlohmann::json _get_pcie_margin_data(const PCIDeviceDetails& device,
                                         const std::shared_ptr<ReadPCI>& read) const;
    nlohmann::json _get_serdes_data(const VEX_DIE_INFO& die, const PortMap& port) const;
    nlohmann::json _get_pcie_ctrl_data(const VEX_DIE_INFO& die, const PortMap& port) const;
    nlohmann::json _get_eyescan_data(const PortMap& port) const;
    nlohmann::json _get_nd_margin_data(const PortMap& port, unsigned int width) const;

    GUIResourceStore& _store;
};
