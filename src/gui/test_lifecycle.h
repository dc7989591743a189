// The start and the end every test runner shares: a stop flag of the test's
// own that a cancel raises, and the last steps of its thread (folder, the
// cancel's verdict, "output.json", then out of the scheduler and the running
// list, in that order so the thread is queued for its join first).
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "margin_pcie/margin_stop_flag.h"

class Scheduler;
struct TestStorage;

// A flag linked to the service's: a cancel of this test raises it alone,
// shutdown still raises it with every other test's.
PCIE::MarginStopFlag own_stop_flag(TestStorage& storage, unsigned long test_id, const PCIE::MarginStopFlag& service);

// Writes one result file whole (temporary name, rename); a failure throws
// and is the test's failure.
void write_result_file(const std::string& folder, const std::string& name, const std::string& content);

// "TestOutput" of a margin that measured every lane of report: "complete",
// the smallest of each of the four figures over the lanes (each may come from
// another lane), "Time", "TimeStamp", "ResultsFolder" and "FullMarginData".
nlohmann::json complete_margin_output(const nlohmann::json& report, const std::string& folder);

// Ends a test whose "TestOutput" is set. folder may be empty (the failure
// came before it was made); kind names the test in log lines.
void finish_test(TestStorage& storage, Scheduler& scheduler, nlohmann::json& test, std::string folder,
                 const std::string& kind);
