#include "hardware/crn_factory.h"

#include <cstdlib>
#include <iostream>
#include <stdexcept>

#include "hardware/chips/chip_identity.h"
#include "hardware/crn_accessor_corvane.h"
#include "hardware/gfx_accessor_maker.h"

std::shared_ptr<CRNFactory> CRNFactory::_instance;
bool CRNFactory::_initialized = false;
std::mutex CRNFactory::_instance_mutex;
std::mutex CRNFactory::_single_entry;

namespace {

std::shared_ptr<CRNAccessor> checked(std::shared_ptr<CRNAccessor> accessor, const char* text,
                                     const VEX_DIE_INFO& die) {
    if (!accessor) {
        std::cerr << text << die.name() << std::endl;
        std::abort();
    }
    return accessor;
}

}  // namespace

void CRNFactory::initalize(std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write) {
    std::lock_guard<std::mutex> guard(_instance_mutex);
    if (_initialized) return;
    _instance = std::make_shared<CRNFactory>(std::move(read), std::move(write));
    _initialized = true;
}

std::shared_ptr<CRNFactory> CRNFactory::instance() {
    std::lock_guard<std::mutex> guard(_instance_mutex);
    if (!_initialized) throw std::runtime_error("CRN Factory not initzlied");
    return _instance;
}

void CRNFactory::reset() {
    std::lock_guard<std::mutex> guard(_instance_mutex);
    _instance.reset();
    _initialized = false;
}

CRNFactory::CRNFactory(std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write)
    : _read(std::move(read)), _write(std::move(write)) {}

std::shared_ptr<CRNAccessor> CRNFactory::get_crn_accessor(const VEX_DIE_INFO& die) {
    return _get_crn_accessor(die, DEFAULT, false, 0);
}

std::shared_ptr<CRNAccessor> CRNFactory::get_crn_accessor(const VEX_DIE_INFO& die, CRN_TYPE type) {
    return checked(_get_crn_accessor(die, type, false, 0), "Error: Unable to obtain reg accessor - crn - ", die);
}

std::shared_ptr<CRNAccessor> CRNFactory::get_crn_accessor(const VEX_DIE_INFO& die, unsigned int instance) {
    return checked(_get_crn_accessor(die, DEFAULT, true, instance), "Error: Unable to obtain reg accessor - crn for ",
                   die);
}

std::shared_ptr<CRNAccessor> CRNFactory::get_crn_accessor(const VEX_DIE_INFO& die, CRN_TYPE type,
                                                          unsigned int instance) {
    return checked(_get_crn_accessor(die, type, true, instance), "Error: Unable to obtain reg accessor - crn .. ",
                   die);
}

std::shared_ptr<CRNAccessor> CRNFactory::get_gfx_based_crn_acessor(const VEX_DIE_INFO& die) {
    if (die.is_cpu) throw std::runtime_error("Error: GFX Acccessor call on CPU die.");
    return checked(_get_crn_accessor(die, GFX_BASED, false, 0), "Error: Unable to obtain get_gfx_based_crn_acessor ",
                   die);
}

std::shared_ptr<CRNAccessor> CRNFactory::_get_crn_accessor(const VEX_DIE_INFO& die, CRN_TYPE type, bool,
                                                           unsigned int instance) {
    std::lock_guard<std::mutex> guard(_single_entry);
    if (type == GFX_BASED && !die.is_apu && !die.is_gpu)
        throw std::runtime_error("GFX based SMM accessor requested for a die which is neither apu or dgpu");
    if (type == CPU_BASED && !die.is_apu && !die.is_cpu)
        throw std::runtime_error("CPU based SMM accessor requested for a die which is neither apu or cpu");
    if (!die.is_cpu && !die.is_gpu && !die.is_apu)
        throw std::runtime_error("Unknown die tyoe in CRNFactory::get_crn_accessor");

    unsigned int resolved = type;
    if (resolved == DEFAULT) {
        if (die.is_cpu) resolved = CPU_BASED;
        else if (die.is_gpu) resolved = GFX_BASED;
        else resolved = die.apu.cpu_access ? CPU_BASED : GFX_BASED;
    }

    if (resolved == CPU_BASED) {
        const Key key{die, instance};
        if (auto found = _cpu_accessors.find(key); found != _cpu_accessors.end()) return found->second;
        // An APU's root function is picked by its die number.
        const auto& roots = die.is_cpu ? die.cpu.iohc_devices : die.apu.iohc_devices;
        const unsigned int index = die.is_cpu ? instance : die.apu.die;
        if (index >= roots.size())
            throw std::runtime_error("No root function for the die in CRNFactory::get_crn_accessor");
        const PCIDeviceDetails& root = roots[index];
        auto accessor = std::make_shared<CRNAccessorCorvane>(root.segment, root.bus, root.device, root.function,
                                                             chips::kCrnIndexOffset, chips::kCrnDataOffset,
                                                             chips::kCrnExtensionOffset, _write, _read);
        _cpu_accessors[key] = accessor;
        return accessor;
    }

    if (resolved == GFX_BASED) {
        const PCIDeviceDetails& function = die.is_gpu ? die.gpu.device : die.apu.gfx_device;
        const unsigned int selector = die.is_gpu ? die.gpu.die : die.apu.die;
        const bool kx900_style = die.is_gpu ? die.gpu.kx900_style : true;
        const Key key{die, selector};
        if (auto found = _gfx_accessors.find(key); found != _gfx_accessors.end()) return found->second;
        auto accessor = gfx_accessor_maker()(function, kx900_style, selector);
        _gfx_accessors[key] = accessor;
        return accessor;
    }

    throw std::runtime_error("Error in _get_crn_accessor");
}
