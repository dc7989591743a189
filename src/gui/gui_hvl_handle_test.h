// Carries one queued "HVL Destructive Margin" test through its life: the
// job's parameters from the record, power states and receiver termination
// prepared on the die, the full margin of the requested lanes on a thread of
// its own, and "raw_data.json", "hvl_margin.csv" and "output.json" (each
// written whole under a temporary name) in the test's folder.
//
// Where we do better than ending the process: an unknown die, a report
// shorter than the lane list, a firmware exception, an unanswered mailbox
// all end the test "Failed" with the reason. A lane that fails fails the
// test ("Lane <n>: <reason>"); the lanes margined before it are kept.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "gui/gui_resource_store.h"
#include "gui/scheduler.h"
#include "gui/test_runner.h"
#include "gui/test_storage.h"
#include "margin_pcie/margin_stop_flag.h"

class GUIHVLHandleTest {
public:
    GUIHVLHandleTest(nlohmann::json& test, TestStorage& storage, Scheduler& scheduler, std::vector<VEX_DIE_INFO> dies,
                     PCIE::MarginStopFlag stop = PCIE::MarginStopFlag());
    void start();
    void thread_fuction();

private:
    nlohmann::json _test;
    TestStorage& _storage;
    Scheduler& _scheduler;
    std::vector<VEX_DIE_INFO> _dies;
    PCIE::MarginStopFlag _stop;
};

// The queue's check of an hVL margin record: a die and one of its live hVL
// links, "BER" 8 to 14, "ErrCnt" 1 to 63, lanes that exist, once each.
std::optional<std::string> check_hvl_margin_record(const nlohmann::json& test, GUIResourceStore& store);

// "TestOutput" from the job's lane objects for `lanes`: "complete" with the
// smallest of each margin when every lane was margined, else "Failed" with
// the first failed lane's reason; "FullMarginData" holds the lanes that ran.
nlohmann::json hvl_margin_test_output(const nlohmann::json& report, const std::vector<unsigned int>& lanes,
                                      const std::string& folder);
// The CSV of the lanes: header, then one row per lane object.
std::string hvl_margin_csv(const nlohmann::json& report);

// Nominal seconds a record's margin takes, for the estimate route:
// {"OperationStatus", "Seconds", "DwellSeconds", "Batches", "Lanes"}.
nlohmann::json estimate_hvl_margin(const nlohmann::json& test, GUIResourceStore& store);

class HVLMarginRunner : public TestRunner {
public:
    explicit HVLMarginRunner(PCIE::MarginStopFlag stop) : _stop(std::move(stop)) {}
    std::optional<std::string> check_record(const nlohmann::json& test, GUIResourceStore& store) const override;
    void start(const nlohmann::json& test, GUIResourceStore& store, TestStorage& storage,
               Scheduler& scheduler) const override;

private:
    PCIE::MarginStopFlag _stop;
};
