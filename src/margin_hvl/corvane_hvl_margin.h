// Destructive margin of one live hVL (or TEXL) receiver lane: the sampling
// point is forced away from its trained position through the PHY firmware,
// and the bit errors of the running link, counted by its PCS, say where the
// eye ends. A 50 ms scan walks outward, and the full dwell is paid only on
// the walk back near the edge.
//
// Every path out of margin() leaves the lane at phase 0 and voltage 0, the
// CDR command sent where the walk got that far, and the PCS error control
// and mask as they were found.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "discovery/e32_phy.h"
#include "hardware/register_storage.h"
#include "margin_hvl/hvl_link_operations.h"

struct OffsetData {
    unsigned int offset = 0;
    unsigned int err_cnt = 0;  // 255: saturated or flagged
    std::string message;
};

class CorvanehVLMargin {
public:
    enum Direction : unsigned int { Right = 0, Left = 1, Top = 2, Bottom = 3 };

    CorvanehVLMargin(std::string link, unsigned int lane, std::shared_ptr<RegisterStorage> store,
                     std::shared_ptr<CorvaneVersionCheck> version, std::shared_ptr<CorvaneE32PCSCommands> commands,
                     std::shared_ptr<GetE32LaneData> lane_data, std::shared_ptr<LaneGenericInformation> lanes,
                     std::shared_ptr<CorvanehVLOperations> operations);

    bool margin(Direction direction, unsigned int max_offset, unsigned int dwell_ms, unsigned int err_limit,
                std::vector<OffsetData>& offsets, std::string& error_text);
    void set_back_to_trained_point(std::string& error_text);

    // Asked at every offset; when it answers true the walk restores the lane
    // and fails with "Cancelled by the user".
    void set_stop_check(std::function<bool()> stop) { _stop = std::move(stop); }
    static constexpr const char* kCancelled = "Cancelled by the user";

    unsigned int phy_version() const { return _phy_version; }
    const std::string& full_version() const { return _full_version; }

private:
    bool margin_at_offset(Direction direction, unsigned int offset, std::vector<OffsetData>& offsets,
                          std::string& error_text, unsigned int& control, unsigned int& mask, unsigned int dwell_ms,
                          unsigned int err_limit);
    bool margin_at_offset_multi_step(Direction direction, unsigned int offset, std::vector<OffsetData>& offsets,
                                     std::string& error_text, unsigned int& control, unsigned int& mask,
                                     unsigned int dwell_ms, unsigned int err_limit);
    bool _walk_back(Direction direction, unsigned int max, unsigned int dwell_ms, unsigned int err_limit,
                    std::vector<OffsetData>& offsets, unsigned int& control, unsigned int& mask, unsigned int start);
    bool _walk_back_and_forth(Direction direction, unsigned int max, unsigned int dwell_ms, unsigned int err_limit,
                              std::vector<OffsetData>& offsets, unsigned int& control, unsigned int& mask,
                              unsigned int start);
    // Records `offset`, and when the lane is in L0 moves its receiver there;
    // false (and the offset marked not in L0) when it isn't.
    bool _move_to_offset(Direction direction, unsigned int offset, std::vector<OffsetData>& offsets,
                         std::string& error_text, int& phase, int& voltage);
    void _init_perf_for_recovery_check();
    bool _stopped();

    unsigned int _field_a = 0, _field_b = 0;
    std::string _link;
    unsigned int _lane;
    std::shared_ptr<RegisterStorage> _store;
    std::shared_ptr<CorvaneE32PCSCommands> _commands;
    std::shared_ptr<GetE32LaneData> _lane_data;
    std::shared_ptr<LaneGenericInformation> _lanes;
    std::shared_ptr<CorvanehVLOperations> _operations;
    unsigned int _phy_version = 0;
    std::string _full_version;
    std::function<bool()> _stop;
    bool _was_stopped = false;
};

// The scan's error limit at 50 ms for a full dwell of dwell_ms.
unsigned int hvl_scan_limit(unsigned int err_limit, unsigned int dwell_ms);
// round(total * dwell / elapsed) in single precision.
unsigned int _compute_error_count(double elapsed_ms, unsigned int dwell_ms, unsigned int total);

// Four-point margin: a caller-given series of offsets applied to all lanes
// of a link at once, stopping at the first offset that fails. Every lane is
// restored at the end, also after a failure.
class Corvane4pthVLMargin {
public:
    using Direction = CorvanehVLMargin::Direction;
    struct lane_data {
        std::string link;
        unsigned int lane = 0;
        std::shared_ptr<CorvaneE32PCSCommands> commands;
        std::shared_ptr<GetE32LaneData> lane_data_reader;
        std::shared_ptr<CorvanehVLOperations> operations;
        // The PCS error words as found; 0 until the first run saves them.
        unsigned int control_backup = 0, mask_backup = 0;
    };

    Corvane4pthVLMargin(std::vector<VEX_DIE_INFO> dies, const VEX_DIE_INFO& die, const std::string& link,
                        const std::vector<unsigned int>& lanes);

    // Offsets start, start + step, ... up to stop. A step of 0 would never
    // end: it is refused with error_text.
    bool four_pt_margin(Direction direction, unsigned int dwell_ms, unsigned int err_limit,
                        std::map<unsigned int, std::vector<OffsetData>>& offsets_by_lane, std::string& error_text,
                        unsigned int start, unsigned int stop, unsigned int step);
    void set_back_to_trained_point(std::string& error_text);

private:
    bool margin_at_offset(Direction direction, unsigned int offset, std::vector<OffsetData>& offsets,
                          std::string& error_text);
    bool check_err_count_per_offset(unsigned int err_limit, std::vector<OffsetData>& offsets);

    std::vector<VEX_DIE_INFO> _dies;
    unsigned int _field_a = 0, _field_b = 0;
    unsigned int _phy_version = 0;
    std::string _full_version;
    std::vector<lane_data> _lanes;
};
