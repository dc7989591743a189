// Joins the two views of a PCIe port: the bridge function PCI sees (segment,
// bus, device, function) and what the silicon calls it (PCIe core and port,
// SerDes link, lanes). Every consumer that must go from a PCI device to a
// PHY lane goes through the map built here.
//
// The map is built once per process, by the first get_all_port_data call,
// and never changes after; later calls return it whatever they pass.
#pragma once

#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "discovery/pcie_core_info.h"
#include "discovery/port_map_types.h"
#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"
#include "hardware/register_storage.h"
#include "hardware/vex_die_info.h"

// The bridges (header type 1) of a device list, with bus numbers and link state.
class DetectVEXBridgesInfoList {
public:
    DetectVEXBridgesInfoList(std::vector<PCIDeviceDetails> devices, std::shared_ptr<ReadPCI> read);
    std::vector<PCIeBridgeInfo> operator()() const;

private:
    std::vector<PCIDeviceDetails> _devices;
    std::shared_ptr<ReadPCI> _read;
};

// The live ports of a die's cores: those whose "SUB_BUS_NUMBER_LATENCY" holds
// a secondary or subordinate bus. Register lookups that fail throw.
class CorvaneEnumerateCoreToBus {
public:
    CorvaneEnumerateCoreToBus(const RegisterStorage& store, const PCIECoreGenericInfo& cores);
    std::vector<PCIECoreToSubBus> operator()() const;

private:
    const RegisterStorage& _store;
    const PCIECoreGenericInfo& _cores;
};

// Every port of every core with its port number (top byte of "LINK_CAP").
class CorvaneEnumerateCoreToPort {
public:
    CorvaneEnumerateCoreToPort(const RegisterStorage& store, const PCIECoreGenericInfo& cores);
    std::vector<PCIECoreToPortNumber> operator()() const;

private:
    const RegisterStorage& _store;
    const PCIECoreGenericInfo& _cores;
};

// The PCI segment of each core of the link list: the die's own on a die of
// one segment, else bits 16 and up of the core's "NB_BUS_NUM_CNTL". A core
// whose register can't be had throws
// "Error: Unable to find segment for pcie core <core>".
class GetSegmentForPcieCore {
public:
    GetSegmentForPcieCore(const VEX_DIE_INFO& die, const std::vector<PCIECoreToLinkName>& links,
                          const RegisterStorage& store);
    std::map<std::string, unsigned int> operator()() const;

private:
    const VEX_DIE_INFO& _die;
    const std::vector<PCIECoreToLinkName>& _links;
    const RegisterStorage& _store;
};

// "a.b.c" from the link's PHY firmware version words ("PHY_FW_VERSION0/1":
// bits 24-31 of the first, 8-15 and 16-23 of the second, each masked with
// 0xCF); "Not Available" when the link has none or both words are 0.
std::string get_phy_version_text(const RegisterStorage& store, const std::string& link);

// The root ports of a die: each bridge of the list whose secondary bus and
// segment equal a live port of one of the die's cores. Throws where the die's
// accessor, store or core registers can't be had.
std::vector<PortMap> get_port_mapping_corvane_style(const VEX_DIE_INFO& die,
                                                    const std::vector<PCIDeviceDetails>& devices,
                                                    std::shared_ptr<ReadPCI> read);

// For a device die whose PCIe core sits behind its own switch (KX900X): from
// the die's function walk up through downstream ports until an upstream port
// is reached; the upstream port is the bridge the die's one live core port
// stands for, and the row takes its address, link state and buses. A parent
// that is neither kind stops the walk with "Error: Unable to traverse and
// find the upstream port of <device> (port type different)."; more than one
// live core port prints "Error: Two non-zero entries found in PCie
// controllers port list for : <device>"; either way the device gets no row.
std::vector<PortMap> get_port_mapping_kx930x_style(const VEX_DIE_INFO& die,
                                                   const std::vector<PCIDeviceDetails>& devices,
                                                   std::shared_ptr<ReadPCI> read);

using PortMapData = std::map<VEX_DIE_INFO, std::vector<PortMap>>;

// The process-wide map, built by the first call under the named lock
// "PORT_MAP_DATA": the Corvane-style mapping of each die, and the KX900X walk
// for a "KX900X" die that gives none. A die whose mapping throws gets no
// rows. Later calls return the first result whatever they pass.
PortMapData get_all_port_data(const std::vector<VEX_DIE_INFO>& dies, const std::vector<PCIDeviceDetails>& devices,
                              std::shared_ptr<ReadPCI> read);
// Forgets the map so that the next get_all_port_data builds it anew; for
// tests and a machine model rebuilt within one process.
void reset_all_port_data();

// Whether a row's bridge has exactly this address.
bool is_device_mapped(unsigned int segment, unsigned int bus, unsigned int device, unsigned int function,
                      const PortMapData& map);
// The die and row of that bridge; throws "Unexpected scenario in
// get_mapped_device" when there is none (callers ask is_device_mapped first).
std::pair<VEX_DIE_INFO, PortMap> get_mapped_device(unsigned int segment, unsigned int bus, unsigned int device,
                                                   unsigned int function, const PortMapData& map);

// One block of labelled lines per row; "    No PCIe ports detected." for none.
std::vector<std::string> port_mapping_lines(const std::vector<PortMap>& rows);
void print_port_mapping(const std::vector<PortMap>& rows, std::ostream& out);
// On standard output, under "ConsoleLock".
void print_port_mapping(const std::vector<PortMap>& rows);
