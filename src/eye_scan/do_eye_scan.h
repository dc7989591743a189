// One eye-scan request for one die: the secure-state check, the lanes sorted
// by PHY type, and the E32 group scanned one thread per lane into one
// folder, each lane's files named by its running id (1000, 1001, ...).
//
// Where we do better than ending or hiding things:
// - no shell: the folder is made with the C++ library, the plot step is a
//   callable the caller gives (it may start the plot tool without a shell);
// - each lane's outcome (done, or why not: the collector's text, or the
//   text of an exception, which no longer ends the process) is kept in
//   outcomes() for the caller to report;
// - the die preparation (power states, receiver termination) is a callable
//   of the caller's, since it lives with the margin code.
// C10, C20 and CDNS PHYs have no collector here: their sections are told on
// the error stream ("Error! m_pC10EyeScan nullptr", ...) and skipped.
#pragma once

#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "discovery/e32_phy.h"
#include "discovery/lane_generic_information.h"
#include "eye_scan/scan_params.h"
#include "hardware/vex_die_info.h"

struct CmdLineEyeScanParam {
    std::vector<SerdesLaneSectionParam> lanes;
    int nbits = 23;
    int dac_step = 10, dac_start = -200, dac_end = 200;
    int phase_step = 4, phase_start = -32, phase_end = 32;
    std::vector<uint32_t> samplers;
    int sampler_method = 0;  // 0 average, 1 other; a bad value is reset to 0
    int meas_time = 0;
    int step_x = 0;
    int step_y = 0;
};

struct E32EyeScanParam {
    std::vector<SerdesLaneSectionParam> sections;
    int nbits = 23;
    int dac_step = 10, dac_start = -200, dac_end = 200;
    int phase_step = 4, phase_start = -32, phase_end = 32;
};

// How one lane of the request ended.
struct EyeScanLaneOutcome {
    std::string link;
    unsigned int lane = 0;
    int id = 0;            // its files' prefix
    bool done = false;
    std::string error;     // why not, when not done
};

// What the caller brings to a run.
struct EyeScanHooks {
    std::string folder;          // where the files go (made if missing); empty: a time stamp in the working folder
    WaitAbandoned abandoned;     // the test was cancelled or the service stops
    double rate_gbps = 0;        // the lanes' bit rate, for the poll bound (ScanParams::rate_gbps)
    // Readies the die (power states, termination); false with a text ends the run.
    std::function<bool(std::string& error)> prepare;
    // Plots every "*metadata*" file of the folder (full paths, by name).
    std::function<void(const std::vector<std::string>& metadata_files)> plot;
    std::ostream* console = nullptr;  // progress lines; null: std::cout
};

// One E32 lane's whole scan as a lane thread runs it: its own accessors and
// commands (with `abandoned` as their wait check), the collector, and the
// override released at the end on every path. An exception (version check,
// register network) becomes a false with its text.
bool scan_e32_lane(const VEX_DIE_INFO& die, const std::string& link, unsigned int lane, const ScanParams& params,
                   const WaitAbandoned& abandoned, std::string& error_text);

class DoEyeScan {
public:
    DoEyeScan(VEX_DIE_INFO die, CmdLineEyeScanParam params, EyeScanHooks hooks = {});

    // 1, or -1 when the silicon is in the secure state (nothing touched, no
    // folder) or a section's link is not known; lanes that failed still give 1
    // (see outcomes()).
    int initate_eye_scan();

    // Runs one E32 group: prepare, do_eyescan_corvane.
    int do_eyescan(const E32EyeScanParam& params);
    int do_eyescan_corvane(const E32EyeScanParam& params);

    const std::vector<EyeScanLaneOutcome>& outcomes() const { return _outcomes; }
    const std::string& folder() const { return _folder; }

private:
    void _lane_thread(EyeScanLaneOutcome& outcome, const E32EyeScanParam& params);
    std::ostream& _out() const;

    VEX_DIE_INFO _die;
    CmdLineEyeScanParam _params;
    EyeScanHooks _hooks;
    std::string _folder;
    std::vector<EyeScanLaneOutcome> _outcomes;
};
