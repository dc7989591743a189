#include "service/archive_index.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>

#include "gui/test_record_checks.h"
#include "hardware/file_logger.h"
#include "hardware/os_specific.h"
#include "hardware/time_format.h"
#include "result_data/eye_grade.h"

using nlohmann::json;
namespace fs = std::filesystem;

namespace {

constexpr const char* kIndexFile = ".archive-index.sqlite3";
// Raised whenever the table changes or a summary field is computed
// differently; fields added or removed change index_version() by themselves.
constexpr int kSchemaVersion = 1;

bool is_stamp(const std::string& text) {
    static const std::regex form(R"(\d{4}_\d{2}_\d{2}-\d{2}_\d{2}_\d{2})");
    if (!std::regex_match(text, form)) return false;
    try {
        make_date_time_user_readable(text);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

std::string text_at(const json& object, const char* key) {
    if (!object.is_object()) return {};
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string{};
}

json value_at(const json& object, const char* key) {
    if (!object.is_object()) return nullptr;
    const auto found = object.find(key);
    return found == object.end() ? json(nullptr) : *found;
}

json number_at(const json& object, const char* key, double scale = 1.0) {
    const json value = value_at(object, key);
    if (!value.is_number()) return nullptr;
    return scale == 1.0 ? value : json(value.get<double>() * scale);
}

long long test_number(const std::string& folder) {
    static const std::regex form(R"(test_(\d{1,18}))");
    std::smatch match;
    return std::regex_match(folder, match, form) ? std::stoll(match[1].str()) : -1;
}

std::string canonical_sbdf(const std::string& text) {
    const auto id = parse_sbdf(text);
    if (!id) return text;
    char out[48];
    std::snprintf(out, sizeof(out), "%x:%x:%x.%x", id->segment, id->bus, id->device, id->function);
    return out;
}

struct FileState {
    std::int64_t size = 0;
    std::int64_t mtime_ns = 0;
};

std::optional<FileState> file_state(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
    return FileState{static_cast<std::int64_t>(info.st_size),
                     static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec};
}

// A prepared statement that finalizes itself.
class Statement {
public:
    Statement(sqlite3* db, const char* sql) : _db(db) {
        if (sqlite3_prepare_v2(db, sql, -1, &_statement, nullptr) != SQLITE_OK)
            throw std::runtime_error(std::string("archive index: ") + sqlite3_errmsg(db));
    }
    ~Statement() { sqlite3_finalize(_statement); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(int index, const std::string& text) {
        sqlite3_bind_text(_statement, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
        return *this;
    }
    Statement& bind(int index, std::int64_t number) {
        sqlite3_bind_int64(_statement, index, number);
        return *this;
    }
    Statement& bind_null(int index) {
        sqlite3_bind_null(_statement, index);
        return *this;
    }
    // True while there is a row.
    bool step() {
        const int status = sqlite3_step(_statement);
        if (status == SQLITE_ROW) return true;
        if (status == SQLITE_DONE) return false;
        throw std::runtime_error(std::string("archive index: ") + sqlite3_errmsg(_db));
    }
    void run() {
        step();
        reset();
    }
    void reset() {
        sqlite3_reset(_statement);
        sqlite3_clear_bindings(_statement);
    }
    std::string text(int column) const {
        const auto* bytes = sqlite3_column_text(_statement, column);
        return bytes ? std::string(reinterpret_cast<const char*>(bytes),
                                   static_cast<std::size_t>(sqlite3_column_bytes(_statement, column)))
                     : std::string{};
    }
    std::int64_t number(int column) const { return sqlite3_column_int64(_statement, column); }

private:
    sqlite3* _db;
    sqlite3_stmt* _statement = nullptr;
};

void execute(sqlite3* db, const char* sql) {
    char* error = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
        const std::string text = error ? error : "unknown error";
        sqlite3_free(error);
        throw std::runtime_error("archive index: " + text);
    }
}

// Commits at the end of a scope, rolls back when left by an exception.
class Transaction {
public:
    explicit Transaction(sqlite3* db) : _db(db) { execute(db, "BEGIN"); }
    ~Transaction() {
        if (!_done) sqlite3_exec(_db, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    void commit() {
        execute(_db, "COMMIT");
        _done = true;
    }

private:
    sqlite3* _db;
    bool _done = false;
};

bool read_text(const std::string& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream buffer;
    buffer << in.rdbuf();
    text = buffer.str();
    return !in.bad();
}

}  // namespace

json make_result_summary(const json& record, const std::string& run, const std::string& folder) {
    const json output = value_at(record, "TestOutput");
    const json params = value_at(record, "TestParams");
    const json pcie = value_at(record, "PCIeInfo");
    const json& link = pcie.is_object() ? pcie : value_at(record, "HVLCtrlInfo");
    const std::string operation = text_at(record, "Operation");
    const std::string status = text_at(output, "Status");
    const std::string finished = text_at(output, "TimeStamp");

    json lanes = json::array();
    std::string error;
    if (const auto parsed = parse_lanes(value_at(params, "Lanes"), error)) lanes = *parsed;

    // The figures only mean something for a test that measured; both
    // margins write their voltages in volts under keys that say millivolts.
    const bool measured = status == "complete";
    const double volt_scale = operation == "PCIe Margin" || operation == "HVL Destructive Margin" ? 1000.0 : 1.0;
    auto figure = [&](const char* key, double scale) { return measured ? number_at(output, key, scale) : json(nullptr); };

    return {{"ResultId", run + "/" + folder},
            {"RunStamp", run},
            {"Stamp", is_stamp(finished) ? finished : run},
            {"TestID", value_at(record, "TestID")},
            {"Operation", operation.empty() ? json(nullptr) : json(operation)},
            {"Status", status.empty() ? json(nullptr) : json(status)},
            {"FailureReason", value_at(output, "FailureReason")},
            {"Time", value_at(output, "Time")},
            {"SBDF", value_at(pcie, "SBDF")},
            // An hVL test's link end, for the browser to name it as it names links.
            {"Link", pcie.is_object() || !link.is_object()
                         ? json(nullptr)
                         : json{{"DeviceName", value_at(link, "DeviceName")},
                                {"SERDES", value_at(link, "SERDES")},
                                {"Socket", value_at(link, "Socket")},
                                {"Die", value_at(link, "Die")}}},
            {"Receiver", value_at(params, "Receiver")},
            {"Lanes", lanes},
            {"BER", value_at(params, "BER")},
            {"ErrCnt", value_at(params, "ErrCnt")},
            {"Speed", value_at(link, "Speed")},
            {"Width", value_at(link, "Width")},
            {"PhaseLeftUI", figure("PhaseLeft (UI)", 1.0)},
            {"PhaseRightUI", figure("PhaseRight (UI)", 1.0)},
            {"VoltTopMV", figure("VrefTop (mv)", volt_scale)},
            {"VoltBotMV", figure("VrefBot (mv)", volt_scale)},
            // Eye scans have no grading thresholds.
            {"Grade", operation == "EyeScan" ? json(nullptr) : eye_grade_json(grade_margin_record(record).test)}};
}

std::optional<std::pair<std::string, std::string>> parse_result_id(const std::string& id) {
    const auto slash = id.find('/');
    if (slash == std::string::npos) return std::nullopt;
    std::string run = id.substr(0, slash);
    std::string folder = id.substr(slash + 1);
    if (!is_stamp(run) || test_number(folder) < 0) return std::nullopt;
    return std::make_pair(std::move(run), std::move(folder));
}

namespace {

void add_key_paths(const json& value, const std::string& at, uint32_t& hash) {
    if (!value.is_object()) return;
    for (const auto& item : value.items()) {
        for (unsigned char c : at + "/" + item.key()) hash = (hash ^ c) * 16777619u;  // FNV-1a
        add_key_paths(item.value(), at + "/" + item.key(), hash);
    }
}

}  // namespace

// The index's user_version: the table's version and the shape of the
// summaries it stores, so that rows summarised by older code (which lack a
// field added since) are never served: the index is made again instead.
int index_version() {
    static const int version = [] {
        uint32_t hash = 2166136261u ^ static_cast<uint32_t>(kSchemaVersion);
        const json probes[] = {json::object(),
                               {{"Operation", "PCIe Margin"}, {"TestOutput", {{"Status", "complete"}}}},
                               {{"Operation", "HVL Destructive Margin"}, {"HVLCtrlInfo", json::object()}},
                               {{"Operation", "EyeScan"}, {"PCIeInfo", json::object()}}};
        for (const json& probe : probes) add_key_paths(make_result_summary(probe, "", "test_0"), "", hash);
        return static_cast<int>(hash & 0x7FFFFFFF);
    }();
    return version;
}

ArchiveIndex::ArchiveIndex(std::string root) : _root(std::move(root)) {}

ArchiveIndex::~ArchiveIndex() {
    if (_db) sqlite3_close(_db);
}

void ArchiveIndex::open() {
    std::error_code ec;
    const bool root_exists = fs::is_directory(_root, ec);
    const std::string path = (fs::path(_root) / kIndexFile).string();
    // Kept while it is the right kind; a file removed under us is made again.
    if (_db && (_in_memory ? !root_exists : fs::exists(path, ec))) return;
    if (_db) sqlite3_close(_db);
    _db = nullptr;

    auto try_open = [&](const std::string& path) -> bool {
        if (sqlite3_open_v2(path.c_str(), &_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                            nullptr) != SQLITE_OK) {
            if (_db) sqlite3_close(_db);
            _db = nullptr;
            return false;
        }
        try {
            sqlite3_busy_timeout(_db, 2000);
            execute(_db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL");
            int version = 0;
            {
                Statement statement(_db, "PRAGMA user_version");
                if (statement.step()) version = static_cast<int>(statement.number(0));
            }
            if (version != index_version()) {
                execute(_db,
                        "DROP TABLE IF EXISTS tests;"
                        "CREATE TABLE tests(run TEXT NOT NULL, folder TEXT NOT NULL, test_no INTEGER NOT NULL,"
                        " size INTEGER NOT NULL, mtime_ns INTEGER NOT NULL, valid INTEGER NOT NULL,"
                        " stamp TEXT, sbdf TEXT, summary TEXT, PRIMARY KEY(run, folder));"
                        "CREATE INDEX tests_newest ON tests(stamp, run, test_no);");
                execute(_db, ("PRAGMA user_version=" + std::to_string(index_version())).c_str());
            }
            return true;
        } catch (const std::exception& error) {
            Logger::get().log(std::string("Result archive: index ") + path + " unusable (" + error.what() + ")");
            sqlite3_close(_db);
            _db = nullptr;
            return false;
        }
    };

    _in_memory = !root_exists;
    if (root_exists) {
        if (try_open(path)) return;
        // A damaged index is only a cache: start it again.
        for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(path + suffix, ec);
        if (try_open(path)) return;
        Logger::get().log("Result archive: index kept in memory; " + path + " can't be written");
        _in_memory = true;
    }
    if (!try_open(":memory:")) throw std::runtime_error("archive index: no database");
}

void ArchiveIndex::log_and_reset(const std::string& reason) {
    Logger::get().log("Result archive: index made again from the files (" + reason + ")");
    reset();
}

void ArchiveIndex::reset() {
    if (_db) sqlite3_close(_db);
    _db = nullptr;
    if (_in_memory) return;
    std::error_code ec;
    const std::string path = (fs::path(_root) / kIndexFile).string();
    for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(path + suffix, ec);
}

std::vector<std::string> ArchiveIndex::run_folders() const {
    std::vector<std::string> runs;
    OSSpecific os;
    for (const auto& folder : os.get_all_subfolders(_root)) {
        if (is_stamp(os.get_file_name_from_path(folder))) runs.push_back(folder);
    }
    return runs;
}

void ArchiveIndex::sync_run(const std::string& run_folder) {
    OSSpecific os;
    const std::string run = os.get_file_name_from_path(run_folder);

    std::map<std::string, FileState> known;
    {
        Statement rows(_db, "SELECT folder, size, mtime_ns FROM tests WHERE run = ?");
        rows.bind(1, run);
        while (rows.step()) known[rows.text(0)] = {rows.number(1), rows.number(2)};
    }

    Statement upsert(_db,
                     "INSERT OR REPLACE INTO tests(run, folder, test_no, size, mtime_ns, valid, stamp, sbdf, summary)"
                     " VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)");
    Statement remove(_db, "DELETE FROM tests WHERE run = ? AND folder = ?");
    std::set<std::string> present;
    for (const auto& test_folder : os.get_all_subfolders(run_folder)) {
        if (_cancelled) throw IndexCancelled();
        const std::string folder = os.get_file_name_from_path(test_folder);
        const std::string file = os.append_to_path(test_folder, "output.json");
        const auto state = file_state(file);
        if (!state) continue;  // a test still being written, or not a test
        present.insert(folder);
        const auto old = known.find(folder);
        if (old != known.end() && old->second.size == state->size && old->second.mtime_ns == state->mtime_ns)
            continue;

        std::string text;
        json record;
        bool valid = false;
        if (read_text(file, text)) {
            try {
                // The error maps are half of a record and no summary or
                // grade reads them: they are passed over, not stored.
                record = json::parse(text, [](int, json::parse_event_t event, json& value) {
                    return !(event == json::parse_event_t::key && value.is_string() &&
                             value.get_ref<const std::string&>().ends_with("ErrorMap"));
                });
                valid = record.is_object();
                if (!valid) Logger::get().log("Result archive: " + file + " holds no test record; skipped");
            } catch (const json::exception& error) {
                Logger::get().log("Result archive: " + file + " is not valid JSON (" + error.what() + "); skipped");
            }
        } else {
            Logger::get().log("Result archive: no readable " + file + "; skipped");
        }
        upsert.bind(1, run).bind(2, folder).bind(3, static_cast<std::int64_t>(test_number(folder)));
        upsert.bind(4, state->size).bind(5, state->mtime_ns).bind(6, std::int64_t{valid ? 1 : 0});
        if (valid) {
            const json summary = make_result_summary(record, run, folder);
            upsert.bind(7, summary["Stamp"].get<std::string>());
            const json sbdf = summary["SBDF"];
            if (sbdf.is_string()) {
                upsert.bind(8, canonical_sbdf(sbdf.get<std::string>()));
            } else {
                upsert.bind_null(8);
            }
            upsert.bind(9, summary.dump());
        } else {
            upsert.bind_null(7).bind_null(8).bind_null(9);
        }
        upsert.run();
    }
    for (const auto& [folder, state] : known) {
        if (!present.count(folder)) {
            remove.bind(1, run).bind(2, folder);
            remove.run();
        }
    }
}

void ArchiveIndex::sync_all() {
    std::lock_guard<std::mutex> lock(_mutex);
    guarded([&] { sync_all_locked(); });
}

void ArchiveIndex::sync_all_locked() {
    open();
    const auto runs = run_folders();
    Transaction transaction(_db);
    std::set<std::string> names;
    OSSpecific os;
    for (const auto& run : runs) {
        names.insert(os.get_file_name_from_path(run));
        sync_run(run);
    }
    std::vector<std::string> gone;
    {
        Statement indexed(_db, "SELECT DISTINCT run FROM tests");
        while (indexed.step()) {
            if (!names.count(indexed.text(0))) gone.push_back(indexed.text(0));
        }
    }
    Statement remove(_db, "DELETE FROM tests WHERE run = ?");
    for (const auto& run : gone) {
        remove.bind(1, run);
        remove.run();
    }
    transaction.commit();
}

std::vector<IndexedTest> ArchiveIndex::tests_of_runs(const std::vector<std::string>& run_folders) {
    std::lock_guard<std::mutex> lock(_mutex);
    return guarded([&] { return tests_of_runs_locked(run_folders); });
}

std::vector<IndexedTest> ArchiveIndex::tests_of_runs_locked(const std::vector<std::string>& run_folders) {
    open();
    OSSpecific os;
    std::vector<IndexedTest> tests;
    Transaction transaction(_db);
    Statement rows(_db, "SELECT folder, size, mtime_ns FROM tests WHERE run = ? AND valid = 1 ORDER BY folder");
    for (const auto& run_folder : run_folders) {
        sync_run(run_folder);
        const std::string run = os.get_file_name_from_path(run_folder);
        rows.bind(1, run);
        while (rows.step()) {
            const std::string folder = rows.text(0);
            tests.push_back({run, folder, os.append_to_path(os.append_to_path(run_folder, folder), "output.json"),
                             rows.number(1), rows.number(2)});
        }
        rows.reset();
    }
    transaction.commit();
    return tests;
}

SummaryPage ArchiveIndex::summaries(const SummaryQuery& query) {
    std::lock_guard<std::mutex> lock(_mutex);
    return guarded([&] { return summaries_locked(query); });
}

SummaryPage ArchiveIndex::summaries_locked(const SummaryQuery& query) {
    sync_all_locked();
    const char* filter =
        " FROM tests WHERE valid = 1 AND (?1 IS NULL OR sbdf = ?1) AND (?2 IS NULL OR stamp >= ?2)"
        " AND (?3 IS NULL OR stamp <= ?3)";
    auto bind_filter = [&](Statement& statement) {
        if (query.sbdf) {
            statement.bind(1, canonical_sbdf(*query.sbdf));
        } else {
            statement.bind_null(1);
        }
        if (query.from) {
            statement.bind(2, *query.from);
        } else {
            statement.bind_null(2);
        }
        if (query.to) {
            statement.bind(3, *query.to);
        } else {
            statement.bind_null(3);
        }
    };
    SummaryPage page;
    {
        Statement count(_db, (std::string("SELECT COUNT(*)") + filter).c_str());
        bind_filter(count);
        if (count.step()) page.total = static_cast<std::size_t>(count.number(0));
    }
    Statement rows(_db, (std::string("SELECT summary") + filter +
                         " ORDER BY stamp DESC, run DESC, test_no DESC, folder DESC LIMIT ?4 OFFSET ?5")
                            .c_str());
    bind_filter(rows);
    rows.bind(4, static_cast<std::int64_t>(query.limit)).bind(5, static_cast<std::int64_t>(query.offset));
    while (rows.step()) page.summaries.push_back(rows.text(0));
    return page;
}

std::vector<IndexedTest> ArchiveIndex::tests_between(const std::string& from, const std::string& to) {
    std::lock_guard<std::mutex> lock(_mutex);
    return guarded([&] { return tests_between_locked(from, to); });
}

std::vector<IndexedTest> ArchiveIndex::tests_between_locked(const std::string& from, const std::string& to) {
    sync_all_locked();
    OSSpecific os;
    std::vector<IndexedTest> tests;
    Statement rows(_db,
                   "SELECT run, folder, size, mtime_ns FROM tests WHERE valid = 1 AND stamp >= ? AND stamp <= ?"
                   " ORDER BY stamp, run, test_no, folder");
    rows.bind(1, from).bind(2, to);
    while (rows.step()) {
        const std::string run = rows.text(0), folder = rows.text(1);
        tests.push_back({run, folder,
                         os.append_to_path(os.append_to_path(os.append_to_path(_root, run), folder), "output.json"),
                         rows.number(2), rows.number(3)});
    }
    return tests;
}
