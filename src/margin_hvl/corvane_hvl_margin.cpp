#include "margin_hvl/corvane_hvl_margin.h"

#include <chrono>
#include <algorithm>
#include <cmath>
#include <iostream>

#include "hardware/crn_factory.h"
#include "hardware/os_specific.h"
#include "hardware/resource_lock.h"
#include "hardware/system_facts.h"

namespace {

constexpr unsigned int kScanDwellMs = 50, kSliceMs = 50, kMaxDiscardedSlices = 20, kSaturated = 255;
constexpr const char* kExceeded = "Error count exceeded threshold";
constexpr const char* kNotL0 = "Link state not correct";

void phase_voltage(CorvanehVLMargin::Direction direction, unsigned int offset, int& phase, int& voltage) {
    const int o = static_cast<int>(offset);
    phase = direction == CorvanehVLMargin::Right ? o : direction == CorvanehVLMargin::Left ? -o : 0;
    voltage = direction == CorvanehVLMargin::Top ? o : direction == CorvanehVLMargin::Bottom ? -o : 0;
}

void console_error(const std::string& line) {
    NamedLockGuard console("ConsoleLock");
    std::cerr << line << std::endl;
}

double now_ms() {
    return std::chrono::duration<double, std::milli>(system_facts().now().time_since_epoch()).count();
}

}  // namespace

unsigned int hvl_scan_limit(unsigned int err_limit, unsigned int dwell_ms) {
    if (dwell_ms <= kScanDwellMs) return err_limit;
    return 1 + static_cast<unsigned int>(std::lround(static_cast<float>(err_limit) *
                                                      (static_cast<float>(kScanDwellMs) / static_cast<float>(dwell_ms))));
}

unsigned int _compute_error_count(double elapsed_ms, unsigned int dwell_ms, unsigned int total) {
    if (elapsed_ms <= 0) return total;
    return static_cast<unsigned int>(std::lround(static_cast<float>(total) *
                                                 (static_cast<float>(dwell_ms) / static_cast<float>(elapsed_ms))));
}

CorvanehVLMargin::CorvanehVLMargin(std::string link, unsigned int lane, std::shared_ptr<RegisterStorage> store,
                                   std::shared_ptr<CorvaneVersionCheck> version,
                                   std::shared_ptr<CorvaneE32PCSCommands> commands,
                                   std::shared_ptr<GetE32LaneData> lane_data,
                                   std::shared_ptr<LaneGenericInformation> lanes,
                                   std::shared_ptr<CorvanehVLOperations> operations)
    : _link(std::move(link)), _lane(lane), _store(std::move(store)), _commands(std::move(commands)),
      _lane_data(std::move(lane_data)), _lanes(std::move(lanes)), _operations(std::move(operations)) {
    _phy_version = (*version)();
    _full_version = version->full_version();
}

bool CorvanehVLMargin::_stopped() {
    if (!_was_stopped && _stop && _stop()) _was_stopped = true;
    return _was_stopped;
}

void CorvanehVLMargin::set_back_to_trained_point(std::string& error_text) {
    _commands->do_rx_margin(0, 0, _field_a, _field_b, false, error_text);
    OSSpecific().milli_secs_sleep(1);
}

bool CorvanehVLMargin::_move_to_offset(Direction direction, unsigned int offset, std::vector<OffsetData>& offsets,
                                       std::string& error_text, int& phase, int& voltage) {
    offsets.push_back({offset, 0, ""});
    if (_operations->check_link_state(_lane) != 1) {
        offsets.back().message = kNotL0;
        return false;
    }
    phase_voltage(direction, offset, phase, voltage);
    _commands->do_rx_margin(phase, voltage, _field_a, _field_b, true, error_text);
    return true;
}

bool CorvanehVLMargin::margin_at_offset(Direction direction, unsigned int offset, std::vector<OffsetData>& offsets,
                                        std::string& error_text, unsigned int& control, unsigned int& mask,
                                        unsigned int dwell_ms, unsigned int err_limit) {
    int phase = 0, voltage = 0;
    if (!_move_to_offset(direction, offset, offsets, error_text, phase, voltage)) return false;
    _operations->deinit_error_regs(control, mask, _lane);
    _operations->clear_errors_recovery_flag(_lane);
    _operations->init_error_regs(control, mask, _lane);
    const unsigned int before = _operations->get_error_count(_lane);
    // The 8-bit counter saturates: once it reads 255 the rest of the dwell
    // can't change the count, so a long dwell past the edge ends there.
    unsigned int after = before;
    for (unsigned int waited = 0; waited < dwell_ms;) {
        const unsigned int chunk = std::min(dwell_ms - waited, kSliceMs);
        OSSpecific().milli_secs_sleep(chunk);
        waited += chunk;
        after = _operations->get_error_count(_lane);
        if (after == kSaturated) break;
    }
    OffsetData& record = offsets.back();
    // A count that went backwards was reset under us: what it lost is
    // unknown, so the offset counts as saturated, as a slice does.
    record.err_cnt = after >= before ? after - before : kSaturated;
    if (_operations->get_ber_exceeded_flag(_lane)) record.err_cnt = 255;
    if (_operations->check_link_state(_lane) != 1) {
        record.message = kNotL0;
        return false;
    }
    if (!(record.err_cnt < err_limit)) record.message = kExceeded;
    return true;
}

void CorvanehVLMargin::_init_perf_for_recovery_check() {
    const auto reg = _store->get_link_register("PCS_HVL3X16_PCS_PERFORMANCE_COUNTER_REGISTERS2", _link);
    const unsigned int value = reg->read();
    reg->write(0);
    reg->write((value & ~0xFFu) + 2);
}

bool CorvanehVLMargin::margin_at_offset_multi_step(Direction direction, unsigned int offset,
                                                   std::vector<OffsetData>& offsets, std::string& error_text,
                                                   unsigned int& control, unsigned int& mask, unsigned int dwell_ms,
                                                   unsigned int err_limit) {
    int phase = 0, voltage = 0;
    if (!_move_to_offset(direction, offset, offsets, error_text, phase, voltage)) return false;
    const bool hvl = !_operations->is_texl();
    std::shared_ptr<Register> counter0, counter1;
    if (hvl) {
        _init_perf_for_recovery_check();
        counter1 = _store->get_link_register("PCS_HVL3X16_PCS_PERFORMANCE_COUNTER_REGISTERS1", _link);
        counter0 = _store->get_link_register("PCS_HVL3X16_PCS_PERFORMANCE_COUNTER_REGISTERS0", _link);
    }
    double total_ms = 0;
    unsigned int total_errors = 0, err_cnt = 0, discarded = 0;
    while (true) {
        // A link that drops in every slice would never fill the dwell: after
        // kMaxDiscardedSlices in a row the offset counts as one the link
        // can't live at. A stop request ends the slices as well.
        if (_stopped()) return false;
        if (discarded >= kMaxDiscardedSlices) {
            offsets.back().message = kNotL0;
            return false;
        }
        ++discarded;
        _commands->do_rx_margin(0, 0, _field_a, _field_b, true, error_text);
        OSSpecific().milli_secs_sleep(1);
        _commands->do_rx_margin(phase, voltage, _field_a, _field_b, true, error_text);
        _operations->deinit_error_regs(control, mask, _lane);
        _operations->clear_errors_recovery_flag(_lane);
        _operations->init_error_regs(control, mask, _lane);
        OSSpecific().milli_secs_sleep(1);
        unsigned int recoveries_before = 0;
        if (hvl) {
            counter1->read();
            recoveries_before = counter0->read();
        }
        const unsigned int before = _operations->get_error_count(_lane);
        const double start = now_ms();
        OSSpecific().milli_secs_sleep(kSliceMs);
        const unsigned int after = _operations->get_error_count(_lane);
        const double stop = now_ms();
        if (_operations->check_link_state(_lane) <= 0) continue;
        if (hvl) {
            counter1->read();
            if (counter0->read() != recoveries_before) continue;
        }
        discarded = 0;
        total_ms += stop - start;
        const unsigned int slice = after >= before ? after - before : 255;
        total_errors += slice;
        if (slice == 255) {
            err_cnt = 255;
            break;
        }
        if (total_ms > dwell_ms || total_errors > err_limit + 10) {
            err_cnt = _compute_error_count(total_ms, dwell_ms, total_errors);
            break;
        }
    }
    offsets.back().err_cnt = err_cnt;
    _operations->get_ber_exceeded_flag(_lane);
    if (_operations->check_link_state(_lane) == 1) {
        if (err_cnt >= err_limit) offsets.back().message = kExceeded;
        return true;
    }
    offsets.back().message = kNotL0;
    return false;
}

bool CorvanehVLMargin::_walk_back(Direction direction, unsigned int, unsigned int dwell_ms, unsigned int err_limit,
                                  std::vector<OffsetData>& offsets, unsigned int& control, unsigned int& mask,
                                  unsigned int start) {
    std::string error;
    for (unsigned int offset = start; offset != 0;) {
        if (_stopped()) return false;
        if (!margin_at_offset(direction, offset, offsets, error, control, mask, dwell_ms, err_limit)) {
            // A link drop counts as beyond the edge; it retrains at the trained point.
            set_back_to_trained_point(error);
            --offset;
            if (offset == 0) std::cout << "At Offset 0 for non L0 - walk back" << std::endl;
            continue;
        }
        if (offsets.back().err_cnt <= err_limit) return true;
        --offset;
    }
    return false;
}

bool CorvanehVLMargin::_walk_back_and_forth(Direction direction, unsigned int max, unsigned int dwell_ms,
                                            unsigned int err_limit, std::vector<OffsetData>& offsets,
                                            unsigned int& control, unsigned int& mask, unsigned int start) {
    bool too_far = false, found = false;
    OffsetData best;
    std::string error;
    unsigned int offset = start;
    while (offset != 0) {
        if (_stopped()) return false;
        set_back_to_trained_point(error);
        if (!margin_at_offset_multi_step(direction, offset, offsets, error, control, mask, dwell_ms, err_limit)) {
            if (_stopped()) return false;
            set_back_to_trained_point(error);
            --offset;
            if (offset == 0) std::cout << "At Offset 0 for non L0 back and forth" << std::endl;
            continue;
        }
        const OffsetData& record = offsets.back();
        if (record.err_cnt > err_limit) too_far = true;
        if (record.err_cnt <= err_limit) {
            if (!found || best.offset < record.offset) best = record;
            found = true;
        }
        if (found) {
            offsets.push_back(best);
            return true;
        }
        if (offset != max) offset = too_far ? offset - 1 : offset + 1;
        else --offset;
    }
    return false;
}

bool CorvanehVLMargin::margin(Direction direction, unsigned int max_offset, unsigned int dwell_ms,
                              unsigned int err_limit, std::vector<OffsetData>& offsets, std::string& error_text) {
    const CorvaneE32LANEDATA data = (*_lane_data)(_phy_version, _full_version);
    if (!data.active_cache_valid()) {
        error_text = "Active Cache not valid for Lane: " + std::to_string(_lane) + " of link: " + _link;
        return false;
    }
    unsigned int control = 0, mask = 0;
    _operations->init_error_regs(control, mask, _lane);
    // Each offset re-saves the two words after the counter setup has
    // changed them, so the words found here are kept apart for the end.
    // Whatever ends the walk, the PCS error registers go back as found: a
    // failed walk must not leave the link's BER reaction masked.
    const unsigned int found_control = control, found_mask = mask;
    auto restore = [&](bool cdr) {
        std::string ignored;
        set_back_to_trained_point(ignored);
        if (cdr) _commands->do_rx_cdr(1, true, ignored);
        _operations->clear_errors_recovery_flag(_lane);
        _operations->deinit_error_regs(found_control, found_mask, _lane);
    };

    const unsigned int scan_limit = hvl_scan_limit(err_limit, dwell_ms);
    const unsigned int passes = direction == Top || direction == Bottom ? 3 : 1;
    unsigned int offset = 0;
    for (unsigned int pass = 0; pass < passes; ++pass) {
        while (offset <= max_offset) {
            if (_stopped()) break;
            if (!margin_at_offset(direction, offset, offsets, error_text, control, mask, kScanDwellMs, scan_limit))
                break;
            if (offsets.back().err_cnt > scan_limit) break;
            ++offset;
        }
        offset = offsets.empty() ? 0 : offsets.back().offset;
        std::string ignored;
        set_back_to_trained_point(ignored);
    }
    if (_stopped()) {
        restore(true);
        error_text = kCancelled;
        return false;
    }
    if (offset == 0) {
        console_error("Margin failed at offset zero for lane:" + std::to_string(_lane) + " of Link:" + _link);
        error_text = "Margin failed at offset zero";
        restore(false);
        return false;
    }
    const bool plain = dwell_ms == kScanDwellMs || ((direction == Right || direction == Left) && !_operations->is_texl());
    const bool refined = plain ? _walk_back(direction, max_offset, dwell_ms, err_limit, offsets, control, mask, offset)
                               : _walk_back_and_forth(direction, max_offset, dwell_ms, err_limit, offsets, control,
                                                      mask, offset);
    if (_stopped()) {
        restore(true);
        error_text = kCancelled;
        return false;
    }
    if (!refined) {
        console_error("Margin failed for lane:" + std::to_string(_lane) + " of Link:" + _link + " as Link not in L0 state");
        error_text = "Margin Failed. Link not in L0 state.";
        restore(false);
        return false;
    }
    if (offsets.back().offset == max_offset) offsets.back().message = "Margin found at boundary";
    restore(true);
    return true;
}

Corvane4pthVLMargin::Corvane4pthVLMargin(std::vector<VEX_DIE_INFO> dies, const VEX_DIE_INFO& die,
                                         const std::string& link, const std::vector<unsigned int>& lanes)
    : _dies(std::move(dies)) {
    const auto store = get_register_store(die);
    const auto info = get_lane_generic_info(die);
    const auto phy = std::make_shared<PhyAccessor>(CRNFactory::instance()->get_crn_accessor(die));
    for (unsigned int lane : lanes) {
        lane_data data;
        data.link = link;
        data.lane = lane;
        data.commands = std::make_shared<CorvaneE32PCSCommands>(link, lane, store);
        data.lane_data_reader = std::make_shared<GetCorvaneE32LaneData>(link, lane, phy, info);
        data.operations = std::make_shared<CorvanehVLOperations>(_dies, die, link, store);
        CorvaneVersionCheck version(link, die, data.commands);
        _phy_version = version();
        _full_version = version.full_version();
        _lanes.push_back(std::move(data));
    }
}

void Corvane4pthVLMargin::set_back_to_trained_point(std::string& error_text) {
    for (lane_data& lane : _lanes) {
        lane.commands->do_rx_margin(0, 0, _field_a, _field_b, false, error_text);
        OSSpecific().milli_secs_sleep(10);
    }
}

bool Corvane4pthVLMargin::margin_at_offset(Direction direction, unsigned int offset, std::vector<OffsetData>& offsets,
                                           std::string& error_text) {
    int phase = 0, voltage = 0;
    phase_voltage(direction, offset, phase, voltage);
    for (lane_data& lane : _lanes) {
        if (lane.operations->check_link_state(lane.lane) < 1) {
            offsets.push_back({offset, 0, kNotL0});
            return false;
        }
        lane.commands->do_rx_margin(phase, voltage, _field_a, _field_b, true, error_text);
        lane.operations->deinit_error_regs(lane.control_backup, lane.mask_backup, 0);
        lane.operations->clear_errors_recovery_flag(0);
        lane.operations->init_error_regs(lane.control_backup, lane.mask_backup, 0);
    }
    offsets.push_back({offset, 0, ""});
    return true;
}

bool Corvane4pthVLMargin::check_err_count_per_offset(unsigned int err_limit, std::vector<OffsetData>& offsets) {
    CorvanehVLOperations& operations = *_lanes.front().operations;
    OffsetData& record = offsets.back();
    record.err_cnt = operations.get_error_count(0);
    if (operations.check_link_state(_lanes.front().lane) != 1) {
        record.message = kNotL0;
        return false;
    }
    if (record.err_cnt < err_limit && !operations.get_ber_exceeded_flag(0)) return true;
    record.message = kExceeded;
    return false;
}

bool Corvane4pthVLMargin::four_pt_margin(Direction direction, unsigned int dwell_ms, unsigned int err_limit,
                                         std::map<unsigned int, std::vector<OffsetData>>& offsets_by_lane,
                                         std::string& error_text, unsigned int start, unsigned int stop,
                                         unsigned int step) {
    if (step == 0) {
        error_text = "Four-point margin needs a step above 0";
        return false;
    }
    // The words found before the run are what the end restores.
    std::vector<std::pair<unsigned int, unsigned int>> found;
    for (lane_data& lane : _lanes) {
        const CorvaneE32LANEDATA data = (*lane.lane_data_reader)(_phy_version, _full_version);
        if (!data.active_cache_valid()) {
            error_text = "Active Cache not valid for Lane: " + std::to_string(lane.lane) + " of link: " + lane.link;
            return false;
        }
        lane.operations->init_error_regs(lane.control_backup, lane.mask_backup, 0);
        found.emplace_back(lane.control_backup, lane.mask_backup);
    }
    std::vector<OffsetData> offsets;
    bool failed = false;
    unsigned int offset = start;
    for (; offset <= stop; offset += step) {
        if (!margin_at_offset(direction, offset, offsets, error_text)) {
            failed = true;
            break;
        }
        OSSpecific().milli_secs_sleep(dwell_ms);
        if (!check_err_count_per_offset(err_limit, offsets)) {
            failed = true;
            break;
        }
    }
    for (const lane_data& lane : _lanes) offsets_by_lane[lane.lane] = offsets;
    std::string ignored;
    set_back_to_trained_point(ignored);
    for (size_t i = 0; i < _lanes.size(); ++i) {
        lane_data& lane = _lanes[i];
        if (offset == stop && !offsets_by_lane[lane.lane].empty())
            offsets_by_lane[lane.lane].back().message = "Margin found at boundary";
        lane.commands->do_rx_cdr(1, true, ignored);
        lane.operations->clear_errors_recovery_flag(0);
        lane.operations->deinit_error_regs(found[i].first, found[i].second, 0);
    }
    if (failed && error_text.empty()) error_text = offsets.empty() ? kNotL0 : offsets.back().message;
    return !failed;
}
