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

void HVLMarginHandler::margin(DumpHVLMarginDataToConsole& console, json& results) {
    full_margin_using_walk_back(console, results);
}

void HVLMarginHandler::full_margin_using_walk_back(DumpHVLMarginDataToConsole& console, json& results) {
    const InputParam& p = _params;
    const auto accessor = CRNFactory::instance()->get_crn_accessor(p.die);
    const auto phy = std::make_shared<PhyAccessor>(accessor);
    const auto lanes_info = get_lane_generic_info(p.die);
    const auto store = get_register_store(p.die);
    const unsigned int err_cnt = p.err_cnt > 0 ? static_cast<unsigned int>(p.err_cnt) : kDefaultErrCnt;
    const unsigned int ber = p.dwell_time > 0 ? 0u : p.ber > 0 ? static_cast<unsigned int>(p.ber) : kDefaultBer;
    const bool texl = p.link == "P5" || p.link == "TEXLPCS";
    const unsigned int directions = texl ? 2 : 4;
    bool partner_warned = false;
    HvlMarginProgress progress;
    progress.lanes_total = static_cast<unsigned int>(p.lanes.size());
    progress.sides_total = progress.lanes_total * directions;

    for (unsigned int lane : p.lanes) {
        progress.lane = lane;
        auto commands = std::make_shared<CorvaneE32PCSCommands>(p.link, lane, store);
        if (p.stop) commands->set_abandon_check(p.stop);
        auto version = std::make_shared<CorvaneVersionCheck>(p.link, p.die, commands);
        auto lane_data = std::make_shared<GetCorvaneE32LaneData>(p.link, lane, phy, lanes_info);
        auto operations = std::make_shared<CorvanehVLOperations>(p.all_dies, p.die, p.link, store);
        commands->setup_bmask();

        json object = {{"ErrorPresent", false}, {"TimeStamp", time_stamp()}, {"Topology", "Not Available"},
                       {"MarginType", "std-fm"}};
        auto fail_lane = [&](const std::string& reason) {
            object["ErrorPresent"] = true;
            object["ErrorMsg"] = reason;
            object["LaneID"] = lane;
            results.push_back(object);
            console.dump_err_or_warning("Failed. Error Message: " + reason);
        };

        double rate = 0;
        if (lanes_info->which_protocol(p.link) == chips::kProtocolHVL) rate = get_hvl_data_rate(p.die, p.link, lane);
        else if (texl) rate = 16;
        else {
            std::cerr << "Error: Unknown link: " << p.link << std::endl;
            fail_lane("Error: Unknown link: " + p.link);
            return;
        }
        const unsigned int dwell = p.dwell_time > 0 ? static_cast<unsigned int>(p.dwell_time)
                                                    : dwell_ms(static_cast<int>(ber), static_cast<int>(err_cnt), rate);

        MarginParams params;
        params.ber = ber;
        params.err_cnt = err_cnt;
        params.dwell = dwell;
        params.link = p.link;
        params.data_rate = static_cast<float>(rate);
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
        params.phy_name = lanes_info->get_phy_name(p.link);

        try {
            params.phy_fw_version = version->full_version();
            MarginCapabilities caps;
            std::string error;
            for (unsigned int index = 0; index < 5; ++index) {
                commands->do_txrx_cap(index, error);
                caps.values[index] = commands->read_response();
            }
            if (p.max_timing_steps != -1) caps.values[1] = static_cast<unsigned int>(p.max_timing_steps);
            if (p.max_volt_steps != -1) caps.values[3] = static_cast<unsigned int>(p.max_volt_steps);
            if (caps.values[1] == 0 || caps.values[3] == 0) {
                fail_lane("The PHY of lane " + std::to_string(lane) + " reports no margin steps");
                return;
            }
            const RxEq rx = CorvaneEQData(p.link, p.die).get_rx_eq(lane);
            TxEq tx;
            if (!remote_tx_eq(p, lane, tx)) {
                tx = TxEq{};
                if (!texl && !partner_warned) {
                    console.dump_err_or_warning("Error. Unable to find partner hvl link");
                    partner_warned = true;
                }
            }
            DumpHVLMarginDataToJSON dump;
            dump.dump_margin_capabilities(object, lane, caps);
            dump.dump_margin_params(object, lane, params);
            dump.dump_remote_tx_eq(object, lane, tx);
            dump.dump_rx_eq(object, lane, rx);
            console(DumpHVLMarginDataToConsole::Input, object, lane, texl, true, std::cout);
            console(DumpHVLMarginDataToConsole::Capabilities, object, lane, texl, true, std::cout);

            CorvanehVLMargin engine(p.link, lane, store, version, commands, lane_data, lanes_info, operations);
            if (p.stop) engine.set_stop_check(p.stop);
            if (!commands->enable_override()) {
                commands->disable_override();
                fail_lane(p.stop && p.stop() ? "Override grant never came for lane " + std::to_string(lane) +
                                                   " of link " + p.link
                                             : "Override not granted for lane " + std::to_string(lane));
                return;
            }

            std::vector<CorvanehVLMargin::Direction> order = {CorvanehVLMargin::Top, CorvanehVLMargin::Bottom};
            if (!texl) order.insert(order.end(), {CorvanehVLMargin::Left, CorvanehVLMargin::Right});
            std::map<CorvanehVLMargin::Direction, std::vector<OffsetData>> found;
            for (CorvanehVLMargin::Direction direction : order) {
                progress.direction = direction_name(direction);
                if (p.progress) p.progress(progress);
                console(DumpHVLMarginDataToConsole::Results, object, lane, texl, false, std::cout);
                const bool timing = direction == CorvanehVLMargin::Left || direction == CorvanehVLMargin::Right;
                std::vector<OffsetData> offsets;
                std::string text;
                if (!engine.margin(direction, timing ? caps.values[1] : caps.values[3], dwell, err_cnt, offsets, text)) {
                    commands->disable_override();
                    fail_lane(text);
                    return;
                }
                found[direction] = std::move(offsets);
                ++progress.sides_done;
            }

            MarginData data;
            auto fill = [&](CorvanehVLMargin::Direction d, unsigned int& offset, float& margin, MarginData::ErrorMap& map,
                            std::pair<unsigned int, unsigned int>& last, unsigned int max_cap, unsigned int steps) {
                const auto& records = found[d];
                if (records.empty()) return;
                offset = records.back().offset;
                margin = static_cast<float>(offset) * static_cast<float>(max_cap) / (static_cast<float>(steps) * 100.0f);
                for (const OffsetData& r : records) map[r.offset] = {r.err_cnt, r.message};
                last = {records.back().offset, records.back().err_cnt};
            };
            fill(CorvanehVLMargin::Top, data.top_offset, data.top_margin, data.top_map, data.top_last, caps.values[4],
                 caps.values[3]);
            fill(CorvanehVLMargin::Bottom, data.bottom_offset, data.bottom_margin, data.bottom_map, data.bottom_last,
                 caps.values[4], caps.values[3]);
            if (!texl) {
                fill(CorvanehVLMargin::Left, data.left_offset, data.left_margin, data.left_map, data.left_last,
                     caps.values[2], caps.values[1]);
                fill(CorvanehVLMargin::Right, data.right_offset, data.right_margin, data.right_map, data.right_last,
                     caps.values[2], caps.values[1]);
            }
            dump.dump_margin_data(object, lane, data, texl);
            const double ui_ps = rate > 0 ? 1000.0 / rate : 0;
            object["Margins"] = {{"UIps", ui_ps},
                                 {"LeftPs", data.left_margin * ui_ps},
                                 {"RightPs", data.right_margin * ui_ps},
                                 {"TopMV", data.top_margin * 1000.0},
                                 {"BottomMV", data.bottom_margin * 1000.0}};
            console(DumpHVLMarginDataToConsole::Results, object, lane, texl, true, std::cout);
            results.push_back(object);
            commands->disable_override();
        } catch (const std::runtime_error& error) {
            // The firmware's version check throws; the lane fails with its text
            // and the job thread ends normally.
            commands->disable_override();
            fail_lane(error.what());
            return;
        }
        ++progress.lanes_done;
        if (p.progress) p.progress(progress);
    }
}
