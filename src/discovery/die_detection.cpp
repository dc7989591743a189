#include "discovery/die_detection.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "hardware/chips/chip_identity.h"
#include "hardware/crn_accessor_corvane.h"
#include "hardware/gfx_accessor_maker.h"
#include "hardware/os_specific.h"
#include "hardware/pci_std.h"
#include "hardware/phy_accessor.h"

namespace {

struct CPUProgramInfo {
    std::string name;
    std::string market;
    unsigned int root_device_id;
    unsigned int dies_per_socket;
    unsigned int identity_register;
    unsigned int index_offset, data_offset, extension_offset;
    chips::IdentityField socket_field;
    chips::IdentityField die_field;
    FamilyModelInfo family_model;
};

struct GPUProgramInfo {
    std::string name;
    unsigned int first_device_id, last_device_id;
    unsigned int dies_per_device;
    bool kx900_style;
    unsigned int primary_die;
    unsigned int socket_register;
    chips::IdentityField socket_field;
    chips::IdentityField die_field;
    bool has_socket;
};

struct APUProgramInfo {
    std::string name;
    unsigned int first_gfx_device_id, last_gfx_device_id;
    unsigned int root_device_id;
    unsigned int die_count;
    bool cpu_access;
    FamilyModelInfo family_model;
};

CPUProgramInfo cpu_row(const char* name, const char* market, unsigned int root_device_id,
                       const chips::IdentityLayout& layout, unsigned int family, unsigned int model_first,
                       unsigned int model_last) {
    return {name,
            market,
            root_device_id,
            layout.dies_per_socket,
            chips::kDieIdentityRegister,
            chips::kCrnIndexOffset,
            chips::kCrnDataOffset,
            chips::kCrnExtensionOffset,
            layout.socket,
            layout.die,
            {family, {{model_first, model_last}}}};
}

CPUProgramInfo client_row(const char* name, const chips::ClientFamily& id) {
    return cpu_row(name, "client", id.root_function_device_id, chips::kClientIdentity, id.family, id.model_first,
                   id.model_last);
}

const std::vector<CPUProgramInfo>& cpu_table() {
    using namespace chips;
    static const std::vector<CPUProgramInfo> table = {
        cpu_row("Dellmar", "server", dellmar::kRootFunctionDeviceId, dellmar::kIdentity, dellmar::kFamily,
                dellmar::kModelFirst, dellmar::kModelLast),
        cpu_row("Corvane", "server", corvane::kRootFunctionDeviceId, corvane::kIdentity, corvane::kFamily,
                corvane::kModelFirst, corvane::kModelLast),
        client_row("Ferrow", ferrow::kId),
        client_row("Ferrow2", ferrow2::kId),
        client_row("Sabrel1", sabrel1::kId),
        client_row("Sabrel2", sabrel2::kId),
        client_row("Sabrel Crown", sabrel_crown::kId),
        client_row("Tamblin1", tamblin1::kId),
        client_row("Rusk", rusk::kId),
        client_row("Ombrel", ombrel::kId),
        client_row("Cobalt Bay", cobalt_bay::kId),
        cpu_row("KX900C", "accelerator", kx900c::kRootFunctionDeviceId, kx900c::kIdentity, kx900c::kFamily,
                kx900c::kModelFirst, kx900c::kModelLast),
    };
    return table;
}

GPUProgramInfo single_die_row(const char* name, const chips::DeviceIdRange& ids) {
    return {name, ids.first, ids.last, 1, false, 0, 0, {}, {}, false};
}

GPUProgramInfo kx900x_row(unsigned int first, unsigned int last, chips::IdentityField socket_field) {
    using namespace chips::kx900x;
    return {"KX900X", first, last, kDiesPerDevice, true, kPrimaryDie, chips::kDieIdentityRegister,
            socket_field, kDieField, true};
}

const std::vector<GPUProgramInfo>& gpu_table() {
    using namespace chips;
    static const std::vector<GPUProgramInfo> table = {
        single_die_row("KX800", kx800::kIds),
        kx900x_row(kx900x::kDeviceIdFirst, kx900x::kDeviceIdLast, kx900x::kSocketField),
        kx900x_row(kx900x::kSecondDeviceIdFirst, kx900x::kSecondDeviceIdLast, kx900x::kSecondSocketField),
        single_die_row("Hesk31", hesk31::kIds),
        single_die_row("Hesk31", hesk31::kSecondIds),
        single_die_row("Hesk48", hesk48::kIds),
        single_die_row("Hesk48", hesk48::kSecondIds),
        single_die_row("Hesk44", hesk44::kIds),
        single_die_row("Hesk44", hesk44::kSecondIds),
    };
    return table;
}

const std::vector<APUProgramInfo>& apu_table() {
    using namespace chips::kx900a;
    static const std::vector<APUProgramInfo> table = {
        {"KX900A", kGraphicsDeviceIdFirst, kGraphicsDeviceIdFirst, kRootFunctionDeviceId, kDiesPerSocket, true,
         {kFamily, {{kModelFirst, kModelLast}}}},
        {"KX900A", kGraphicsDeviceIdLast, kGraphicsDeviceIdLast, kRootFunctionDeviceId, kDiesPerSocket, true,
         {kFamily, {{kModelFirst, kModelLast}}}},
    };
    return table;
}

// Only the platform's own functions are taken for dies: another maker's
// function with a like device ID must not be.
bool is_platform_function(const PCIDeviceDetails& device) {
    return device.vendor_id == chips::kProcessorVendorId || device.vendor_id == chips::kGraphicsVendorId;
}

// The root functions of a processor row, in scan order.
std::vector<PCIDeviceDetails> get_iohc_list(const std::vector<PCIDeviceDetails>& devices, unsigned int device_id) {
    std::vector<PCIDeviceDetails> list;
    for (const auto& device : devices)
        if (is_platform_function(device) && device.device_id == device_id) list.push_back(device);
    return list;
}

// Graphics dies present themselves as display or processing accelerators.
bool has_graphics_class(const PCIDeviceDetails& device, const ReadPCI& read) {
    unsigned int value = 0;
    read.read32(device.segment, device.bus, device.device, device.function, 8, value);
    const unsigned int class_code = value >> 24;
    return class_code == chips::kDisplayClassCode || class_code == chips::kProcessingAcceleratorClassCode;
}

std::string sbdf_text(const PCIDeviceDetails& device) {
    std::ostringstream text;
    text << "SBDF:" << std::hex << device.segment << ":" << device.bus << ":" << device.device << "."
         << device.function;
    return text.str();
}

std::string die_full_name(const std::string& name, const PCIDeviceDetails& device, unsigned int socket,
                          unsigned int die) {
    return name + " " + sbdf_text(device) + " Socket:" + std::to_string(socket) + " Die:" + std::to_string(die);
}

std::vector<VEX_DIE_INFO> keep_if(std::vector<VEX_DIE_INFO> dies, const std::function<bool(const std::string&)>& test) {
    std::vector<VEX_DIE_INFO> kept;
    for (auto& die : dies)
        if (test(die.name())) kept.push_back(std::move(die));
    return kept;
}

}  // namespace

bool check_if_family_model_matches(const FamilyModelInfo& info) {
    const auto [family, model, stepping] = OSSpecific().get_family_model_stepping();
    (void)stepping;
    if (family != info.family) return false;
    return std::any_of(info.model_ranges.begin(), info.model_ranges.end(),
                       [model = model](const auto& range) { return model >= range.first && model <= range.second; });
}

std::vector<PCIDeviceDetails> find_vex_cpu_device(const ReadPCI& read) {
    constexpr unsigned int kFirstSocketDevice = 24;
    constexpr unsigned int kMaxSockets = 8;
    std::vector<PCIDeviceDetails> sockets;
    for (unsigned int n = 0; n < kMaxSockets; ++n) {
        unsigned int value = 0;
        read.read32(0, 0, kFirstSocketDevice + n, 0, 0, value);
        const unsigned int vendor = value & 0xFFFF;
        if (vendor != chips::kProcessorVendorId && vendor != chips::kGraphicsVendorId) break;
        PCIDeviceDetails device(0, 0, kFirstSocketDevice + n, 0);
        device.vendor_id = vendor;
        device.device_id = value >> 16;
        sockets.push_back(device);
    }
    return sockets;
}

DetectVEXDies::DetectVEXDies(std::shared_ptr<WritePCI> write) : _write(std::move(write)) {}

std::vector<VEX_DIE_INFO> DetectVEXDies::operator()(std::vector<PCIDeviceDetails>& devices,
                                                    std::shared_ptr<ReadPCI> read) {
    std::vector<VEX_DIE_INFO> dies = _detect_apus(devices, *read);
    if (dies.empty()) dies = _detect_cpus(devices, read);
    _detect_gpus(devices, *read, dies);
    // Stable, so equal graphics dies (two single-die cards) keep scan order.
    std::stable_sort(dies.begin(), dies.end());
    return dies;
}

unsigned int DetectVEXDies::_get_revision_id(const PCIDeviceDetails& device, const ReadPCI& read) {
    unsigned int value = 0;
    read.read32(device.segment, device.bus, device.device, device.function, 0, value);
    return value;
}

std::vector<VEX_DIE_INFO> DetectVEXDies::_detect_cpus(const std::vector<PCIDeviceDetails>& devices,
                                                      const std::shared_ptr<ReadPCI>& read) {
    const std::vector<PCIDeviceDetails> sockets = find_vex_cpu_device(*read);

    const CPUProgramInfo* program = nullptr;
    std::vector<PCIDeviceDetails> roots;
    for (const auto& row : cpu_table()) {
        if (!check_if_family_model_matches(row.family_model)) continue;
        std::vector<PCIDeviceDetails> list = get_iohc_list(devices, row.root_device_id);
        if (list.empty()) continue;
        if (program) throw std::runtime_error("Error: Found multiple CPU programs on same platform.");
        program = &row;
        roots = std::move(list);
    }
    if (!program) return {};

    // Each root function names its own socket and die; ask each once.
    std::shared_ptr<WritePCI> write = _write ? _write : std::make_shared<WritePCIStd>();
    std::vector<unsigned int> identities;
    for (const auto& root : roots) {
        auto accessor = std::make_shared<CRNAccessorCorvane>(root.segment, root.bus, root.device, root.function,
                                                             program->index_offset, program->data_offset,
                                                             program->extension_offset, write, read);
        identities.push_back(PhyAccessor(accessor).read(0, program->identity_register, 4));
    }

    std::vector<VEX_DIE_INFO> dies;
    for (const auto& socket_function : sockets) {
        for (unsigned int die = 0; die < program->dies_per_socket; ++die) {
            VEX_DIE_INFO info;
            info.is_cpu = true;
            CPUDieInfo& cpu = info.cpu;
            cpu.name = program->name;
            cpu.socket = socket_function.device - 24;
            cpu.die = die;
            cpu.device = socket_function;
            cpu.revision = _get_revision_id(socket_function, *read);
            cpu.full_name = die_full_name(cpu.name, socket_function, cpu.socket, die);
            for (size_t i = 0; i < roots.size(); ++i) {
                if (program->socket_field.extract(identities[i]) == cpu.socket &&
                    program->die_field.extract(identities[i]) == die) {
                    cpu.iohc_devices.push_back(roots[i]);
                    cpu.iohc_revisions.push_back(_get_revision_id(roots[i], *read));
                }
            }
            dies.push_back(std::move(info));
        }
    }
    return dies;
}

void DetectVEXDies::_detect_gpus(const std::vector<PCIDeviceDetails>& devices, const ReadPCI& read,
                                 std::vector<VEX_DIE_INFO>& dies) {
    std::vector<VEX_DIE_INFO> found;
    for (const auto& device : devices) {
        const bool apu_graphics = std::any_of(dies.begin(), dies.end(), [&](const VEX_DIE_INFO& die) {
            return die.is_apu && die.apu.gfx_device == device;
        });
        if (apu_graphics || !is_platform_function(device)) continue;

        for (const auto& row : gpu_table()) {
            if (device.device_id < row.first_device_id || device.device_id > row.last_device_id) continue;
            if (!has_graphics_class(device, read)) continue;

            // The socket register is read through the die-0 path of the
            // function, whatever accessor class the dies use later.
            unsigned int socket = 0;
            if (row.has_socket) {
                const GFXAccessorMaker make_accessor = gfx_accessor_maker();
                auto accessor = make_accessor(device, false, 0);
                socket = row.socket_field.extract(PhyAccessor(accessor).read(0, row.socket_register, 4));
            }
            for (unsigned int die = 0; die < row.dies_per_device; ++die) {
                VEX_DIE_INFO info;
                info.is_gpu = true;
                GPUDieInfo& gpu = info.gpu;
                gpu.name = row.name;
                gpu.device = device;
                gpu.die = die;
                gpu.primary = die == row.primary_die;
                gpu.revision = _get_revision_id(device, read);
                gpu.kx900_style = row.kx900_style;
                gpu.socket = socket;
                gpu.has_socket_register = row.has_socket;
                gpu.full_name = row.has_socket ? die_full_name(gpu.name, device, socket, die)
                                               : gpu.name + " " + sbdf_text(device) + " Die:" + std::to_string(die);
                found.push_back(std::move(info));
            }
        }
    }
    dies.insert(dies.end(), found.begin(), found.end());
}

// An APU row counts only where its graphics functions are present. Its root
// functions are shared out in scan order: each socket (one per graphics
// function, in scan order) takes the next die_count of them, and every die
// of the socket holds that socket's list; die d's own root function is
// element d, as the register network factory expects.
std::vector<VEX_DIE_INFO> DetectVEXDies::_detect_apus(const std::vector<PCIDeviceDetails>& devices,
                                                      const ReadPCI& read) {
    std::vector<VEX_DIE_INFO> dies;
    for (const auto& row : apu_table()) {
        if (!check_if_family_model_matches(row.family_model)) continue;
        const std::vector<PCIDeviceDetails> roots = get_iohc_list(devices, row.root_device_id);
        std::vector<PCIDeviceDetails> graphics;
        for (const auto& device : devices)
            if (is_platform_function(device) && device.device_id >= row.first_gfx_device_id &&
                device.device_id <= row.last_gfx_device_id && has_graphics_class(device, read))
                graphics.push_back(device);
        if (graphics.empty()) continue;
        if (roots.size() != graphics.size() * row.die_count)
            throw std::runtime_error("IOHC list not matching die size for APU");

        for (unsigned int socket = 0; socket < graphics.size(); ++socket) {
            const auto first = roots.begin() + socket * row.die_count;
            const std::vector<PCIDeviceDetails> socket_roots(first, first + row.die_count);
            std::vector<unsigned int> revisions;
            for (const auto& root : socket_roots) revisions.push_back(_get_revision_id(root, read));
            for (unsigned int die = 0; die < row.die_count; ++die) {
                VEX_DIE_INFO info;
                info.is_apu = true;
                APUDieInfo& apu = info.apu;
                apu.name = row.name;
                apu.socket = socket;
                apu.die = die;
                apu.iohc_devices = socket_roots;
                apu.iohc_revisions = revisions;
                apu.gfx_device = graphics[socket];
                apu.revision = revisions[die];
                apu.cpu_access = row.cpu_access;
                apu.full_name = die_full_name(apu.name, socket_roots[die], socket, die);
                dies.push_back(std::move(info));
            }
        }
    }
    return dies;
}

std::vector<VEX_DIE_INFO> DetectVEXDies::filter_die(std::vector<VEX_DIE_INFO> dies, const std::string& name) {
    return keep_if(std::move(dies), [&](const std::string& die_name) { return die_name == name; });
}

std::vector<VEX_DIE_INFO> DetectVEXDies::filter_die(std::vector<VEX_DIE_INFO> dies, const char* name) {
    return filter_die(std::move(dies), std::string(name));
}

std::vector<VEX_DIE_INFO> DetectVEXDies::filter_die(std::vector<VEX_DIE_INFO> dies,
                                                    const std::vector<std::string>& names) {
    return keep_if(std::move(dies), [&](const std::string& die_name) {
        return std::find(names.begin(), names.end(), die_name) != names.end();
    });
}

std::vector<VEX_DIE_INFO> DetectVEXDies::filter_die(std::vector<VEX_DIE_INFO> dies,
                                                    const std::function<bool(const std::string&)>& test) {
    return keep_if(std::move(dies), test);
}
