#include "service/result_archive.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <unistd.h>

#include "hardware/file_logger.h"
#include "hardware/os_specific.h"
#include "hardware/time_format.h"
#include "result_data/data_handler.h"

using nlohmann::json;

namespace {

bool read_text_file(const std::string& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream buffer;
    buffer << in.rdbuf();
    if (in.bad()) return false;
    text = buffer.str();
    return true;
}

const char* operation_of(ArchiveReportKind kind) {
    return kind == ArchiveReportKind::PCIe ? "PCIe Margin" : "HVL Destructive Margin";
}

const char* kind_name(ArchiveReportKind kind) { return kind == ArchiveReportKind::PCIe ? "PCIe" : "hVL"; }

std::string text_value(const json& object, const char* key) {
    if (!object.is_object()) return {};
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string{};
}

// The lane array of a finished margin test of this kind, or null.
const json* margin_data_of(const json& record, ArchiveReportKind kind) {
    if (text_value(record, "Operation") != operation_of(kind)) return nullptr;
    const auto output = record.find("TestOutput");
    if (output == record.end() || text_value(*output, "Status") != "complete") return nullptr;
    const auto data = output->find("FullMarginData");
    if (data == output->end()) return nullptr;
    return &*data;
}

std::string describe(const json& record) {
    const auto id = record.find("TestID");
    const std::string test = id == record.end() ? std::string("without TestID") : "TestID " + id->dump();
    return "test " + test;
}

std::unique_ptr<DataHandler> make_handler(ArchiveReportKind kind) {
    const auto type = kind == ArchiveReportKind::PCIe ? PCIE_DATA_HANDLER : HVL_DATA_HANDLER;
    return DataHandlerCreator().get_data_handler(type, DUMP_MODE_PLAIN, false);
}

// Writes beside the target and renames, so the target is either the old file
// or the whole new one.
bool write_file_atomically(const std::string& path, const std::string& text) {
    const std::string temporary = path + ".partial." + std::to_string(::getpid());
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        if (!out) return false;
        out << text;
        out.flush();
        if (!out) {
            out.close();
            std::remove(temporary.c_str());
            return false;
        }
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        std::remove(temporary.c_str());
        return false;
    }
    return true;
}

}  // namespace

std::vector<ResultRun> GUIGetAllInstanceFolder::get() {
    std::vector<std::pair<std::string, ResultRun>> stamped;  // stamp, run
    OSSpecific os;
    for (const auto& folder : os.get_all_subfolders(_store.get_directory_for_lanewright())) {
        const std::string stamp = os.get_file_name_from_path(folder);
        try {
            stamped.push_back({stamp, {make_date_time_user_readable(stamp), folder}});
        } catch (const std::exception&) {
            Logger::get().log("Result archive: " + folder + " is not named by a time stamp; left out");
        }
    }
    // Stable, so runs whose stamps compare equal keep the listing's order.
    std::stable_sort(stamped.begin(), stamped.end(),
                     [](const auto& a, const auto& b) { return compare_date_time(a.first, b.first); });
    std::vector<ResultRun> runs;
    runs.reserve(stamped.size());
    for (auto& entry : stamped) runs.push_back(std::move(entry.second));
    return runs;
}

std::vector<json> GUIGetAllResultsInInstanceFolder::get(const std::string& path) {
    std::vector<json> results;
    OSSpecific os;
    for (const auto& folder : os.get_all_subfolders(path)) {
        const std::string file = os.append_to_path(folder, "output.json");
        std::string text;
        if (!read_text_file(file, text)) {
            Logger::get().log("Result archive: no readable " + file + "; skipped");
            continue;
        }
        try {
            json record = json::parse(text);
            if (!record.is_object()) {
                Logger::get().log("Result archive: " + file + " holds no test record; skipped");
                continue;
            }
            results.push_back(std::move(record));
        } catch (const json::exception& error) {
            Logger::get().log("Result archive: " + file + " is not valid JSON (" + error.what() + "); skipped");
        }
    }
    return results;
}

const char* archive_report_file_name(ArchiveReportKind kind) {
    return kind == ArchiveReportKind::PCIe ? "pcie_margin_report.csv" : "hvl_margin_report.csv";
}

ArchiveReport make_archive_report(ArchiveReportKind kind, const std::vector<json>& results) {
    ArchiveReport report;
    std::unique_ptr<DataHandler> handler;
    bool header_written = false;
    std::ostringstream csv;
    for (const auto& record : results) {
        const json* data = margin_data_of(record, kind);
        if (!data) continue;
        if (!data->is_array() || data->empty()) {
            Logger::get().log(std::string("Result archive: ") + kind_name(kind) + " " + describe(record) +
                              " has no lane data; not exported");
            continue;
        }
        if (!handler) {
            try {
                handler = make_handler(kind);
            } catch (const std::exception& error) {
                Logger::get().log(std::string("Result archive: no ") + kind_name(kind) + " report writer (" +
                                  error.what() + "); " + kind_name(kind) + " results not exported");
                break;
            }
        }
        // Rows go to a buffer first so a record that fails halfway leaves no
        // partial rows behind.
        const json& first = data->front();
        std::ostringstream rows;
        try {
            if (!header_written) handler->dump_header(first, rows);
            for (const auto& element : *data) handler->dump_data(element, first, rows);
        } catch (const std::exception& error) {
            Logger::get().log(std::string("Result archive: ") + kind_name(kind) + " " + describe(record) +
                              " can't be exported (" + error.what() + "); skipped");
            continue;
        }
        csv << rows.str();
        header_written = true;
        ++report.documents;
    }
    report.csv = csv.str();
    return report;
}

std::string GUIDumpResults::get(const std::string& dir_path, const std::vector<json>& results) {
    OSSpecific os;
    unsigned long counts[2] = {0, 0};
    const ArchiveReportKind kinds[2] = {ArchiveReportKind::HVL, ArchiveReportKind::PCIe};
    for (int i = 0; i < 2; ++i) {
        const ArchiveReport report = make_archive_report(kinds[i], results);
        const std::string file = os.append_to_path(dir_path, archive_report_file_name(kinds[i]));
        if (!write_file_atomically(file, report.csv)) {
            Logger::get().log("Result archive: unable to write " + file);
            return "Failed. Unable to write " + file + ".";
        }
        counts[i] = report.documents;
    }
    return std::to_string(counts[1]) + " pcie device and " + std::to_string(counts[0]) +
           " hvl devices data dumped.";
}

std::optional<std::vector<ResultRun>> find_runs_in_date_range(GUIResourceStore& store, const std::string& start,
                                                              const std::string& end) {
    const auto runs = GUIGetAllInstanceFolder(store).get();
    auto labelled = [&](const std::string& date) { return [&date](const ResultRun& run) { return run.first == date; }; };
    const auto first = std::find_if(runs.begin(), runs.end(), labelled(start));
    const auto last_reversed = std::find_if(runs.rbegin(), runs.rend(), labelled(end));
    if (first == runs.end() || last_reversed == runs.rend()) return std::nullopt;
    const auto last = std::prev(last_reversed.base());
    if (first > last) return std::vector<ResultRun>{};
    return std::vector<ResultRun>(first, last + 1);
}

std::vector<json> get_results_of_runs(GUIResourceStore& store, const std::vector<ResultRun>& runs) {
    std::vector<json> results;
    GUIGetAllResultsInInstanceFolder reader(store);
    for (const auto& run : runs) {
        auto records = reader.get(run.second);
        results.insert(results.end(), std::make_move_iterator(records.begin()),
                       std::make_move_iterator(records.end()));
    }
    return results;
}

std::optional<std::vector<json>> get_results_in_date_range(GUIResourceStore& store, const std::string& start,
                                                           const std::string& end) {
    const auto runs = find_runs_in_date_range(store, start, end);
    if (!runs) return std::nullopt;
    return get_results_of_runs(store, *runs);
}

void thread_for_download(GUIResourceStore& store, const std::string& start, const std::string& end,
                         const std::string& dir_path, const std::function<void(const json&)>& send) {
    std::string message;
    try {
        const auto results = get_results_in_date_range(store, start, end);
        message = results ? GUIDumpResults(store).get(dir_path, *results) : kDateRangeInvalid;
    } catch (const std::exception& error) {
        Logger::get().log(std::string("Result archive: export failed: ") + error.what());
        message = std::string("Failed. ") + error.what();
    }
    try {
        send(json{{"key", "DownloadUpdate"}, {"msg", message}});
    } catch (const std::exception& error) {
        Logger::get().log(std::string("Result archive: export outcome not sent: ") + error.what());
    }
}
