// One lane of one receiver walked through timing or voltage offsets, to find
// how far it stays clean. Everything reaches the hardware through
// ExecuteLaneMarginCmd; nothing here knows of JSON or of other lanes.
//
// The walking operations return 0 when the walk ran to an answer (read the
// status), 1 when it could not begin or a clear failed, 2 when a step or its
// response failed part-way. A walk that returns 2 has emptied its passed
// offsets, so half a walk is never mistaken for a result. Whatever way a walk
// ends, even by an exception, its lane is put back to normal settings.
//
// Choices of our own:
// - A walk checks the stop flag before each offset. When it is raised the
//   walk ends with 1, status 5, no passed offsets and a text saying so; the
//   lane goes back to normal settings as on any other path.
// - A step of 0 would never leave its first offset; it is refused with 1.
// - Waiting out SETUP_IN_PROGRESS is bounded by 4 reads 10 ms apart, and the
//   failure text says so.
// - Early exit (MarginWalkInput::early_exit): a measured offset whose error
//   count passes the threshold, or that the receiver stops with
//   TOO_MANY_ERRORS, ends its dwell as soon as the lane status shows it.
//   Counts only grow while a step holds, so the verdict is the one the full
//   dwell would give; the time spent there is kept in the output. An offset
//   that holds still sits out its full dwell. Reading the lane status sends
//   no command, so the receiver margins on undisturbed.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"
#include "margin_pcie/execute_lane_margin_command.h"
#include "margin_pcie/margin_stop_flag.h"

namespace PCIE {

// Timing: 0 left, 1 right. Voltage: 0 down, 1 up. 2 is both sides at once
// for margin_both_side and undefined for the one-side operations.
enum DirectionOfMargin : unsigned int {
    DIRECTION_NEGATIVE = 0,
    DIRECTION_POSITIVE = 1,
    DIRECTION_BOTH = 2,
};

// "Negative", "Positive"; "Both" for 2.
std::string to_string(DirectionOfMargin direction);

// The status of MarginOutput.
enum MarginWalkStatus : int {
    WALK_ERRORS_ABOVE_THRESHOLD = 0,
    WALK_AT_BOUND = 1,
    WALK_SETUP_NOT_COMPLETE = 2,
    WALK_NAK = 3,
    WALK_TOO_MANY_ERRORS = 4,
    WALK_COMMAND_FAILED = 5,
};

// The results of the walking operations.
enum MarginWalkResult : int {
    WALK_ANSWERED = 0,
    WALK_NOT_BEGUN = 1,
    WALK_BROKEN = 2,
};

// What both lane classes take as MarginInput.
struct MarginWalkInput {
    DirectionOfMargin direction = DIRECTION_BOTH;
    unsigned int dwell_time = 0;  // ms at each offset that counts
    unsigned int start_offset = 0;  // first offset that counts; earlier ones get 10 ms
    unsigned int end_offset = 0;
    unsigned int step = 1;
    unsigned int error_threshold = 0;  // most errors that still pass
    bool early_exit = false;  // end a measured offset's dwell once its errors show (see above)
};

// MarginOutput of the timing lane.
struct TimingLaneMarginOutput {
    bool independent = false;  // false after margin_both_side, true after the one-side forms
    std::vector<unsigned int> passed_offsets;  // offsets that counted and held, in walking order
    std::map<unsigned int, unsigned int> errors_by_offset;  // non-zero counts only
    unsigned int failing_offset = 0;
    int status = WALK_COMMAND_FAILED;  // a MarginWalkStatus; set by every walk that answers
    unsigned int failing_dwell = 0;  // ms spent at the failing offset when early exit cut it short, else 0
};

// MarginOutput of the voltage lane: the same, with the failing offset first.
struct VrefLaneMarginOutput {
    bool independent = false;
    std::vector<unsigned int> passed_offsets;
    unsigned int failing_offset = 0;
    std::map<unsigned int, unsigned int> errors_by_offset;
    int status = WALK_COMMAND_FAILED;
    unsigned int failing_dwell = 0;
};

// What both lane classes offer; they differ in their commands and texts.
template <class Output>
class MarginPCIELane {
public:
    using MarginInput = MarginWalkInput;
    using MarginOutput = Output;

    // No direction flag; the end offset is excluded.
    int margin_both_side(MarginInput in, MarginOutput& out, std::string& err) const;
    // Direction 0 or 1; the end offset is included.
    int margin_one_side(MarginInput in, MarginOutput& out, std::string& err) const;
    // The single offset in start_offset, at the full dwell.
    int margin_at_offset(MarginInput in, MarginOutput& out, std::string& err) const;
    // The halves of margin_at_offset, so a caller can start several lanes and
    // dwell once for all. Neither restores the lane: call ClearAndGoToNormal.
    int margin_at_offset_apply(MarginInput in, MarginOutput& out, std::string& err) const;
    int margin_at_offset_check(MarginInput in, MarginOutput& out, std::string& err) const;
    // Normal settings and a cleared error log, up to 4 attempts; never fails.
    void ClearAndGoToNormal() const;

    const ExecuteLaneMarginCmd& command() const { return _cmd; }

protected:
    MarginPCIELane(ExecuteLaneMarginCmd::TimeOrVoltMargin kind, Device_ID device, unsigned int lane,
                   unsigned int receiver, ReadPCI& read, WritePCI& write, MarginStopFlag stop);

private:
    ExecuteLaneMarginCmd::TimeOrVoltMargin _kind;
    Device_ID _device;
    unsigned int _lane;
    unsigned int _receiver;
    ReadPCI& _read;
    WritePCI& _write;
    ExecuteLaneMarginCmd _cmd;
    MarginStopFlag _stop;
};

// Timing: direction 0 is left, 1 right. The both-sides walk starts at 0.
class MarginTimingPCIELane : public MarginPCIELane<TimingLaneMarginOutput> {
public:
    MarginTimingPCIELane(Device_ID device, unsigned int lane, unsigned int receiver, ReadPCI& read, WritePCI& write,
                         MarginStopFlag stop = MarginStopFlag());
};

// Voltage: direction 0 is down, 1 up. Unlike timing, the both-sides walk
// starts at the start offset itself, and first reads the max timing offset.
class MarginVrefPCIELane : public MarginPCIELane<VrefLaneMarginOutput> {
public:
    MarginVrefPCIELane(Device_ID device, unsigned int lane, unsigned int receiver, ReadPCI& read, WritePCI& write,
                       MarginStopFlag stop = MarginStopFlag());
};

}  // namespace PCIE
