#include "gui/gui_hvl_handle_test.h"

#include <algorithm>
#include <set>
#include <sstream>
#include <thread>

#include "discovery/hvl_links.h"
#include "gui/gui_pcie_handle_test.h"
#include "gui/test_archive.h"
#include "gui/test_lifecycle.h"
#include "gui/test_progress.h"
#include "gui/test_record_checks.h"
#include "hardware/atomic_file.h"
#include "hardware/file_logger.h"
#include "hardware/system_facts.h"
#include "margin_hvl/corvane_hvl_margin.h"
#include "margin_hvl/hvl_link_operations.h"
#include "margin_hvl/hvl_margin_handler.h"
#include "result_data/data_handler.h"
#include "result_data/static_data.h"

using nlohmann::json;

namespace {

constexpr unsigned int kMinBer = 8, kMaxBer = 14, kMinErrCnt = 1, kMaxErrCnt = 63;

std::optional<VEX_DIE_INFO> find_die(const std::vector<VEX_DIE_INFO>& dies, const std::string& name) {
    std::optional<VEX_DIE_INFO> found;
    for (const VEX_DIE_INFO& die : dies)
        if (die.full_name() == name) found = die;  // the last match wins
    return found;
}

bool is_texl(const std::string& link) { return link == "P5" || link == "TEXLPCS"; }

}  // namespace

std::optional<std::string> check_hvl_margin_record(const json& test, GUIResourceStore& store) {
    if (auto problem = check_hvl_record(test, store)) return problem;
    const json& params = test.at("TestParams");
    const unsigned long ber = std::stoul(params.at("BER").get<std::string>());
    if (ber < kMinBer || ber > kMaxBer) return "\"TestParams\".\"BER\" must be one of 8..14";
    const unsigned long errors = params.at("ErrCnt").get<unsigned long>();
    if (errors < kMinErrCnt || errors > kMaxErrCnt) return "\"TestParams\".\"ErrCnt\" must be 1..63";
    std::string error;
    const auto lanes = parse_lanes(params.at("Lanes"), error);
    if (lanes->empty()) return "\"TestParams\".\"Lanes\" is empty";
    const std::string name = test.at("HVLCtrlInfo").at("DeviceName").get<std::string>();
    const std::string link = test.at("HVLCtrlInfo").at("SERDES").get<std::string>();
    const auto die = find_die(store.get_die_list(), name);
    const unsigned int count = get_lane_generic_info(*die)->get_no_of_lanes(link);
    std::set<unsigned int> seen;
    for (unsigned int lane : *lanes) {
        if (lane >= count) return "Lane " + std::to_string(lane) + " is not a lane of link " + link;
        if (!seen.insert(lane).second) return "Lane " + std::to_string(lane) + " is repeated";
    }
    bool live = false;
    for (const auto& status : CorvaneHVLLinkStatus(*die)()) live = live || status.link == link;
    if (!live) return "No hVL link " + link + " runs on " + name;
    return std::nullopt;
}

std::string hvl_margin_csv(const json& report) {
    std::ostringstream out;
    const bool texl = !report.empty() && is_texl(report.at(0).value("Link", ""));
    auto handler = DataHandlerCreator::get_data_handler(HVL_DATA_HANDLER, DUMP_MODE_PLAIN, texl);
    handler->dump_header(out);
    for (const json& lane : report) handler->dump_data(lane, lane, out);
    return out.str();
}

json hvl_margin_test_output(const json& report, const std::vector<unsigned int>& lanes, const std::string& folder) {
    std::string failure;
    for (const json& lane : report)
        if (lane.value("ErrorPresent", false) && failure.empty())
            failure = "Lane " + lane.value("LaneID", json()).dump() + ": " + lane.value("ErrorMsg", std::string());
    if (failure.empty() && report.size() < lanes.size())
        failure = "The margin reported " + std::to_string(report.size()) + " of " + std::to_string(lanes.size()) +
                  " lanes";
    if (!failure.empty()) {
        json output = failed_test_output(failure, folder);
        if (!report.empty()) output["FullMarginData"] = report;
        return output;
    }
    return complete_margin_output(report, folder);
}

json estimate_hvl_margin(const json& test, GUIResourceStore& store) {
    if (auto problem = check_hvl_margin_record(test, store)) return {{"OperationStatus", false}, {"ErrMsg", *problem}};
    const json& params = test.at("TestParams");
    std::string error;
    const auto lanes = parse_lanes(params.at("Lanes"), error);
    const auto die = find_die(store.get_die_list(), test.at("HVLCtrlInfo").at("DeviceName").get<std::string>());
    const std::string link = test.at("HVLCtrlInfo").at("SERDES").get<std::string>();
    double rate = 32;
    try {
        rate = get_hvl_data_rate(*die, link, 0);
    } catch (const std::runtime_error&) {
    }
    const unsigned int dwell = HVLMarginHandler::dwell_ms(std::stoi(params.at("BER").get<std::string>()),
                                                          params.at("ErrCnt").get<int>(), rate);
    // Eyes of live links lie about halfway out: the estimate takes 16 steps.
    const double seconds = HVLMarginHandler::nominal_seconds(static_cast<unsigned int>(lanes->size()),
                                                             is_texl(link) ? 2 : 4, dwell, 16);
    return {{"OperationStatus", true},
            {"Seconds", std::round(seconds)},
            {"DwellSeconds", dwell / 1000.0},
            {"Batches", 1},
            {"Lanes", lanes->size()}};
}

GUIHVLHandleTest::GUIHVLHandleTest(json& test, TestStorage& storage, Scheduler& scheduler,
                                   std::vector<VEX_DIE_INFO> dies, PCIE::MarginStopFlag stop)
    : _test(test), _storage(storage), _scheduler(scheduler), _dies(std::move(dies)), _stop(std::move(stop)) {}

void GUIHVLHandleTest::start() {
    const unsigned long id = _test.at("TestID").get<unsigned long>();
    _stop = own_stop_flag(_storage, id, _stop);
    auto thread = std::make_shared<std::thread>(&GUIHVLHandleTest::thread_fuction, *this);
    _scheduler.add_test(id, thread);
}

void GUIHVLHandleTest::thread_fuction() {
    const unsigned long id = _test.at("TestID").get<unsigned long>();
    std::string folder;
    try {
        const std::string name = _test.at("HVLCtrlInfo").at("DeviceName").get<std::string>();
        const auto die = find_die(_dies, name);
        if (!die) throw std::runtime_error("Error: GUIHVLHandleTest::thread_fuction unable to detect die");
        const json& test_params = _test.at("TestParams");
        std::string error;
        const auto lanes = parse_lanes(test_params.at("Lanes"), error);
        if (!lanes) throw std::runtime_error(error);

        HVLMarginHandler::InputParam params;
        params.die = *die;
        params.link = _test.at("HVLCtrlInfo").at("SERDES").get<std::string>();
        params.lanes = *lanes;
        params.ber = std::stoi(test_params.at("BER").get<std::string>());
        params.dwell_time = 0;
        params.err_cnt = test_params.at("ErrCnt").get<int>();
        params.partner_finder = get_hvl_partner_finder(*die, _dies);
        params.all_dies = _dies;
        const PCIE::MarginStopFlag stop = _stop;
        params.stop = [stop] { return stop.stop_requested(); };
        TestProgressReporter progress(_storage, id, system_facts().now());
        params.progress = [&progress](const HvlMarginProgress& step) {
            PCIE::MarginProgress state;
            state.lanes_done = step.lanes_done;
            state.lanes_total = step.lanes_total;
            state.sides_done = step.sides_done;
            state.sides_total = step.sides_total;
            state.direction = step.direction;
            state.lane = step.lane;
            progress.update(state, system_facts().now());
        };

        StaticDataUtility(_dies).update_static_data();
        DumpHVLMarginDataToConsole console;
        HVLMarginHandler handler(params);
        if (!disable_power_states_for_hvl(*die, error)) throw std::runtime_error(error);
        E32DisableODT(*die, "");
        folder = _scheduler.create_dir_and_give_path(id);

        json report = json::array();
        handler.margin(console, report);
        write_result_file(folder, "raw_data.json", report.dump(4) + "\n");
        if (!report.empty()) write_result_file(folder, "hvl_margin.csv", hvl_margin_csv(report));
        _test["TestOutput"] = hvl_margin_test_output(report, *lanes, folder);
        // A stopped margin is archived as stopped (by the cancel or the
        // shutdown), never as complete.
        if (_stop.stop_requested() && _test["TestOutput"]["Status"] == "Failed" &&
            _test["TestOutput"].value("FailureReason", "").find(CorvanehVLMargin::kCancelled) != std::string::npos)
            _test["TestOutput"]["FailureReason"] = _stop.stop_reason();
    } catch (const std::exception& error) {
        _test["TestOutput"] = failed_test_output(error.what(), folder);
    } catch (...) {
        _test["TestOutput"] = failed_test_output("Unknown exception", folder);
    }

    finish_test(_storage, _scheduler, _test, folder, "hVL margin");
}

std::optional<std::string> HVLMarginRunner::check_record(const json& test, GUIResourceStore& store) const {
    try {
        return check_hvl_margin_record(test, store);
    } catch (const std::exception& error) {
        return std::string("the record can't be read: ") + error.what();
    }
}

void HVLMarginRunner::start(const json& test, GUIResourceStore& store, TestStorage& storage,
                            Scheduler& scheduler) const {
    json record = test;
    GUIHVLHandleTest(record, storage, scheduler, store.get_die_list(), _stop).start();
}
