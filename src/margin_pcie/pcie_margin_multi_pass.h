// The margin of one PCIe function: for every chosen lane of its receiver,
// how far timing can be pushed left and right and voltage up and down before
// the error count passes the threshold. One JSON object per lane comes back
// (keys: margin_report_json.h).
//
// Each side of each lane is walked more than once. "walkback" first runs a
// quick pass at 50 ms per offset from offset 0, then measures at the full
// dwell only from the last offset that pass found clean, walking the start
// back while even that fails. "stepthrough" runs the full dwell over every
// offset from 0. Lanes run in batches of MaxLanes + 1 threads when the
// receiver has an independent error sampler and the lane mode is parallel,
// else one at a time; each batch is joined before the next starts.
//
// Choices of our own:
// - The engine is given its configuration accessors, a stop flag and a
//   progress callback (MarginEngineAccess). When the flag is raised, every
//   walk ends at its next offset with its lane back at normal settings, no
//   further side or batch starts, and margin returns false with what it has:
//   the first object gets "ErrorPresent" true, "ErrorMsg" the flag's reason
//   ("Margin stopped: the service is shutting down", or the cancel's) and the
//   same words in "Information", so a
//   stopped run never reads as a complete one. Lanes that never ran carry
//   only their lane keys.
// - Progress is reported as each side of each lane starts and ends: lanes
//   fully done, sides done, the side ("Voltage Down", "Timing Left", "Timing
//   Both"...), and the time left by the run's plan, counted down from the
//   moment the current batch's slowest lane began its side, so the estimate
//   moves with the clock instead of with the order in which lanes report.
// - A run holds its function's margining registers (MarginRegisterClaim)
//   from its first margin command to its end, and leaves the receiver's
//   figures there for estimates made while it runs.
// - Lane results live in a map keyed by the lane's position in the lane
//   list, with every position created before a thread starts, so a lane
//   thread only ever changes the contents of its own entry.
// - A receiver that reports 0 steps gives margins of 0 rather than a
//   division by zero.
// - In an error map, a (offset, dwell) measured twice keeps the later count.
// - An exception inside a lane thread is kept and raised from margin once
//   the batch has been joined, so a fault never ends the process.
// - Equalisation and silicon details are added only for a mapped port all
//   of whose lanes are in its SerDes lane map, and not after a stop. A lane
//   whose equalisation couldn't be read gets "RxEqValid" false and every TX
//   field without "Got", so the report's columns always have their keys.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "discovery/port_map_types.h"
#include "discovery/port_mapping.h"
#include "hardware/pci_access.h"
#include "hardware/pci_device_details.h"
#include "hardware/vex_die_info.h"
#include "margin_pcie/execute_lane_margin_command.h"
#include "margin_pcie/margin_console.h"
#include "margin_pcie/margin_pcie_lane.h"
#include "margin_pcie/margin_plan.h"
#include "margin_pcie/margin_report_json.h"
#include "margin_pcie/margin_stop_flag.h"

namespace PCIE {

struct MarginEngineAccess {
    std::shared_ptr<ReadPCI> read;
    std::shared_ptr<WritePCI> write;
    MarginStopFlag stop;
    // May be empty; called from lane threads, must be thread-safe on the caller's side.
    std::function<void(const MarginProgress&)> progress;
};

class PCIEMarginMultiPass {
public:
    enum LaneMode : unsigned int { PARALLEL = 0, SEQUENTIAL = 1 };
    enum MarginMethod : unsigned int { WALKBACK = 0, STEPTHROUGH = 1 };

    struct InitParams {
        unsigned int segment = 0;
        unsigned int bus = 0;
        unsigned int device = 0;
        unsigned int function = 0;
        unsigned int receiver = 0;
        unsigned int BER = 0;          // exponent: 9 is 1 in 10^9; 0 when a dwell is given
        unsigned int error_count = 0;  // errors allowed at an offset
        unsigned int dwell_time = 0;   // ms; 0: from BER, error count and link speed
        LaneMode lane_mode = PARALLEL;
        MarginMethod margin_method = WALKBACK;
        // Ends a failing offset's dwell as soon as its errors show; the
        // verdict is the full dwell's (margin_pcie_lane.h). false: every
        // measured offset sits out the full dwell.
        bool early_exit = true;
        std::vector<unsigned int> lanes;  // empty: found from the port map or the receiver
    };

    // What one walk of one side gets.
    struct MarginLaneInput {
        unsigned int lane = 0;
        DirectionOfMargin direction = DIRECTION_BOTH;
        bool timing = false;
        bool voltage = false;  // true walks voltage, false timing
        unsigned int dwell = 0;
        unsigned int start_offset = 0;
        unsigned int end_offset = 0;  // the number of steps the receiver reports
        unsigned int step = 1;
        unsigned int error_threshold = 0;
    };

    // One measurement. dwell is the time actually spent at the offset;
    // pass_dwell the pass's dwell when early exit ended it sooner (0: the same).
    struct OffsetData {
        unsigned int offset = 0;
        unsigned int error_count = 0;
        unsigned int dwell = 0;
        unsigned int pass_dwell = 0;
        unsigned int planned_dwell() const { return pass_dwell != 0 ? pass_dwell : dwell; }
    };

    // All that is known of one lane. Without independent sides, timing right
    // and voltage up take the both-sides walk.
    struct MarginDataLane {
        unsigned int lane = 0;
        unsigned int spare = 0;
        std::string text;
        std::vector<OffsetData> timing_left;
        std::vector<OffsetData> timing_right;
        std::vector<OffsetData> voltage_down;
        std::vector<OffsetData> voltage_up;
    };

    struct MarginRunTimeData {
        std::vector<MarginDataLane> lanes;  // in the order of the lane list
    };

    PCIEMarginMultiPass(std::vector<PCIDeviceDetails> devices, std::vector<VEX_DIE_INFO> dies, InitParams params,
                        DumpPCIEMarginDataToConsole& console, MarginEngineAccess access);

    // Appends one object per lane to results (an array), or one object with
    // "ErrorPresent" true on an early failure. True when the lanes were
    // margined. Throws runtime_error "Neither GEN4 or GEN5." when the dwell
    // must come from a link speed other than 16 or 32 GT/s, and the report
    // errors of margin_report_json.h.
    bool margin(nlohmann::json& results, int loop) const;

    // Where the next pass of a side starts: the largest offset measured
    // within the threshold with no measurement above it at or below it; 0
    // when there is none.
    static unsigned int start_offset_of(const std::vector<OffsetData>& list, unsigned int error_threshold);
    // A side's margin offset from its full-dwell measurements: the largest
    // offset within the threshold that never failed; the smallest good one
    // when every good one also failed; 0 without a good one.
    static unsigned int margin_offset_of(const std::vector<OffsetData>& list, unsigned int full_dwell,
                                         unsigned int error_threshold);

private:
    struct RunContext;

    bool _run_prechecks_for_margin(MarginCapabilities& capabilities, nlohmann::json& data) const;
    double _get_dwell_time(const PortMap* port) const;
    void _populate_pcie_device_details(unsigned int lane, unsigned int stage, nlohmann::json& data) const;
    void _populate_margin_params(unsigned int lane, unsigned int dwell, nlohmann::json& data) const;
    bool _check_lanes(std::vector<unsigned int>& lanes, nlohmann::json& data) const;
    int _is_lane_reversed(int width, std::vector<unsigned int>& lanes) const;
    bool _get_margin_params(unsigned int lane, ExecuteLaneMarginCmd& cmd,
                            ExecuteLaneMarginCmd::MarginCtrlCapability& capability,
                            MarginCapabilities& capabilities, std::string& err, nlohmann::json& data) const;
    void _checks_on_the_values(const MarginCapabilities& capabilities,
                               const ExecuteLaneMarginCmd::MarginCtrlCapability& capability,
                               nlohmann::json& data) const;
    void _set_error_threshold(const std::vector<unsigned int>& lanes, nlohmann::json& data) const;
    bool _margin_one_lane(const MarginLaneInput& in, std::vector<OffsetData>& list, std::string& err) const;
    // By lane: the report keys of the lane's TX presets and cursors, and of
    // its receiver's settings. Empty unless the receiver is 1 or 6; an
    // exception ends the reading with what was read.
    std::map<unsigned int, nlohmann::json> _get_pcie_txeq(const std::vector<unsigned int>& lanes,
                                                          const PortMapData& port_map) const;
    std::map<unsigned int, nlohmann::json> _get_rxxeq(const std::vector<unsigned int>& lanes, const VEX_DIE_INFO& die,
                                                      const PortMap& port) const;

    void _lane_body(RunContext& run, std::size_t position) const;
    void _run_side(RunContext& run, bool voltage, unsigned int lane, DirectionOfMargin direction,
                   unsigned int end_offset, std::vector<OffsetData>& list) const;
    // Progress at the start of a side (so a minutes-long first walk is
    // visible) and at its end.
    void _side_started(RunContext& run, const std::string& direction) const;
    void _side_done(RunContext& run, std::size_t position, const std::string& direction, bool lane_done) const;
    void _report_progress(RunContext& run, const std::string& direction) const;

    Device_ID _id() const { return Device_ID(_params.segment, _params.bus, _params.device, _params.function); }

    std::vector<PCIDeviceDetails> _devices;
    std::vector<VEX_DIE_INFO> _dies;
    InitParams _params;
    DumpPCIEMarginDataToConsole* _console;
    MarginEngineAccess _access;
    DumpPCIEMarginDataToJSON _json;
};

}  // namespace PCIE
