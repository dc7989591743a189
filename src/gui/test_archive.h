// How a test that measured nothing still reaches the archive: a test
// cancelled in the queue, dropped at shutdown, or found in the journal after
// a crash gets its own "test_<id>" folder with an "output.json" holding its
// record and a "TestOutput" that says why. Nothing a user queued disappears.
#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

class GUIResourceStore;
struct TestStorage;

// Reasons of tests that never measured, as "FailureReason".
inline constexpr const char* kCancelledQueued = "Cancelled before it started";
inline constexpr const char* kCancelledRunning = "Cancelled by the user";
inline constexpr const char* kNotStartedAtStop = "Not started: the service stopped";
inline constexpr const char* kNotStartedAtCrash = "Not started: the service ended before this test ran";
inline constexpr const char* kInterruptedAtCrash = "Interrupted: the service ended while this test ran";

// "TestOutput" of a test without figures: status ("Failed", "Cancelled"),
// the reason, the four figures 0 as on any failure, "Time", "TimeStamp" (the
// folder-stamp form) and "ResultsFolder".
nlohmann::json unmeasured_test_output(const std::string& status, const std::string& reason,
                                      const std::string& folder);

// The record as the archive keeps it: without the keys the queue adds for the
// browser while a test waits or runs ("Status", "Progress", "WaitingFor",
// "Cancelling", "ResultId").
nlohmann::json archivable_record(nlohmann::json record);

// "<run folder name>/test_<id>" of a test folder: how the browser names a result.
std::string result_id_of_folder(const std::string& folder);

// The entry of "FinishedTests" for a record that carries "TestOutput".
nlohmann::json finished_summary(const nlohmann::json& record);

// Writes folder/output.json (the folder is made if missing) with the record
// and "TestOutput" = output, unless an output.json is there already: a test
// archived once is never archived again. False with err when writing failed.
bool archive_in_folder(const nlohmann::json& record, const nlohmann::json& output, const std::string& folder,
                       std::string& err);

// Cancels the test with this id: a queued one leaves the queue and is
// archived "Cancelled"; a running one is asked to stop and archives itself.
// The reason it can't be done, or nothing when done.
std::optional<std::string> cancel_test(TestStorage& storage, GUIResourceStore& store, uint64_t id);

// At shutdown: every queued test leaves the queue archived "Failed" with
// kNotStartedAtStop. Returns how many.
std::size_t archive_queue_at_stop(TestStorage& storage, GUIResourceStore& store);
