// Where a PCIe core's registers and its ports' registers start on the
// register network, by core name. The numbers come from the chip tables
// (chips/pcie_cores.h).
#pragma once

#include <map>
#include <span>
#include <string>

#include "hardware/chips/pcie_cores.h"

namespace pcieinterfacecl {

class BaseaddressMapper {
public:
    virtual ~BaseaddressMapper() = default;
    // 0 for a name the chip doesn't have.
    virtual unsigned int get_core_base_address(const std::string& name) const;
    // Port base + 4096 * port for ports 0 to 8; 0 for an unknown name or a
    // higher port.
    virtual unsigned int get_port_base_address(const std::string& name, const unsigned int& port) const;

protected:
    explicit BaseaddressMapper(std::span<const chips::PcieCore> cores);

    std::map<std::string, unsigned int> _core_base;
    std::map<std::string, unsigned int> _port_base;
};

class CorvaneBaseaddressMapper : public BaseaddressMapper {
public:
    CorvaneBaseaddressMapper() : BaseaddressMapper(chips::corvane::kPcieCores) {}
};

class KX900BaseaddressMapper : public BaseaddressMapper {
public:
    KX900BaseaddressMapper() : BaseaddressMapper(chips::kx900::kPcieCores) {}
};

class KX800BaseaddressMapper : public BaseaddressMapper {
public:
    KX800BaseaddressMapper() : BaseaddressMapper(chips::kx800::kPcieCores) {}
};

}  // namespace pcieinterfacecl
