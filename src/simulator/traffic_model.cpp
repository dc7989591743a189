#include "simulator/traffic_model.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <memory>

#include "hardware/chips/pcie_cores.h"
#include "simulator/profile.h"

namespace sim {

namespace {

namespace perf = chips::perf;

// One counter slot: what it counts and since when.
struct Slot {
    const perf::CounterLayout* layout = nullptr;
    const perf::SlotGroup* group = nullptr;
    std::shared_ptr<const std::vector<TrafficRates>> ports;  // by function index of the core; missing ports count nothing
    unsigned port = 0;
    const perf::EventEntry* event = nullptr;           // null: an ID the table doesn't know counts nothing
    int64_t reset_ns = 0;

    double rate() const {
        if (!event) return 0.0;
        if (event->source == perf::Source::cycles)
            return group->domain == perf::Domain::txclk ? layout->txclk_hz : layout->sclk_hz;
        return port < ports->size() ? (*ports)[port][event->event] : 0.0;
    }
    // The count as of `now`; a reader whose clock lags the reset sees 0.
    uint64_t count(const ModelTime& now) const {
        const int64_t ns = now.ns > reset_ns ? now.ns - reset_ns : 0;
        const uint64_t mask = layout->count_bits >= 64 ? ~uint64_t{0} : (uint64_t{1} << layout->count_bits) - 1;
        return static_cast<uint64_t>(std::floor(rate() * static_cast<double>(ns) / 1e9)) & mask;
    }
    void select(unsigned id) {
        event = nullptr;
        for (const perf::EventEntry& e : group->events)
            if (e.id == id) event = &e;
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
    const perf::CounterLayout& layout = perf::kCorvaneLayout;
    for (auto& [core, ports] : cores) {
        auto rates = std::make_shared<const std::vector<TrafficRates>>(std::move(ports));
        std::array<std::shared_ptr<Slot>, perf::kSlotsPerSpace> slots;
        for (unsigned n = 0; n < perf::kSlotsPerSpace; ++n) {
            slots[n] = std::make_shared<Slot>();
            Slot& slot = *slots[n];
            slot.layout = &layout;
            slot.group = perf::slot_group(layout, n);
            slot.ports = rates;
            slot.select(0);
            const perf::SlotRegisters regs = *perf::slot_registers(layout, n);
            r.define(core->core_base + regs.low, 0, 0);
            r.on_read(core->core_base + regs.low, [s = slots[n]](uint32_t, const ModelTime& now) {
                return static_cast<uint32_t>(s->count(now));
            });
            r.define(core->core_base + regs.high, 0, 0);
            r.on_read(core->core_base + regs.high, [s = slots[n]](uint32_t, const ModelTime& now) {
                return static_cast<uint32_t>(s->count(now) >> 32);
            });
        }
        // Slots 0 and 1 share a control: a toggled bit 0 or 1 resets its slot, bits 11:8 pick slot 0's port.
        const perf::SlotRegisters nak = *perf::slot_registers(layout, 0);
        r.define(core->core_base + nak.control, 0, perf::kPortMask << nak.port_shift | 0x3u);
        r.on_write(core->core_base + nak.control,
                   [nak_slot = slots[0], clock = slots[1], shift = nak.port_shift](uint32_t old_value, uint32_t& value, uint32_t,
                                                                                   const ModelTime& now) {
                       nak_slot->port = value >> shift & perf::kPortMask;
                       if ((old_value ^ value) & 1u) nak_slot->reset_ns = now.ns;
                       if ((old_value ^ value) & 2u) clock->reset_ns = now.ns;
                   });
        for (unsigned n = 2; n < perf::kSlotsPerSpace; n += 2) {
            const perf::SlotRegisters even = *perf::slot_registers(layout, n), odd = *perf::slot_registers(layout, n + 1);
            r.define(core->core_base + even.control, 0, 0x00FFFFFFu);
            r.on_write(core->core_base + even.control,
                       [a = slots[n], b = slots[n + 1], even, odd](uint32_t, uint32_t& value, uint32_t, const ModelTime& now) {
                           for (auto [s, regs] : {std::pair{a.get(), even}, std::pair{b.get(), odd}}) {
                               s->select(value >> regs.event_shift & perf::kEventMask);
                               s->port = value >> regs.port_shift & perf::kPortMask;
                               s->reset_ns = now.ns;
                           }
                       });
        }
    }
}

}  // namespace sim
