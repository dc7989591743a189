// What all tests share: the hardware inventory taken at start and the
// folders results are written to.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"
#include "hardware/vex_die_info.h"

class GUIResourceStore {
public:
    // The root of the result archive; "/lanewright_gui" on real hardware.
    explicit GUIResourceStore(std::string root_folder = "/lanewright_gui");

    // Keeps the list and detects the dies among it. The accessors are the
    // machine's (the real ones when none are given).
    void store_pcie_device_list(std::vector<PCIDeviceDetails>& devices, std::shared_ptr<ReadPCI> read = nullptr,
                                std::shared_ptr<WritePCI> write = nullptr);
    void store_die_list(const std::vector<VEX_DIE_INFO>& dies);
    std::vector<PCIDeviceDetails> get_pcie_device_list();
    std::vector<VEX_DIE_INFO> get_die_list();
    // The machine's configuration reader given to store_pcie_device_list;
    // null before the list is stored.
    std::shared_ptr<ReadPCI> get_read_accessor();
    // The writer given with it (the real one when none was given); null
    // before the list is stored.
    std::shared_ptr<WritePCI> get_write_accessor();

    std::string get_directory_for_lanewright() const;
    // The folder of this run, named after the moment it was first asked for
    // and created then: a process that queues no test leaves nothing on disk.
    // A name an earlier run holds already is never shared: the next free
    // second's name is taken instead.
    std::string get_directory_for_this_instance();

private:
    std::vector<PCIDeviceDetails> _device_list;
    std::vector<VEX_DIE_INFO> _die_list;
    bool _list_valid = false;
    std::shared_ptr<ReadPCI> _read;
    std::shared_ptr<WritePCI> _write;
    std::string _root_folder;
    std::string _instance_folder;
    bool _instance_folder_made = false;
};
