#include "simulator/traffic_model.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>

#include "hardware/chips/pcie_cores.h"
#include "simulator/profile.h"

namespace sim {

namespace {

namespace perf = chips::perf;

constexpr uint64_t kCountMask = (uint64_t{1} << perf::kCountBits) - 1;

// One counter slot: what it counts and since when.
struct Slot {
    std::vector<TrafficRates> ports;  // by function index of the core; missing ports count nothing
    unsigned port = 0, event = perf::naks;
    int64_t reset_ns = 0;

    double rate() const { return port < ports.size() ? ports[port][event] : 0.0; }
    // The count as of `now`; a reader whose clock lags the reset sees 0.
    uint64_t count(const ModelTime& now) const {
        const int64_t ns = now.ns > reset_ns ? now.ns - reset_ns : 0;
        return static_cast<uint64_t>(std::floor(rate() * static_cast<double>(ns) / 1e9)) & kCountMask;
    }
};

const chips::PcieCore* core_of(const std::string& die_type, const std::string& name) {
    if (die_type == "Corvane") return chips::find_core(chips::corvane::kPcieCores, name.c_str());
    if (die_type == "Dellmar") return chips::find_core(chips::dellmar::kPcieCores, name.c_str());
    return nullptr;
}

}  // namespace

TrafficRates port_traffic(const PortProfile& port) {
    TrafficRates rates{};
    if (!port.child) return rates;
    if (port.child->traffic) return *port.child->traffic;
    for (const PortProfile& below : port.child->downstream_ports) {
        const TrafficRates more = port_traffic(below);
        for (size_t i = 0; i < rates.size(); ++i) rates[i] += more[i];
    }
    return rates;
}

void place_perf_counters(RegisterSpace& r, const std::string& die_type, const std::vector<const PortProfile*>& root_ports) {
    std::map<const chips::PcieCore*, std::vector<TrafficRates>> cores;
    for (const PortProfile* port : root_ports) {
        const chips::PcieCore* core = core_of(die_type, port->core);
        if (!core) continue;
        auto& ports = cores[core];
        if (ports.size() <= port->function_index) ports.resize(port->function_index + 1, TrafficRates{});
        ports[port->function_index] = port_traffic(*port);
    }
    for (const auto& [core, ports] : cores) {
        for (unsigned n = 0; n < perf::kSlotsPerCore; ++n) {
            auto slot = std::make_shared<Slot>();
            slot->ports = ports;
            const unsigned base = perf::slot_address(core->core_base, n);
            // Slot 0 counts NAKs only: its event bits read as NAK and don't change.
            r.define(base + perf::kSelect, perf::naks << 8, n == 0 ? 0x000Fu : 0xFF0Fu);
            r.on_write(base + perf::kSelect, [slot](uint32_t, uint32_t& value, uint32_t, const ModelTime& now) {
                slot->port = value & 0xF;
                slot->event = std::min<unsigned>((value >> 8) & 0xFF, perf::kEventCount - 1);
                value = slot->port | slot->event << 8;
                slot->reset_ns = now.ns;
            });
            r.define(base + perf::kControl, 0, 0x1);
            r.on_write(base + perf::kControl, [slot](uint32_t old_value, uint32_t& value, uint32_t, const ModelTime& now) {
                if ((old_value ^ value) & 1) slot->reset_ns = now.ns;
            });
            r.define(base + perf::kCountLow, 0, 0);
            r.on_read(base + perf::kCountLow, [slot](uint32_t, const ModelTime& now) {
                return static_cast<uint32_t>(slot->count(now));
            });
            r.define(base + perf::kCountHigh, 0, 0);
            r.on_read(base + perf::kCountHigh, [slot](uint32_t, const ModelTime& now) {
                return static_cast<uint32_t>(slot->count(now) >> 32);
            });
        }
    }
}

}  // namespace sim
