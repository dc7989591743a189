// What a chip's SerDes links are: names, lanes, which PHY drives them and
// where its registers lie on the die's register network. Lane information
// answers from these tables and the platform model places its PHYs by them.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hardware/usb4_port.h"

namespace chips {

// What a link carries, where the link itself decides it. hVL is 16: the
// margin and link-status code tests for that value.
enum LinkProtocol : unsigned int {
    kProtocolNone = 0,  // decided per lane by the lane's controller register
    kProtocolPCIe = 1,
    kProtocolSATA = 2,
    kProtocolUSB3 = 4,
    kProtocolUSB4 = 8,
    kProtocolHVL = 16,
    kProtocolTEXL = 32,
};

// A chiplet is one PHY block of four lanes; chiplet n serves lanes 4n..4n+3.
constexpr unsigned int kLanesPerChiplet = 4;
// PHY blocks of one link lie this far apart.
constexpr unsigned int kChipletStride = 0x20000;

struct LinkLanes {
    std::string name;
    std::string phy;  // "E32", "C10", "C20", "CDNS"
    unsigned int lanes = 0;
    std::map<unsigned int, unsigned int> chiplet_base;  // chiplet -> PHY base address
    std::optional<unsigned int> pcs_base;               // link PCS, where the link has one
    std::optional<unsigned int> power_gating_address;   // PHY power gating control
    unsigned int protocol = kProtocolNone;
    bool mux = false;  // lanes are shared between controllers through a mux
    // Port numbering: lane l belongs to port first_port + l / lanes_per_port.
    unsigned int first_port = 0;
    unsigned int lanes_per_port = kLanesPerChiplet;
};

struct ChipLanes {
    std::vector<LinkLanes> links;  // in the chip's link order
    std::vector<unsigned int> usb4_router_device_ids;
    std::map<USB::USB4Port, unsigned int> usb4_port_base;

    // Null when the chip has no such link.
    const LinkLanes* find(const std::string& link) const {
        for (const auto& entry : links)
            if (entry.name == link) return &entry;
        return nullptr;
    }
};

// PHY bases of `count` chiplets starting at `first`, kChipletStride apart.
inline std::map<unsigned int, unsigned int> chiplets_from(unsigned int first, unsigned int count) {
    std::map<unsigned int, unsigned int> bases;
    for (unsigned int chiplet = 0; chiplet < count; ++chiplet) bases[chiplet] = first + chiplet * kChipletStride;
    return bases;
}

// A link whose PHY blocks start at `base`, one per four lanes (at least one).
inline LinkLanes make_link(std::string name, std::string phy, unsigned int lanes, unsigned int base,
                           std::optional<unsigned int> pcs, std::optional<unsigned int> power_gating,
                           unsigned int protocol) {
    LinkLanes link;
    link.name = std::move(name);
    link.phy = std::move(phy);
    link.lanes = lanes;
    link.chiplet_base = chiplets_from(base, (lanes + kLanesPerChiplet - 1) / kLanesPerChiplet);
    link.pcs_base = pcs;
    link.power_gating_address = power_gating;
    link.protocol = protocol;
    return link;
}

// A single-lane USB port behind a mux: its one lane is port `port`.
inline LinkLanes make_usb_link(std::string name, std::string phy, unsigned int base, unsigned int port,
                               std::optional<unsigned int> power_gating) {
    LinkLanes link = make_link(std::move(name), std::move(phy), 1, base, std::nullopt, power_gating, kProtocolUSB3);
    link.mux = true;
    link.first_port = port;
    link.lanes_per_port = 1;
    return link;
}

}  // namespace chips
