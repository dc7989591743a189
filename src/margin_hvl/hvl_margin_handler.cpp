#include "margin_hvl/hvl_margin_handler.h"

#include <iostream>
#include <sstream>

#include "discovery/e32_phy.h"
#include "discovery/read_fuse.h"
#include "hardware/chips/lane_layout.h"
#include "hardware/crn_factory.h"
#include "hardware/os_specific.h"
#include "hardware/register_storage.h"
#include "hardware/time_format.h"
#include "margin_hvl/corvane_hvl_margin.h"
#include "margin_pcie/margin_pcie_utils.h"

using nlohmann::json;

namespace {

constexpr int kDefaultBer = 9, kDefaultErrCnt = 5;

const char* direction_name(CorvanehVLMargin::Direction d) {
    switch (d) {
    case CorvanehVLMargin::Right: return "Right";
    case CorvanehVLMargin::Left: return "Left";
    case CorvanehVLMargin::Top: return "Top";
    default: return "Bottom";
    }
}

// The partner end's transmitter for `lane`, when the partner can be found.
bool remote_tx_eq(const HVLMarginHandler::InputParam& p, unsigned int lane, TxEq& tx) {
    if (!p.partner_finder) return false;
    try {
        const auto found = find_hvl_partner_end(p.die, p.link, p.all_dies);
        if (!found) return false;
        const HVLLinkInfo partner = (*p.partner_finder)(HVLLinkInfo{p.die, p.link, found->link});
        for (const VEX_DIE_INFO& die : p.all_dies) {
            if (die.full_name() != partner.die.full_name()) continue;
            const unsigned int status = get_register_store(die)->get_link_register("PCS_HVL3X16_PCS_STATUS1", partner.link)->read();
            const unsigned int partner_lane = (status >> chips::kHvlLaneReversedBit) & 1 ? 15 - lane : lane;
            tx = get_eq_data(partner.link, die)->get_tx_eq_local(partner_lane);
            return tx.valid != 0;
        }
    } catch (const std::runtime_error&) {
    }
    return false;
}

}  // namespace

std::optional<HVLLinkInfo> find_hvl_partner_end(const VEX_DIE_INFO& die, const std::string& link,
                                                const std::vector<VEX_DIE_INFO>& dies) {
    try {
        const auto generator = get_hvl_info_list_generator(die, dies);
        (*generator)();
        for (const auto& [end, other] : generator->get_pairs())
            if (end.die.full_name() == die.full_name() && end.link == link) return other;
    } catch (const std::runtime_error&) {
    }
    return std::nullopt;
}

unsigned int HVLMarginHandler::dwell_ms(int ber, int err_cnt, double rate_gbps) {
    const unsigned int errors = err_cnt > 0 ? static_cast<unsigned int>(err_cnt) : kDefaultErrCnt;
    const unsigned int exponent = ber > 0 ? static_cast<unsigned int>(ber) : kDefaultBer;
    return static_cast<unsigned int>(1000 * PCIE::ComputeDwellTime()(errors, exponent, rate_gbps * 1e9));
}

double HVLMarginHandler::nominal_seconds(unsigned int lanes, unsigned int directions, unsigned int dwell,
                                         unsigned int edge) {
    // Scan: offsets 0 .. edge + 1 at 50 ms; walk-back: edge + 1 and edge at full dwell.
    const double per_side = (edge + 2) * 0.05 + 2 * dwell / 1000.0;
    return lanes * directions * per_side;
}

void HVLMarginHandler::margin(DumpHVLMarginDataToConsole& console, json& results, bool four_pt) {
    if (four_pt) four_pt_margin(console, results);
    else full_margin_using_walk_back(console, results);
}

namespace {

const char* const kDirectionNames[] = {"Right", "Left", "Top", "Bottom"};

// Margin in UI or volts of `offset` steps: the capability's unit is a
// hundredth, and the step count may have been overridden on purpose.
float margin_of(unsigned int offset, unsigned int max_cap, unsigned int steps) {
    return static_cast<float>(offset) * static_cast<float>(max_cap) / (static_cast<float>(steps) * 100.0f);
}

void fill_margin_data(MarginData& data, CorvanehVLMargin::Direction d, const std::vector<OffsetData>& records,
                      const OffsetData& last, const MarginCapabilities& caps) {
    // Voltage sides scale by the voltage capabilities, timing sides by the timing ones.
    const bool volt = d == CorvanehVLMargin::Top || d == CorvanehVLMargin::Bottom;
    unsigned int* offset;
    float* margin;
    std::pair<unsigned int, unsigned int>* last_of;
    MarginData::ErrorMap* map;
    switch (d) {
    case CorvanehVLMargin::Top:
        offset = &data.top_offset, margin = &data.top_margin, last_of = &data.top_last, map = &data.top_map;
        break;
    case CorvanehVLMargin::Bottom:
        offset = &data.bottom_offset, margin = &data.bottom_margin, last_of = &data.bottom_last, map = &data.bottom_map;
        break;
    case CorvanehVLMargin::Left:
        offset = &data.left_offset, margin = &data.left_margin, last_of = &data.left_last, map = &data.left_map;
        break;
    default:
        offset = &data.right_offset, margin = &data.right_margin, last_of = &data.right_last, map = &data.right_map;
        break;
    }
    *offset = last.offset;
    *margin = volt ? margin_of(last.offset, caps.values[4], caps.values[3])
                   : margin_of(last.offset, caps.values[2], caps.values[1]);
    *last_of = {last.offset, last.err_cnt};
    for (const OffsetData& r : records) (*map)[r.offset] = {r.err_cnt, r.message};
}

void add_margins(json& object, const MarginData& data, double rate) {
    const double ui_ps = rate > 0 ? 1000.0 / rate : 0;
    object["Margins"] = {{"UIps", ui_ps},
                         {"LeftPs", data.left_margin * ui_ps},
                         {"RightPs", data.right_margin * ui_ps},
                         {"TopMV", data.top_margin * 1000.0},
                         {"BottomMV", data.bottom_margin * 1000.0}};
}

}  // namespace

bool HVLMarginHandler::_prepare_lane(unsigned int lane, const char* margin_type, PreparedLane& out,
                                     DumpHVLMarginDataToConsole& console, json& results, bool& partner_warned) {
    const InputParam& p = _params;
    out.lane = lane;
    out.texl = p.link == "P5" || p.link == "TEXLPCS";
    out.commands = std::make_shared<CorvaneE32PCSCommands>(p.link, lane, _store);
    if (p.stop) out.commands->set_abandon_check(p.stop);
    out.version = std::make_shared<CorvaneVersionCheck>(p.link, p.die, out.commands);
    out.lane_data = std::make_shared<GetCorvaneE32LaneData>(p.link, lane, _phy, _lanes_info);
    out.operations = std::make_shared<CorvanehVLOperations>(p.all_dies, p.die, p.link, _store);
    out.commands->setup_bmask();
    out.object = {{"ErrorPresent", false}, {"TimeStamp", time_stamp()}, {"Topology", "Not Available"},
                  {"MarginType", margin_type}};

    const unsigned int err_cnt = p.err_cnt > 0 ? static_cast<unsigned int>(p.err_cnt) : kDefaultErrCnt;
    const unsigned int ber = p.dwell_time > 0 ? 0u : p.ber > 0 ? static_cast<unsigned int>(p.ber) : kDefaultBer;
    if (_lanes_info->which_protocol(p.link) == chips::kProtocolHVL) out.rate = get_hvl_data_rate(p.die, p.link, lane);
    else if (out.texl) out.rate = 16;
    else {
        std::cerr << "Error: Unknown link: " << p.link << std::endl;
        fail_lane(out, "Error: Unknown link: " + p.link, console, results);
        return false;
    }
    out.dwell = p.dwell_time > 0 ? static_cast<unsigned int>(p.dwell_time)
                                 : dwell_ms(static_cast<int>(ber), static_cast<int>(err_cnt), out.rate);
    out.err_cnt = err_cnt;

    MarginParams params;
    params.ber = ber;
    params.err_cnt = err_cnt;
    params.dwell = out.dwell;
    params.link = p.link;
    params.data_rate = static_cast<float>(out.rate);
    params.socket = p.die.socket();
    params.die = p.die.die();
    params.device_name = p.die.full_name();
    params.asic_id = "Not Available";
    if (ReadFuse::supports_asic_id_extraction(p.die)) {
        std::ostringstream id;
        id << "0x" << std::hex << ReadFuse::get_asic_id(p.die);
        params.asic_id = id.str();
    }
    params.bios_version = OSSpecific().get_bios_version();
    params.phy_name = _lanes_info->get_phy_name(p.link);
    params.phy_fw_version = out.version->full_version();
    std::string error;
    for (unsigned int index = 0; index < 5; ++index) {
        out.commands->do_txrx_cap(index, error);
        out.caps.values[index] = out.commands->read_response();
    }
    if (p.max_timing_steps != -1) out.caps.values[1] = static_cast<unsigned int>(p.max_timing_steps);
    if (p.max_volt_steps != -1) out.caps.values[3] = static_cast<unsigned int>(p.max_volt_steps);
    if (out.caps.values[1] == 0 || out.caps.values[3] == 0) {
        fail_lane(out, "The PHY of lane " + std::to_string(lane) + " reports no margin steps", console, results);
        return false;
    }
    const RxEq rx = CorvaneEQData(p.link, p.die).get_rx_eq(lane);
    TxEq tx;
    if (!remote_tx_eq(p, lane, tx)) {
        tx = TxEq{};
        if (!out.texl && !partner_warned) {
            console.dump_err_or_warning("Error. Unable to find partner hvl link");
            partner_warned = true;
        }
    }
    DumpHVLMarginDataToJSON dump;
    dump.dump_margin_capabilities(out.object, lane, out.caps);
    dump.dump_margin_params(out.object, lane, params);
    dump.dump_remote_tx_eq(out.object, lane, tx);
    dump.dump_rx_eq(out.object, lane, rx);
    console(DumpHVLMarginDataToConsole::Input, out.object, lane, out.texl, true, std::cout);
    console(DumpHVLMarginDataToConsole::Capabilities, out.object, lane, out.texl, true, std::cout);
    return true;
}

void HVLMarginHandler::fail_lane(PreparedLane& lane, const std::string& reason, DumpHVLMarginDataToConsole& console,
                                 json& results) {
    lane.object["ErrorPresent"] = true;
    lane.object["ErrorMsg"] = reason;
    lane.object["LaneID"] = lane.lane;
    results.push_back(lane.object);
    console.dump_err_or_warning("Failed. Error Message: " + reason);
}

void HVLMarginHandler::_open() {
    const auto accessor = CRNFactory::instance()->get_crn_accessor(_params.die);
    _phy = std::make_shared<PhyAccessor>(accessor);
    _lanes_info = get_lane_generic_info(_params.die);
    _store = get_register_store(_params.die);
}

void HVLMarginHandler::full_margin_using_walk_back(DumpHVLMarginDataToConsole& console, json& results) {
    const InputParam& p = _params;
    _open();
    bool partner_warned = false;
    HvlMarginProgress progress;
    progress.lanes_total = static_cast<unsigned int>(p.lanes.size());
    const bool texl = p.link == "P5" || p.link == "TEXLPCS";
    progress.sides_total = progress.lanes_total * (texl ? 2 : 4);

    for (unsigned int lane : p.lanes) {
        progress.lane = lane;
        PreparedLane prepared;
        try {
            if (!_prepare_lane(lane, "std-fm", prepared, console, results, partner_warned)) return;
            CorvanehVLMargin engine(p.link, lane, _store, prepared.version, prepared.commands, prepared.lane_data,
                                    _lanes_info, prepared.operations);
            if (p.stop) engine.set_stop_check(p.stop);
            if (!prepared.commands->enable_override()) {
                prepared.commands->disable_override();
                fail_lane(prepared,
                          p.stop && p.stop() ? "Override grant never came for lane " + std::to_string(lane) +
                                                   " of link " + p.link
                                             : "Override not granted for lane " + std::to_string(lane),
                          console, results);
                return;
            }
            std::vector<CorvanehVLMargin::Direction> order = {CorvanehVLMargin::Top, CorvanehVLMargin::Bottom};
            if (!prepared.texl) order.insert(order.end(), {CorvanehVLMargin::Left, CorvanehVLMargin::Right});
            MarginData data;
            for (CorvanehVLMargin::Direction direction : order) {
                progress.direction = kDirectionNames[direction];
                if (p.progress) p.progress(progress);
                console(DumpHVLMarginDataToConsole::Results, prepared.object, lane, prepared.texl, false, std::cout);
                const bool timing = direction == CorvanehVLMargin::Left || direction == CorvanehVLMargin::Right;
                std::vector<OffsetData> offsets;
                std::string text;
                if (!engine.margin(direction, timing ? prepared.caps.values[1] : prepared.caps.values[3],
                                   prepared.dwell, prepared.err_cnt, offsets, text)) {
                    prepared.commands->disable_override();
                    fail_lane(prepared, text, console, results);
                    return;
                }
                fill_margin_data(data, direction, offsets, offsets.back(), prepared.caps);
                ++progress.sides_done;
            }
            DumpHVLMarginDataToJSON().dump_margin_data(prepared.object, lane, data, prepared.texl);
            add_margins(prepared.object, data, prepared.rate);
            console(DumpHVLMarginDataToConsole::Results, prepared.object, lane, prepared.texl, true, std::cout);
            results.push_back(prepared.object);
            prepared.commands->disable_override();
        } catch (const std::runtime_error& error) {
            // The firmware's version check throws; the lane fails with its text
            // and the job thread ends normally.
            if (prepared.commands) prepared.commands->disable_override();
            prepared.lane = lane;
            fail_lane(prepared, error.what(), console, results);
            return;
        }
        ++progress.lanes_done;
        if (p.progress) p.progress(progress);
    }
}

void HVLMarginHandler::four_pt_margin(DumpHVLMarginDataToConsole& console, json& results) {
    const InputParam& p = _params;
    _open();
    bool partner_warned = false;
    std::vector<PreparedLane> prepared(p.lanes.size());
    try {
        for (size_t i = 0; i < p.lanes.size(); ++i)
            if (!_prepare_lane(p.lanes[i], "std-4pt", prepared[i], console, results, partner_warned)) return;
        // The engine's version checks release the override, so it is built
        // before the lanes take theirs.
        Corvane4pthVLMargin engine(p.all_dies, p.die, p.link, p.lanes);
        for (size_t i = 0; i < p.lanes.size(); ++i) {
            if (!prepared[i].commands->enable_override()) {
                for (size_t j = 0; j <= i; ++j) prepared[j].commands->disable_override();
                fail_lane(prepared[i], "Override grant never came for lane " + std::to_string(p.lanes[i]) +
                                           " of link " + p.link, console, results);
                return;
            }
        }
        const bool texl = !prepared.empty() && prepared.front().texl;
        std::vector<std::pair<CorvanehVLMargin::Direction, Range>> order = {{CorvanehVLMargin::Top, p.top},
                                                                            {CorvanehVLMargin::Bottom, p.bottom}};
        if (!texl) order.insert(order.end(), {{CorvanehVLMargin::Left, p.left}, {CorvanehVLMargin::Right, p.right}});
        std::map<unsigned int, std::map<CorvanehVLMargin::Direction, std::vector<OffsetData>>> found;
        for (const auto& [direction, range] : order) {
            std::map<unsigned int, std::vector<OffsetData>> by_lane;
            std::string text;
            const bool ok = range.start >= 0 && range.stop >= 0 && range.step > 0 &&
                            engine.four_pt_margin(direction, prepared.front().dwell, prepared.front().err_cnt, by_lane,
                                                  text, static_cast<unsigned int>(range.start),
                                                  static_cast<unsigned int>(range.stop),
                                                  static_cast<unsigned int>(range.step));
            if (!ok && range.step <= 0) text = "Four-point margin needs a step above 0";
            if (!ok && text != "Error count exceeded threshold") {
                for (PreparedLane& lane : prepared) {
                    lane.commands->disable_override();
                    fail_lane(lane, text, console, results);
                }
                return;
            }
            for (auto& [lane, records] : by_lane) found[lane][direction] = std::move(records);
        }
        for (PreparedLane& lane : prepared) {
            MarginData data;
            for (const auto& [direction, records] : found[lane.lane]) {
                if (records.empty()) continue;
                // The last passing offset: the one before a failing last record.
                const OffsetData& last = records.back().err_cnt > lane.err_cnt && records.size() > 1
                                             ? records[records.size() - 2]
                                             : records.back();
                fill_margin_data(data, direction, records, last, lane.caps);
            }
            DumpHVLMarginDataToJSON().dump_margin_data(lane.object, lane.lane, data, lane.texl);
            add_margins(lane.object, data, lane.rate);
            results.push_back(lane.object);
            console(DumpHVLMarginDataToConsole::Results, lane.object, lane.lane, lane.texl, true, std::cout);
            lane.commands->disable_override();
        }
    } catch (const std::runtime_error& error) {
        for (PreparedLane& lane : prepared)
            if (lane.commands) lane.commands->disable_override();
        PreparedLane failed;
        failed.lane = p.lanes.empty() ? 0 : p.lanes.front();
        fail_lane(failed, error.what(), console, results);
    }
}
