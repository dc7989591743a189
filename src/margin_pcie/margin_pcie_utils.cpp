#include "margin_pcie/margin_pcie_utils.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "discovery/pci_capability.h"
#include "discovery/pci_readers.h"
#include "hardware/time_format.h"

namespace PCIE {

namespace {

// How many times the target rate must be observed to claim it with up to n
// errors seen, for n = 0 to 10.
constexpr double kObservationFactor[] = {2.998,  4.768,  6.304,  7.776,  9.184, 10.528,
                                         11.872, 13.152, 14.464, 15.712, 16.992};

constexpr unsigned int kLadderFirstDwellMs = 50;
constexpr unsigned int kHighestErrorThreshold = 63;
constexpr unsigned int kFirstBackOff = 2;
constexpr unsigned int kBackOffIncrease = 2;
constexpr unsigned int kMaxRetries = 10;
constexpr unsigned int kBackOffFromZero = 0xFFFF;

struct ValueRange {
    unsigned int low, high;
    bool contains(unsigned int value) const { return value >= low && value <= high; }
};

// Appends a warning when value lies outside range.
void warn_outside(unsigned int value, ValueRange range, const std::string& printed, const std::string& head,
                  const std::string& tail, std::string& warnings) {
    if (range.contains(value)) return;
    print_console_line(printed);
    warnings += head + std::to_string(value) + tail + "\n";
}

// Asks the receiver of lane for its capability; nothing when it doesn't answer.
bool lane_capability(Device_ID device, unsigned int lane, ReadPCI& read, WritePCI& write,
                     ExecuteLaneMarginCmd::MarginCtrlCapability& capability) {
    std::string ignored;
    return ExecuteLaneMarginCmd(device, lane, 1, read, write).read_margin_ctrl_capability(capability, ignored);
}

std::map<unsigned int, unsigned int>& dwell_map(MarginDwellData& data, bool timing, bool negative) {
    if (timing) return negative ? data.timing_left : data.timing_right;
    return negative ? data.voltage_negative : data.voltage_positive;
}

bool link_data_rate(Device_ID device, ReadPCI& read, double& rate, std::string& err) {
    DetectThisPCIECapability capability(device, read);
    LINK_SPEEDS speed = SPEED_2_5_GT;
    if (!GetCurrentLinkSpeed(device, read, capability).get(speed, err)) return false;
    if (speed == SPEED_16_GT) {
        rate = 16e9;
    } else if (speed == SPEED_32_GT) {
        rate = 32e9;
    } else {
        err = "Unknown speed for dwell time computation.";
        return false;
    }
    return true;
}

// One side of one lane at one dwell, retried from ever lower starts while it
// yields nothing. The last passing offset goes under the dwell.
template <class Lane>
bool ladder_side(const Lane& lane, unsigned int lane_number, bool timing, DirectionOfMargin direction,
                 unsigned int dwell, unsigned int steps, unsigned int error_threshold, MarginDwellData& data,
                 const MarginStopFlag& stop, std::string& err) {
    const bool negative = direction == DIRECTION_NEGATIVE;
    const std::string name = std::string(timing ? "Timing " : "Voltage ") + to_string(direction);
    std::map<unsigned int, typename Lane::MarginOutput> outputs;
    unsigned int back_off = kFirstBackOff;
    for (unsigned int retries = 0;; ++retries) {
        if (stop.stop_requested()) {
            err = "Margin stopped: the service is stopping.";
            return false;
        }
        const auto [start, end] = find_start_end_offset(data, timing, negative, steps, back_off);
        typename Lane::MarginInput in;
        in.direction = direction;
        in.dwell_time = dwell;
        in.start_offset = start;
        in.end_offset = end;
        in.step = 1;
        in.error_threshold = error_threshold;
        typename Lane::MarginOutput out;
        std::string unit_err;
        if (margin_unit(lane, in, out, name, lane_number, outputs, unit_err) == 0) {
            const unsigned int count =
                out.errors_by_offset.count(out.failing_offset) ? out.errors_by_offset.at(out.failing_offset) : 0;
            dwell_map(data, timing, negative)[dwell] = out.passed_offsets.back();
            print_console_line("    Lane " + std::to_string(lane_number) + " " + name + " offset " +
                               std::to_string(out.passed_offsets.back()) + " [" + margin_status_text(out.status, count));
            return true;
        }
        if (retries == kMaxRetries) {
            print_console_line("    Lane " + std::to_string(lane_number) + " " + name + " Max Retries failed for lane.");
            dwell_map(data, timing, negative)[dwell] = 0;
            return true;
        }
        print_console_line("    Lane " + std::to_string(lane_number) + " " + name + " [Retry] ");
        // The last retry walks the whole range from offset 0.
        back_off = retries + 1 == kMaxRetries ? kBackOffFromZero : back_off + kBackOffIncrease;
    }
}

template <class Lane>
bool ladder_kind(ReadPCI& read, WritePCI& write, Device_ID device, unsigned int receiver,
                 const std::vector<unsigned int>& lanes, bool timing, const std::vector<int>& dwells,
                 unsigned int steps, unsigned int error_threshold, std::map<unsigned int, MarginDwellData>& results,
                 const MarginStopFlag& stop, std::string& err) {
    for (const int dwell : dwells) {
        print_console_line("Dwell Time:" + std::to_string(dwell));
        for (const DirectionOfMargin direction : {DIRECTION_NEGATIVE, DIRECTION_POSITIVE}) {
            for (const unsigned int lane_number : lanes) {
                const Lane lane(device, lane_number, receiver, read, write, stop);
                if (!ladder_side(lane, lane_number, timing, direction, static_cast<unsigned int>(dwell), steps,
                                 error_threshold, results[lane_number], stop, err))
                    return false;
            }
        }
    }
    return true;
}

}  // namespace

double getDwellTime(unsigned int errors, unsigned int ber_exponent, double data_rate) {
    const double factor = errors < std::size(kObservationFactor) ? kObservationFactor[errors] : kObservationFactor[0];
    return std::pow(10.0, ber_exponent) * factor / data_rate;
}

unsigned int dwell_milliseconds(double seconds) {
    const double milliseconds = 1000 * seconds;
    // The negated test also catches NaN.
    if (!(milliseconds >= 0 && milliseconds <= static_cast<double>(std::numeric_limits<unsigned int>::max())))
        throw std::runtime_error("The dwell time of this BER and error count is out of range (" +
                                 std::to_string(seconds) + " s)");
    return static_cast<unsigned int>(milliseconds);
}

double ComputeDwellTime::operator()(unsigned int errors, unsigned int ber_exponent, double data_rate) const {
    return getDwellTime(errors, ber_exponent, data_rate);
}

bool get_margin_params(ExecuteLaneMarginCmd& cmd, unsigned int& timing_steps, unsigned int& voltage_steps,
                       unsigned int& max_voltage_offset, unsigned int& max_timing_offset,
                       ExecuteLaneMarginCmd::MarginCtrlCapability& capability, std::string& err) {
    std::string cause;
    if (!cmd.read_number_of_timing_steps(timing_steps, cause)) {
        err = "  Failed Timing Steps read. Reason: " + cause;
        print_console_line(err);
        return false;
    }
    if (!cmd.read_max_timing_offset(max_timing_offset, cause)) {
        err = "  Failed Max Timing Offset. Reason: " + cause;
        print_console_line(err);
        return false;
    }
    if (!cmd.read_number_of_voltage_steps(voltage_steps, cause))
        print_console_line("  Failed Vref Steps. Reason: " + cause);
    cause.clear();
    if (!cmd.read_max_voltage_offset(max_voltage_offset, cause))
        print_console_line("  Failed Max volt offset read. Reason: " + cause);
    cause.clear();
    if (!cmd.read_margin_ctrl_capability(capability, cause)) {
        err = "  Unable to get margin ctrl capability";
        print_console_line(err);
        return false;
    }
    if (!capability.LeftRightTiming) {
        err = "  Device does not support independent Left Right Timing. Cannot margin.";
        print_console_line(err);
        return false;
    }
    if (!capability.IndUpDownVolt)
        print_console_line("  Device does not support independent Up Down voltage. Cannot margin.");
    return true;
}

void checks_on_the_values(unsigned int timing_steps, unsigned int voltage_steps, unsigned int max_voltage_offset,
                          unsigned int max_timing_offset, const ExecuteLaneMarginCmd::MarginCtrlCapability& capability,
                          std::string& warnings) {
    warn_outside(timing_steps, {6, 63}, "    Warning Timing Steps incorrect. Acceptable range: 6-63.",
                 "Warning Timing Steps is wrong, value: ", ". Acceptable range: 6-63.", warnings);
    warn_outside(max_timing_offset, {20, 50}, "    Warning Max Timing Offset incorrect. Acceptable range: 20-50.",
                 "Warning Timing Offset incorrect, value: ", ". Acceptable range:20-50.", warnings);
    if (!capability.VoltSupported) return;
    warn_outside(voltage_steps, {32, 127}, "    Warning Voltage Steps incorrect. Acceptable range: 32-127",
                 "Warning Voltage Steps is wrong, value: ", ". Acceptable range: 32-127.", warnings);
    warn_outside(max_voltage_offset, {5, 50}, "    Warning Max Voltage Offset incorrect. Acceptable range: 5-50.",
                 "Warning Voltage Offset incorrect, value: ", ". Acceptable range:5-50.", warnings);
}

int is_lane_reversed(Device_ID device, int width, std::vector<unsigned int>& lanes, ReadPCI& read, WritePCI& write) {
    lanes.clear();
    if (width <= 0) return 2;
    ExecuteLaneMarginCmd::MarginCtrlCapability capability;
    for (int lane = 0; lane < width; ++lane)
        if (lane_capability(device, lane, read, write, capability) && capability.LeftRightTiming)
            lanes.push_back(static_cast<unsigned int>(lane));
    if (lanes.size() == static_cast<std::size_t>(width)) return 0;
    lanes.clear();
    if (width <= 16) {
        for (int lane = 15; lane >= 16 - width; --lane)
            if (lane_capability(device, lane, read, write, capability) && capability.LeftRightTiming &&
                capability.IndUpDownVolt)
                lanes.push_back(static_cast<unsigned int>(lane));
        if (lanes.size() == static_cast<std::size_t>(width)) {
            print_console_line("    Lane reversal detected");
            return 1;
        }
    }
    lanes.clear();
    return 2;
}

std::vector<int> populate_dwell_list(int final_dwell) {
    std::vector<int> dwells{static_cast<int>(kLadderFirstDwellMs)};
    for (long long next = kLadderFirstDwellMs * 10LL; next <= final_dwell; next *= 10)
        dwells.push_back(static_cast<int>(next));
    if (dwells.back() != final_dwell) dwells.push_back(final_dwell);
    return dwells;
}

std::pair<unsigned int, unsigned int> find_start_end_offset(MarginDwellData& dwell_data, bool timing, bool negative,
                                                            unsigned int steps, unsigned int back_off) {
    const std::map<unsigned int, unsigned int>& found = dwell_map(dwell_data, timing, negative);
    const unsigned int end = steps + 1;
    unsigned int smallest = 0;
    for (const auto& [dwell, offset] : found)
        if (offset != 0 && (smallest == 0 || offset < smallest)) smallest = offset;
    if (smallest <= back_off) return {0, end};
    return {smallest - back_off, end};
}

std::string margin_status_text(int status, unsigned int count) {
    switch (status) {
        case WALK_ERRORS_ABOVE_THRESHOLD: return "ErrCnt:" + std::to_string(count);
        case WALK_AT_BOUND: return "At Bound] ";
        case WALK_SETUP_NOT_COMPLETE: return "Setup Not Complete] ";
        case WALK_NAK: return "NAK] ";
        case WALK_TOO_MANY_ERRORS: return "Too Many Error:" + std::to_string(count);
        default: return "Unknown] ";
    }
}

bool place_holder_function(ReadPCI& read, WritePCI& write, unsigned int bus, unsigned int device,
                           unsigned int function, unsigned int ber_exponent, unsigned int dwell_time,
                           unsigned int error_threshold, unsigned int receiver, const std::vector<unsigned int>& lanes,
                           std::map<unsigned int, MarginDwellData>& results, std::string& err, MarginStopFlag stop) {
    const Device_ID id(0, bus, device, function);
    if (lanes.empty()) {
        err = "No lanes to margin.";
        return false;
    }
    double rate = 0;
    if (!link_data_rate(id, read, rate, err)) return false;
    unsigned int dwell_ms = dwell_time;
    try {
        if (dwell_ms == 0) dwell_ms = dwell_milliseconds(getDwellTime(error_threshold, ber_exponent, rate));
    } catch (const std::runtime_error& error) {
        err = error.what();
        return false;
    }
    if (dwell_ms > static_cast<unsigned int>(std::numeric_limits<int>::max())) {
        err = "The dwell time is out of range (" + std::to_string(dwell_ms) + " ms)";
        return false;
    }
    const int final_dwell = static_cast<int>(dwell_ms);
    for (const unsigned int lane : lanes) {
        std::string cause;
        if (!ExecuteLaneMarginCmd(id, lane, receiver, read, write).set_error_threshold(kHighestErrorThreshold, cause))
            print_console_line("  Failed set error threshold for lane: " + std::to_string(lane) + ". Reason: " + cause);
    }
    ExecuteLaneMarginCmd first(id, lanes.front(), receiver, read, write);
    unsigned int timing_steps = 0, voltage_steps = 0, max_voltage_offset = 0, max_timing_offset = 0;
    ExecuteLaneMarginCmd::MarginCtrlCapability capability;
    if (!get_margin_params(first, timing_steps, voltage_steps, max_voltage_offset, max_timing_offset, capability,
                           err))
        return false;
    const std::vector<int> dwells = populate_dwell_list(final_dwell);
    // One-side voltage walks need independent up and down.
    if (capability.VoltSupported && capability.IndUpDownVolt &&
        !ladder_kind<MarginVrefPCIELane>(read, write, id, receiver, lanes, false, dwells, voltage_steps,
                                         error_threshold, results, stop, err))
        return false;
    return ladder_kind<MarginTimingPCIELane>(read, write, id, receiver, lanes, true, dwells, timing_steps,
                                             error_threshold, results, stop, err);
}

std::string time_stamp() { return ::time_stamp(); }

}  // namespace PCIE
