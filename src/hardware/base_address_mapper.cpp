#include "hardware/base_address_mapper.h"

namespace pcieinterfacecl {

BaseaddressMapper::BaseaddressMapper(std::span<const chips::PcieCore> cores) {
    for (const chips::PcieCore& core : cores) {
        _core_base[core.name] = core.core_base;
        _port_base[core.name] = core.port_base;
    }
}

unsigned int BaseaddressMapper::get_core_base_address(const std::string& name) const {
    const auto found = _core_base.find(name);
    return found == _core_base.end() ? 0 : found->second;
}

unsigned int BaseaddressMapper::get_port_base_address(const std::string& name, const unsigned int& port) const {
    const auto found = _port_base.find(name);
    if (found == _port_base.end() || port >= chips::kMaxPortsPerCore) return 0;
    return found->second + port * chips::kPortStride;
}

}  // namespace pcieinterfacecl
