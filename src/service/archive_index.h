// An index of the result archive in an embedded SQLite database.
//
// The folders stay the truth. The index holds, per test folder, the size and
// modification time of its "output.json", whether it is a readable record,
// and the record's summary (without the lane data). Every query first brings
// the index in line with the folders it concerns: a file that is new or whose
// size or time changed is read again, a folder that is gone is dropped. So an
// index that is missing, stale or damaged is rebuilt from the files, and one
// that is current costs a folder listing and a stat per test.
//
// Why an index at all: with 10,000 archived tests (600 MB of records) a
// summary page had to read every record; with the index it reads none, and
// the records a range copies out are known to be whole JSON objects without
// being parsed again. SQLite keeps it on disk (no rebuild at each start, which
// at this size costs about as much as a whole-archive query) and in bounded
// memory, and does the filtering, ordering and paging. The database lives in
// the results root as ".archive-index.sqlite3"; a root that can't hold it gets
// an index in memory for the life of the process.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

struct sqlite3;

// A test folder whose "output.json" held a record when it was indexed.
struct IndexedTest {
    std::string run;     // the run folder's name, a time stamp
    std::string folder;  // "test_<n>"
    std::string path;    // of its "output.json"
    std::int64_t size = 0;
    std::int64_t mtime_ns = 0;
};

struct SummaryQuery {
    std::size_t offset = 0;
    std::size_t limit = 50;
    std::optional<std::string> sbdf;  // any form parse_sbdf reads
    std::optional<std::string> from, to;  // stamps, both ends included
};

struct SummaryPage {
    std::size_t total = 0;
    std::vector<std::string> summaries;  // compact JSON objects, newest first
};

// The summary of one record (see GetResultsSummary). `run` is its run
// folder's name, `folder` its test folder's.
nlohmann::json make_result_summary(const nlohmann::json& record, const std::string& run, const std::string& folder);

// What the index file's user_version must hold to be read; any other value
// (an older table or older summaries) makes the index again.
int index_version();

// "<run>/test_<n>" with a run named by a time stamp, else nothing: an id is
// only ever these two names, so it can't lead out of the archive.
std::optional<std::pair<std::string, std::string>> parse_result_id(const std::string& id);

class ArchiveIndex {
public:
    explicit ArchiveIndex(std::string root);
    ~ArchiveIndex();
    ArchiveIndex(const ArchiveIndex&) = delete;
    ArchiveIndex& operator=(const ArchiveIndex&) = delete;

    // The records of these runs (full paths of run folders), run after run,
    // each run's tests in the order of their folder names.
    std::vector<IndexedTest> tests_of_runs(const std::vector<std::string>& run_folders);

    // A page of summaries over the whole archive, newest first: by "Stamp",
    // then run, then test number.
    SummaryPage summaries(const SummaryQuery& query);

    // The records whose "Stamp" lies between from and to, oldest first.
    std::vector<IndexedTest> tests_between(const std::string& from, const std::string& to);

    // Brings the whole index in line with the folders (also done by each query).
    void sync_all();

    // Ends a running or later query at its next record (it throws), so that
    // a stop never waits for the index of a large archive to be built.
    void cancel() { _cancelled = true; }

private:
    struct IndexCancelled : std::runtime_error {
        IndexCancelled() : std::runtime_error("archive index: the service is stopping") {}
    };
    // Runs a query; one that fails on the database (a damaged file) is run
    // once more on an index made again from the files.
    template <typename Query>
    auto guarded(Query query) {
        try {
            return query();
        } catch (const IndexCancelled&) {
            throw;
        } catch (const std::exception& error) {
            log_and_reset(error.what());
            return query();
        }
    }
    void log_and_reset(const std::string& reason);
    void reset();
    void open();
    void sync_all_locked();
    std::vector<IndexedTest> tests_of_runs_locked(const std::vector<std::string>& run_folders);
    SummaryPage summaries_locked(const SummaryQuery& query);
    std::vector<IndexedTest> tests_between_locked(const std::string& from, const std::string& to);
    void sync_run(const std::string& run_folder);
    std::vector<std::string> run_folders() const;

    std::string _root;
    std::mutex _mutex;  // one connection, one user at a time
    sqlite3* _db = nullptr;
    std::atomic<bool> _cancelled{false};
    bool _in_memory = false;  // until the root folder exists, or when it can't hold the file
};
