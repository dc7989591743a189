#include "margin_pcie/margin_plan.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <numeric>
#include <set>
#include <tuple>

#include "hardware/os_specific.h"

namespace PCIE {

namespace {

constexpr double kProtocolSeconds = 0.080;  // no command, clear error log, the step, no command
constexpr double kQuickSeconds = 0.050;     // the quick pass's dwell
constexpr double kShortStaySeconds = 0.010; // offsets below the start are only stepped through
constexpr unsigned int kClaimPollMs = 10;

double side_seconds(unsigned int steps, double dwell, bool stepthrough, bool early_exit) {
    const double failing = (early_exit ? 0 : dwell) + kProtocolSeconds;
    if (stepthrough) return steps * (dwell + kProtocolSeconds) + failing;
    const double quick = (steps + 1) * (kQuickSeconds + kProtocolSeconds);
    const double stepping = (steps > 0 ? steps - 1 : 0) * (kShortStaySeconds + kProtocolSeconds);
    return quick + stepping + dwell + kProtocolSeconds + failing;
}

using FunctionKey = std::tuple<unsigned int, unsigned int, unsigned int, unsigned int>;
FunctionKey key_of(const Device_ID& id) { return {id.segment, id.bus, id.device, id.function}; }

struct ClaimBook {
    std::mutex mutex;
    std::set<FunctionKey> held;
    std::map<std::pair<FunctionKey, unsigned int>, MarginCapabilities> figures;
};
ClaimBook& book() {
    static ClaimBook instance;
    return instance;
}

bool try_take(const Device_ID& id) {
    std::lock_guard lock(book().mutex);
    return book().held.insert(key_of(id)).second;
}

}  // namespace

double MarginPlan::batch_seconds() const { return std::accumulate(side_seconds.begin(), side_seconds.end(), 0.0); }

double MarginPlan::remaining_seconds(unsigned int batches_done, unsigned int sides_done, double in_side) const {
    if (batches_done >= batches) return 0;
    double rest = (batches - batches_done - 1) * batch_seconds();
    for (std::size_t side = sides_done; side < side_seconds.size(); ++side) rest += side_seconds[side];
    if (sides_done < side_seconds.size()) rest -= std::clamp(in_side, 0.0, side_seconds[sides_done]);
    return std::max(rest, 0.0);
}

MarginPlan plan_margin(const MarginPlanInput& in) {
    MarginPlan plan;
    const MarginCapabilities& f = in.figures;
    const double dwell = in.dwell_ms / 1000.0;
    auto add = [&](unsigned int steps, unsigned int count) {
        for (unsigned int side = 0; side < count; ++side)
            plan.side_seconds.push_back(side_seconds(steps, dwell, in.stepthrough, in.early_exit));
    };
    if (f.VoltSupported) add(f.NumVoltSteps, f.IndUpDownVolt ? 2 : 1);
    add(f.NumTimingSteps, f.LeftRightTiming ? 2 : 1);
    const unsigned int at_once = std::max(in.lanes_at_once, 1u);
    plan.batches = (in.lanes + at_once - 1) / at_once;
    return plan;
}

unsigned int lanes_at_once(const MarginCapabilities& figures, bool parallel) {
    return parallel && figures.IndErrSampler ? figures.MaxLanes + 1 : 1;
}

MarginRegisterClaim::MarginRegisterClaim(Device_ID device, const MarginStopFlag& stop) : _device(device) {
    while (!(_held = try_take(_device)) && !stop.stop_requested()) OSSpecific().milli_secs_sleep(kClaimPollMs);
}

MarginRegisterClaim::MarginRegisterClaim(Device_ID device) : _device(device), _held(try_take(device)) {}

MarginRegisterClaim::~MarginRegisterClaim() {
    if (!_held) return;
    std::lock_guard lock(book().mutex);
    book().held.erase(key_of(_device));
}

void MarginRegisterClaim::remember_figures(Device_ID device, unsigned int receiver, const MarginCapabilities& figures) {
    std::lock_guard lock(book().mutex);
    book().figures[{key_of(device), receiver}] = figures;
}

std::optional<MarginCapabilities> MarginRegisterClaim::figures(Device_ID device, unsigned int receiver) {
    std::lock_guard lock(book().mutex);
    const auto found = book().figures.find({key_of(device), receiver});
    if (found == book().figures.end()) return std::nullopt;
    return found->second;
}

void MarginRegisterClaim::forget_figures() {
    std::lock_guard lock(book().mutex);
    book().figures.clear();
}

}  // namespace PCIE
