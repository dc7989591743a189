// A small journal of what is queued and running, kept in the result root so
// that a service killed without warning loses no test: at the next start
// each test found in it is archived with the reason it never finished.
//
// The file ("queue_journal.json") is rewritten whole, through the atomic
// writer, on every change of the two lists, and removed when both are empty:
// {"RunFolder": "<run folder name>", "Queued": [record...], "Running": [record...]}.
// Records are kept without the keys that only the browser needs. TestIDs
// start at 0 in every process, so the journal names the run folder its
// tests belong to and recovery archives them there, never in a new run.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

class TestJournal {
public:
    static constexpr const char* kFileName = "queue_journal.json";

    // run_folder gives the path of this process's run folder; it is asked
    // once, when the first test is journalled.
    TestJournal(std::string path, std::function<std::string()> run_folder);

    // Writes the lists of this version unless a later one is on disk already
    // (writers race once they have released the storage's lock).
    void write(uint64_t version, const std::vector<nlohmann::json>& queued,
               const std::vector<nlohmann::json>& running);

private:
    std::mutex _mutex;
    uint64_t _written = 0;
    const std::string _path;
    std::function<std::string()> _run_folder;
    std::string _run_name;
};

struct JournalRecovery {
    // The "FinishedTests" form of every test archived from the journal.
    std::vector<nlohmann::json> archived;
    // What could not be done, one line each (logged by the caller).
    std::vector<std::string> problems;
};

// At start, before any test is queued: archives every test of the journal in
// root "Failed" (running ones with what their folder holds, queued ones in a
// folder of their own), skipping any already archived, then removes the
// journal. A journal that can't be read is kept under another name.
JournalRecovery recover_test_journal(const std::string& root);
