#include "service/web_back_end.h"

#include <charconv>
#include <chrono>
#include <fstream>
#include <iostream>
#include <sstream>

#include "gui/gui_eye_scan_handle_test.h"
#include "gui/gui_hvl_get_device.h"
#include "gui/gui_hvl_handle_test.h"
#include "gui/gui_pcie_get_device.h"
#include "gui/pcie_margin_estimate.h"
#include "gui/test_archive.h"
#include "discovery/ltssm_state.h"
#include "gui/test_record_checks.h"
#include "discovery/port_mapping.h"
#include "hardware/crn_factory.h"
#include "hardware/file_logger.h"
#include "hardware/os_specific.h"
#include "hardware/json_limits.h"
#include "hardware/resource_lock.h"
#include "result_data/eye_grade.h"
#include "service/archive_index.h"
#include "service/archive_workers.h"
#include "service/eye_scan_results.h"
#include "panels/pci_viewer.h"
#include "service/result_archive.h"
#include "service/result_samples.h"
#include "service/service_loop.h"
#include "service/wire_server.h"

using nlohmann::json;
using PortHall::HttpMethod;
using PortHall::RouteEffect;
using PortHall::WireRequest;
using PortHall::WireResponse;

namespace {

// Archive queries: two threads (one per core of a small lab machine), up to
// sixteen waiting, and none waiting longer than the web server lets a
// request go unanswered (60 s) with a margin for its own work.
constexpr std::size_t kArchiveThreads = 2;
constexpr std::size_t kArchiveQueue = 16;
constexpr std::chrono::milliseconds kArchiveMaxWait{30000};
// A summary page holds at most this many results.
constexpr std::size_t kSummaryLimitMax = 1000;

// Calls on the performance counter panel are serialised across all workers.
constexpr const char* kPerfPanelLock = "PERF_GUI_TAB";

const char* yes_no(bool value) { return value ? "yes" : "no"; }

int index_of(const json& body) { return body.at("index").get<int>(); }
bool bool_of(const json& body, const char* key) { return body.at(key).get<bool>(); }
std::string string_of(const json& body, const char* key) { return body.at(key).get<std::string>(); }

void push(const json& message) { PortHall::WireServer::GetInstance()->SendWSMessage(message.dump()); }

// The viewer routes print what they were asked, as the console is the only
// trace these calls leave.
void print_viewer_request(const char* title, const std::string& body, const std::string& details) {
    NamedLockGuard console("ConsoleLock");
    std::cout << title << body << "\n" << details << std::endl;
}

}  // namespace

json parse_request_body(const std::string& body) {
    json parsed;
    try {
        parsed = parse_json_limited(body);
    } catch (const JsonTooDeep&) {
        throw PortHall::BadRequest("Request body nests deeper than " + std::to_string(kMaxJsonDepth) + " levels");
    } catch (const json::parse_error& error) {
        throw PortHall::BadRequest(std::string("Request body is not JSON: ") + error.what());
    }
    if (!parsed.is_object()) throw PortHall::BadRequest("Request body must be a JSON object");
    return parsed;
}

namespace {
// The panels take the inventory when they are first used: the store may
// not hold it yet when the back end is built.
PanelMachineSource panel_machine(GUIResourceStore& store) {
    return [&store]() -> std::optional<PanelMachine> {
        try {
            PanelMachine machine{store.get_pcie_device_list(), store.get_die_list(), store.get_read_accessor(),
                                 store.get_write_accessor()};
            if (!machine.read || !machine.write) return std::nullopt;
            return machine;
        } catch (const std::exception&) {
            return std::nullopt;
        }
    };
}
}  // namespace

WebBackEnd::WebBackEnd(GUIResourceStore& store, TestStorage& storage)
    // Panels over the machine need the device list; a back end made before it
    // is stored (tests of the routes alone) has panels without devices.
    : _aspm(std::make_shared<PCIEASPMGUIInterface>(panel_machine(store))),
      _link_control(std::make_shared<PCIELinkControlGUIInterface>(panel_machine(store))),
      _perf_counter(std::make_shared<PCIEPerfCounterGUIInterface>()),
      _port_status(std::make_shared<PCIEPortStatusGUIInterface>(panel_machine(store))),
      _store(store),
      _storage(storage),
      _index(std::make_unique<ArchiveIndex>(store.get_directory_for_lanewright())),
      _archive_workers(std::make_unique<ArchiveWorkers>(kArchiveThreads, kArchiveQueue, kArchiveMaxWait)) {
    _link_control->set_push(push);
    _port_status->set_push(push);
    auto counters = std::make_unique<CPC_PCIEList>();
    counters->SetExternalReleaseVersion(LANEWRIGHT_EXTERNAL_RELEASE != 0);
    const auto dies = store.get_read_accessor() ? store.get_die_list() : std::vector<VEX_DIE_INFO>{};
    if (!dies.empty()) {
        const PortMapData ports = get_all_port_data(dies, store.get_pcie_device_list(), store.get_read_accessor());
        std::vector<std::pair<VEX_DIE_INFO, std::vector<PortMap>>> by_die;
        for (const VEX_DIE_INFO& die : dies) {
            const auto it = ports.find(die);
            by_die.emplace_back(die, it == ports.end() ? std::vector<PortMap>{} : it->second);
        }
        counters->InitPCList(by_die, [](const VEX_DIE_INFO& die) { return CRNFactory::instance()->get_crn_accessor(die); });
    }
    _perf_counter->Initialize(std::move(counters), store.get_directory_for_lanewright(), push);
}

WebBackEnd::~WebBackEnd() {
    _index->cancel();
    _archive_workers.reset();
    // A run still going would keep its thread joinable; ask each to end first.
    _perf_counter->Shutdown();
    // Shutdown, not a stop: a start request waiting for the old run must not begin a new one.
    _link_control->Shutdown();
    _port_status->Shutdown();
    {
        std::lock_guard<std::mutex> lock(_download_mutex);
        join_if_joinable(_download_thread);
    }
    std::lock_guard<std::mutex> lock(_thread_mutex);
    for (auto* thread : {&_monitor_thread, &_link_run_thread, &_port_run_thread}) {
        join_if_joinable(*thread);
    }
}

void WebBackEnd::join_if_joinable(const std::shared_ptr<std::thread>& thread) {
    if (thread && thread->joinable()) thread->join();
}

int WebBackEnd::RegisterServices() { return RegisterServices(PortHall::WireServer::GetInstance()->App()); }

int WebBackEnd::RegisterServices(PortHall::WireApp& app) {
    enum class Answer { Json, Text };
    auto get = [&](const char* path, Answer answer, std::string (WebBackEnd::*member)(),
                   RouteEffect effect = RouteEffect::ReadOnly) {
        app.route(
            path, HttpMethod::Get,
            [this, member, answer](const WireRequest&) {
                WireResponse response = WireResponse::text((this->*member)());
                if (answer == Answer::Json) response.content_type = "application/json";
                return response;
            },
            effect);
    };
    // POST bodies reach the handlers unchanged; each parses what it needs.
    auto post_copy = [&](const char* path, Answer answer, std::string (WebBackEnd::*member)(std::string)) {
        app.route(
            path, HttpMethod::Post,
            [this, member, answer](const WireRequest& request) {
                WireResponse response = WireResponse::text((this->*member)(request.body));
                if (answer == Answer::Json) response.content_type = "application/json";
                return response;
            },
            RouteEffect::ChangesState);
    };
    auto post_ref = [&](const char* path, std::string (WebBackEnd::*member)(const std::string&)) {
        app.route(
            path, HttpMethod::Post,
            [this, member](const WireRequest& request) {
                WireResponse response = WireResponse::text((this->*member)(request.body));
                response.content_type = "application/json";
                return response;
            },
            RouteEffect::ChangesState);
    };
    const auto J = Answer::Json;
    const auto T = Answer::Text;
    const auto S = RouteEffect::ChangesState;

    get("/api/GetLANEWRIGHTVersion", J, &WebBackEnd::GetLANEWRIGHTVersion);
    get("/api/1.0/GetAllPCIELCStates", J, &WebBackEnd::GetAllPCIELCStates);
    get("/api/1.0/GetPCIEDeviceListForMargin", J, &WebBackEnd::GetPCIEDeviceListForMargin);
    get("/api/1.0/GetCurrentPCIeResults", J, &WebBackEnd::GetCurrentPCIeResults);
    get("/api/1.0/GetHVLDeviceListForMargin", J, &WebBackEnd::GetHVLDeviceListForMargin);
    get("/api/1.0/GetCurrentHVLResults", J, &WebBackEnd::GetCurrentHVLResults);
    get("/api/1.0/GetDeviceListForEyeScan", J, &WebBackEnd::GetDeviceListForEyeScan);
    get("/api/1.0/GetAllCurrentResults", J, &WebBackEnd::GetAllCurrentResults);
    post_ref("/api/1.0/AddTestToQueue", &WebBackEnd::AddTestToQueue);
    // Changes nothing (at most it reads a receiver's reports), so no Origin guard.
    app.route(
        "/api/1.0/EstimateTestDuration", HttpMethod::Post,
        [this](const WireRequest& request) {
            WireResponse response =
                WireResponse::text(EstimateTestDuration(parse_request_body(request.body)).dump());
            response.content_type = "application/json";
            return response;
        },
        RouteEffect::ReadOnly);
    post_ref("/api/1.0/CancelTest", &WebBackEnd::CancelTest);
    get("/api/1.0/GetResultsDateRange", J, &WebBackEnd::GetResultsDateRange);
    const PortHall::WireOffload archive = [this](std::function<void(bool)> job) {
        return _archive_workers->submit(std::move(job));
    };
    app.route(
        "/api/1.0/GetResultsByDate", HttpMethod::Post,
        [this](const WireRequest& request) { return GetResultsByDate(request); }, RouteEffect::ChangesState,
        archive);
    post_ref("/api/1.0/DownloadToCSV", &WebBackEnd::DownloadToCSV);
    get("/api/1.0/GetASPMInfo", J, &WebBackEnd::GetASPMInfo);
    post_copy("/api/1.0/SetL0Enabled", T, &WebBackEnd::SetL0Enabled);
    post_copy("/api/1.0/SetL1Enabled", T, &WebBackEnd::SetL1Enabled);
    post_copy("/api/1.0/SetL11Enabled", T, &WebBackEnd::SetL11Enabled);
    post_copy("/api/1.0/SetL12Enabled", T, &WebBackEnd::SetL12Enabled);
    post_copy("/api/1.0/SetL0Timer", T, &WebBackEnd::SetL0Timer);
    post_copy("/api/1.0/SetL1Timer", T, &WebBackEnd::SetL1Timer);
    get("/api/1.0/GetPerfCounterInfo", J, &WebBackEnd::GetPerfCounterInfo);
    post_copy("/api/1.0/GetPerfCounterSettings", J, &WebBackEnd::GetPerfCounterSettings);
    post_copy("/api/1.0/SetPerfCounterPort", J, &WebBackEnd::SetPerfCounterPort);
    post_copy("/api/1.0/SetPerfCounterCounter", J, &WebBackEnd::SetPerfCounterCounter);
    post_copy("/api/1.0/SetEnableCounter", J, &WebBackEnd::SetEnableCounter);
    get("/api/1.0/SetInitCounters", T, &WebBackEnd::SetInitCounters, S);
    get("/api/1.0/SetReadCounters", J, &WebBackEnd::SetReadCounters);
    get("/api/1.0/StartPerfCountersMonitor", T, &WebBackEnd::StartPerfCounterMonitor, S);
    get("/api/1.0/StopPerfCountersMonitor", T, &WebBackEnd::StopPerfCounterMonitor, S);
    post_copy("/api/1.0/SetCountersDecimalDisplay", J, &WebBackEnd::SetCountersDecimalDisplay);
    post_copy("/api/1.0/SetCountersLogging", J, &WebBackEnd::SetCountersLogging);
    post_copy("/api/1.0/SetCountersChangesOnly", J, &WebBackEnd::SetCountersChangesOnly);
    get("/api/1.0/GetPortSelectionInfo", J, &WebBackEnd::GetPortSelectionInfo);
    get("/api/1.0/GetPortStatusRegistersInfo", J, &WebBackEnd::GetPortStatusRegistersInfo);
    post_copy("/api/1.0/GetPortStatusInfo", J, &WebBackEnd::GetPortStatusInfo);
    post_copy("/api/1.0/SetAdvErrorEnabled", T, &WebBackEnd::SetAdvErrorEnabled);
    post_copy("/api/1.0/SetPortLinkDisabled", T, &WebBackEnd::SetPortLinkDisabled);
    post_copy("/api/1.0/SetSecBusReset", T, &WebBackEnd::SetSecBusReset);
    get("/api/1.0/ClearAdvErrorRegisters", T, &WebBackEnd::ClearAdvErrorRegisters, S);
    post_copy("/api/1.0/StartPortStatusContinuousRun", T, &WebBackEnd::StartPortStatusContinuousRun);
    get("/api/1.0/StopPortStatusContinuousRun", T, &WebBackEnd::StopPortStatusContinuousRun, S);
    post_copy("/api/1.0/SetLogPortStatus", J, &WebBackEnd::SetLogPortStatus);
    get("/api/1.0/GetLinkInfo", J, &WebBackEnd::GetLinkInfo);
    post_copy("/api/1.0/GetLinkPortInfo", J, &WebBackEnd::GetLinkPortInfo);
    post_copy("/api/1.0/SetLinkWidth", J, &WebBackEnd::SetLinkWidth);
    post_copy("/api/1.0/SetLinkSpeed", J, &WebBackEnd::SetLinkSpeed);
    post_copy("/api/1.0/StartContinuousRun", T, &WebBackEnd::StartContinuousRun);
    get("/api/1.0/StopContinuousRun", T, &WebBackEnd::StopContinuousRun, S);
    post_copy("/api/1.0/SetPortOption", J, &WebBackEnd::SetPortOption);
    post_copy("/api/1.0/SetLogLinkStatus", J, &WebBackEnd::SetLogLinkStatus);
    post_copy("/api/1.0/SetLogLinkErrors", J, &WebBackEnd::SetLogLinkErrors);
    get("/api/1.0/ClearLinkErrorReport", J, &WebBackEnd::ClearLinkErrorReport, S);
    get("/api/1.0/GetPCIDeviceList", J, &WebBackEnd::GetPCIDeviceList);
    post_copy("/api/1.0/GetPCICapStructList", J, &WebBackEnd::GetPCICapStructList);
    post_copy("/api/1.0/GetPCIExtCapStructList", J, &WebBackEnd::GetPCIExtCapStructList);
    post_copy("/api/1.0/GetPCIRawView", J, &WebBackEnd::GetPCIRawView);
    post_copy("/api/1.0/PCIRawViewWrite", T, &WebBackEnd::PCIRawViewWrite);
    post_copy("/api/1.0/GetPCITableInfo", J, &WebBackEnd::GetPCITableInfo);
    post_copy("/api/1.0/PCITableWrite", T, &WebBackEnd::PCITableWrite);
    // The browser's own download of an export: GET with the range in the
    // query string, as a link or form would send them.
    app.route(
        "/api/1.0/ExportResultsCSV", HttpMethod::Get,
        [this](const WireRequest& request) { return ExportResultsCSV(request); }, RouteEffect::ReadOnly,
        archive);
    app.route(
        "/api/1.0/GetResultsSummary", HttpMethod::Get,
        [this](const WireRequest& request) { return GetResultsSummary(request); }, RouteEffect::ReadOnly, archive);
    app.route(
        "/api/1.0/GetResult", HttpMethod::Get, [this](const WireRequest& request) { return GetResult(request); },
        RouteEffect::ReadOnly, archive);
    app.route(
        "/api/1.0/GetEyeScanData", HttpMethod::Get,
        [this](const WireRequest& request) { return GetEyeScanData(request); }, RouteEffect::ReadOnly, archive);
    app.route(
        "/api/1.0/GetResultFile", HttpMethod::Get,
        [this](const WireRequest& request) { return GetResultFile(request); }, RouteEffect::ReadOnly, archive);
    // The counter screen's options and monitor state, for a screen opened later or after a restart.
    get("/api/1.0/GetPerfCounterOptions", J, &WebBackEnd::GetPerfCounterOptions);
    // The index is built in the background at start, so the first summary
    // a browser asks for doesn't pay for reading the whole archive.
    _archive_workers->submit([this](bool in_time) {
        if (!in_time) return;
        try {
            _index->sync_all();
        } catch (const std::exception& error) {
            Logger::get().log(std::string("Result archive: index not built: ") + error.what());
        }
    });
    return 1;
}

// --- Queue, devices and results --------------------------------------------

std::string WebBackEnd::GetLANEWRIGHTVersion() { return json{{"Tool_Version", tool_version}}.dump(); }

// The legend of every LC state code the port histories can show.
std::string WebBackEnd::GetAllPCIELCStates() { return json(GetCurrentLTSSMState().get_list_of_lc_state()).dump(); }

// The device lists are filled by the test engines' own discovery; a machine
// on which nothing can be tested lists nothing.
std::string WebBackEnd::GetPCIEDeviceListForMargin() {
    return GUIPCIEGetDevice(_store).get_device_list(_store.get_pcie_device_list()).dump();
}
std::string WebBackEnd::GetHVLDeviceListForMargin() {
    return GUIHVLGetDevice(_store).get_device_list(_store.get_pcie_device_list()).dump();
}
// Built from the two lists, so it names what this machine can scan.
std::string WebBackEnd::GetDeviceListForEyeScan() { return eye_scan_device_list(_store).dump(); }

std::string WebBackEnd::GetCurrentPCIeResults() { return current_pcie_results_sample().dump(); }
std::string WebBackEnd::GetCurrentHVLResults() { return current_hvl_results_sample().dump(); }
std::string WebBackEnd::GetAllCurrentResults() { return all_current_results_sample().dump(); }

std::string WebBackEnd::AddTestToQueue(const std::string& body) {
    {
        NamedLockGuard console("ConsoleLock");
        std::cout << "Added test to queue" << std::endl;
    }
    // Every queued record is pushed to every browser once a second and kept
    // in the archive; one of this size is no test record but a payload.
    if (body.size() > kMaxTestRecordBytes) {
        return json{{"OperationStatus", false},
                    {"ErrMsg", "Test record larger than " + std::to_string(kMaxTestRecordBytes / 1024) + " KiB"}}
            .dump();
    }
    json record = parse_request_body(body);
    if (const auto refusal = check_test_record(record, _store)) {
        Logger::get().log("Test refused at the queue: " + *refusal);
        return json{{"OperationStatus", false}, {"ErrMsg", *refusal}}.dump();
    }
    UpdateTestStorage::add_test_to_queue_list(_storage, record);
    return json{{"OperationStatus", true}, {"ErrMsg", ""}, {"TestID", record["TestID"]}}.dump();
}

std::string WebBackEnd::CancelTest(const std::string& body) {
    const json request = parse_request_body(body);
    const auto id = request.find("TestID");
    if (id == request.end() || !id->is_number_unsigned())
        return json{{"OperationStatus", false}, {"ErrMsg", "\"TestID\" must be a whole number."}}.dump();
    if (const auto refusal = cancel_test(_storage, _store, id->get<uint64_t>()))
        return json{{"OperationStatus", false}, {"ErrMsg", *refusal}}.dump();
    return json{{"OperationStatus", true}}.dump();
}

// One route for every kind of margin, chosen by the record's "Operation".
json WebBackEnd::EstimateTestDuration(const json& record) {
    const auto operation = record.find("Operation");
    if (operation != record.end() && *operation == "HVL Destructive Margin") return estimate_hvl_margin(record, _store);
    if (operation != record.end() && *operation == "EyeScan") return estimate_eye_scan(record, _store);
    return estimate_pcie_margin_duration(record, _store);
}

std::string WebBackEnd::GetResultsDateRange() {
    json dates = json::array();
    for (const auto& run : GUIGetAllInstanceFolder(_store).get()) dates.push_back(run.first);
    return json{{"key", "PastResultsDateRange"}, {"DateList", dates}}.dump();
}

std::string WebBackEnd::DownloadToCSV(const std::string& body) {
    const json request = parse_request_body(body);
    std::string start = string_of(request, "start");
    std::string end = string_of(request, "end");
    std::string dir_path = string_of(request, "dir_path");
    // One export at a time: a second request waits here for the first.
    std::lock_guard<std::mutex> lock(_download_mutex);
    join_if_joinable(_download_thread);
    _download_thread = std::make_shared<std::thread>(
        [&store = _store, start = std::move(start), end = std::move(end), dir_path = std::move(dir_path)] {
            thread_for_download(store, start, end, dir_path, push);
        });
    return json::array().dump();
}

namespace {

WireResponse json_text(std::string body) {
    WireResponse response = WireResponse::text(std::move(body));
    response.content_type = "application/json";
    return response;
}

std::vector<std::string> folders_of(const std::vector<ResultRun>& runs) {
    std::vector<std::string> folders;
    for (const auto& run : runs) folders.push_back(run.second);
    return folders;
}

std::size_t count_parameter(const WireRequest& request, const char* name, std::size_t fallback, std::size_t most) {
    const auto text = request.query_value(name);
    if (!text) return fallback;
    std::size_t value = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (error != std::errc() || end != text->data() + text->size() || value > most)
        throw PortHall::BadRequest(std::string("\"") + name + "\" must be a whole number up to " + std::to_string(most));
    return value;
}

// A "from" or "to" stamp as the run folders are named.
std::optional<std::string> stamp_parameter(const WireRequest& request, const char* name) {
    const auto text = request.query_value(name);
    if (!text) return std::nullopt;
    if (!parse_result_id(*text + "/test_0"))
        throw PortHall::BadRequest(std::string("\"") + name + "\" must be a time stamp like 2024_05_02-09_06_30");
    return text;
}

WireResponse streamed(const char* content_type, std::function<bool(const std::function<bool(std::string)>&)> body) {
    WireResponse response;
    response.content_type = content_type;
    response.stream = [body = std::move(body)](PortHall::WireBodyWriter& writer) {
        body([&writer](std::string piece) { return writer.write(std::move(piece)); });
    };
    return response;
}

}  // namespace

WireResponse WebBackEnd::GetResultsByDate(const WireRequest& request) {
    const json body = parse_request_body(request.body);
    const std::string start = string_of(body, "start");
    const std::string end = string_of(body, "end");
    const auto runs = find_runs_in_date_range(_store, start, end);
    if (!runs) return json_text("[]");
    auto tests = _index->tests_of_runs(folders_of(*runs));
    return streamed("application/json", [tests = std::move(tests)](const std::function<bool(std::string)>& write) {
        return write_records_as_array(tests, write);
    });
}

WireResponse WebBackEnd::GetResultsSummary(const WireRequest& request) {
    SummaryQuery query;
    query.offset = count_parameter(request, "offset", 0, std::numeric_limits<std::int32_t>::max());
    query.limit = count_parameter(request, "limit", 50, kSummaryLimitMax);
    query.sbdf = request.query_value("sbdf");
    query.from = stamp_parameter(request, "from");
    query.to = stamp_parameter(request, "to");
    const SummaryPage page = _index->summaries(query);
    // The summaries are stored as JSON text; they are joined, not parsed again.
    std::string answer = "{\"Offset\":" + std::to_string(query.offset) + ",\"Results\":[";
    for (std::size_t i = 0; i < page.summaries.size(); ++i) {
        if (i) answer += ',';
        answer += page.summaries[i];
    }
    answer += "],\"Total\":" + std::to_string(page.total) + "}";
    return json_text(std::move(answer));
}

WireResponse WebBackEnd::GetResult(const WireRequest& request) {
    auto refuse = [](const std::string& reason) {
        return WireResponse::json(json{{"OperationStatus", false}, {"ErrMsg", reason}});
    };
    const std::string id = request.query_value("id").value_or("");
    const auto parts = parse_result_id(id);
    if (!parts) return refuse("\"" + id + "\" is not a result id (<run stamp>/test_<number>)");
    OSSpecific os;
    const std::string path = os.append_to_path(
        os.append_to_path(os.append_to_path(_store.get_directory_for_lanewright(), parts->first), parts->second),
        "output.json");
    std::ifstream in(path, std::ios::binary);
    if (!in) return refuse("No result " + id + " in the archive");
    std::ostringstream text;
    text << in.rdbuf();
    json record;
    try {
        record = json::parse(text.str());
    } catch (const json::exception&) {
        return refuse("Result " + id + " can't be read");
    }
    if (!record.is_object()) return refuse("Result " + id + " can't be read");
    record["Grades"] = margin_grades_json(grade_margin_record(record));
    return WireResponse::json(record);
}

WireResponse WebBackEnd::GetEyeScanData(const WireRequest& request) {
    const std::string id = request.query_value("id").value_or("");
    std::string error;
    const auto folder = result_folder(_store.get_directory_for_lanewright(), id, error);
    if (!folder) return WireResponse::json(json{{"OperationStatus", false}, {"ErrMsg", error}});
    return WireResponse::json(eye_scan_data(*folder, id));
}

WireResponse WebBackEnd::GetResultFile(const WireRequest& request) {
    const WireResponse missing = WireResponse::text("No such result file", 404);
    std::string error;
    const auto folder =
        result_folder(_store.get_directory_for_lanewright(), request.query_value("id").value_or(""), error);
    if (!folder) return missing;
    const auto file = result_file(*folder, request.query_value("name").value_or(""));
    if (!file) return missing;
    std::ifstream in(file->path, std::ios::binary);
    if (!in) return missing;
    std::ostringstream bytes;
    bytes << in.rdbuf();
    WireResponse response = WireResponse::text(bytes.str());
    response.content_type = file->content_type;
    response.headers.emplace_back("X-Content-Type-Options", "nosniff");
    return response;
}

WireResponse WebBackEnd::ExportResultsCSV(const WireRequest& request) {
    const std::string kind_text = request.query_value("kind").value_or("pcie");
    ArchiveReportKind kind = ArchiveReportKind::PCIe;
    if (kind_text == "hvl") {
        kind = ArchiveReportKind::HVL;
    } else if (kind_text != "pcie") {
        throw PortHall::BadRequest("Failed. Unknown kind \"" + kind_text + "\"; use pcie or hvl.");
    }
    std::vector<IndexedTest> tests;
    const auto from = stamp_parameter(request, "from");
    const auto to = stamp_parameter(request, "to");
    if (from || to) {
        // The tests whose "Stamp" lies in the range, as the summary shows them.
        if (!from || !to || *from > *to) throw PortHall::BadRequest(kDateRangeInvalid);
        tests = _index->tests_between(*from, *to);
    } else {
        const auto start = request.query_value("start");
        const auto end = request.query_value("end");
        if (!start || !end) throw PortHall::BadRequest(kDateRangeInvalid);
        const auto runs = find_runs_in_date_range(_store, *start, *end);
        if (!runs || runs->empty()) throw PortHall::BadRequest(kDateRangeInvalid);
        tests = _index->tests_of_runs(folders_of(*runs));
    }
    WireResponse response = streamed(
        "text/csv; charset=utf-8", [tests = std::move(tests), kind](const std::function<bool(std::string)>& write) {
            ArchiveReportWriter writer(kind, ArchiveReportStyle{true, true});
            std::string csv;
            bool open = true;
            for_each_record(tests, [&](const json& record) {
                writer.add(record, csv);
                if (csv.size() >= 256 * 1024) {
                    open = write(std::move(csv));
                    csv.clear();
                }
                return open;
            });
            return open && write(std::move(csv));
        });
    response.headers.emplace_back("Content-Disposition",
                                  std::string("attachment; filename=\"") + archive_report_file_name(kind) + "\"");
    return response;
}

// --- ASPM panel -------------------------------------------------------------

std::string WebBackEnd::GetASPMInfo() { return _aspm->GetPCIEASPMInfo().dump(); }

namespace {
template <typename Call>
std::string toggle_answer(const std::string& body, Call call) {
    const json request = parse_request_body(body);
    const int index = index_of(request);
    const bool value = bool_of(request, "value");
    return call(index, value) ? yes_no(value) : "Error";
}

template <typename Call>
std::string timer_answer(const std::string& body, Call call) {
    const json request = parse_request_body(body);
    const int index = index_of(request);
    const int timer_index = request.at("timerIndex").get<int>();
    const std::string value = string_of(request, "value");
    return call(index, timer_index, value) ? value : "Error";
}
}  // namespace

std::string WebBackEnd::SetL0Enabled(std::string body) {
    return toggle_answer(body, [&](int i, bool v) { return _aspm->OnL0sEnabledToggled(i, v); });
}
std::string WebBackEnd::SetL1Enabled(std::string body) {
    return toggle_answer(body, [&](int i, bool v) { return _aspm->OnL1EnabledToggled(i, v); });
}
std::string WebBackEnd::SetL11Enabled(std::string body) {
    return toggle_answer(body, [&](int i, bool v) { return _aspm->OnL11EnabledToggled(i, v); });
}
std::string WebBackEnd::SetL12Enabled(std::string body) {
    return toggle_answer(body, [&](int i, bool v) { return _aspm->OnL12EnabledToggled(i, v); });
}
std::string WebBackEnd::SetL0Timer(std::string body) {
    return timer_answer(body, [&](int i, int t, const std::string& v) { return _aspm->OnL0TimerIndexChanged(i, t, v); });
}
std::string WebBackEnd::SetL1Timer(std::string body) {
    return timer_answer(body, [&](int i, int t, const std::string& v) { return _aspm->OnL1TimerIndexChanged(i, t, v); });
}

// --- Performance counter panel ---------------------------------------------

std::string WebBackEnd::GetPerfCounterInfo() {
    json info;
    {
        NamedLockGuard guard(kPerfPanelLock);
        info = _perf_counter->GetPCIEPerfCounterInfo();
    }
    return info.dump();
}

std::string WebBackEnd::GetPerfCounterSettings(std::string body) {
    const int index = index_of(parse_request_body(body));
    json settings;
    {
        NamedLockGuard guard(kPerfPanelLock);
        settings = _perf_counter->OnSelectPerfCounter(index);
    }
    return settings.dump();
}

std::string WebBackEnd::SetPerfCounterPort(std::string body) {
    const json request = parse_request_body(body);
    const int index = index_of(request);
    {
        NamedLockGuard guard(kPerfPanelLock);
        _perf_counter->OnPortSelectionCurrentIndexChanged(index);
    }
    return request.dump();
}

std::string WebBackEnd::SetPerfCounterCounter(std::string body) {
    const json request = parse_request_body(body);
    const int index = index_of(request);
    {
        NamedLockGuard guard(kPerfPanelLock);
        _perf_counter->OnCounterSelectionCurrentIndexChanged(index);
    }
    return request.dump();
}

std::string WebBackEnd::SetEnableCounter(std::string body) {
    const json request = parse_request_body(body);
    const bool status = bool_of(request, "status");
    {
        NamedLockGuard guard(kPerfPanelLock);
        _perf_counter->OnEnableCounterClicked(status);
    }
    return request.dump();
}

std::string WebBackEnd::SetInitCounters() {
    NamedLockGuard guard(kPerfPanelLock);
    _perf_counter->OnInitCountersClicked();
    return "success";
}

std::string WebBackEnd::SetReadCounters() {
    json counters;
    {
        NamedLockGuard guard(kPerfPanelLock);
        counters = _perf_counter->OnReadCountersClicked();
    }
    return counters.dump();
}

std::string WebBackEnd::StartPerfCounterMonitor() {
    if (_perf_counter->is_running()) return "success";
    std::lock_guard<std::mutex> lock(_thread_mutex);
    join_if_joinable(_monitor_thread);
    _monitor_thread = std::make_shared<std::thread>([panel = _perf_counter] { panel->OnStartMonitorClicked(); });
    return "success";
}

std::string WebBackEnd::GetPerfCounterOptions() { return _perf_counter->GetOptions().dump(); }

std::string WebBackEnd::StopPerfCounterMonitor() {
    _perf_counter->OnStopMonitorClicked();
    return "success";
}

namespace {
template <typename Call>
std::string flag_echo(const std::string& body, Call call) {
    const json request = parse_request_body(body);
    const bool status = bool_of(request, "status");
    {
        NamedLockGuard guard(kPerfPanelLock);
        call(status);
    }
    return request.dump();
}
}  // namespace

std::string WebBackEnd::SetCountersDecimalDisplay(std::string body) {
    return flag_echo(body, [&](bool s) { _perf_counter->OnDecimalDisplayClicked(s); });
}
std::string WebBackEnd::SetCountersLogging(std::string body) {
    return flag_echo(body, [&](bool s) { _perf_counter->OnLogToCountTxtClicked(s); });
}
std::string WebBackEnd::SetCountersChangesOnly(std::string body) {
    return flag_echo(body, [&](bool s) { _perf_counter->OnChangesOnlyClicked(s); });
}

// --- Port status panel -------------------------------------------------------

json WebBackEnd::GetFullPortStatusInfo() {
    json document = _port_status->GetPCIEPortInfo();
    json registers = json::object();
    _port_status->GetRegistersInfo(registers);
    document["portStatusRegister"] = registers;
    _port_status->GetPortStatusControlOptions(document);
    json loop_settings = json::object();
    _port_status->GetContLoopSettingsInfo(loop_settings);
    document["contLoopSettings"] = loop_settings;
    document["TestRunning"] = _port_status->is_running();
    document["logPortStatus"] = {{"label", "Log Port Status"}, {"checked", false}, {"enabled", true}};
    document["autoRefresh"] = {{"label", "Auto Refresh"}, {"checked", false}, {"enabled", true}};
    return document;
}

json WebBackEnd::get_ltssm_states() { return _port_status->get_ltssm_states(); }

std::string WebBackEnd::GetPortSelectionInfo() { return GetFullPortStatusInfo().dump(); }

std::string WebBackEnd::GetPortStatusRegistersInfo() { return _port_status->GetPortStatusRegisterInfo().dump(); }

std::string WebBackEnd::GetPortStatusInfo(std::string body) {
    // Any port request, even a bad one, turns the LTSSM push on.
    port_status_update = true;
    const int index = index_of(parse_request_body(body));
    _port_status->OnPortSelectCurrentIndexChanged(index);  // refused while a run is active
    push(json{{"key", "PortStatusUpdate"}, {"port_status_data", GetFullPortStatusInfo()}});
    return GetFullPortStatusInfo().dump();
}

std::string WebBackEnd::SetAdvErrorEnabled(std::string body) {
    const bool checked = bool_of(parse_request_body(body), "checked");
    _port_status->OnAdvErrorEnabledClicked(checked);
    push(json{{"key", "PortStatusUpdate"}, {"port_status_data", GetFullPortStatusInfo()}});
    return "success";
}

std::string WebBackEnd::SetPortLinkDisabled(std::string body) {
    const bool checked = bool_of(parse_request_body(body), "checked");
    _port_status->OnLinkDisableClicked(checked);
    push(json{{"key", "PortStatusUpdate"}, {"port_status_data", GetFullPortStatusInfo()}});
    return "success";
}

std::string WebBackEnd::SetSecBusReset(std::string body) {
    const bool checked = bool_of(parse_request_body(body), "checked");
    return _port_status->OnSecBusResetClicked(checked) ? yes_no(checked) : "Error";
}

std::string WebBackEnd::ClearAdvErrorRegisters() {
    _port_status->OnClearAdvErrosClicked();
    return "success";
}

json WebBackEnd::port_status_partial(const json& settings, bool running) {
    json data = GetFullPortStatusInfo();
    const bool enabled = !running;
    data["portSelection"]["enabled"] = enabled;
    data["contLoopSettings"] = settings;
    if (running) data["contLoopSettings"]["enabled"] = false;
    for (const char* control : {"advErrorEnabled", "secBusReset", "linkDisable"}) {
        data[control]["enabled"] = enabled;
    }
    if (running) {
        json& status = data["contLoopSettings"]["settingsSelection"]["status"];
        if (!status.is_array()) status = json::array();
        while (status.size() < 3) status.push_back(json::object());
        for (std::size_t i = 0; i < 3; ++i) status[i]["enabled"] = false;
    }
    data["TestRunning"] = running;
    data["clearlogs"] = running;
    return json{{"key", "PortStatusUpdatePartial"}, {"port_status_data", data}};
}

std::string WebBackEnd::StartPortStatusContinuousRun(std::string body) {
    const json settings = parse_request_body(body);
    push(port_status_partial(settings, true));
    std::lock_guard<std::mutex> lock(_thread_mutex);
    join_if_joinable(_port_run_thread);
    _port_run_thread = std::make_shared<std::thread>([this, settings] { start_port_run(settings); });
    return "";
}

void WebBackEnd::start_port_run(json settings) {
    _port_status->StartContinuousRun(settings);
    push(port_status_partial(settings, false));
    _port_status->clear_log_lines();
}

std::string WebBackEnd::StopPortStatusContinuousRun() {
    _port_status->StopContinuousRun();
    return "";
}

std::string WebBackEnd::SetLogPortStatus(std::string body) {
    const json request = parse_request_body(body);
    return _port_status->SetLogPortStatus(bool_of(request, "checked")) ? request.dump() : "Error";
}

// --- Link control panel -----------------------------------------------------

std::string WebBackEnd::GetLinkInfo() { return _link_control->GetPCIELinkControlInfo().dump(); }

std::string WebBackEnd::GetLinkPortInfo(std::string body) {
    return _link_control->GetPCIELinkPortInfo(index_of(parse_request_body(body))).dump();
}

std::string WebBackEnd::SetLinkWidth(std::string body) {
    return _link_control->OnLinkWidthChange(index_of(parse_request_body(body))).dump();
}

std::string WebBackEnd::SetLinkSpeed(std::string body) {
    const json request = parse_request_body(body);
    // Optional: the speed method of the selected port (0 generic, 1 the platform's link controller).
    if (request.contains("method")) _link_control->OnLinkSpeedMethodChange(request.at("method").get<int>());
    return _link_control->OnLinkSpeedChange(index_of(request)).dump();
}

std::string WebBackEnd::StartContinuousRun(std::string body) {
    const json settings = parse_request_body(body);
    std::lock_guard<std::mutex> lock(_thread_mutex);
    join_if_joinable(_link_run_thread);
    _link_run_thread = std::make_shared<std::thread>(
        [panel = _link_control, settings] { panel->OnContinuousRunToggled(settings); });
    return "webbackend stopped";
}

std::string WebBackEnd::StopContinuousRun() {
    _link_control->StopContinuousRun();
    return "Continuos Run Stopped";
}

std::string WebBackEnd::SetPortOption(std::string body) {
    const json request = parse_request_body(body);
    return _link_control->OnPortOptionChanged(index_of(request), bool_of(request, "value")).dump();
}

std::string WebBackEnd::SetLogLinkStatus(std::string body) {
    const json request = parse_request_body(body);
    return _link_control->SetLogLinkStatus(bool_of(request, "checked")) ? request.dump() : "Error";
}

std::string WebBackEnd::SetLogLinkErrors(std::string body) {
    const json request = parse_request_body(body);
    return _link_control->SetLogLinkErrors(bool_of(request, "checked")) ? request.dump() : "Error";
}

std::string WebBackEnd::ClearLinkErrorReport() { return _link_control->ClearErrorReport().dump(); }

// --- PCI viewer ---------------------------------------------------------------

PCIViewer WebBackEnd::viewer() {
    if (!_store.get_read_accessor()) return PCIViewer({}, nullptr, nullptr);
    return PCIViewer(_store.get_pcie_device_list(), _store.get_read_accessor(), _store.get_write_accessor());
}

std::string WebBackEnd::GetPCIDeviceList() { return viewer().device_list().dump(); }

std::string WebBackEnd::GetPCICapStructList(std::string body) {
    const json request = parse_request_body(body);
    const std::string sbdf = string_of(request, "SBDF");
    print_viewer_request("GetPCICapStructList: statusStr: ", body, "SBDF: " + sbdf);
    return viewer().cap_struct_list(sbdf).dump();
}

std::string WebBackEnd::GetPCIExtCapStructList(std::string body) {
    const json request = parse_request_body(body);
    const std::string sbdf = string_of(request, "SBDF");
    print_viewer_request("GetPCIExtCapStructList: statusStr: ", body, "SBDF: " + sbdf);
    return viewer().ext_cap_struct_list(sbdf).dump();
}

std::string WebBackEnd::GetPCIRawView(std::string body) {
    const json request = parse_request_body(body);
    const std::string sbdf = string_of(request, "SBDF");
    print_viewer_request("GetPCIRawView: statusStr: ", body, "SBDF: " + sbdf);
    return viewer().raw_view(sbdf).dump();
}

// Raw dwords are shown, never written: a raw write can't tell which bits of a
// dword are status bits that a one would clear. Fields are written through
// PCITableWrite, which knows.
std::string WebBackEnd::PCIRawViewWrite(std::string body) {
    const json request = parse_request_body(body);
    const std::string sbdf = string_of(request, "SBDF");
    const std::string offset = string_of(request, "absoluteOffset");
    const std::string value = string_of(request, "value");
    print_viewer_request("PCIRawViewWrite: statusStr: ", body,
                         "SBDF: " + sbdf + " absoluteOffset: " + offset + " value: " + value);
    return "success";
}

std::string WebBackEnd::GetPCITableInfo(std::string body) {
    const json request = parse_request_body(body);
    const std::string sbdf = string_of(request, "SBDF");
    const std::string table = string_of(request, "tableName");
    print_viewer_request("GetPCITableInfo: statusStr: ", body, "SBDF: " + sbdf + " tableName: " + table);
    return viewer().table_info(sbdf, table).dump();
}

std::string WebBackEnd::PCITableWrite(std::string body) {
    const json request = parse_request_body(body);
    const std::string sbdf = string_of(request, "SBDF");
    const std::string table = string_of(request, "tableName");
    const std::string offset = string_of(request, "absoluteOffset");
    print_viewer_request("PCITableWrite: statusStr: ", body,
                         "SBDF: " + sbdf + " tableName: " + table + " absoluteOffset: " + offset);
    return viewer().table_write(request);
}
