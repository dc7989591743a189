#include "simulator/port_mapping_model.h"

#include <algorithm>
#include <map>
#include <memory>
#include <span>

#include "hardware/chips/corvane_lanes.h"
#include "hardware/chips/pcie_cores.h"
#include "hardware/chips/server_registers.h"
#include "hardware/register_storage.h"

namespace sim {

namespace {

using chips::server_io::kLaneMap;

std::span<const chips::PcieCore> cores_of(const std::string& die_type) {
    if (die_type == "Corvane") return chips::corvane::kPcieCores;
    if (die_type == "Dellmar") return chips::dellmar::kPcieCores;
    return {};
}

struct LaneRun {
    unsigned first = 0, width = 0;
};

// Each port of a core in function index order with its run of controller
// lanes (width 0: it no longer fits the link).
struct CoreRuns {
    std::string core;
    const chips::LinkLanes* link = nullptr;
    std::vector<std::pair<const PortProfile*, LaneRun>> ports;
};

std::vector<CoreRuns> core_runs(const std::string& die_type, const std::vector<const PortProfile*>& root_ports) {
    std::vector<CoreRuns> result;
    const std::span<const chips::PcieCore> cores = cores_of(die_type);
    if (cores.empty()) return result;
    std::map<std::string, std::vector<const PortProfile*>> by_core;
    for (const PortProfile* port : root_ports) by_core[port->core].push_back(port);
    for (auto& [core_name, ports] : by_core) {
        const chips::PcieCore* core = chips::find_core(cores, core_name.c_str());
        const chips::LinkLanes* link = core ? chips::corvane_lanes().find(core->serdes) : nullptr;
        if (!link) continue;
        std::sort(ports.begin(), ports.end(),
                  [](const PortProfile* a, const PortProfile* b) { return a->function_index < b->function_index; });
        CoreRuns runs{core_name, link, {}};
        unsigned next = 0;
        for (const PortProfile* port : ports) {
            LaneRun run;
            if (next + port->max_width <= link->lanes) run = {next, port->max_width};
            next += run.width;
            runs.ports.emplace_back(port, run);
        }
        result.push_back(std::move(runs));
    }
    return result;
}

// SerDes lane of the run's i-th controller lane.
unsigned serdes_lane(const PortProfile& port, const LaneRun& run, unsigned i) {
    return port.serdes_lane_reversal ? run.first + run.width - 1 - i : run.first + i;
}

}  // namespace

std::vector<PortSerdesLanes> root_port_serdes_lanes(const std::string& die_type,
                                                    const std::vector<const PortProfile*>& root_ports) {
    std::vector<PortSerdesLanes> result;
    for (const CoreRuns& core : core_runs(die_type, root_ports))
        for (const auto& [port, run] : core.ports) {
            if (run.width == 0) continue;
            PortSerdesLanes lanes{port, core.link->name, {}};
            for (unsigned i = 0; i < run.width; ++i)
                lanes.serdes_to_logical[serdes_lane(*port, run, i)] = port->lane_reversal ? run.width - 1 - i : i;
            result.push_back(std::move(lanes));
        }
    return result;
}

void place_lane_map_registers(RegisterSpace& registers, const std::string& die_type,
                              const std::vector<const PortProfile*>& root_ports, const RegisterLocator& locator) {
    const auto store = make_register_store(die_type, nullptr);
    for (const CoreRuns& core : core_runs(die_type, root_ports)) {
        const chips::LinkLanes* link = core.link;
        const uint32_t control = store->get_link_register(kLaneMap.control_register, link->name)->get_offset();
        if (!registers.defined(control)) registers.define(control, 0, kLaneMap.deassert_tx_pdnb.place(1));
        for (const auto& [port, run] : core.ports) {
            if (const auto at = locator(kLaneMap.port_register, core.core, port->function_index))
                registers.define(*at,
                                 kLaneMap.first_lane.place(run.first) | kLaneMap.width.place(run.width) |
                                     kLaneMap.reversed.place(port->lane_reversal ? 1 : 0),
                                 0);
            for (unsigned i = 0; i < run.width; ++i) {
                const unsigned controller = run.first + i;
                const uint32_t at = store->get_lane_register(kLaneMap.lane_register, link->name,
                                                             static_cast<int>(serdes_lane(*port, run, i)))
                                        ->get_offset();
                registers.define(at, kLaneMap.valid.place(1) | kLaneMap.controller_lane.place(controller), 0);
                // The PHY answers only while its TX power-down is deasserted.
                registers.on_read(at, [&registers, control](uint32_t stored, const ModelTime&) {
                    return kLaneMap.deassert_tx_pdnb.extract(registers.peek(control)) ? stored : 0u;
                });
            }
        }
    }
}

}  // namespace sim
