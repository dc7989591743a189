#include "gui/gui_pcie_handle_test.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "gui/test_archive.h"
#include "gui/test_lifecycle.h"
#include "gui/test_progress.h"
#include "gui/test_record_checks.h"
#include "hardware/atomic_file.h"
#include "hardware/file_logger.h"
#include "hardware/system_facts.h"
#include "margin_pcie/margin_console.h"
#include "margin_pcie/pcie_margin_multi_pass.h"
#include "result_data/data_handler.h"
#include "result_data/static_data.h"

using nlohmann::json;

namespace {


// The engine's inputs from a record; throws with a readable text when a part
// can't be read (the queue checks the same parts, so this is a second line).
PCIE::PCIEMarginMultiPass::InitParams read_init_params(const json& test) {
    PCIE::PCIEMarginMultiPass::InitParams params;
    const auto sbdf = parse_sbdf(test.at("PCIeInfo").at("SBDF").get<std::string>());
    if (!sbdf) throw std::runtime_error("\"SBDF\" is not of the form segment:bus:device.function");
    params.segment = sbdf->segment;
    params.bus = sbdf->bus;
    params.device = sbdf->device;
    params.function = sbdf->function;
    const json& test_params = test.at("TestParams");
    params.receiver = test_params.at("Receiver").get<unsigned int>();
    params.BER = static_cast<unsigned int>(std::stoul(test_params.at("BER").get<std::string>()));
    params.error_count = test_params.at("ErrCnt").get<unsigned int>();
    params.dwell_time = 0;  // the engine takes it from BER and error count
    std::string error;
    const auto lanes = parse_lanes(test_params.at("Lanes"), error);
    if (!lanes) throw std::runtime_error(error);
    params.lanes = *lanes;
    return params;
}

// Lanes of a report that gave no margin: the receiver refused the error
// threshold, or a side it margins holds no measurement at all (a lane outside
// the trained link never answers). Their zeros would read as measured
// margins, so such a test fails, naming them.
std::optional<std::string> unmargined_lanes(const json& report) {
    const json& first = report.at(0);
    const std::string warnings = first.value("WarningMsg", std::string());
    std::vector<const char*> sides = {"PhaseLeftErrorMap", "PhaseRightErrorMap"};
    if (first.value("VoltSupported", false)) sides.insert(sides.end(), {"VoltTopErrorMap", "VoltBottomErrorMap"});
    std::string named;
    for (const json& lane : report) {
        const std::string number = std::to_string(lane.value("LanePCIeNo", 0u));
        std::string causes;
        if (warnings.find("Failed set error threshold for lane: " + number + ".") != std::string::npos)
            causes = "error threshold not set";
        const bool unmeasured = std::any_of(sides.begin(), sides.end(), [&lane](const char* side) {
            const auto map = lane.find(side);
            return map == lane.end() || !map->is_array() || map->empty();
        });
        if (unmeasured) causes += std::string(causes.empty() ? "" : "; ") + "no offset measured";
        if (!causes.empty()) named += (named.empty() ? "lane " : ", lane ") + number + " (" + causes + ")";
    }
    if (named.empty()) return std::nullopt;
    return "Some lanes could not be margined: " + named;
}

}  // namespace

json pcie_margin_test_output(const json& report, const std::string& folder) {
    return complete_margin_output(report, folder);
}

json failed_test_output(const std::string& reason, const std::string& folder) {
    return unmeasured_test_output("Failed", reason, folder);
}

std::string pcie_margin_csv(const json& report) {
    std::ostringstream out;
    const json first = report.at(0);
    DataHandlerCreator::get_data_handler(PCIE_DATA_HANDLER, DUMP_MODE_PLAIN, false)->dump_header(first, out);
    for (const json& lane : report)
        DataHandlerCreator::get_data_handler(PCIE_DATA_HANDLER, DUMP_MODE_PLAIN, false)->dump_data(lane, first, out);
    return out.str();
}

json run_and_write_pcie_margin(const std::function<void(json&)>& margin, const std::string& folder) {
    json report = json::array();
    try {
        margin(report);
    } catch (const std::runtime_error& error) {
        return failed_test_output(error.what(), folder);
    } catch (...) {
        return failed_test_output("Unknown exception", folder);
    }
    write_result_file(folder, "raw_data.json", report.dump(4) + "\n");
    if (report.empty()) return failed_test_output("The margin engine reported no lanes", folder);
    const json& first = report.at(0);
    if (first.value("ErrorPresent", false)) return failed_test_output(first.value("ErrorMsg", std::string()), folder);
    if (const auto reason = unmargined_lanes(report)) return failed_test_output(*reason, folder);
    write_result_file(folder, "pcie_margin.csv", pcie_margin_csv(report));
    return pcie_margin_test_output(report, folder);
}

GUIPCIEHandleTest::GUIPCIEHandleTest(GUIResourceStore& store, json& test, TestStorage& storage,
                                     Scheduler& scheduler, PCIE::MarginStopFlag stop)
    : _store(store), _test(test), _storage(storage), _scheduler(scheduler), _stop(std::move(stop)) {}

void GUIPCIEHandleTest::start() {
    const unsigned long id = _test.at("TestID").get<unsigned long>();
    _stop = own_stop_flag(_storage, id, _stop);
    auto thread = std::make_shared<std::thread>(&GUIPCIEHandleTest::thread_fuction, *this);
    _scheduler.add_test(id, thread);
}

void GUIPCIEHandleTest::thread_fuction() {
    const unsigned long id = _test.at("TestID").get<unsigned long>();
    std::string folder;
    try {
        const PCIE::PCIEMarginMultiPass::InitParams params = read_init_params(_test);
        StaticDataUtility(_store.get_die_list()).update_static_data();
        PCIE::DumpPCIEMarginDataToConsole console(false);

        TestProgressReporter progress(_storage, id, system_facts().now());
        PCIE::MarginEngineAccess access;
        access.read = _store.get_read_accessor();
        access.write = _store.get_write_accessor();
        access.stop = _stop;
        access.progress = [&progress](const PCIE::MarginProgress& step) {
            progress.update(step, system_facts().now());
        };
        const PCIE::PCIEMarginMultiPass engine(_store.get_pcie_device_list(), _store.get_die_list(), params, console,
                                               access);
        folder = _scheduler.create_dir_and_give_path(id);

        _test["TestOutput"] = run_and_write_pcie_margin([&engine](json& report) { engine.margin(report, 1); }, folder);
    } catch (const std::exception& error) {
        _test["TestOutput"] = failed_test_output(error.what(), folder);
    }

    finish_test(_storage, _scheduler, _test, folder, "PCIe margin");
}

std::optional<std::string> PCIeMarginRunner::check_record(const json& test, GUIResourceStore& store) const {
    return check_pcie_margin_record(test, store);
}

void PCIeMarginRunner::start(const json& test, GUIResourceStore& store, TestStorage& storage,
                             Scheduler& scheduler) const {
    json record = test;
    GUIPCIEHandleTest(store, record, storage, scheduler, _stop).start();
}
