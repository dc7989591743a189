#include "gui/gui_resource_store.h"

#include <chrono>
#include <filesystem>
#include <iostream>
#include <stdexcept>

#include "discovery/die_detection.h"
#include "hardware/file_logger.h"
#include "hardware/pci_std.h"
#include "hardware/os_specific.h"
#include "hardware/resource_lock.h"
#include "hardware/system_facts.h"
#include "hardware/time_format.h"

namespace {
constexpr const char* kNotInitialised = "Error: PCIE device list is not initalized";
}

GUIResourceStore::GUIResourceStore(std::string root_folder) : _root_folder(std::move(root_folder)) {}

void GUIResourceStore::store_pcie_device_list(std::vector<PCIDeviceDetails>& devices, std::shared_ptr<ReadPCI> read,
                                              std::shared_ptr<WritePCI> write) {
    NamedLockGuard guard("GUIResourceStore_PCIE_DEV_LIST");
    _device_list = devices;
    _list_valid = true;
    if (!read) read = std::make_shared<ReadPCIStd>();
    _read = read;
    if (!write) write = std::make_shared<WritePCIStd>();
    _write = write;
    _die_list = DetectVEXDies(write)(_device_list, read);
}

std::shared_ptr<ReadPCI> GUIResourceStore::get_read_accessor() {
    NamedLockGuard guard("GUIResourceStore_PCIE_DEV_LIST");
    return _read;
}

std::shared_ptr<WritePCI> GUIResourceStore::get_write_accessor() {
    NamedLockGuard guard("GUIResourceStore_PCIE_DEV_LIST");
    return _write;
}

void GUIResourceStore::store_die_list(const std::vector<VEX_DIE_INFO>& dies) {
    NamedLockGuard guard("GUI_DIE_LIST");
    _die_list = dies;
}

std::vector<PCIDeviceDetails> GUIResourceStore::get_pcie_device_list() {
    NamedLockGuard guard("GUIResourceStore_PCIE_DEV_LIST");
    if (!_list_valid) {
        std::cerr << kNotInitialised << std::endl;
        throw std::runtime_error(kNotInitialised);
    }
    return _device_list;
}

std::vector<VEX_DIE_INFO> GUIResourceStore::get_die_list() {
    NamedLockGuard guard("GUI_DIE_LIST");
    if (!_list_valid) {
        std::cerr << kNotInitialised << std::endl;
        throw std::runtime_error(kNotInitialised);
    }
    return _die_list;
}

std::string GUIResourceStore::get_directory_for_lanewright() const { return _root_folder; }

std::string GUIResourceStore::get_directory_for_this_instance() {
    NamedLockGuard guard("INSTANCE_DIR");
    if (!_instance_folder_made) {
        std::error_code error;
        std::filesystem::create_directories(_root_folder, error);
        // TestIDs start at 0 in every run, so a run must never share the
        // folder of an earlier one (a restart within the same second, or the
        // run a crash left behind): the next free second names it instead.
        const std::time_t now = std::chrono::system_clock::to_time_t(system_facts().now());
        for (std::time_t second = 0; second < 60; ++second) {
            _instance_folder = OSSpecific().append_to_path(_root_folder, time_stamp(now + second));
            if (std::filesystem::create_directory(_instance_folder, error) || error) break;
        }
        if (error) {
            Logger::get().log("Unable to create result folder " + _instance_folder + ": " + error.message());
        }
        _instance_folder_made = true;
    }
    return _instance_folder;
}
