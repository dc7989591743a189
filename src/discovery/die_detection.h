// Turns the list of PCI functions into the list of dies: the processor's
// family and model and the functions' device IDs are matched against three
// built-in tables (processors, graphics devices, APUs), and each root
// function is tied to its die by asking the die's identity register.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"
#include "hardware/vex_die_info.h"

struct FamilyModelInfo {
    unsigned int family = 0;
    std::vector<std::pair<unsigned int, unsigned int>> model_ranges;  // inclusive
};

// The processor's family equals and its model lies in one of the ranges.
bool check_if_family_model_matches(const FamilyModelInfo& info);

// The data fabric function of each socket: bus 0, device 24 + socket,
// function 0 of segment 0, up to the first that isn't the platform's.
std::vector<PCIDeviceDetails> find_vex_cpu_device(const ReadPCI& read);

class DetectVEXDies {
public:
    // Register network writes during detection go through `write`; with none
    // given a WritePCIStd is made, which is right on hardware only. Callers
    // that run over another configuration-space backend pass its writer.
    explicit DetectVEXDies(std::shared_ptr<WritePCI> write = nullptr);

    // APU dies if any, else CPU dies; then graphics dies; sorted by kind,
    // socket and die. `index` stays at its default in the result: nothing
    // reads it. Two matching processor rows throw "Error: Found multiple CPU
    // programs on same platform."; root functions that don't share out over
    // an APU's dies throw "IOHC list not matching die size for APU".
    std::vector<VEX_DIE_INFO> operator()(std::vector<PCIDeviceDetails>& devices, std::shared_ptr<ReadPCI> read);

    // The dies whose name() passes the test, in list order.
    static std::vector<VEX_DIE_INFO> filter_die(std::vector<VEX_DIE_INFO> dies, const std::string& name);
    static std::vector<VEX_DIE_INFO> filter_die(std::vector<VEX_DIE_INFO> dies, const char* name);
    static std::vector<VEX_DIE_INFO> filter_die(std::vector<VEX_DIE_INFO> dies, const std::vector<std::string>& names);
    static std::vector<VEX_DIE_INFO> filter_die(std::vector<VEX_DIE_INFO> dies,
                                                const std::function<bool(const std::string&)>& test);

private:
    std::vector<VEX_DIE_INFO> _detect_apus(const std::vector<PCIDeviceDetails>& devices, const ReadPCI& read);
    std::vector<VEX_DIE_INFO> _detect_cpus(const std::vector<PCIDeviceDetails>& devices,
                                           const std::shared_ptr<ReadPCI>& read);
    void _detect_gpus(const std::vector<PCIDeviceDetails>& devices, const ReadPCI& read,
                      std::vector<VEX_DIE_INFO>& dies);
    static unsigned int _get_revision_id(const PCIDeviceDetails& device, const ReadPCI& read);

    std::shared_ptr<WritePCI> _write;
};
