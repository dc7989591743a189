#include "hardware/chips/server_registers.h"

namespace chips::server_io {

namespace {

bool is_e32(const LinkLanes& link) { return link.phy == "E32"; }

void add(RegisterRows& rows, RegisterTable table, const NamedOffset& reg, const std::string& key,
         unsigned int instance, unsigned int address, unsigned int lane = 0) {
    rows.push_back(RegisterRow{table, reg.name, key, instance, lane, address, reg.size});
}

// Rows of the TEXL link again under its PCS name.
void add_texl_alias(RegisterRows& rows, const LinkLanes& link) {
    if (link.protocol != kProtocolTEXL) return;
    const std::size_t count = rows.size();
    for (std::size_t i = 0; i < count; ++i) {
        if (rows[i].key != link.name) continue;
        RegisterRow alias = rows[i];
        alias.key = kTexlAlias;
        rows.push_back(alias);
    }
}

template <typename PerLink>
RegisterRows for_e32_links(const ChipLanes& lanes, PerLink per_link) {
    RegisterRows rows;
    for (const LinkLanes& link : lanes.links) {
        if (!is_e32(link)) continue;
        per_link(rows, link);
        add_texl_alias(rows, link);
    }
    return rows;
}

template <typename PerPort>
RegisterRows for_ports(std::span<const PcieCore> cores, PerPort per_port) {
    RegisterRows rows;
    for (const PcieCore& core : cores)
        for (unsigned int port = 0; port < core.ports; ++port) per_port(rows, core, port);
    return rows;
}

}  // namespace

std::vector<std::string> link_names(const ChipLanes& lanes) {
    std::vector<std::string> names;
    for (const LinkLanes& link : lanes.links) {
        if (!is_e32(link)) continue;
        names.push_back(link.name);
        if (link.protocol == kProtocolTEXL) names.push_back(kTexlAlias);
    }
    return names;
}

RegisterRows link_rows(const ChipLanes& lanes) {
    return for_e32_links(lanes, [](RegisterRows& rows, const LinkLanes& link) {
        const unsigned int firmware = link.chiplet_base.at(0) & ~0x1FFFFu;
        for (const NamedOffset& reg : kPhyFirmwareRegisters)
            add(rows, RegisterTable::link, reg, link.name, 0, firmware + reg.offset);
        add(rows, RegisterTable::link, NamedOffset{kLaneMap.control_register, 0, 4}, link.name, 0,
            link.chiplet_base.at(0) + kLaneMapControlOffset);
        if (link.pcs_base && link.protocol == kProtocolHVL)
            for (const NamedOffset& reg : kHvlPcsRegisters)
                add(rows, RegisterTable::link, reg, link.name, 0, *link.pcs_base + reg.offset);
    });
}

RegisterRows chiplet_rows(const ChipLanes& lanes) {
    return for_e32_links(lanes, [](RegisterRows& rows, const LinkLanes& link) {
        for (const auto& [chiplet, base] : link.chiplet_base)
            for (const NamedOffset& reg : kChipletRegisters)
                add(rows, RegisterTable::chiplet, reg, link.name, chiplet, base + reg.offset);
    });
}

RegisterRows lane_rows(const ChipLanes& lanes) {
    return for_e32_links(lanes, [](RegisterRows& rows, const LinkLanes& link) {
        for (unsigned int lane = 0; lane < link.lanes; ++lane) {
            const unsigned int chiplet_base = link.chiplet_base.at(lane / kLanesPerChiplet);
            const unsigned int in_chiplet = lane % kLanesPerChiplet;
            for (const NamedOffset& reg : kPhyLaneRegisters)
                add(rows, RegisterTable::lane, reg, link.name, lane,
                    chiplet_base + kPhyLaneBlock + in_chiplet * kPhyLaneStride + reg.offset);
            add(rows, RegisterTable::lane, NamedOffset{kLaneControllerRegister, 0, 4}, link.name, lane,
                chiplet_base + kLaneControllerBlock + in_chiplet * 4);
            add(rows, RegisterTable::lane, NamedOffset{kLaneMap.lane_register, 0, 4}, link.name, lane,
                chiplet_base + kLaneMapBlock + in_chiplet * 4);
            if (!link.pcs_base) continue;
            for (const NamedOffset& reg : kPcsLaneRegisters)
                add(rows, RegisterTable::lane, reg, link.name, lane,
                    *link.pcs_base + kPcsLaneBlock + lane * kPcsLaneStride + reg.offset);
        }
    });
}

RegisterRows link_pcs_rows(const ChipLanes& lanes) {
    return for_e32_links(lanes, [](RegisterRows& rows, const LinkLanes& link) {
        if (!link.pcs_base) return;
        for (unsigned int lane = 0; lane < link.lanes; ++lane) {
            if (link.protocol == kProtocolHVL)
                for (const NamedOffset& reg : kHvlPcsRegisters)
                    add(rows, RegisterTable::link_pcs, reg, link.name, lane, *link.pcs_base + reg.offset);
            if (link.protocol == kProtocolTEXL)
                for (const NamedOffset& reg : kTexlPcsRegisters)
                    add(rows, RegisterTable::link_pcs, reg, link.name, lane,
                        *link.pcs_base + kTexlPcsBlock + lane * kTexlPcsStride + reg.offset);
        }
    });
}

RegisterRows pcie_core_func_rows(std::span<const PcieCore> cores) {
    return for_ports(cores, [](RegisterRows& rows, const PcieCore& core, unsigned int port) {
        for (const NamedOffset& reg : kPortRegisters)
            add(rows, RegisterTable::pcie_core_func, reg, core.name, port, core.port_address(port) + reg.offset);
    });
}

RegisterRows pcie_core_rows(std::span<const PcieCore> cores) {
    RegisterRows rows;
    for (const PcieCore& core : cores)
        for (const NamedOffset& reg : kCoreRegisters)
            add(rows, RegisterTable::pcie_core, reg, core.name, 0, core.core_base + reg.offset);
    return rows;
}

RegisterRows pcie_tx_eq_rows(std::span<const PcieCore> cores) {
    return for_ports(cores, [](RegisterRows& rows, const PcieCore& core, unsigned int port) {
        const unsigned int block = core.port_address(port);
        for (const NamedOffset& reg : kPortTxEqRegisters)
            add(rows, RegisterTable::pcie_core_func, reg, core.name, port, block + reg.offset);
        for (const NamedOffset& reg : kPortLaneRegisters)
            for (unsigned int lane = 0; lane < kLanesPerPort; ++lane)
                add(rows, RegisterTable::pcie_core_func_lane, reg, core.name, port,
                    block + reg.offset + lane * reg.size, lane);
    });
}

RegisterRows cxl_rows(std::span<const PcieCore> cores) {
    return for_ports(cores, [](RegisterRows& rows, const PcieCore& core, unsigned int port) {
        for (const NamedOffset& reg : kCxlRegisters)
            add(rows, RegisterTable::cxl, reg, core.name, port, core.port_address(port) + reg.offset);
    });
}

RegisterRows iohc_rows(std::span<const PcieCore> cores) {
    RegisterRows rows = pcie_core_rows(cores);
    for (RegisterRow& row : rows) row.table = RegisterTable::iohc;
    return rows;
}

RegisterRows sata_rows() {
    RegisterRows rows;
    for (unsigned int index = 0; index < kSataControllers; ++index)
        for (const NamedOffset& reg : kSataRegisters)
            add(rows, RegisterTable::sata, reg, kSataKey, index, kSataBase + index * kSataStride + reg.offset);
    return rows;
}

RegisterRows mpio_rows() {
    RegisterRows rows;
    for (unsigned int n = 0; n < kMpioMessageCount; ++n)
        rows.push_back(RegisterRow{RegisterTable::mpio, "MPIO_C2PMSG_" + std::to_string(n), kMpioKey, 0, 0,
                                   kMpioMessageBase + 4 * n, 4});
    return rows;
}

}  // namespace chips::server_io

namespace chips::server_io {

ServerRegisterMap make_server_register_map(const ChipLanes& lanes, std::span<const PcieCore> cores,
                                           bool with_iohc) {
    ServerRegisterMap map;
    map.link_names = link_names(lanes);
    map.link = link_rows(lanes);
    map.chiplet = chiplet_rows(lanes);
    map.lane = lane_rows(lanes);
    map.pcie_core_func = pcie_core_func_rows(cores);
    map.pcie_core = pcie_core_rows(cores);
    map.pcie_tx_eq = pcie_tx_eq_rows(cores);
    map.cxl = cxl_rows(cores);
    map.sata = sata_rows();
    map.mpio = mpio_rows();
    if (with_iohc) map.iohc = iohc_rows(cores);
    map.link_pcs = link_pcs_rows(lanes);
    for (const RegisterRows* group : {&map.link, &map.chiplet, &map.lane, &map.pcie_core_func, &map.pcie_core,
                                      &map.pcie_tx_eq, &map.cxl, &map.sata, &map.mpio, &map.iohc, &map.link_pcs})
        map.all.insert(map.all.end(), group->begin(), group->end());
    return map;
}

}  // namespace chips::server_io
