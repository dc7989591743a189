// The link model: changes a PCI Express link's speed and width and answers
// what the link can do. CPCIELink works on any downstream-facing port
// through the standard capability and, on the platform's own root ports,
// through the link controller registers of the port's core.
//
// Every wait is bounded: a link that does not answer in time fails the
// change with a text instead of holding the caller.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "discovery/port_mapping.h"
#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"
#include "hardware/vex_die_info.h"

// 0 to 4 for 2.5, 5, 8, 16 and 32 GT/s.
enum CONFIG_PCIE_LINK_SPEED : int { PCIE_GEN1 = 0, PCIE_GEN2, PCIE_GEN3, PCIE_GEN4, PCIE_GEN5, PCIE_SPEED_UNKNOWN = 6 };
// Width codes of the link controller: x1, x2, x4, x8, x12, x16.
enum PCIE_LINK_WIDTH : int { PCIE_X1 = 1, PCIE_X2 = 2, PCIE_X4 = 3, PCIE_X8 = 4, PCIE_X12 = 5, PCIE_X16 = 6,
                             PCIE_WIDTH_UNKNOWN = 9 };

unsigned lanes_of(PCIE_LINK_WIDTH width);              // 0 for unknown
PCIE_LINK_WIDTH width_of_lanes(unsigned lanes);       // PCIE_WIDTH_UNKNOWN when none fits
std::string speed_text(int speed);                    // "2.5 GT/s" ... "32 GT/s", "-" when unknown
std::string speed_choice_text(int speed);             // "2.5 Gt/s" ... "32 Gt/s" (the selections' form)

// What the panels take from the service's inventory.
struct PanelMachine {
    std::vector<PCIDeviceDetails> devices;
    std::vector<VEX_DIE_INFO> dies;
    std::shared_ptr<ReadPCI> read;
    std::shared_ptr<WritePCI> write;
};
// Empty while the inventory isn't there yet.
using PanelMachineSource = std::function<std::optional<PanelMachine>()>;

// A downstream-facing port (root port or switch downstream port) and, for
// the platform's own root ports, where it stands on its die.
struct LinkPort {
    PCIDeviceDetails device;
    std::string type;          // "VEX RootPort", "RootPort", "VEX Downstream", "Downstream"
    std::string name;          // display name
    unsigned secondary_bus = 0, subordinate_bus = 0;
    bool platform_port = false;
    VEX_DIE_INFO die;
    std::string core;
    unsigned function_index = 0;
};

// Ports in address order: the platform's root ports, the other root ports,
// then switch downstream ports. names: the device below each port, by its
// address, for the display name (none: "no device").
std::vector<LinkPort> detect_link_ports(const PanelMachine& machine, const PortMapData& maps);

// One stress run per port across the panels: a run claims its port first
// and releases it when it ends; false when another run holds it.
bool claim_link_port(const PCIDeviceDetails& port);
void release_link_port(const PCIDeviceDetails& port);

class CPCIELink {
public:
    CPCIELink(LinkPort port, std::shared_ptr<ReadPCI> read, std::shared_ptr<WritePCI> write);
    virtual ~CPCIELink() = default;

    // Link Control 2 target and a retrain; the answer is whether the link
    // runs at the speed asked for afterwards.
    virtual bool SetPCIELinkSpeed(int speed, std::string& error);
    virtual bool ForceRCtoAdvertiseMaxSupportedSpeed(std::string& error);
    // The platform port's own speed change through its link controller.
    virtual bool SetPCIELinkSpeedUpstream(int speed, std::string& error);
    // CONFIG_PCIE_LINK_SPEED of the link now; false when the link is down.
    virtual bool GetPCIELinkSpeed(int& speed);
    virtual unsigned GetESMSpeed() { return 0; }
    virtual std::string GetPortName() { return _port.name; }
    virtual bool IsLinkWidthChangeSupported() { return _port.platform_port; }
    virtual bool IsShortReconfigEnabled() { return false; }
    virtual bool IsUpDownReconfigSupported() { return _port.platform_port; }
    virtual bool SetLinkWidth(PCIE_LINK_WIDTH width, std::string& error);
    // Lanes of the link now; false when it is down.
    virtual bool GetLinkWidth(unsigned& lanes);
    // A width code the port can be set to: x1, x2, x4, x8 or x16 within the
    // link capability's maximum width.
    virtual bool IsLinkSupported(PCIE_LINK_WIDTH width);
    virtual bool Set2SPC(bool) { return false; }

    // The best speed the port supports (CONFIG_PCIE_LINK_SPEED), unknown when unreadable.
    int GetLinkSpeedGenFromCap();
    unsigned GetMaxLinkWidth();
    // The best speed the port and the device below both support.
    int GetLinkPartnerMaxSpeed();

    // Link Control bits of the port.
    bool PCIeLinkRetrain(std::string& error);
    bool SetLinkDisable(bool disable, std::string& error);
    bool IsLinkDisabled();
    // Bridge control secondary bus reset held (true) or released.
    bool SetSecondaryBusReset(bool assert, std::string& error);
    // Link Status: up (data link layer active).
    bool IsLinkUp();

    const LinkPort& port() const { return _port; }
    unsigned pcie_cap() const { return _pcie; }

private:
    bool _read16(unsigned offset, unsigned& value) const;
    bool _write16(unsigned offset, unsigned value) const;
    bool _port_block(unsigned& core_block, unsigned& port_block, std::string& error) const;

    LinkPort _port;
    std::shared_ptr<ReadPCI> _read;
    std::shared_ptr<WritePCI> _write;
    unsigned _pcie = 0;
};
