#include "margin_pcie/margin_pcie_lane.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "hardware/os_specific.h"
#include "margin_pcie/margin_console.h"

namespace PCIE {

namespace {

using Cmd = ExecuteLaneMarginCmd;

constexpr unsigned int kShortStayMs = 10;  // below the start offset: step through, don't measure
constexpr unsigned int kPollIntervalMs = 10;
constexpr unsigned int kSetupPolls = 4;
constexpr unsigned int kRestoreAttempts = 4;
constexpr unsigned int kRestoreRetryMs = 10;

// Puts the lane back to normal settings with its error log cleared. Each
// failure is swallowed: this runs from destructors, and a lane that cannot
// be reached now has nothing more to be told.
void restore_normal_settings(const Cmd& cmd) noexcept {
    for (unsigned int attempt = 0; attempt < kRestoreAttempts; ++attempt) {
        try {
            std::string ignored;
            const bool normal = cmd.go_to_normal_settings(ignored);
            const bool cleared = cmd.clear_error_log(ignored);
            if (normal && cleared) return;
            if (attempt + 1 < kRestoreAttempts) OSSpecific().milli_secs_sleep(kRestoreRetryMs);
        } catch (...) {
        }
    }
}

// Held on every path of a walk, so the lane never stays in margining.
class DoClearInDestructor {
public:
    explicit DoClearInDestructor(const Cmd& cmd) : _cmd(cmd) {}
    ~DoClearInDestructor() { restore_normal_settings(_cmd); }
    DoClearInDestructor(const DoClearInDestructor&) = delete;
    DoClearInDestructor& operator=(const DoClearInDestructor&) = delete;

private:
    const Cmd& _cmd;
};

// What differs between the timing and the voltage walk besides the command.
struct LaneKind {
    Cmd::TimeOrVoltMargin kind;
    const char* one_side_unsupported;
    const char* step_failed;
    const char* setup_not_done;
    const char* nak;
    const char* print_read_failed;
    const char* print_setup;
    const char* print_nak;
};

const LaneKind kTiming{Cmd::TIMING,
                       "Independent margining not supported. Should not call this left margin function",
                       "Failed send Time margin command. ",
                       "Setup still in progress. ",
                       "NAK received",
                       "        Margin command response read failed",
                       "        Setup still in progress",
                       "        NAK received"};

const LaneKind kVoltage{Cmd::VOLTAGE,
                        "Independent margining not supported. Should not call this margin function",
                        "Failed send Vref margin command. ",
                        "Setup not complete. ",
                        "NAK received. ",
                        "        Margin command Read response failed.",
                        "        Setup not complete",
                        "        NAK received"};

const LaneKind& kind_of(Cmd::TimeOrVoltMargin kind) { return kind == Cmd::TIMING ? kTiming : kVoltage; }

bool has_independent_sides(const LaneKind& k, const Cmd::MarginCtrlCapability& capability) {
    return k.kind == Cmd::TIMING ? capability.LeftRightTiming : capability.IndUpDownVolt;
}

bool send_step(const LaneKind& k, const Cmd& cmd, DirectionOfMargin direction, unsigned int offset,
               Cmd::MarginExecutionStatus& status, unsigned int& errors, std::string& err) {
    const int steps = static_cast<int>(offset > 0xFFFF ? 0xFFFF : offset);
    if (k.kind == Cmd::TIMING) {
        if (direction == DIRECTION_NEGATIVE) return cmd.send_time_margin_left_cmd(steps, status, errors, err);
        if (direction == DIRECTION_POSITIVE) return cmd.send_time_margin_right_cmd(steps, status, errors, err);
        return cmd.send_time_margin_cmd(steps, status, errors, err);
    }
    if (direction == DIRECTION_NEGATIVE) return cmd.send_volt_margin_down_cmd(steps, status, errors, err);
    if (direction == DIRECTION_POSITIVE) return cmd.send_volt_margin_up_cmd(steps, status, errors, err);
    return cmd.send_volt_margin_cmd(steps, status, errors, err);
}

// The words of the single-offset form when its step fails. The voltage words
// name the other direction; logs have always read so.
std::string step_failure_line(const LaneKind& k, DirectionOfMargin direction) {
    if (k.kind == Cmd::TIMING) return "Failed send Time margin command.";
    return direction == DIRECTION_NEGATIVE ? "        Failed vref up Command" : "        Failed vref down Command";
}

void end_step(const Cmd& cmd) {
    std::string ignored;
    cmd.send_no_command(ignored);
}

template <class Output>
void fail(Output& out, int status) {
    out.status = status;
    out.passed_offsets.clear();
}

// A dwell at a low bit error rate lasts minutes: it waits in slices of at
// most a second, so a stop request ends it within one. The model's errors
// depend only on the total, so slicing changes no result.
//
// With a watch, the lane status is read after each slice and the dwell ends
// once the count passes the threshold or the receiver reports
// TOO_MANY_ERRORS. The slices then start at 10 ms and double up to a second:
// beyond the edge errors show within the receiver's setup and a few ms, so a
// failing offset ends within about twice the time its errors took, while a
// passing one costs a dozen reads over a dwell of minutes. A read that isn't
// the step's own response (a failed read gives all ones) is passed over;
// the judgement after the dwell reads the status again as always.
struct DwellOutcome {
    bool stopped = false;
    bool ended_early = false;
    unsigned int spent_ms = 0;
};

struct ErrorWatch {
    unsigned int step_type;  // the margin type the lane status answers with while the step holds
    unsigned int threshold;
};

bool errors_showed(const Cmd& cmd, const ErrorWatch& watch) {
    Cmd::MarginLaneData response;
    cmd.read_cmd_response(response);
    if (response._margin_type != watch.step_type) return false;
    const auto status = static_cast<Cmd::MarginExecutionStatus>((response._margin_payload >> 6) & 0x3);
    const unsigned int errors = response._margin_payload & 0x3F;
    if (status == Cmd::TOO_MANY_ERRORS) return true;
    return status == Cmd::MARGIN_IN_PROGRESS && errors > watch.threshold;
}

DwellOutcome dwell_at_offset(const Cmd& cmd, const MarginStopFlag& stop, unsigned int milliseconds,
                             const ErrorWatch* watch) {
    constexpr unsigned int kSliceMs = 1000;
    constexpr unsigned int kFirstWatchMs = 10;
    DwellOutcome outcome;
    unsigned int slice_cap = watch ? kFirstWatchMs : kSliceMs;
    while (outcome.spent_ms < milliseconds) {
        if (stop.stop_requested()) {
            outcome.stopped = true;
            return outcome;
        }
        const unsigned int slice = std::min(milliseconds - outcome.spent_ms, slice_cap);
        OSSpecific().milli_secs_sleep(slice);
        outcome.spent_ms += slice;
        slice_cap = std::min(2 * slice_cap, kSliceMs);
        if (watch && outcome.spent_ms < milliseconds && errors_showed(cmd, *watch)) {
            outcome.ended_early = true;
            break;
        }
    }
    outcome.stopped = stop.stop_requested();
    return outcome;
}

template <class Output>
bool stopped(const MarginStopFlag& stop, uint64_t offset, Output& out, std::string& err) {
    if (!stop.stop_requested()) return false;
    err = "Margin stopped before offset " + std::to_string(offset) + ": the service is stopping.";
    fail(out, WALK_COMMAND_FAILED);
    return true;
}

// Capability, independence and normal settings; -1 when the walk may begin.
template <class Output>
int begin_walk(const Cmd& cmd, const LaneKind& k, bool one_side, Output& out, std::string& err) {
    Cmd::MarginCtrlCapability capability;
    std::string cause;
    if (!cmd.read_margin_ctrl_capability(capability, cause)) {
        err = "Command Retreive margin control capabilities failed. " + cause;
        fail(out, WALK_COMMAND_FAILED);
        return WALK_NOT_BEGUN;
    }
    out.independent = false;
    if (one_side) {
        if (!has_independent_sides(k, capability)) {
            err = k.one_side_unsupported;
            fail(out, WALK_COMMAND_FAILED);
            return WALK_NOT_BEGUN;
        }
        out.independent = true;
    }
    if (!cmd.go_to_normal_settings(cause)) {
        err = "Command Go to Normal settings failed. " + cause;
        fail(out, WALK_COMMAND_FAILED);
        return WALK_NOT_BEGUN;
    }
    return -1;
}

// Reads the status after the stay at an offset and judges it. -1 when the
// walk goes on to the next offset (the step already ended), else the result.
template <class Output>
int poll_and_judge(const Cmd& cmd, const LaneKind& k, unsigned int offset, const MarginWalkInput& in, Output& out,
                   std::string& err, bool print) {
    Cmd::MarginExecutionStatus status = Cmd::SETUP_IN_PROGRESS;
    unsigned int errors = 0;
    for (unsigned int reads = 0;;) {
        std::string cause;
        if (!cmd.read_margin_response(status, errors, cause)) {
            if (print) print_console_line(k.print_read_failed);
            err = "Margin command failed" + cause;
            fail(out, WALK_COMMAND_FAILED);
            return WALK_BROKEN;
        }
        if (status != Cmd::SETUP_IN_PROGRESS || ++reads == kSetupPolls) break;
        OSSpecific().milli_secs_sleep(kPollIntervalMs);
    }
    if (status == Cmd::SETUP_IN_PROGRESS) {
        if (print) print_console_line(k.print_setup);
        err = std::string(k.setup_not_done) + "The receiver still reported SETUP_IN_PROGRESS after " +
              std::to_string(kSetupPolls) + " reads " + std::to_string(kPollIntervalMs) + " ms apart.";
        fail(out, WALK_SETUP_NOT_COMPLETE);
        return WALK_BROKEN;
    }
    if (status == Cmd::NAK) {
        if (print) print_console_line(k.print_nak);
        err = k.nak;
        fail(out, WALK_NAK);
        return WALK_BROKEN;
    }
    if (errors != 0) out.errors_by_offset[offset] = errors;
    if (errors > in.error_threshold || status == Cmd::TOO_MANY_ERRORS) {
        out.failing_offset = offset;
        out.status = errors > in.error_threshold ? WALK_ERRORS_ABOVE_THRESHOLD : WALK_TOO_MANY_ERRORS;
        end_step(cmd);
        return WALK_ANSWERED;
    }
    if (offset >= in.start_offset) out.passed_offsets.push_back(offset);
    end_step(cmd);
    return -1;
}

// The walk over a range of offsets, one side or both at once.
template <class Output>
int walk(const Cmd& cmd, const LaneKind& k, const MarginStopFlag& stop, const MarginWalkInput& in, Output& out,
         std::string& err, bool one_side) {
    out.failing_offset = 0;
    out.failing_dwell = 0;
    if (one_side && in.direction == DIRECTION_BOTH) {
        err = "Direction of margin undefined.";
        fail(out, WALK_COMMAND_FAILED);
        return WALK_NOT_BEGUN;
    }
    if (in.step == 0) {
        err = "Margin step of 0 never leaves its first offset.";
        fail(out, WALK_COMMAND_FAILED);
        return WALK_NOT_BEGUN;
    }
    DoClearInDestructor guard(cmd);
    if (const int refused = begin_walk(cmd, k, one_side, out, err); refused >= 0) return refused;
    const bool both_voltage = !one_side && k.kind == Cmd::VOLTAGE;
    if (both_voltage) {
        unsigned int unused = 0;
        std::string cause;
        if (!cmd.read_max_timing_offset(unused, cause)) {
            err = "Command Read Max Timing Offset failed. " + cause;
            fail(out, WALK_COMMAND_FAILED);
            return WALK_NOT_BEGUN;
        }
    }
    const DirectionOfMargin direction = one_side ? in.direction : DIRECTION_BOTH;
    const uint64_t end = in.end_offset;
    for (uint64_t offset = both_voltage ? in.start_offset : 0; one_side ? offset <= end : offset < end;
         offset += in.step) {
        if (stopped(stop, offset, out, err)) return WALK_NOT_BEGUN;
        end_step(cmd);
        std::string cause;
        if (!cmd.clear_error_log(cause)) {
            err = k.kind == Cmd::TIMING ? "Clearing failed" : cause;
            return WALK_NOT_BEGUN;
        }
        Cmd::MarginExecutionStatus status = Cmd::SETUP_IN_PROGRESS;
        unsigned int errors = 0;
        const auto at = static_cast<unsigned int>(offset);
        if (!send_step(k, cmd, direction, at, status, errors, cause)) {
            err = k.step_failed + cause;
            fail(out, WALK_COMMAND_FAILED);
            return WALK_BROKEN;
        }
        const bool measured = at >= in.start_offset;
        const ErrorWatch watch{k.kind == Cmd::TIMING ? Cmd::STEP_TIMING : Cmd::STEP_VOLT, in.error_threshold};
        const DwellOutcome dwell = dwell_at_offset(cmd, stop, measured ? in.dwell_time : kShortStayMs,
                                                   measured && in.early_exit ? &watch : nullptr);
        if (dwell.stopped && stopped(stop, offset, out, err)) return WALK_NOT_BEGUN;
        if (const int judged = poll_and_judge(cmd, k, at, in, out, err, false); judged >= 0) {
            if (dwell.ended_early && judged == WALK_ANSWERED) out.failing_dwell = dwell.spent_ms;
            return judged;
        }
    }
    end_step(cmd);
    out.status = WALK_AT_BOUND;
    return WALK_ANSWERED;
}

// First half of the single-offset form: end any step, clear, step.
template <class Output>
int apply_step(const Cmd& cmd, const LaneKind& k, const MarginStopFlag& stop, const MarginWalkInput& in,
               Output& out, std::string& err) {
    if (stopped(stop, in.start_offset, out, err)) return WALK_NOT_BEGUN;
    end_step(cmd);
    std::string cause;
    if (!cmd.clear_error_log(cause)) print_console_line("        Clearing failed");
    Cmd::MarginExecutionStatus status = Cmd::SETUP_IN_PROGRESS;
    unsigned int errors = 0;
    cause.clear();
    if (!send_step(k, cmd, in.direction, in.start_offset, status, errors, cause)) {
        print_console_line(step_failure_line(k, in.direction));
        err = k.step_failed + cause;
        fail(out, WALK_COMMAND_FAILED);
        return WALK_BROKEN;
    }
    return WALK_ANSWERED;
}

template <class Output>
int check_offset(const Cmd& cmd, const LaneKind& k, const MarginWalkInput& in, Output& out, std::string& err) {
    if (const int judged = poll_and_judge(cmd, k, in.start_offset, in, out, err, true); judged >= 0) return judged;
    end_step(cmd);
    out.status = WALK_AT_BOUND;
    return WALK_ANSWERED;
}

template <class Output>
bool refuse_undefined_direction(const MarginWalkInput& in, Output& out, std::string& err) {
    if (in.direction != DIRECTION_BOTH) return false;
    err = "Direction of margin undefined.";
    fail(out, WALK_COMMAND_FAILED);
    return true;
}

template <class Output>
int at_offset(const Cmd& cmd, const LaneKind& k, const MarginStopFlag& stop, const MarginWalkInput& in, Output& out,
              std::string& err) {
    out.failing_offset = 0;
    if (refuse_undefined_direction(in, out, err)) return WALK_NOT_BEGUN;
    DoClearInDestructor guard(cmd);
    if (const int refused = begin_walk(cmd, k, true, out, err); refused >= 0) return refused;
    if (const int applied = apply_step(cmd, k, stop, in, out, err); applied != WALK_ANSWERED) return applied;
    if (dwell_at_offset(cmd, stop, in.dwell_time, nullptr).stopped && stopped(stop, in.start_offset, out, err))
        return WALK_NOT_BEGUN;
    return check_offset(cmd, k, in, out, err);
}

template <class Output>
int at_offset_apply(const Cmd& cmd, const LaneKind& k, const MarginStopFlag& stop, const MarginWalkInput& in,
                    Output& out, std::string& err) {
    out.failing_offset = 0;
    if (refuse_undefined_direction(in, out, err)) return WALK_NOT_BEGUN;
    const int applied = apply_step(cmd, k, stop, in, out, err);
    if (applied == WALK_ANSWERED) out.independent = true;
    return applied;
}

}  // namespace

std::string to_string(DirectionOfMargin direction) {
    switch (direction) {
        case DIRECTION_NEGATIVE: return "Negative";
        case DIRECTION_POSITIVE: return "Positive";
        case DIRECTION_BOTH: break;
    }
    return "Both";
}

template <class Output>
MarginPCIELane<Output>::MarginPCIELane(Cmd::TimeOrVoltMargin kind, Device_ID device, unsigned int lane,
                                       unsigned int receiver, ReadPCI& read, WritePCI& write, MarginStopFlag stop)
    : _kind(kind),
      _device(device),
      _lane(lane),
      _receiver(receiver),
      _read(read),
      _write(write),
      _cmd(device, lane, receiver, read, write),
      _stop(std::move(stop)) {}

template <class Output>
int MarginPCIELane<Output>::margin_both_side(MarginInput in, MarginOutput& out, std::string& err) const {
    return walk(_cmd, kind_of(_kind), _stop, in, out, err, false);
}
template <class Output>
int MarginPCIELane<Output>::margin_one_side(MarginInput in, MarginOutput& out, std::string& err) const {
    return walk(_cmd, kind_of(_kind), _stop, in, out, err, true);
}
template <class Output>
int MarginPCIELane<Output>::margin_at_offset(MarginInput in, MarginOutput& out, std::string& err) const {
    return at_offset(_cmd, kind_of(_kind), _stop, in, out, err);
}
template <class Output>
int MarginPCIELane<Output>::margin_at_offset_apply(MarginInput in, MarginOutput& out, std::string& err) const {
    return at_offset_apply(_cmd, kind_of(_kind), _stop, in, out, err);
}
template <class Output>
int MarginPCIELane<Output>::margin_at_offset_check(MarginInput in, MarginOutput& out, std::string& err) const {
    return check_offset(_cmd, kind_of(_kind), in, out, err);
}
template <class Output>
void MarginPCIELane<Output>::ClearAndGoToNormal() const {
    restore_normal_settings(_cmd);
}

template class MarginPCIELane<TimingLaneMarginOutput>;
template class MarginPCIELane<VrefLaneMarginOutput>;

MarginTimingPCIELane::MarginTimingPCIELane(Device_ID device, unsigned int lane, unsigned int receiver, ReadPCI& read,
                                           WritePCI& write, MarginStopFlag stop)
    : MarginPCIELane(Cmd::TIMING, device, lane, receiver, read, write, std::move(stop)) {}

MarginVrefPCIELane::MarginVrefPCIELane(Device_ID device, unsigned int lane, unsigned int receiver, ReadPCI& read,
                                       WritePCI& write, MarginStopFlag stop)
    : MarginPCIELane(Cmd::VOLTAGE, device, lane, receiver, read, write, std::move(stop)) {}

}  // namespace PCIE
