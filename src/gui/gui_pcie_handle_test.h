// Carries one queued "PCIe Margin" test through its life: parameters from the
// record, the multi-pass margin on a thread of its own, the result files in
// the test's folder, and the test out of the running list.
//
// Files, each written to a temporary name and renamed so a reader never sees
// half of one: "raw_data.json" (the engine's report) after a run that didn't
// throw, "pcie_margin.csv" when the report shows no error, "output.json" (the
// record with "TestOutput") always.
//
// Where we do better than ending the process: a record the queue let through
// but that still can't be read, and any failure to write a file, end the test
// "Failed" with the reason; the service goes on.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "gui/gui_resource_store.h"
#include "gui/scheduler.h"
#include "gui/test_runner.h"
#include "gui/test_storage.h"
#include "margin_pcie/margin_stop_flag.h"

class GUIPCIEHandleTest {
public:
    // stop is the service's flag, raised at shutdown; start gives the test a
    // flag of its own linked to it, which CancelTest raises. Either ends the
    // margin at its next offset with the lanes back at normal settings.
    GUIPCIEHandleTest(GUIResourceStore& store, nlohmann::json& test, TestStorage& storage, Scheduler& scheduler,
                      PCIE::MarginStopFlag stop = PCIE::MarginStopFlag());

    // Starts thread_fuction on a copy of this object and registers the thread.
    void start();
    void thread_fuction();

private:
    GUIResourceStore& _store;
    nlohmann::json _test;
    TestStorage& _storage;
    Scheduler& _scheduler;
    PCIE::MarginStopFlag _stop;
};

// "TestOutput" of a finished margin: "complete" with the smallest of each of
// the four margins over all lanes (each may come from another lane).
nlohmann::json pcie_margin_test_output(const nlohmann::json& report, const std::string& folder);
// "TestOutput" of a test that failed for reason.
nlohmann::json failed_test_output(const std::string& reason, const std::string& folder);

// Runs margin (the engine's call, filling the report) and writes what it
// gives into folder: "raw_data.json" unless it threw, "pcie_margin.csv"
// unless the report shows an error. Returns "TestOutput": "Failed" also when
// a lane could not be margined (error threshold refused, or a side without a
// single measurement), with a reason naming those lanes. Throws only when a
// file can't be written.
nlohmann::json run_and_write_pcie_margin(const std::function<void(nlohmann::json&)>& margin,
                                         const std::string& folder);

// The CSV of a margin report: the header from the first lane, then one row
// per lane.
std::string pcie_margin_csv(const nlohmann::json& report);

// The runner the scheduler starts "PCIe Margin" records with.
class PCIeMarginRunner : public TestRunner {
public:
    explicit PCIeMarginRunner(PCIE::MarginStopFlag stop) : _stop(std::move(stop)) {}
    std::optional<std::string> check_record(const nlohmann::json& test, GUIResourceStore& store) const override;
    void start(const nlohmann::json& test, GUIResourceStore& store, TestStorage& storage,
               Scheduler& scheduler) const override;

private:
    PCIE::MarginStopFlag _stop;
};
