#include "service/result_archive.h"

#include <algorithm>
#include <cstdio>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <regex>
#include <sys/stat.h>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <unistd.h>

#include "hardware/file_logger.h"
#include "hardware/os_specific.h"
#include "hardware/time_format.h"
#include "result_data/data_handler.h"
#include "result_data/eye_grade.h"
#include "service/archive_index.h"

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

namespace {

// Calls `each` with the record of every test folder of a run that holds one,
// in the order of the folder names.
void for_each_record_in_run(const std::string& path, const std::function<void(json&)>& each) {
    OSSpecific os;
    for (const auto& folder : os.get_all_subfolders(path)) {
        const std::string file = os.append_to_path(folder, "output.json");
        std::string text;
        if (!read_text_file(file, text)) {
            Logger::get().log("Result archive: no readable " + file + "; skipped");
            continue;
        }
        json record;
        try {
            record = json::parse(text);
        } catch (const json::exception& error) {
            Logger::get().log("Result archive: " + file + " is not valid JSON (" + error.what() + "); skipped");
            continue;
        }
        if (!record.is_object()) {
            Logger::get().log("Result archive: " + file + " holds no test record; skipped");
            continue;
        }
        each(record);
    }
}

}  // namespace

std::vector<json> GUIGetAllResultsInInstanceFolder::get(const std::string& path) {
    std::vector<json> results;
    for_each_record_in_run(path, [&](json& record) { results.push_back(std::move(record)); });
    return results;
}

const char* archive_report_file_name(ArchiveReportKind kind) {
    return kind == ArchiveReportKind::PCIe ? "pcie_margin_report.csv" : "hvl_margin_report.csv";
}

struct ArchiveReportWriter::Handler {
    std::unique_ptr<DataHandler> writer;
};

ArchiveReportWriter::ArchiveReportWriter(ArchiveReportKind kind, ArchiveReportStyle style)
    : _kind(kind), _style(style) {}

ArchiveReportWriter::~ArchiveReportWriter() = default;

namespace {

constexpr const char* kGradeHeader = "Eye Width (ps),Eye Height (mV),Grade,Grade Note,";

std::string number_cell(const std::optional<double>& value) {
    if (!value) return {};
    std::ostringstream out;
    out << *value;
    return out.str();
}

// Rows end in a comma, so cells are appended as "<cell>,".
void append_cells(std::string& line, const std::vector<std::string>& cells) {
    for (const auto& cell : cells) line += cell + ",";
}

std::string guarded_line(const std::string& line) {
    // The report writer never quotes, so a comma always ends a cell.
    std::string out;
    out.reserve(line.size() + 8);
    std::size_t start = 0;
    while (true) {
        const std::size_t comma = line.find(',', start);
        out += guard_csv_cell(line.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        if (comma == std::string::npos) break;
        out += ',';
        start = comma + 1;
    }
    return out;
}

}  // namespace

void ArchiveReportWriter::add(const json& record, std::string& csv) {
    const json* data = margin_data_of(record, _kind);
    if (!data || _no_writer) return;
    if (!data->is_array() || data->empty()) {
        Logger::get().log(std::string("Result archive: ") + kind_name(_kind) + " " + describe(record) +
                          " has no lane data; not exported");
        return;
    }
    if (!_handler) {
        try {
            _handler = std::make_unique<Handler>(Handler{make_handler(_kind)});
        } catch (const std::exception& error) {
            Logger::get().log(std::string("Result archive: no ") + kind_name(_kind) + " report writer (" +
                              error.what() + "); " + kind_name(_kind) + " results not exported");
            _no_writer = true;
            return;
        }
    }
    // Rows go to a buffer first so a record that fails halfway leaves no
    // partial rows behind.
    const json& first = data->front();
    std::ostringstream rows;
    std::vector<std::string> lines;
    try {
        if (!_header_written) _handler->writer->dump_header(first, rows);
        for (const auto& element : *data) _handler->writer->dump_data(element, first, rows);
    } catch (const std::exception& error) {
        Logger::get().log(std::string("Result archive: ") + kind_name(_kind) + " " + describe(record) +
                          " can't be exported (" + error.what() + "); skipped");
        return;
    }
    if (!_style.grades && !_style.guard_cells) {
        csv += rows.str();
    } else {
        const MarginGrades grades = grade_margin_record(record);
        std::istringstream in(rows.str());
        std::size_t lane = 0;
        bool header = !_header_written;
        for (std::string line; std::getline(in, line);) {
            if (_style.grades) {
                if (header) {
                    line += kGradeHeader;
                } else {
                    if (lane < grades.lanes.size()) {
                        const LaneEyeGrade& g = grades.lanes[lane];
                        std::string note = g.note;
                        std::replace(note.begin(), note.end(), ',', ';');
                        append_cells(line, {number_cell(g.width_ps), number_cell(g.height_mv),
                                            g.grade ? eye_grade_name(*g.grade) : "", note});
                    } else {
                        append_cells(line, {"", "", "", ""});
                    }
                    ++lane;
                }
            }
            header = false;
            csv += _style.guard_cells ? guarded_line(line) : line;
            csv += '\n';
        }
    }
    _header_written = true;
    ++_documents;
}

ArchiveReport make_archive_report(ArchiveReportKind kind, const std::vector<json>& results) {
    ArchiveReport report;
    ArchiveReportWriter writer(kind);
    for (const auto& record : results) writer.add(record, report.csv);
    report.documents = writer.documents();
    return report;
}

std::string guard_csv_cell(const std::string& cell) {
    if (cell.empty()) return cell;
    const char lead = cell.front();
    if (lead != '=' && lead != '+' && lead != '-' && lead != '@' && lead != '\t' && lead != '\r') return cell;
    static const std::regex number(R"([+-]?(\d+\.?\d*|\.\d+)([eE][+-]?\d+)?)");
    if (std::regex_match(cell, number)) return cell;
    return "'" + cell;
}

void append_compact_json(const char* text, std::size_t size, std::string& out) {
    const char* p = text;
    const char* const end = text + size;
    while (p < end) {
        // Between tokens: copy up to the next blank or string.
        const char* run = p;
        while (p < end && *p != '"' && *p != ' ' && *p != '\n' && *p != '\r' && *p != '\t') ++p;
        out.append(run, static_cast<std::size_t>(p - run));
        if (p == end) break;
        if (*p != '"') {
            ++p;
            continue;
        }
        // A string, to its closing quote; an escaped character is skipped
        // with its backslash.
        run = p++;
        while (p < end) {
            const char* stop = static_cast<const char*>(std::memchr(p, '"', static_cast<std::size_t>(end - p)));
            if (!stop) {
                p = end;
                break;
            }
            std::size_t backslashes = 0;
            for (const char* b = stop; b > p && b[-1] == '\\'; --b) ++backslashes;
            p = stop + 1;
            if (backslashes % 2 == 0) break;
        }
        out.append(run, static_cast<std::size_t>(p - run));
    }
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

std::string dump_runs_to_folder(const std::vector<ResultRun>& runs, const std::string& dir_path) {
    struct Report {
        ArchiveReportKind kind;
        std::string path, temporary;
        std::ofstream file;
        ArchiveReportWriter writer;
    };
    OSSpecific os;
    Report reports[2] = {{ArchiveReportKind::HVL, {}, {}, {}, ArchiveReportWriter(ArchiveReportKind::HVL)},
                         {ArchiveReportKind::PCIe, {}, {}, {}, ArchiveReportWriter(ArchiveReportKind::PCIe)}};
    auto fail = [&](const std::string& path) {
        for (auto& report : reports) {
            report.file.close();
            if (!report.temporary.empty()) std::remove(report.temporary.c_str());
        }
        Logger::get().log("Result archive: unable to write " + path);
        return "Failed. Unable to write " + path + ".";
    };
    for (auto& report : reports) {
        report.path = os.append_to_path(dir_path, archive_report_file_name(report.kind));
        report.temporary = report.path + ".partial." + std::to_string(::getpid());
        report.file.open(report.temporary, std::ios::binary | std::ios::trunc);
        if (!report.file) {
            report.temporary.clear();
            return fail(report.path);
        }
    }
    std::string csv;
    for (const auto& run : runs) {
        for_each_record_in_run(run.second, [&](json& record) {
            for (auto& report : reports) {
                csv.clear();
                report.writer.add(record, csv);
                report.file << csv;
            }
        });
    }
    for (auto& report : reports) {
        report.file.flush();
        if (!report.file) return fail(report.path);
        report.file.close();
    }
    for (auto& report : reports) {
        if (std::rename(report.temporary.c_str(), report.path.c_str()) != 0) return fail(report.path);
        report.temporary.clear();
    }
    return std::to_string(reports[1].writer.documents()) + " pcie device and " +
           std::to_string(reports[0].writer.documents()) + " hvl devices data dumped.";
}

void thread_for_download(GUIResourceStore& store, const std::string& start, const std::string& end,
                         const std::string& dir_path, const std::function<void(const json&)>& send) {
    std::string message;
    try {
        const auto runs = find_runs_in_date_range(store, start, end);
        message = runs ? dump_runs_to_folder(*runs, dir_path) : kDateRangeInvalid;
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

namespace {

// Reads a whole record file into `text` and tells whether it is still the
// file that was indexed (same size and modification time).
bool read_indexed_file(const IndexedTest& test, std::string& text, bool& unchanged) {
    const int fd = ::open(test.path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat info {};
    bool ok = ::fstat(fd, &info) == 0;
    if (ok) {
        const std::int64_t mtime_ns =
            static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
        unchanged = info.st_size == test.size && mtime_ns == test.mtime_ns;
        text.resize(static_cast<std::size_t>(info.st_size));
        std::size_t done = 0;
        while (ok && done < text.size()) {
            const ssize_t got = ::read(fd, text.data() + done, text.size() - done);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) {
                ok = got == 0;  // shorter than its size: it changed under us
                unchanged = false;
                text.resize(done);
                break;
            }
            done += static_cast<std::size_t>(got);
        }
    }
    ::close(fd);
    return ok;
}

}  // namespace

bool write_records_as_array(const std::vector<IndexedTest>& tests, const std::function<bool(std::string)>& write) {
    constexpr std::size_t kPiece = 256 * 1024;
    std::string piece = "[";
    piece.reserve(kPiece + 64 * 1024);
    std::string text;
    bool first = true;
    for (const auto& test : tests) {
        bool unchanged = false;
        if (!read_indexed_file(test, text, unchanged)) {
            Logger::get().log("Result archive: no readable " + test.path + "; skipped");
            continue;
        }
        const std::size_t before = piece.size();
        if (!first) piece += ',';
        if (unchanged) {
            append_compact_json(text.data(), text.size(), piece);
        } else {
            try {
                const json record = json::parse(text);
                if (!record.is_object()) throw std::runtime_error("no test record");
                piece += record.dump();
            } catch (const std::exception& error) {
                Logger::get().log("Result archive: " + test.path + " is not a record (" + error.what() + "); skipped");
                piece.resize(before);
                continue;
            }
        }
        first = false;
        if (piece.size() >= kPiece) {
            if (!write(std::move(piece))) return false;
            piece.clear();
            piece.reserve(kPiece + 64 * 1024);
        }
    }
    piece += ']';
    return write(std::move(piece));
}

void for_each_record(const std::vector<IndexedTest>& tests, const std::function<bool(const json&)>& each) {
    std::string text;
    for (const auto& test : tests) {
        bool unchanged = false;
        if (!read_indexed_file(test, text, unchanged)) {
            Logger::get().log("Result archive: no readable " + test.path + "; skipped");
            continue;
        }
        json record;
        try {
            record = json::parse(text);
        } catch (const json::exception& error) {
            Logger::get().log("Result archive: " + test.path + " is not valid JSON (" + error.what() + "); skipped");
            continue;
        }
        if (!record.is_object()) continue;
        if (!each(record)) return;
    }
}
