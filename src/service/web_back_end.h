// The REST back end: turns HTTP requests into calls on the test queue, the
// result archive and the four service panels, and owns the panels' threads.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include "gui/gui_resource_store.h"
#include "gui/test_storage.h"
#include "hardware/tool_version.h"
#include "panels/pcie_aspm_gui_interface.h"
#include "panels/pcie_link_control_gui_interface.h"
#include "panels/pcie_perf_counter_gui_interface.h"
#include "panels/pcie_port_status_gui_interface.h"
#include "panels/pci_viewer.h"

namespace PortHall {
class WireApp;
struct WireRequest;
struct WireResponse;
}

enum class ArchiveReportKind;
class ArchiveIndex;
class ArchiveWorkers;

class WebBackEnd {
public:
    WebBackEnd(GUIResourceStore& store, TestStorage& storage);
    // Stops the panels' runs and joins their threads.
    ~WebBackEnd();

    // Adds every API route to the web server's application; before Init.
    int RegisterServices();
    int RegisterServices(PortHall::WireApp& app);

    // Route handlers. Each answers the body of the response.
    std::string GetLANEWRIGHTVersion();
    std::string GetAllPCIELCStates();
    std::string GetPCIEDeviceListForMargin();
    std::string GetCurrentPCIeResults();
    std::string GetHVLDeviceListForMargin();
    std::string GetCurrentHVLResults();
    std::string GetDeviceListForEyeScan();
    std::string GetAllCurrentResults();
    std::string AddTestToQueue(const std::string& body);
    // {"TestID": n}: a queued test leaves the queue archived "Cancelled", a
    // running one stops at its next safe point and archives itself so.
    std::string CancelTest(const std::string& body);
    // Nominal duration of a margin record (PCIe or hVL) before it is queued.
    nlohmann::json EstimateTestDuration(const nlohmann::json& record);
    std::string GetResultsDateRange();
    std::string DownloadToCSV(const std::string& body);
    // The archive routes, which may read much: they run on the archive's own
    // threads and stream their answers (see archive_workers.h).
    PortHall::WireResponse GetResultsByDate(const PortHall::WireRequest& request);
    PortHall::WireResponse GetResultsSummary(const PortHall::WireRequest& request);
    PortHall::WireResponse GetResult(const PortHall::WireRequest& request);
    // "id" an eye scan's ResultId: its counts, axes, figures and plots.
    PortHall::WireResponse GetEyeScanData(const PortHall::WireRequest& request);
    // "id" a ResultId, "name" a plain file name in that result's folder: the
    // file with its content type, else 404.
    PortHall::WireResponse GetResultFile(const PortHall::WireRequest& request);
    // The CSV that DownloadToCSV writes for one kind, for a browser that
    // can't read the machine's folders, over the runs from "start" to "end"
    // (readable dates as in "DateList") or the tests from "from" to "to"
    // (stamps), with grade columns and guarded cells. An unknown date or an
    // empty range is refused with 400 "Failed. Date range invalid.".
    PortHall::WireResponse ExportResultsCSV(const PortHall::WireRequest& request);

    std::string GetASPMInfo();
    std::string SetL0Enabled(std::string body);
    std::string SetL1Enabled(std::string body);
    std::string SetL11Enabled(std::string body);
    std::string SetL12Enabled(std::string body);
    std::string SetL0Timer(std::string body);
    std::string SetL1Timer(std::string body);

    std::string GetPerfCounterInfo();
    std::string GetPerfCounterSettings(std::string body);
    std::string SetPerfCounterPort(std::string body);
    std::string SetPerfCounterCounter(std::string body);
    std::string SetEnableCounter(std::string body);
    std::string SetInitCounters();
    std::string SetReadCounters();
    std::string StartPerfCounterMonitor();
    std::string StopPerfCounterMonitor();
    std::string GetPerfCounterOptions();
    std::string SetCountersDecimalDisplay(std::string body);
    std::string SetCountersLogging(std::string body);
    std::string SetCountersChangesOnly(std::string body);

    std::string GetPortSelectionInfo();
    std::string GetPortStatusRegistersInfo();
    std::string GetPortStatusInfo(std::string body);
    std::string SetAdvErrorEnabled(std::string body);
    std::string SetPortLinkDisabled(std::string body);
    std::string SetSecBusReset(std::string body);
    std::string ClearAdvErrorRegisters();
    std::string StartPortStatusContinuousRun(std::string body);
    std::string StopPortStatusContinuousRun();
    std::string SetLogPortStatus(std::string body);

    std::string GetLinkInfo();
    std::string GetLinkPortInfo(std::string body);
    std::string SetLinkWidth(std::string body);
    std::string SetLinkSpeed(std::string body);
    std::string StartContinuousRun(std::string body);
    std::string StopContinuousRun();
    std::string SetPortOption(std::string body);
    std::string SetLogLinkStatus(std::string body);
    std::string SetLogLinkErrors(std::string body);
    std::string ClearLinkErrorReport();

    std::string GetPCIDeviceList();
    std::string GetPCICapStructList(std::string body);
    std::string GetPCIExtCapStructList(std::string body);
    std::string GetPCIRawView(std::string body);
    std::string PCIRawViewWrite(std::string body);
    std::string GetPCITableInfo(std::string body);
    std::string PCITableWrite(std::string body);

    nlohmann::json get_ltssm_states();
    nlohmann::json GetFullPortStatusInfo();

private:
    // The viewer over the functions found at start, through the machine's accessors.
    PCIViewer viewer();
    void start_port_run(nlohmann::json settings);
    nlohmann::json port_status_partial(const nlohmann::json& settings, bool running);
    // Joins a finished thread of one of the four runs before a new one starts.
    static void join_if_joinable(const std::shared_ptr<std::thread>& thread);

    std::shared_ptr<PCIEASPMGUIInterface> _aspm;
    std::shared_ptr<PCIELinkControlGUIInterface> _link_control;
    std::shared_ptr<PCIEPerfCounterGUIInterface> _perf_counter;
    std::shared_ptr<PCIEPortStatusGUIInterface> _port_status;
    GUIResourceStore& _store;
    TestStorage& _storage;
    std::shared_ptr<std::thread> _download_thread;
    std::shared_ptr<std::thread> _monitor_thread;
    std::shared_ptr<std::thread> _link_run_thread;
    std::shared_ptr<std::thread> _port_run_thread;
    std::mutex _thread_mutex;  // guards the monitor, link run and port run threads
    // The download thread has its own, so an export never waits behind the
    // join of a long panel run.
    std::mutex _download_mutex;
    std::unique_ptr<ArchiveIndex> _index;
    // Last, so its threads end before anything they use.
    std::unique_ptr<ArchiveWorkers> _archive_workers;
};

// AddTestToQueue refuses larger records before looking inside them.
constexpr std::size_t kMaxTestRecordBytes = 64 * 1024;

// Parses a request body as a JSON object (nesting limited, see
// json_limits.h); a body that isn't one is refused with a one-line reason.
nlohmann::json parse_request_body(const std::string& body);
