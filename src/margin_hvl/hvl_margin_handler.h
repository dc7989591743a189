// One hVL margin job: all the requested lanes of one link, one after the
// other (the PCS error counter belongs to the link), through the engine of
// corvane_hvl_margin.h. Each lane appends its object (hvl_margin_report.h)
// to the results.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "discovery/hvl_links.h"
#include "hardware/vex_die_info.h"
#include "discovery/e32_phy.h"
#include "margin_hvl/corvane_hvl_margin.h"
#include "margin_hvl/hvl_margin_report.h"

struct DIELinkLanes {
    VEX_DIE_INFO die;
    std::string link;
    std::vector<unsigned int> lanes;
};

struct HvlMarginProgress {
    unsigned int lane = 0, lanes_done = 0, lanes_total = 0, sides_done = 0, sides_total = 0;
    std::string direction;
};

// The other end of `link` of `die` among the dies, by the platform's
// wiring table; nothing when the link isn't wired.
std::optional<HVLLinkInfo> find_hvl_partner_end(const VEX_DIE_INFO& die, const std::string& link,
                                                const std::vector<VEX_DIE_INFO>& dies);

class HVLMarginHandler {
public:
    struct Range {
        int start = 0, stop = 0, step = 0;
    };
    struct InputParam : DIELinkLanes {
        int ber = 0;         // 10^-ber; 0: 9
        int dwell_time = 0;  // ms; 0: from ber and err_cnt. Wins over ber when set.
        int err_cnt = 0;     // 0: 5
        int max_volt_steps = -1, max_timing_steps = -1;  // -1: the PHY's own
        Range top, bottom, right, left;
        bool is_dgpu = false;
        std::shared_ptr<FindHVLPartner> partner_finder;
        std::vector<VEX_DIE_INFO> all_dies;
        // Asked at every offset and in every wait for the firmware; true
        // ends the job with its lanes restored.
        std::function<bool()> stop;
        std::function<void(const HvlMarginProgress&)> progress;
    };

    explicit HVLMarginHandler(InputParam params) : _params(std::move(params)) {}

    // Full margin (scan and walk-back) of every lane. A lane that fails gets
    // "ErrorPresent" true and "ErrorMsg", and the job ends there: the
    // remaining lanes of the link are not margined.
    void margin(DumpHVLMarginDataToConsole& console, nlohmann::json& results, bool four_pt = false);
    void full_margin_using_walk_back(DumpHVLMarginDataToConsole& console, nlohmann::json& results);
    // All lanes of the link at once over the four ranges; each lane's
    // margin is its last passing offset. A range with a step of 0 is refused.
    void four_pt_margin(DumpHVLMarginDataToConsole& console, nlohmann::json& results);

    // Nominal seconds of a full margin of `lanes` lanes at a dwell of
    // dwell_ms when every edge lies `edge` steps out: per lane and
    // direction, the 50 ms scan up to one past the edge and the full-dwell
    // offsets the walk-back needs (the failing one and the passing one).
    static double nominal_seconds(unsigned int lanes, unsigned int directions, unsigned int dwell_ms,
                                  unsigned int edge);

    // Full dwell in ms for a record's settings at `rate_gbps`.
    static unsigned int dwell_ms(int ber, int err_cnt, double rate_gbps);

private:
    struct PreparedLane {
        unsigned int lane = 0;
        bool texl = false;
        std::shared_ptr<CorvaneE32PCSCommands> commands;
        std::shared_ptr<CorvaneVersionCheck> version;
        std::shared_ptr<GetE32LaneData> lane_data;
        std::shared_ptr<CorvanehVLOperations> operations;
        nlohmann::json object;
        MarginCapabilities caps;
        double rate = 0;
        unsigned int dwell = 0, err_cnt = 0;
    };
    void _open();
    // Builds the lane's commands, reads its settings, capabilities and
    // equalisation into its object; false when the lane failed (its object
    // is then in results).
    bool _prepare_lane(unsigned int lane, const char* margin_type, PreparedLane& out,
                       DumpHVLMarginDataToConsole& console, nlohmann::json& results, bool& partner_warned);
    static void fail_lane(PreparedLane& lane, const std::string& reason, DumpHVLMarginDataToConsole& console,
                          nlohmann::json& results);

    InputParam _params;
    std::shared_ptr<PhyAccessor> _phy;
    std::shared_ptr<LaneGenericInformation> _lanes_info;
    std::shared_ptr<RegisterStorage> _store;
};
