// How long a PCIe margin should take, worked out from its dwell and the
// receiver's figures before or while it runs, and who may drive a function's
// margining registers at a given moment, and how far a running margin is.
//
// The plan is an upper estimate in nominal time (hardware time; model time
// on the simulated machine). Per side: a quick walkback pass that reaches
// the last step, the full-dwell pass stepping through every lower offset,
// the last passing offset at the full dwell, and the first failing offset at
// the full dwell. Early exit usually ends that failing offset within
// milliseconds, but how soon its errors show depends on the lane, so its
// saving is assumed only where the run has early exit on and the caller asks
// for the run's own plan; the estimate before queueing never assumes it.
// Every offset also pays the protocol's 80 ms of handshakes (no command,
// clear error log, the step, no command). Lanes of one batch walk together;
// batches follow one another.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "hardware/pci_device_details.h"
#include "margin_pcie/margin_report_json.h"
#include "margin_pcie/margin_stop_flag.h"

namespace PCIE {

// How far a run is. Sides drive the percentage, since the lanes of one batch
// all finish together at its end.
struct MarginProgress {
    unsigned int lanes_done = 0;
    unsigned int lanes_total = 0;
    std::string direction;  // e.g. "Voltage Down", "Timing Left" of the lane(s) being walked
    unsigned int sides_done = 0;   // sides finished, over all lanes
    unsigned int sides_total = 0;  // sides a full run walks
    // From the run's plan (below): what the batches still to come and
    // the current batch's slowest lane have left. Nothing when unknown.
    std::optional<double> remaining_seconds;
    double elapsed_seconds = 0;  // left to the reporter, which knows when the test began
    std::optional<unsigned int> lane;  // the one lane walked now, where lanes walk one at a time (hVL)
};

struct MarginPlanInput {
    unsigned int dwell_ms = 0;  // the full dwell
    unsigned int lanes = 0;
    unsigned int lanes_at_once = 1;  // the batch size
    MarginCapabilities figures;      // steps and which sides the receiver has
    bool stepthrough = false;        // false: walkback
    bool early_exit = false;         // count on failing offsets ending early
};

struct MarginPlan {
    std::vector<double> side_seconds;  // each side a lane walks, in walking order
    unsigned int batches = 0;

    double batch_seconds() const;
    double total_seconds() const { return batches * batch_seconds(); }
    // What is left when batches_done batches are over and the current batch's
    // slowest lane has finished sides_done sides and spent in_side seconds on
    // the next. A side that overruns its plan holds the estimate rather than
    // pushing it up.
    double remaining_seconds(unsigned int batches_done, unsigned int sides_done, double in_side) const;
};

MarginPlan plan_margin(const MarginPlanInput& in);

// Lanes of a batch: MaxLanes + 1 when the receiver has an independent error
// sampler and lanes may run in parallel, else 1.
unsigned int lanes_at_once(const MarginCapabilities& figures, bool parallel);

// A function's margining registers are driven by one party at a time: a
// margin run holds its function from its first margin command to its end; an
// estimate reads the receiver's reports only when it gets the function at
// once, and otherwise takes the figures the run read. Figures are kept per
// function and receiver for the life of the process.
class MarginRegisterClaim {
public:
    // Waits while another party holds the function (10 ms sleeps), and gives
    // up when stop is raised: held() then says false.
    MarginRegisterClaim(Device_ID device, const MarginStopFlag& stop);
    // Takes the function only if nobody holds it.
    explicit MarginRegisterClaim(Device_ID device);
    ~MarginRegisterClaim();
    MarginRegisterClaim(const MarginRegisterClaim&) = delete;
    MarginRegisterClaim& operator=(const MarginRegisterClaim&) = delete;

    bool held() const { return _held; }

    static void remember_figures(Device_ID device, unsigned int receiver, const MarginCapabilities& figures);
    static std::optional<MarginCapabilities> figures(Device_ID device, unsigned int receiver);
    // For tests and a machine model rebuilt within one process.
    static void forget_figures();

private:
    Device_ID _device;
    bool _held = false;
};

}  // namespace PCIE
