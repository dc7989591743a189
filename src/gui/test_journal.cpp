#include "gui/test_journal.h"

#include <filesystem>
#include <fstream>
#include <system_error>

#include "gui/test_archive.h"
#include "hardware/atomic_file.h"
#include "hardware/file_logger.h"
#include "hardware/time_format.h"

using nlohmann::json;
namespace fs = std::filesystem;

TestJournal::TestJournal(std::string path, std::function<std::string()> run_folder)
    : _path(std::move(path)), _run_folder(std::move(run_folder)) {}

void TestJournal::write(uint64_t version, const std::vector<json>& queued, const std::vector<json>& running) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (version <= _written) return;
    _written = version;
    std::error_code error;
    if (queued.empty() && running.empty()) {
        fs::remove(_path, error);
        if (error) Logger::get().log("Test journal: cannot remove " + _path + ": " + error.message());
        return;
    }
    if (_run_name.empty()) _run_name = fs::path(_run_folder()).filename().string();
    json document = {{"RunFolder", _run_name}, {"Queued", json::array()}, {"Running", json::array()}};
    for (const json& record : queued) document["Queued"].push_back(archivable_record(record));
    for (const json& record : running) document["Running"].push_back(archivable_record(record));
    std::string err;
    if (!write_file_atomically(_path, document.dump() + "\n", err)) Logger::get().log("Test journal: " + err);
}

namespace {

// A run folder name from the journal must name one folder inside the root.
bool plain_folder_name(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

void recover_list(const fs::path& run, const json& list, const char* reason, JournalRecovery& recovery) {
    if (!list.is_array()) return;
    for (const json& entry : list) {
        if (!entry.is_object() || !entry.contains("TestID") || !entry["TestID"].is_number_unsigned()) {
            recovery.problems.push_back("journal entry without a TestID skipped: " + entry.dump().substr(0, 200));
            continue;
        }
        const std::string folder = (run / ("test_" + entry["TestID"].dump())).string();
        json record = entry;
        record["TestOutput"] = unmeasured_test_output("Failed", reason, folder);
        std::string err;
        if (fs::exists(fs::path(folder) / "output.json")) continue;  // it finished before the end
        if (archive_in_folder(record, record["TestOutput"], folder, err))
            recovery.archived.push_back(finished_summary(record));
        else
            recovery.problems.push_back("test " + entry["TestID"].dump() + " not archived: " + err);
    }
}

}  // namespace

JournalRecovery recover_test_journal(const std::string& root) {
    JournalRecovery recovery;
    const fs::path path = fs::path(root) / TestJournal::kFileName;
    std::error_code error;
    if (!fs::exists(path, error)) return recovery;
    json document;
    try {
        std::ifstream in(path);
        document = json::parse(in);
    } catch (const std::exception& parse_error) {
        document = json();
        recovery.problems.push_back(std::string("test journal unreadable: ") + parse_error.what());
    }
    std::string run;
    if (document.is_object() && document.contains("RunFolder") && document["RunFolder"].is_string())
        run = document["RunFolder"].get<std::string>();
    if (!plain_folder_name(run)) {
        // Kept for a person to look at; the next journal is a new file.
        const fs::path kept = path.string() + ".unreadable-" + time_stamp();
        fs::rename(path, kept, error);
        recovery.problems.push_back("test journal without a usable run folder kept as " + kept.string());
        return recovery;
    }
    recover_list(fs::path(root) / run, document.value("Running", json::array()), kInterruptedAtCrash, recovery);
    recover_list(fs::path(root) / run, document.value("Queued", json::array()), kNotStartedAtCrash, recovery);
    fs::remove(path, error);
    if (error) recovery.problems.push_back("cannot remove the test journal: " + error.message());
    return recovery;
}
