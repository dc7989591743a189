// The result archive: the folder tree under the store's root folder, one
// folder per run named by its time stamp, one folder per test holding the
// test's "output.json". There is no database; the tree survives restarts.
//
// Reading is forgiving on purpose: a run's newest test may still be writing
// its record, and a disk may hold a damaged one. A record that can't be read
// is skipped with a log line, so one bad file never hides the others or ends
// a route or the download thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "gui/gui_resource_store.h"

// A run: its user-readable date ("2 May 9:06AM") and the folder's full path.
using ResultRun = std::pair<std::string, std::string>;

// All runs under the root folder, oldest first. Subfolders whose name isn't a
// time stamp aren't runs and are left out with a log line.
class GUIGetAllInstanceFolder {
public:
    explicit GUIGetAllInstanceFolder(GUIResourceStore& store) : _store(store) {}
    std::vector<ResultRun> get();

private:
    GUIResourceStore& _store;
};

// The test records of one run, in the order of their folder names. A folder
// without a readable "output.json" holding a JSON object is skipped.
class GUIGetAllResultsInInstanceFolder {
public:
    explicit GUIGetAllResultsInInstanceFolder(GUIResourceStore& store) : _store(store) {}
    std::vector<nlohmann::json> get(const std::string& path);

private:
    GUIResourceStore& _store;  // kept for the shape of the interface
};

// The two report kinds the archive exports; eye scans have no export.
enum class ArchiveReportKind { PCIe, HVL };

// "pcie_margin_report.csv" or "hvl_margin_report.csv".
const char* archive_report_file_name(ArchiveReportKind kind);

// Options of the browser's export; the machine's report files have neither.
struct ArchiveReportStyle {
    // Each row ends in the lane's "Eye Width (ps)", "Eye Height (mV)", "Grade"
    // and "Grade Note"; rows of lanes without grade leave them empty.
    bool grades = false;
    // Cells are made safe to open in a spreadsheet (see guard_csv_cell).
    bool guard_cells = false;
};

// Builds a report one record at a time, so a range of any size never has to
// be held in memory. Same rules as make_archive_report.
class ArchiveReportWriter {
public:
    explicit ArchiveReportWriter(ArchiveReportKind kind, ArchiveReportStyle style = {});
    ~ArchiveReportWriter();
    // Appends the record's rows (and the header before the first) to `csv`.
    void add(const nlohmann::json& record, std::string& csv);
    unsigned long documents() const { return _documents; }

private:
    struct Handler;
    ArchiveReportKind _kind;
    ArchiveReportStyle _style;
    std::unique_ptr<Handler> _handler;
    bool _header_written = false;
    bool _no_writer = false;
    unsigned long _documents = 0;
};

// A spreadsheet runs a cell that begins with =, +, -, @, a tab or a carriage
// return as a formula. Such a cell gets a leading apostrophe, which
// spreadsheets show as text and don't run. A cell that is a plain number
// ("-0.05", "+3", "1e-3") is left as it is, so figures stay figures.
std::string guard_csv_cell(const std::string& cell);

// Appends the compact form of a JSON text that is known to be valid: the
// blanks between tokens are dropped, strings are copied as they stand. For a
// text written by the JSON library this is exactly what parsing it and
// dumping it compactly gives, at a fraction of the cost.
void append_compact_json(const char* text, std::size_t size, std::string& out);

struct ArchiveReport {
    std::string csv;             // header once, then one row per lane
    unsigned long documents = 0;  // test records that gave rows
};

// The report of one kind over the given records: records of other
// operations, unfinished or failed ones and those without "FullMarginData"
// are passed over. The header comes from the first record that gives rows.
// Decisions of our own: a record whose rows can't be written (missing keys)
// is left out whole with a log line instead of ending the export, and an
// empty "FullMarginData" gives no rows and isn't counted. While no hVL
// writer exists, hVL records are skipped with a log line and counted as 0.
ArchiveReport make_archive_report(ArchiveReportKind kind, const std::vector<nlohmann::json>& results);

// Writes "hvl_margin_report.csv" and "pcie_margin_report.csv" into dir_path
// (on the machine under test) and answers "<n> pcie device and <m> hvl
// devices data dumped.". Each file is written under a temporary name and
// renamed, so a reader never sees half a report. A file that can't be
// written answers "Failed. Unable to write <path>." instead of counts that
// promise a file which isn't there.
class GUIDumpResults {
public:
    explicit GUIDumpResults(GUIResourceStore& store) : _store(store) {}
    std::string get(const std::string& dir_path, const std::vector<nlohmann::json>& results);

private:
    GUIResourceStore& _store;  // kept for the shape of the interface
};

// The runs from the first one dated `start` up to and including the last one
// dated `end`; nothing when either date names no run. With `start` later
// than `end` the walk is empty. A readable date has no year and no seconds,
// so several runs may share it: all of them lie in the range.
std::optional<std::vector<ResultRun>> find_runs_in_date_range(GUIResourceStore& store, const std::string& start,
                                                              const std::string& end);

// The records of the given runs, run after run.
std::vector<nlohmann::json> get_results_of_runs(GUIResourceStore& store, const std::vector<ResultRun>& runs);

struct IndexedTest;

// Writes the records as one JSON array (compact, as get_results_of_runs would
// dump them) in pieces of about 256 KiB through `write`, which answers false
// when nobody takes more. A record that changed since it was indexed is
// parsed again, and left out with a log line if it no longer is one. Answers
// false when the writing was cut short.
bool write_records_as_array(const std::vector<IndexedTest>& tests, const std::function<bool(std::string)>& write);

// Calls `each` with every readable record of the list, one at a time.
void for_each_record(const std::vector<IndexedTest>& tests, const std::function<bool(const nlohmann::json&)>& each);

// The records of all runs in the range, or nothing as above.
std::optional<std::vector<nlohmann::json>> get_results_in_date_range(GUIResourceStore& store,
                                                                     const std::string& start,
                                                                     const std::string& end);

constexpr const char* kDateRangeInvalid = "Failed. Date range invalid.";

// What GUIDumpResults::get writes for the records of these runs, read and
// written one record at a time so that a range of any size fits in memory.
std::string dump_runs_to_folder(const std::vector<ResultRun>& runs, const std::string& dir_path);

// The body of the export thread: exports the range into dir_path and sends
// {"key": "DownloadUpdate", "msg": <outcome>} through `send`. Never throws;
// an unexpected failure is logged and sent as "Failed. <reason>".
void thread_for_download(GUIResourceStore& store, const std::string& start, const std::string& end,
                         const std::string& dir_path, const std::function<void(const nlohmann::json&)>& send);
