// One die of the platform: a piece of silicon with its own on-chip register
// network, addressed by socket and die number. Exactly one of the three kinds
// is set; the operations dispatch to that member.
#pragma once

#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "hardware/pci_device_details.h"

struct CPUDieInfo {
    std::string name;
    std::string full_name;
    unsigned int socket = 0;
    unsigned int die = 0;
    PCIDeviceDetails device;  // the die's data fabric function
    unsigned int revision = 0;
    std::vector<PCIDeviceDetails> iohc_devices;  // root functions, scan order
    std::vector<unsigned int> iohc_revisions;

    bool operator<(const CPUDieInfo& other) const {
        return std::tie(socket, die) < std::tie(other.socket, other.die);
    }
};

struct GPUDieInfo {
    std::string name;
    std::string full_name;
    PCIDeviceDetails device;  // the graphics function
    unsigned int revision = 0;
    unsigned int socket = 0;
    unsigned int die = 0;
    bool kx900_style = false;
    bool primary = false;
    bool has_socket_register = false;

    bool operator<(const GPUDieInfo& other) const {
        return std::tie(socket, die) < std::tie(other.socket, other.die);
    }
};

struct APUDieInfo {
    std::string name;
    std::string full_name;
    unsigned int socket = 0;
    unsigned int die = 0;
    std::vector<PCIDeviceDetails> iohc_devices;
    std::vector<unsigned int> iohc_revisions;
    PCIDeviceDetails gfx_device;
    unsigned int revision = 0;
    bool cpu_access = false;

    bool operator<(const APUDieInfo& other) const {
        return std::tie(socket, die) < std::tie(other.socket, other.die);
    }
};

struct VEX_DIE_INFO {
    bool is_cpu = false;
    bool is_gpu = false;
    bool is_apu = false;
    CPUDieInfo cpu;
    GPUDieInfo gpu;
    APUDieInfo apu;
    unsigned int index = 0;

    std::string name() const { return pick<std::string>("Unexpected scenario in name", [](const auto& d) { return d.name; }); }
    std::string full_name() const {
        return pick<std::string>("Unexpected scenario in full_name.", [](const auto& d) { return d.full_name; });
    }
    unsigned int socket() const {
        return pick<unsigned int>("Unexpected scenario in socket.", [](const auto& d) { return d.socket; });
    }
    unsigned int die() const {
        return pick<unsigned int>("Unexpected scenario in die.", [](const auto& d) { return d.die; });
    }
    unsigned int segment_pcie() const {
        if (is_cpu) return cpu.iohc_devices.empty() ? 0 : cpu.iohc_devices.front().segment;
        if (is_gpu) return 0;
        if (is_apu) {
            if (!apu.cpu_access) return apu.gfx_device.segment;
            return apu.iohc_devices.empty() ? 0 : apu.iohc_devices.front().segment;
        }
        throw std::runtime_error("Unexpected scenario in segment_pcie.");
    }
    unsigned int pcie_segment_count() const {
        const std::vector<PCIDeviceDetails>* roots = is_cpu ? &cpu.iohc_devices : is_apu ? &apu.iohc_devices : nullptr;
        if (!roots) return 1;
        std::set<unsigned int> segments;
        for (const auto& root : *roots) segments.insert(root.segment);
        return static_cast<unsigned int>(segments.size());
    }
    // Dies of one kind order by socket, then die; kinds order CPU, GPU, APU.
    bool operator<(const VEX_DIE_INFO& other) const {
        if (is_cpu && other.is_cpu) return cpu < other.cpu;
        if (is_gpu && other.is_gpu) return gpu < other.gpu;
        if (is_apu && other.is_apu) return apu < other.apu;
        return kind_rank() < other.kind_rank();
    }
    // Map keys and equality: the same die is the same kind, name, socket and die.
    bool operator==(const VEX_DIE_INFO& other) const {
        return kind_rank() == other.kind_rank() && name() == other.name() && socket() == other.socket() &&
               die() == other.die();
    }

private:
    int kind_rank() const { return is_cpu ? 0 : is_gpu ? 1 : is_apu ? 2 : 3; }
    template <typename R, typename F>
    R pick(const char* error, F field) const {
        if (is_cpu) return field(cpu);
        if (is_gpu) return field(gpu);
        if (is_apu) return field(apu);
        throw std::runtime_error(error);
    }
};
