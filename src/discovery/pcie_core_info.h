// What each die family's PCIe cores are: their names, the function indexes
// (ports) each core has, where their registers lie, and which SerDes link,
// package link and PHY each core drives. The data is the chip tables'
// (hardware/chips/pcie_cores.h and the lane layouts); the classes here
// answer from them and are chosen by the die's name.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "hardware/base_address_mapper.h"
#include "hardware/chips/lane_layout.h"
#include "hardware/chips/pcie_cores.h"
#include "hardware/vex_die_info.h"

// A core and the link it drives. link_number is the link's place in the
// chip's link order (lane information), so rows of two cores on one link
// can be told apart from rows of two links.
struct PCIECoreToLinkName {
    std::string core;
    std::string serdes;
    std::string package;
    std::string phy;
    unsigned int link_number = 0;
};

// A live port of a core: the four bytes of its bus number register.
struct PCIECoreToSubBus {
    std::string core;
    unsigned int function_index = 0;
    unsigned int primary_bus = 0;
    unsigned int secondary_bus = 0;
    unsigned int subordinate_bus = 0;
    unsigned int latency_timer = 0;
};

struct PCIECoreToPortNumber {
    std::string core;
    unsigned int function_index = 0;
    unsigned int port_number = 0;
};

class PCIECoreGenericInfo {
public:
    virtual std::vector<std::string> get_core_names() const = 0;
    virtual std::vector<unsigned int> get_function_indexes(const std::string& core) const = 0;
    // 0 for a core the chip doesn't have.
    virtual unsigned int get_core_base_address(const std::string& core) const = 0;
    // Port base + 4096 * port for ports 0 to 8; 0 otherwise.
    virtual unsigned int get_port_base_address(const std::string& core, unsigned int port) const = 0;
    virtual ~PCIECoreGenericInfo() = default;
};

// Answers from one chip's core table. Function indexes go by the digit of
// the core's name ("PCIE0".."PCIE5"): cores of one digit have the same
// ports, the count the table gives the first of them. A name without such a
// digit, or a digit the chip has no core of, throws
// "Unknown PCIe core <name>".
class TablePCIECoreGenericInfo : public PCIECoreGenericInfo {
public:
    explicit TablePCIECoreGenericInfo(std::span<const chips::PcieCore> cores);

    std::vector<std::string> get_core_names() const override;
    std::vector<unsigned int> get_function_indexes(const std::string& core) const override;
    unsigned int get_core_base_address(const std::string& core) const override;
    unsigned int get_port_base_address(const std::string& core, unsigned int port) const override;

private:
    // The base address mappers answer the two address lookups.
    struct Mapper : pcieinterfacecl::BaseaddressMapper {
        explicit Mapper(std::span<const chips::PcieCore> cores) : BaseaddressMapper(cores) {}
    };

    std::span<const chips::PcieCore> _cores;
    Mapper _mapper;
};

class CorvanePCIECoreGenericInfo : public TablePCIECoreGenericInfo {
public:
    CorvanePCIECoreGenericInfo();
};
class DellmarPCIECoreGenericInfo : public TablePCIECoreGenericInfo {
public:
    DellmarPCIECoreGenericInfo();
};
// KX900A, KX900X, KX900C.
class KX900APCIECoreGenericInfo : public TablePCIECoreGenericInfo {
public:
    KX900APCIECoreGenericInfo();
};
class KX800PCIECoreGenericInfo : public TablePCIECoreGenericInfo {
public:
    KX800PCIECoreGenericInfo();
};
// Families whose core tables aren't filled in yet: no cores.
class OBLPCIECoreGenericInfo : public TablePCIECoreGenericInfo {
public:
    OBLPCIECoreGenericInfo() : TablePCIECoreGenericInfo({}) {}
};
class FrwPCIECoreGenericInfo : public TablePCIECoreGenericInfo {
public:
    FrwPCIECoreGenericInfo() : TablePCIECoreGenericInfo({}) {}
};
class Sabrel1PCIECoreGenericInfo : public TablePCIECoreGenericInfo {
public:
    Sabrel1PCIECoreGenericInfo() : TablePCIECoreGenericInfo({}) {}
};
class TamblinPCIECoreGenericInfo : public TablePCIECoreGenericInfo {
public:
    TamblinPCIECoreGenericInfo() : TablePCIECoreGenericInfo({}) {}
};
class Hesk31PCIECoreGenericInfo : public TablePCIECoreGenericInfo {
public:
    Hesk31PCIECoreGenericInfo() : TablePCIECoreGenericInfo({}) {}
};
class Hesk48PCIECoreGenericInfo : public TablePCIECoreGenericInfo {
public:
    Hesk48PCIECoreGenericInfo() : TablePCIECoreGenericInfo({}) {}
};

class EnumerateCoreToLink {
public:
    virtual std::vector<PCIECoreToLinkName> operator()() const = 0;
    virtual ~EnumerateCoreToLink() = default;
};

// One row per core of the table that drives a link, in table order. The
// package pins of these chips carry the SerDes link's own name; the PHY is
// the link's in the lane layout ("Not Available" for a link it lacks).
class TableEnumerateCoreToLink : public EnumerateCoreToLink {
public:
    TableEnumerateCoreToLink(std::span<const chips::PcieCore> cores, const chips::ChipLanes* lanes);
    std::vector<PCIECoreToLinkName> operator()() const override;

private:
    std::span<const chips::PcieCore> _cores;
    const chips::ChipLanes* _lanes;
};

class CorvaneEnumerateCoreToLink : public TableEnumerateCoreToLink {
public:
    CorvaneEnumerateCoreToLink();
};
class DellmarEnumerateCoreToLink : public TableEnumerateCoreToLink {
public:
    DellmarEnumerateCoreToLink();
};
class KX900AEnumerateCoreToLink : public TableEnumerateCoreToLink {
public:
    KX900AEnumerateCoreToLink();
};
class KX800EnumerateCoreToLink : public TableEnumerateCoreToLink {
public:
    KX800EnumerateCoreToLink();
};
class OBLEnumerateCoreToLink : public TableEnumerateCoreToLink {
public:
    OBLEnumerateCoreToLink() : TableEnumerateCoreToLink({}, nullptr) {}
};
class FrwEnumerateCoreToLink : public TableEnumerateCoreToLink {
public:
    FrwEnumerateCoreToLink() : TableEnumerateCoreToLink({}, nullptr) {}
};
class Sabrel1EnumerateCoreToLink : public TableEnumerateCoreToLink {
public:
    Sabrel1EnumerateCoreToLink() : TableEnumerateCoreToLink({}, nullptr) {}
};
class TamblinEnumerateCoreToLink : public TableEnumerateCoreToLink {
public:
    TamblinEnumerateCoreToLink() : TableEnumerateCoreToLink({}, nullptr) {}
};
class Hesk31EnumerateCoreToLink : public TableEnumerateCoreToLink {
public:
    Hesk31EnumerateCoreToLink() : TableEnumerateCoreToLink({}, nullptr) {}
};
class Hesk48EnumerateCoreToLink : public TableEnumerateCoreToLink {
public:
    Hesk48EnumerateCoreToLink() : TableEnumerateCoreToLink({}, nullptr) {}
};

// Chosen by the die's name as register stores are: Corvane, Dellmar,
// KX900A/X/C, KX800, Ombrel and Cobalt Bay, Ferrow and Ferrow2, Sabrel,
// Tamblin1 and Rusk, Hesk31/32, Hesk48/44. Any other name throws
// "Error: get_enumerate_pcie_core_to_link cannot handle <name>" (or
// get_pcie_core_generic_info).
std::shared_ptr<EnumerateCoreToLink> get_enumerate_pcie_core_to_link(const VEX_DIE_INFO& die);
std::shared_ptr<PCIECoreGenericInfo> get_pcie_core_generic_info(const VEX_DIE_INFO& die);
