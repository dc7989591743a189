#include "margin_pcie/pcie_margin_multi_pass.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "discovery/pci_capability.h"
#include "discovery/pci_readers.h"
#include "discovery/port_mapping.h"
#include "discovery/read_fuse.h"
#include "hardware/file_logger.h"
#include "hardware/os_specific.h"
#include "hardware/resource_lock.h"
#include "hardware/system_facts.h"
#include "margin_pcie/margin_device_checks.h"
#include "margin_pcie/margin_pcie_utils.h"
#include "margin_pcie/margin_plan.h"
#include "result_data/eq_data.h"

using nlohmann::json;

namespace PCIE {

namespace {

constexpr unsigned int kQuickDwellMs = 50;  // first pass of walkback
constexpr unsigned int kHighestErrorThreshold = 63;
constexpr unsigned int kVoltageWalkBack = 1;
constexpr unsigned int kTimingWalkBack = 4;
constexpr const char* kNotAvailable = "Not Available";

std::string side_name(bool voltage, DirectionOfMargin direction) {
    if (voltage) return direction == DIRECTION_NEGATIVE ? "Voltage Down"
                        : direction == DIRECTION_POSITIVE ? "Voltage Up"
                                                          : "Voltage Both";
    return direction == DIRECTION_NEGATIVE ? "Timing Left" : direction == DIRECTION_POSITIVE ? "Timing Right" : "Timing Both";
}

// offset * max_offset / (steps * 100): the product in 32 bits, the division in double.
float offset_to_margin(unsigned int offset, unsigned int max_offset, unsigned int steps) {
    if (steps == 0) return 0.0f;
    const unsigned int product = offset * max_offset;
    return static_cast<float>(product / (static_cast<double>(steps) * 100.0));
}

MarginErrorMap error_map(const std::vector<PCIEMarginMultiPass::OffsetData>& list) {
    MarginErrorMap map;
    for (const auto& entry : list) map[{entry.offset, entry.dwell}] = entry.error_count;
    return map;
}

// The key of the port's lane map entry that holds lane: the lane's place
// on the SerDes link.
std::optional<unsigned int> serdes_key_of(const PortMap& port, unsigned int lane) {
    for (const auto& [key, value] : port.logical_to_serdes_lane)
        if (value == lane) return key;
    return std::nullopt;
}

VEXDeviceDetails vex_device_details(const VEX_DIE_INFO& die, const PortMap& port) {
    VEXDeviceDetails details;
    details.DeviceName = die.name();
    details.Socket = die.socket();
    details.Die = die.die();
    if (ReadFuse::supports_asic_id_extraction(die)) {
        try {
            std::ostringstream id;
            id << "0x" << std::hex << ReadFuse::get_asic_id(die);
            details.ASICID = id.str();
        } catch (const std::exception&) {
            // The die's registers can't be reached: the ID stays "Not Available".
        }
    }
    details.PCIeController = port.core;
    details.PCIeFunctionIndex = port.function_index;
    details.PortNo = port.port;
    details.SERDES = port.serdes;
    details.PhyFwVersion = port.phy_version;
    details.PhyName = port.phy;
    return details;
}

bool is_kx900_device_die(const std::string& name) { return name == "KX900X" || name == "KX900A" || name == "KX900C"; }

// What one walk of one side found, whichever lane class walked it.
struct WalkFound {
    std::vector<unsigned int> passed;
    std::map<unsigned int, unsigned int> errors;
    unsigned int failing_offset = 0;
    unsigned int failing_dwell = 0;  // when early exit cut the failing offset short
};

template <class Lane>
int walk(const Lane& lane, const MarginWalkInput& in, WalkFound& found, std::string& err) {
    typename Lane::MarginOutput out;
    const int result = in.direction == DIRECTION_BOTH ? lane.margin_both_side(in, out, err)
                                                      : lane.margin_one_side(in, out, err);
    found.passed = out.passed_offsets;
    found.errors = out.errors_by_offset;
    found.failing_offset = out.failing_offset;
    found.failing_dwell = out.failing_dwell;
    return result;
}

}  // namespace

// What the lane threads of one run share. Everything but the progress is
// fixed before the first thread starts; each thread writes only the entries
// at its own position. The progress is guarded by its mutex, and the batch
// fields change only between batches, when no lane thread runs.
struct PCIEMarginMultiPass::RunContext {
    std::vector<unsigned int> lanes;
    MarginCapabilities capabilities;
    unsigned int dwell = 0;
    int loop = 0;
    MarginRunTimeData data;
    std::map<unsigned int, json> lane_json;  // by position, all created up front
    MarginPlan plan;

    std::mutex progress_mutex;
    unsigned int lanes_done = 0;
    unsigned int sides_done = 0;
    std::vector<unsigned int> sides_done_by_position;
    std::size_t batch_begin = 0, batch_end = 0;
    unsigned int batches_done = 0;
    double last_remaining = -1;      // never reported higher again, whichever lane's clock reports
    unsigned int slowest_sides = 0;  // fewest sides a lane of the current batch has finished
    std::chrono::system_clock::time_point slowest_since;  // when that lane began its next side

    void start_batch(std::size_t begin, std::size_t end) {
        std::lock_guard lock(progress_mutex);
        batch_begin = begin;
        batch_end = end;
        slowest_sides = 0;
        slowest_since = system_facts().now();
    }
};

PCIEMarginMultiPass::PCIEMarginMultiPass(std::vector<PCIDeviceDetails> devices, std::vector<VEX_DIE_INFO> dies,
                                         InitParams params, DumpPCIEMarginDataToConsole& console,
                                         MarginEngineAccess access)
    : _devices(std::move(devices)),
      _dies(std::move(dies)),
      _params(std::move(params)),
      _console(&console),
      _access(std::move(access)) {}

unsigned int PCIEMarginMultiPass::start_offset_of(const std::vector<OffsetData>& list, unsigned int error_threshold) {
    bool any_bad = false;
    unsigned int lowest_bad = 0;
    for (const OffsetData& entry : list)
        if (entry.error_count > error_threshold && (!any_bad || entry.offset < lowest_bad)) {
            any_bad = true;
            lowest_bad = entry.offset;
        }
    unsigned int start = 0;
    for (const OffsetData& entry : list)
        if (entry.error_count <= error_threshold && (!any_bad || entry.offset < lowest_bad))
            start = std::max(start, entry.offset);
    return start;
}

unsigned int PCIEMarginMultiPass::margin_offset_of(const std::vector<OffsetData>& list, unsigned int full_dwell,
                                                   unsigned int error_threshold) {
    std::set<unsigned int> good, bad;
    for (const OffsetData& entry : list) {
        // Quick passes only guide the walk; an offset cut short by its errors
        // counts as measured at the dwell its pass had.
        if (entry.planned_dwell() != full_dwell) continue;
        (entry.error_count <= error_threshold ? good : bad).insert(entry.offset);
    }
    if (good.empty()) return 0;
    for (auto it = good.rbegin(); it != good.rend(); ++it)
        if (!bad.count(*it)) return *it;
    return *good.begin();
}

bool PCIEMarginMultiPass::margin(json& results, int loop) const {
    if (!_access.read || !_access.write)
        throw std::runtime_error("Unexpected scenario in PCIEMarginMultiPass::margin: no configuration accessors.");
    if (!results.is_array()) results = json::array();

    json device = json::object();
    _json.dump_run_details(0, MarginRunDetails{loop, time_stamp(), "std-fm"}, device);
    _populate_pcie_device_details(0, DumpPCIEMarginDataToJSON::STAGE_START, device);

    MarginCapabilities capabilities;
    if (!_run_prechecks_for_margin(capabilities, device)) {
        results.push_back(device);
        return false;
    }
    const MarginRegisterClaim claim(_id(), _access.stop);
    if (!claim.held()) {
        _json.dump_information_msg(0, _access.stop.stop_reason(), device);
        _json.dump_err_msg(0, _access.stop.stop_reason(), device);
        results.push_back(device);
        return false;
    }

    const PortMapData port_map = get_all_port_data(_dies, _devices, _access.read);
    const bool mapped = is_device_mapped(_params.segment, _params.bus, _params.device, _params.function, port_map);
    VEX_DIE_INFO die;
    PortMap port;
    if (mapped) std::tie(die, port) = get_mapped_device(_params.segment, _params.bus, _params.device,
                                                        _params.function, port_map);

    const unsigned int dwell = _params.dwell_time != 0
                                   ? _params.dwell_time
                                   : dwell_milliseconds(_get_dwell_time(mapped ? &port : nullptr));
    _populate_margin_params(0, dwell, device);

    std::vector<unsigned int> lanes = _params.lanes;
    if (mapped && lanes.empty()) {
        for (const auto& [logical, controller] : port.logical_to_controller_lane) lanes.push_back(logical);
        if (lanes.empty()) {
            if (!is_kx900_device_die(die.name())) {
                std::ostringstream line;
                line << std::hex << "can not margin device " << _params.segment << ":" << _params.bus << ":"
                     << _params.device << "." << _params.function << " lanes are not mapped";
                print_console_line(line.str());
                _json.dump_err_msg(0, "lanes are not mapped", device);
                results.push_back(device);
                return false;
            }
            if (!_check_lanes(lanes, device)) {
                results.push_back(device);
                return false;
            }
        }
    } else if (!mapped && !_check_lanes(lanes, device)) {
        results.push_back(device);
        return false;
    }

    ExecuteLaneMarginCmd first(_id(), lanes.front(), _params.receiver, *_access.read, *_access.write);
    ExecuteLaneMarginCmd::MarginCtrlCapability capability;
    std::string err;
    if (!_get_margin_params(0, first, capability, capabilities, err, device)) {
        results.push_back(device);
        return false;
    }
    MarginRegisterClaim::remember_figures(_id(), _params.receiver, capabilities);
    _checks_on_the_values(capabilities, capability, device);
    _set_error_threshold(lanes, device);
    if (!capabilities.VoltSupported) _json.dump_information_msg(0, "Voltage margining not supported.", device);

    (*_console)(DUMP_INPUT_INFORMATION, device, 0, std::cout);
    (*_console)(DUMP_MARGIN_CAPABILITIES, device, 0, std::cout);
    (*_console)(DUMP_PCIE_DEVICE_DETAILS, device, 0, std::cout);

    RunContext run;
    run.lanes = lanes;
    run.capabilities = capabilities;
    run.dwell = dwell;
    run.loop = loop;
    const std::size_t batch = lanes_at_once(capabilities, _params.lane_mode == PARALLEL);
    MarginPlanInput plan;
    plan.dwell_ms = dwell;
    plan.lanes = static_cast<unsigned int>(lanes.size());
    plan.lanes_at_once = static_cast<unsigned int>(batch);
    plan.figures = capabilities;
    plan.stepthrough = _params.margin_method == STEPTHROUGH;
    plan.early_exit = _params.early_exit;
    run.plan = plan_margin(plan);
    run.sides_done_by_position.assign(lanes.size(), 0);
    for (std::size_t position = 0; position < lanes.size(); ++position) {
        MarginDataLane lane_data;
        lane_data.lane = lanes[position];
        run.data.lanes.push_back(lane_data);
        json entry = position == 0 ? device : json::object();
        _json.dump_lane_details(static_cast<unsigned int>(position), lanes[position], loop, entry);
        entry["VEXDevicePresent"] = false;
        run.lane_json[static_cast<unsigned int>(position)] = std::move(entry);
    }

    std::vector<std::exception_ptr> failures(lanes.size());
    for (std::size_t begin = 0; begin < lanes.size() && !_access.stop.stop_requested(); begin += batch) {
        const std::size_t end = std::min(lanes.size(), begin + batch);
        run.start_batch(begin, end);
        {
            // jthreads join when they leave scope, also when a later start throws.
            std::vector<std::jthread> threads;
            for (std::size_t position = begin; position < end; ++position)
                threads.emplace_back([this, &run, &failures, position] {
                    try {
                        _lane_body(run, position);
                    } catch (...) {
                        failures[position] = std::current_exception();
                    }
                });
        }
        for (std::size_t position = begin; position < end; ++position)
            if (failures[position]) std::rethrow_exception(failures[position]);
        for (std::size_t position = begin; position < end; ++position)
            (*_console)(DUMP_LANE_MARGINS, run.lane_json.at(static_cast<unsigned int>(position)),
                        static_cast<unsigned int>(position), std::cout);
        std::lock_guard lock(run.progress_mutex);
        ++run.batches_done;
    }

    json& head = run.lane_json.at(0);
    _populate_pcie_device_details(0, 2, head);
    const bool stopped = _access.stop.stop_requested();
    if (stopped) {
        _json.dump_information_msg(0, _access.stop.stop_reason(), head);
        _json.dump_err_msg(0, _access.stop.stop_reason(), head);
    }
    // Equalisation and silicon details, for a mapped port whose lanes all
    // reach its SerDes link. A stopped run skips them to end sooner.
    bool lanes_on_serdes = mapped && !stopped;
    for (const unsigned int lane : lanes) lanes_on_serdes = lanes_on_serdes && serdes_key_of(port, lane).has_value();
    if (lanes_on_serdes) {
        const std::map<unsigned int, json> tx = _get_pcie_txeq(lanes, port_map);
        const std::map<unsigned int, json> rx = _get_rxxeq(lanes, die, port);
        VEXDeviceDetails details = vex_device_details(die, port);
        for (std::size_t position = 0; position < lanes.size(); ++position) {
            const auto at = static_cast<unsigned int>(position);
            const unsigned int lane = lanes[position];
            json entry = run.lane_json.at(at);
            details.LanePhysicalID = *serdes_key_of(port, lane);
            _json.dump_vex_device_details(at, details, entry);
            entry.update(tx.count(lane) ? tx.at(lane) : PCIETxEqCorvane::Output{}.lane_json(lane));
            entry.update(rx.count(lane) ? rx.at(lane) : RxEq{}.to_json());
            results.push_back(std::move(entry));
        }
        return true;
    }
    for (auto& [position, entry] : run.lane_json) results.push_back(std::move(entry));
    return !stopped;
}

std::map<unsigned int, json> PCIEMarginMultiPass::_get_pcie_txeq(const std::vector<unsigned int>& lanes,
                                                                const PortMapData& port_map) const {
    std::map<unsigned int, json> tx;
    if (_params.receiver != 1 && _params.receiver != 6) return tx;
    try {
        PCIETxEqCorvane::Input input;
        input.device = _id();
        input.lanes = lanes;
        const PCIETxEqCorvane::Output output = PCIETxEqCorvane()(input, port_map);
        for (const unsigned int lane : lanes) tx[lane] = output.lane_json(lane);
    } catch (const std::exception& error) {
        Logger::get().log(std::string("TX equalisation not read: ") + error.what());
    }
    return tx;
}

std::map<unsigned int, json> PCIEMarginMultiPass::_get_rxxeq(const std::vector<unsigned int>& lanes,
                                                            const VEX_DIE_INFO& die, const PortMap& port) const {
    std::map<unsigned int, json> rx;
    if (_params.receiver != 1 && _params.receiver != 6) return rx;
    try {
        const std::shared_ptr<EQData> eq = get_eq_data(port.serdes, die);
        for (const unsigned int lane : lanes) {
            const auto key = serdes_key_of(port, lane);
            if (key) rx[lane] = eq->get_rx_eq(*key).to_json();
        }
    } catch (const std::exception& error) {
        Logger::get().log(std::string("RX equalisation not read: ") + error.what());
    }
    return rx;
}

void PCIEMarginMultiPass::_lane_body(RunContext& run, std::size_t position) const {
    const unsigned int lane = run.lanes[position];
    const MarginCapabilities& c = run.capabilities;
    MarginDataLane& data = run.data.lanes[position];
    const unsigned int threshold = _params.error_count;

    // Each side that ran to its end is reported; the timing side walked last
    // completes the lane.
    auto side = [&](bool voltage, DirectionOfMargin direction, unsigned int steps, std::vector<OffsetData>& list,
                    bool last) {
        if (_access.stop.stop_requested()) return;
        _side_started(run, side_name(voltage, direction));
        _run_side(run, voltage, lane, direction, steps, list);
        if (_access.stop.stop_requested()) return;
        _side_done(run, position, side_name(voltage, direction), last);
    };
    if (c.VoltSupported) {
        if (c.IndUpDownVolt) {
            side(true, DIRECTION_NEGATIVE, c.NumVoltSteps, data.voltage_down, false);
            side(true, DIRECTION_POSITIVE, c.NumVoltSteps, data.voltage_up, false);
        } else {
            side(true, DIRECTION_BOTH, c.NumVoltSteps, data.voltage_up, false);
        }
    }
    if (c.LeftRightTiming) {
        side(false, DIRECTION_NEGATIVE, c.NumTimingSteps, data.timing_left, false);
        side(false, DIRECTION_POSITIVE, c.NumTimingSteps, data.timing_right, true);
    } else {
        side(false, DIRECTION_BOTH, c.NumTimingSteps, data.timing_right, true);
    }

    MarginData m;
    m.DwellTime = run.dwell;
    m.PhaseRightOffset = margin_offset_of(data.timing_right, run.dwell, threshold);
    m.PhaseLeftOffset = c.LeftRightTiming ? margin_offset_of(data.timing_left, run.dwell, threshold)
                                          : m.PhaseRightOffset;
    m.PhaseRightErrorMap = error_map(data.timing_right);
    m.PhaseLeftErrorMap = c.LeftRightTiming ? error_map(data.timing_left) : m.PhaseRightErrorMap;
    if (c.VoltSupported) {
        m.VoltTopOffset = margin_offset_of(data.voltage_up, run.dwell, threshold);
        m.VoltBottomOffset = c.IndUpDownVolt ? margin_offset_of(data.voltage_down, run.dwell, threshold)
                                             : m.VoltTopOffset;
        m.VoltTopErrorMap = error_map(data.voltage_up);
        m.VoltBottomErrorMap = c.IndUpDownVolt ? error_map(data.voltage_down) : m.VoltTopErrorMap;
    }
    m.PhaseRightMargin = offset_to_margin(m.PhaseRightOffset, c.MaxTimingOffset, c.NumTimingSteps);
    m.PhaseLeftMargin = offset_to_margin(m.PhaseLeftOffset, c.MaxTimingOffset, c.NumTimingSteps);
    m.VoltTopMargin = offset_to_margin(m.VoltTopOffset, c.MaxVoltOffset, c.NumVoltSteps);
    m.VoltBotomMargin = offset_to_margin(m.VoltBottomOffset, c.MaxVoltOffset, c.NumVoltSteps);

    const auto at = static_cast<unsigned int>(position);
    json& entry = run.lane_json.at(at);
    _json.dump_margin_data(at, m, entry);
    _json.dump_lane_details(at, lane, run.loop, entry);
    entry["VEXDevicePresent"] = false;
}

void PCIEMarginMultiPass::_run_side(RunContext& run, bool voltage, unsigned int lane, DirectionOfMargin direction,
                                    unsigned int end_offset, std::vector<OffsetData>& list) const {
    const unsigned int full = run.dwell;
    unsigned int dwell = _params.margin_method == STEPTHROUGH ? full : kQuickDwellMs;
    for (;;) {
        if (_access.stop.stop_requested()) return;
        MarginLaneInput in;
        in.lane = lane;
        in.direction = direction;
        in.timing = !voltage;
        in.voltage = voltage;
        in.dwell = dwell;
        in.start_offset = start_offset_of(list, _params.error_count);
        in.end_offset = end_offset;
        in.step = 1;
        in.error_threshold = _params.error_count;
        std::string err;
        if (!_margin_one_lane(in, list, err)) {
            Logger::get().log(err);
            break;
        }
        if (dwell == full) break;
        dwell = full;
    }
}

void PCIEMarginMultiPass::_side_started(RunContext& run, const std::string& direction) const {
    std::lock_guard lock(run.progress_mutex);
    _report_progress(run, direction);
}

void PCIEMarginMultiPass::_side_done(RunContext& run, std::size_t position, const std::string& direction,
                                     bool lane_done) const {
    std::lock_guard lock(run.progress_mutex);
    ++run.sides_done;
    ++run.sides_done_by_position[position];
    if (lane_done) ++run.lanes_done;
    const auto first = run.sides_done_by_position.begin();
    const unsigned int slowest = *std::min_element(first + static_cast<std::ptrdiff_t>(run.batch_begin),
                                                   first + static_cast<std::ptrdiff_t>(run.batch_end));
    if (slowest > run.slowest_sides) {
        run.slowest_sides = slowest;
        run.slowest_since = system_facts().now();
    }
    _report_progress(run, direction);
}

// Called with the progress mutex held, so reports leave in the order they
// were counted.
void PCIEMarginMultiPass::_report_progress(RunContext& run, const std::string& direction) const {
    if (!_access.progress) return;
    MarginProgress progress;
    progress.lanes_done = run.lanes_done;
    progress.lanes_total = static_cast<unsigned int>(run.lanes.size());
    progress.sides_done = run.sides_done;
    progress.sides_total = run.plan.batches == 0 ? 0
                                                 : progress.lanes_total *
                                                       static_cast<unsigned int>(run.plan.side_seconds.size());
    progress.direction = direction;
    const double in_side = std::chrono::duration<double>(system_facts().now() - run.slowest_since).count();
    double remaining = run.plan.remaining_seconds(run.batches_done, run.slowest_sides, in_side);
    if (run.last_remaining >= 0) remaining = std::min(remaining, run.last_remaining);
    run.last_remaining = remaining;
    progress.remaining_seconds = remaining;
    _access.progress(progress);
}

bool PCIEMarginMultiPass::_margin_one_lane(const MarginLaneInput& in, std::vector<OffsetData>& list,
                                           std::string& err) const {
    MarginWalkInput walk_in;
    walk_in.direction = in.direction;
    walk_in.dwell_time = in.dwell;
    walk_in.start_offset = in.start_offset;
    walk_in.end_offset = in.end_offset;
    walk_in.step = in.step;
    walk_in.error_threshold = in.error_threshold;
    walk_in.early_exit = _params.early_exit;
    const unsigned int walk_back = in.voltage ? kVoltageWalkBack : kTimingWalkBack;
    // Each round either ends or starts lower, so the loop ends at start 0.
    for (;;) {
        WalkFound found;
        std::string cause;
        int result = WALK_NOT_BEGUN;
        if (in.voltage)
            result = walk(MarginVrefPCIELane(_id(), in.lane, _params.receiver, *_access.read, *_access.write,
                                             _access.stop),
                          walk_in, found, cause);
        else
            result = walk(MarginTimingPCIELane(_id(), in.lane, _params.receiver, *_access.read, *_access.write,
                                               _access.stop),
                          walk_in, found, cause);
        const std::vector<unsigned int>& passed = found.passed;
        if (result == WALK_NOT_BEGUN || (passed.empty() && walk_in.start_offset == 0)) {
            std::ostringstream text;
            text << std::hex << _params.segment << ":" << _params.bus << ":" << _params.device << "."
                 << _params.function << " lane " << in.lane
                 << (in.voltage ? " Vref margin failed. Reason: " : " Timing margin failed.Reason: ") << cause;
            err = text.str();
            return false;
        }
        for (const auto& [offset, count] : found.errors) {
            const bool cut_short = found.failing_dwell != 0 && offset == found.failing_offset;
            list.push_back({offset, count, cut_short ? found.failing_dwell : in.dwell, cut_short ? in.dwell : 0});
        }
        for (const unsigned int offset : passed) list.push_back({offset, 0, in.dwell, 0});
        if (!passed.empty()) return true;
        walk_in.start_offset = walk_in.start_offset > walk_back ? walk_in.start_offset - walk_back : 0;
        NamedLockGuard console("ConsoleLock");
        std::cout << "." << std::flush;
    }
}

bool PCIEMarginMultiPass::_run_prechecks_for_margin(MarginCapabilities& capabilities, json& data) const {
    DetectThisPCIECapability capability(_id(), *_access.read);
    DetectThisPCIEExtendedCapability extended(_id(), *_access.read);
    std::string err;
    if (!MarginDeviceChecks(_id(), {*_access.read, capability, extended}).run_pre_check(err)) {
        _json.dump_err_msg(0, "  Device support for margin capability failed. Reason: " + err, data);
        return false;
    }
    capabilities.MarginingSupport = 1;
    return true;
}

double PCIEMarginMultiPass::_get_dwell_time(const PortMap* port) const {
    DetectThisPCIECapability capability(_id(), *_access.read);
    LINK_SPEEDS speed = SPEED_2_5_GT;
    std::string err;
    if (!GetCurrentLinkSpeed(_id(), *_access.read, capability).get(speed, err))
        throw std::runtime_error("Neither GEN4 or GEN5.");
    double rate = 0;
    if (speed == SPEED_32_GT)
        rate = 32e9;
    else if (speed == SPEED_16_GT)
        rate = port && port->esm_active ? port->esm_speed * 1e9 : 16e9;
    else
        throw std::runtime_error("Neither GEN4 or GEN5.");
    return getDwellTime(_params.error_count, _params.BER, rate);
}

void PCIEMarginMultiPass::_populate_pcie_device_details(unsigned int lane, unsigned int stage, json& data) const {
    PCIEDeviceDetails details;
    details.segment = _params.segment;
    details.bus = _params.bus;
    details.device = _params.device;
    details.function = _params.function;
    const PCIDeviceDetails address(_params.segment, _params.bus, _params.device, _params.function);
    const auto known = std::find(_devices.begin(), _devices.end(), address);
    if (known != _devices.end()) {
        details.vendor_id = known->vendor_id;
        details.device_id = known->device_id;
    } else {
        unsigned int ids = 0;
        if (_access.read->read32(_params.segment, _params.bus, _params.device, _params.function, 0, ids)) {
            details.vendor_id = ids & 0xFFFF;
            details.device_id = ids >> 16;
        }
    }
    details.bios_version = OSSpecific().get_bios_version();
    DetectThisPCIECapability capability(_id(), *_access.read);
    std::string err;
    if (!GetCurrentLinkSpeed(_id(), *_access.read, capability).get(details.speed, err)) details.speed = kNotAvailable;
    if (!GetCurrentLinkWidth(_id(), *_access.read, capability).get(details.width, err)) details.width = kNotAvailable;
    _json.dump_pcie_device_details(lane, details, stage, data);
}

void PCIEMarginMultiPass::_populate_margin_params(unsigned int lane, unsigned int dwell, json& data) const {
    MarginParams params;
    params.BER = _params.BER;
    params.ErrCnt = _params.error_count;
    params.DwellTime = dwell;
    params.ReceiverNo = _params.receiver;
    _json.dump_margin_params(lane, params, data);
}

bool PCIEMarginMultiPass::_check_lanes(std::vector<unsigned int>& lanes, json& data) const {
    DetectThisPCIECapability capability(_id(), *_access.read);
    GetCurrentLinkWidth::WIDTH width = GetCurrentLinkWidth::X1;
    std::string err;
    if (!GetCurrentLinkWidth(_id(), *_access.read, capability).get(width, err)) {
        _json.dump_err_msg(0, "  Unable to read the link width. Reason: " + err, data);
        return false;
    }
    if (!lanes.empty()) return true;
    if (_params.receiver != 1) {
        for (unsigned int lane = 0; lane < width; ++lane) lanes.push_back(lane);
        return true;
    }
    if (_is_lane_reversed(static_cast<int>(width), lanes) == 2) {
        _json.dump_err_msg(0, "Error: Unable to detect active lanes. Stopping margining", data);
        return false;
    }
    return true;
}

int PCIEMarginMultiPass::_is_lane_reversed(int width, std::vector<unsigned int>& lanes) const {
    // Any answer counts here, whatever the capability bits say.
    auto answers = [this](unsigned int lane) {
        ExecuteLaneMarginCmd::MarginCtrlCapability capability;
        std::string ignored;
        return ExecuteLaneMarginCmd(_id(), lane, 1, *_access.read, *_access.write)
            .read_margin_ctrl_capability(capability, ignored);
    };
    lanes.clear();
    if (width <= 0) return 2;
    for (int lane = 0; lane < width; ++lane)
        if (answers(static_cast<unsigned int>(lane))) lanes.push_back(static_cast<unsigned int>(lane));
    if (lanes.size() == static_cast<std::size_t>(width)) return 0;
    lanes.clear();
    for (int lane = 15; lane >= 0; --lane)
        if (answers(static_cast<unsigned int>(lane))) lanes.push_back(static_cast<unsigned int>(lane));
    if (lanes.size() == static_cast<std::size_t>(width)) {
        print_console_line("    Lane reversal detected");
        return 1;
    }
    lanes.clear();
    return 2;
}

bool PCIEMarginMultiPass::_get_margin_params(unsigned int lane, ExecuteLaneMarginCmd& cmd,
                                             ExecuteLaneMarginCmd::MarginCtrlCapability& capability,
                                             MarginCapabilities& capabilities, std::string& err, json& data) const {
    std::string cause;
    if (!cmd.read_number_of_timing_steps(capabilities.NumTimingSteps, cause)) {
        err = "  Failed Timing Steps read. Reason: " + cause;
        _json.dump_err_msg(lane, err, data);
        return false;
    }
    if (!cmd.read_max_timing_offset(capabilities.MaxTimingOffset, cause)) {
        err = "  Failed Max Timing Offset. Reason: " + cause;
        _json.dump_err_msg(lane, err, data);
        return false;
    }
    // Voltage reports may be missing on a receiver without voltage margining.
    if (!cmd.read_number_of_voltage_steps(capabilities.NumVoltSteps, cause)) capabilities.NumVoltSteps = 0;
    if (!cmd.read_max_lanes(capabilities.MaxLanes, cause)) capabilities.MaxLanes = 0;
    if (!cmd.read_max_voltage_offset(capabilities.MaxVoltOffset, cause)) capabilities.MaxVoltOffset = 0;
    if (!cmd.read_margin_ctrl_capability(capability, cause)) {
        err = "  Unable to get margin ctrl capability";
        _json.dump_err_msg(lane, err, data);
        return false;
    }
    capabilities.IndErrSampler = capability.IndErrSampler;
    capabilities.SampleReportingMethod = capability.SampleReportingMethod;
    capabilities.LeftRightTiming = capability.LeftRightTiming;
    capabilities.IndUpDownVolt = capability.IndUpDownVolt;
    capabilities.VoltSupported = capability.VoltSupported;
    _json.dump_margin_capabilities(lane, capabilities, data);
    return true;
}

void PCIEMarginMultiPass::_checks_on_the_values(const MarginCapabilities& capabilities,
                                                const ExecuteLaneMarginCmd::MarginCtrlCapability& capability,
                                                json& data) const {
    std::string warnings;
    checks_on_the_values(capabilities.NumTimingSteps, capabilities.NumVoltSteps, capabilities.MaxVoltOffset,
                         capabilities.MaxTimingOffset, capability, warnings);
    if (!warnings.empty()) _json.dump_warning_msg(0, warnings, data);
}

void PCIEMarginMultiPass::_set_error_threshold(const std::vector<unsigned int>& lanes, json& data) const {
    // The receiver's own limit is put out of the way; the engine judges by
    // the counts it reads.
    bool all_set = true;
    for (const unsigned int lane : lanes) {
        std::string cause;
        if (!ExecuteLaneMarginCmd(_id(), lane, _params.receiver, *_access.read, *_access.write)
                 .set_error_threshold(kHighestErrorThreshold, cause)) {
            all_set = false;
            _json.dump_warning_msg(
                0, "  Failed set error threshold for lane: " + std::to_string(lane) + ". Reason: " + cause, data);
        }
    }
    if (all_set)
        _json.dump_information_msg(0, "  Device Error threshold set to:" + std::to_string(kHighestErrorThreshold),
                                   data);
}

}  // namespace PCIE
