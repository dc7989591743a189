// Traffic on the model's links as the cores' event counters see it: each
// device carries a steady rate per event (profile key "traffic"), so a count
// is its rate times the model time since the counter was reset, held to the
// counter's width; clock-cycle events count the chip's clock of the slot. Rates are exact in model time, so what a reader works
// out over two reads is the profile's rate.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "hardware/chips/pcie_perf_counters.h"
#include "simulator/register_space.h"

namespace sim {

struct PortProfile;
struct DeviceProfile;

// Events per second, indexed by chips::perf::Event.
using TrafficRates = std::array<double, chips::perf::kEventCount>;

// What a port's counters see: the device's own rates, or for a switch
// without its own the sum of what lies below it.
TrafficRates port_traffic(const PortProfile& port);

// Places the counter slots of every core of a die that has root ports
// (chips/pcie_perf_counters.h).
void place_perf_counters(RegisterSpace& registers, const std::string& die_type,
                         const std::vector<const PortProfile*>& root_ports);

}  // namespace sim
