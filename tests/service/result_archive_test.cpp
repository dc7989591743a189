// The result archive over folders built by hand: runs in date order, ranges
// by readable date, damaged records skipped, and the CSV export both as the
// files on the machine and as the browser's download.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include <sqlite3.h>

#include "hardware/test_temp_folder.h"
#include "service/archive_index.h"
#include "running_service.h"
#include "service/result_archive.h"
#include "service/wire_server.h"
#include "support/case_name.h"
#include "support/margin_lane.h"
#include "support/text_file.h"
#include "wire_client.h"

using nlohmann::json;
namespace fs = std::filesystem;
using lw_test::lines_of;
using lw_test::read_text;

namespace {

// Lanes whose speed has no eye thresholds, so no grade is formed.
json margin_data(int lanes) {
    json data = json::array();
    for (int i = 0; i < lanes; ++i) {
        json lane = lw_test::margin_lane(i);
        lane["SpeedStart"] = lane["SpeedEnd"] = 4;
        data.push_back(lane);
    }
    return data;
}

json record(int id, const std::string& operation, const std::string& status, std::optional<json> data) {
    json output = {{"Status", status},       {"PhaseRight (UI)", 0.28}, {"PhaseLeft (UI)", 0.25},
                   {"VrefTop (mv)", 75},     {"VrefBot (mv)", 80},           {"Time", "2 May 9:06AM"},
                   {"ResultsFolder", "/r"}};
    if (status == "Failed") output["FailureReason"] = "Incorrect params.";
    if (data) output["FullMarginData"] = *data;
    return {{"Operation", operation}, {"TestID", id}, {"PCIeInfo", {{"SBDF", "0:3:0.0"}}}, {"TestOutput", output}};
}

json pcie_record(int id, int lanes) { return record(id, "PCIe Margin", "complete", margin_data(lanes)); }

// A run folder under a root; each test folder gets the given output.json text.
void make_run(const fs::path& root, const std::string& stamp, const std::vector<std::pair<int, std::string>>& tests) {
    for (const auto& [id, text] : tests) {
        const fs::path folder = root / stamp / ("test_" + std::to_string(id));
        fs::create_directories(folder);
        if (!text.empty()) std::ofstream(folder / "output.json") << text;
    }
    fs::create_directories(root / stamp);
}

std::vector<int> ids_of(const std::vector<json>& records) {
    std::vector<int> ids;
    for (const auto& r : records) ids.push_back(r["TestID"].get<int>());
    return ids;
}

// Five runs made out of date order; three share the label "2 May 9:06AM"
// (two in one minute, one a year earlier).
class ArchiveRuns : public ::testing::Test {
protected:
    void SetUp() override {
        make_run(temp.path(), "2024_05_02-13_05_00", {{30, pcie_record(30, 1).dump()}});
        make_run(temp.path(), "2023_05_02-09_06_05", {{5, pcie_record(5, 1).dump()}});
        make_run(temp.path(), "2023_12_31-23_59_59", {{10, pcie_record(10, 1).dump()}});
        make_run(temp.path(), "2024_05_02-09_06_40", {{21, pcie_record(21, 1).dump()}});
        make_run(temp.path(), "2024_05_02-09_06_10", {{20, pcie_record(20, 1).dump()}});
        fs::create_directories(temp.path() / "notes");  // not a run
    }
    TestTempFolder temp;
    GUIResourceStore store{temp.path().string()};
};

}  // namespace

TEST_F(ArchiveRuns, FoldersComeBackInDateOrderWithReadableDates) {
    const auto runs = GUIGetAllInstanceFolder(store).get();
    std::vector<std::string> dates, folders;
    for (const auto& [date, path] : runs) {
        dates.push_back(date);
        folders.push_back(fs::path(path).filename().string());
    }
    EXPECT_EQ(dates, (std::vector<std::string>{"2 May 9:06AM", "31 Dec 11:59PM", "2 May 9:06AM", "2 May 9:06AM",
                                               "2 May 1:05PM"}));
    EXPECT_EQ(folders, (std::vector<std::string>{"2023_05_02-09_06_05", "2023_12_31-23_59_59", "2024_05_02-09_06_10",
                                                 "2024_05_02-09_06_40", "2024_05_02-13_05_00"}));
}

struct RangeCase {
    std::string name, start, end;
    std::optional<std::vector<int>> ids;  // nothing: the range is invalid
};
LW_PRINT_BY_NAME(RangeCase)

class ArchiveRanges : public ArchiveRuns, public ::testing::WithParamInterface<RangeCase> {};

TEST_P(ArchiveRanges, WalkFromTheFirstRunOfStartToTheLastRunOfEnd) {
    const auto results = get_results_in_date_range(store, GetParam().start, GetParam().end);
    ASSERT_EQ(results.has_value(), GetParam().ids.has_value());
    if (results) {
        EXPECT_EQ(ids_of(*results), *GetParam().ids);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Dates, ArchiveRanges,
    ::testing::Values(RangeCase{"All", "2 May 9:06AM", "2 May 1:05PM", std::vector<int>{5, 10, 20, 21, 30}},
                      // Every run of a shared label counts, at either end.
                      RangeCase{"SharedLabel", "2 May 9:06AM", "2 May 9:06AM", std::vector<int>{5, 10, 20, 21}},
                      RangeCase{"SharedLabelAtEnd", "31 Dec 11:59PM", "2 May 9:06AM", std::vector<int>{10, 20, 21}},
                      RangeCase{"StartAfterEnd", "2 May 1:05PM", "31 Dec 11:59PM", std::vector<int>{}},
                      RangeCase{"UnknownStart", "1 May 9:06AM", "2 May 1:05PM", std::nullopt},
                      RangeCase{"UnknownEnd", "31 Dec 11:59PM", "2 May 1:06PM", std::nullopt}),
    lw_test::by_name);

TEST(ArchiveRecords, UnreadableOrMissingOutputIsSkippedAndTheRestComeBack) {
    TestTempFolder temp;
    const std::string half = pcie_record(2, 2).dump().substr(0, 40);
    make_run(temp.path(), "2024_05_02-09_06_30",
             {{1, pcie_record(1, 1).dump()}, {2, half}, {3, ""}, {4, "[1,2]"}, {5, pcie_record(5, 1).dump()}});
    GUIResourceStore store(temp.path().string());
    const auto runs = GUIGetAllInstanceFolder(store).get();
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(ids_of(GUIGetAllResultsInInstanceFolder(store).get(runs[0].second)), (std::vector<int>{1, 5}));
}

struct ReportCase {
    std::string name;
    std::vector<json> records;
    unsigned long documents;
    std::size_t rows;
};
LW_PRINT_BY_NAME(ReportCase)

class ArchiveReports : public ::testing::TestWithParam<ReportCase> {};

TEST_P(ArchiveReports, OnlyFinishedRecordsOfTheKindGiveRowsUnderOneHeader) {
    const auto report = make_archive_report(ArchiveReportKind::PCIe, GetParam().records);
    EXPECT_EQ(report.documents, GetParam().documents);
    const auto lines = lines_of(report.csv);
    if (GetParam().rows == 0) {
        EXPECT_TRUE(report.csv.empty()) << report.csv;
        return;
    }
    ASSERT_EQ(lines.size(), GetParam().rows + 1) << report.csv;
    EXPECT_EQ(lines[0].rfind("Segment, ", 0), 0u) << lines[0];
    for (std::size_t i = 1; i < lines.size(); ++i) EXPECT_NE(lines[i], lines[0]) << "header repeated at " << i;
}

json lane_without_bus() {
    json data = margin_data(2);
    data[0].erase("Bus");
    return record(7, "PCIe Margin", "complete", data);
}

INSTANTIATE_TEST_SUITE_P(
    Records, ArchiveReports,
    ::testing::Values(
        ReportCase{"TwoDevices", {pcie_record(1, 2), pcie_record(2, 3)}, 2, 5},
        ReportCase{"OthersPassedOver",
                   {record(1, "EyeScan", "complete", margin_data(1)), record(2, "PCIe Margin", "Failed", std::nullopt),
                    record(3, "PCIe Margin", "complete", std::nullopt),
                    record(4, "PCIe Margin", "Running", margin_data(1)), pcie_record(5, 2),
                    record(6, "HVL Destructive Margin", "complete", margin_data(1))},
                   1, 2},
        // The header comes from the first record that gives rows, so a bad
        // first record loses neither the header nor the good rows.
        ReportCase{"BrokenRecordLeftOutWhole", {lane_without_bus(), pcie_record(8, 2)}, 1, 2},
        ReportCase{"EmptyLaneData", {record(9, "PCIe Margin", "complete", json::array())}, 0, 0},
        ReportCase{"Nothing", {}, 0, 0}),
    lw_test::by_name);

TEST(ArchiveDump, AFolderThatCantBeWrittenSaysSo) {
    TestTempFolder temp;
    GUIResourceStore store(temp.path().string());
    const std::string missing = (temp.path() / "no" / "such").string();
    const std::string answer = GUIDumpResults(store).get(missing, {pcie_record(1, 1)});
    EXPECT_EQ(answer.rfind("Failed. Unable to write " + missing, 0), 0u) << answer;
}

// --- Through the web server ------------------------------------------------

namespace {

// Fills the running service's result root and empties it again.
class ServedArchive : public ::testing::Test {
protected:
    void SetUp() override {
        root = wire_test::running_service().results_root;
        make_run(root, "2024_05_02-13_05_00", {{3, pcie_record(3, 1).dump()}, {4, "{\"Operation\":"}});
        make_run(root, "2024_05_02-09_06_30",
                 {{1, pcie_record(1, 2).dump()}, {2, record(2, "EyeScan", "complete", std::nullopt).dump()}});
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(root, ec);
    }
    wire_test::HttpResponse get(const std::string& path) {
        return wire_test::request(wire_test::running_service().port, "GET", path);
    }
    wire_test::HttpResponse post(const std::string& path, const json& body) {
        return wire_test::request(wire_test::running_service().port, "POST", path, body.dump());
    }
    fs::path root;
};

}  // namespace

TEST_F(ServedArchive, DatesAndRecordsSkippingTheDamagedOne) {
    EXPECT_EQ(get("/api/1.0/GetResultsDateRange").body,
              R"({"DateList":["2 May 9:06AM","2 May 1:05PM"],"key":"PastResultsDateRange"})");
    const auto answer = post("/api/1.0/GetResultsByDate", {{"start", "2 May 9:06AM"}, {"end", "2 May 1:05PM"}});
    ASSERT_EQ(answer.status, 200);
    EXPECT_EQ(ids_of(json::parse(answer.body).get<std::vector<json>>()), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(post("/api/1.0/GetResultsByDate", {{"start", "2 May 1:05PM"}, {"end", "2 May 9:06AM"}}).body, "[]");
    EXPECT_EQ(post("/api/1.0/GetResultsByDate", {{"start", "3 May 1:05PM"}, {"end", "2 May 1:05PM"}}).body, "[]");
}

TEST_F(ServedArchive, DownloadWritesTheFileAndTheBrowserGetsTheSameBytes) {
    TestTempFolder out;
    wire_test::WsClient browser(wire_test::running_service().port);
    ASSERT_EQ(browser.status, 101);
    ASSERT_TRUE(wire_test::wait_for_connections(1));
    auto next_download_message = [&]() -> std::string {
        while (auto text = browser.next_text()) {
            const json message = json::parse(*text);
            if (message["key"] == "DownloadUpdate") return message["msg"];
        }
        return "no DownloadUpdate push";
    };

    std::ofstream(out.path() / "pcie_margin_report.csv") << "stale\n";
    const json range = {{"start", "2 May 9:06AM"}, {"end", "2 May 1:05PM"}, {"dir_path", out.path().string()}};
    EXPECT_EQ(post("/api/1.0/DownloadToCSV", range).body, "[]");
    EXPECT_EQ(next_download_message(), "2 pcie device and 0 hvl devices data dumped.");
    const std::string file = read_text(out.path() / "pcie_margin_report.csv");
    const auto lines = lines_of(file);
    ASSERT_EQ(lines.size(), 4u) << file;  // header, two lanes of test 1, one of test 3
    EXPECT_EQ(lines[0].rfind("Segment, ", 0), 0u);
    std::vector<std::string> names;  // no temporary file left behind
    for (const auto& entry : fs::directory_iterator(out.path())) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"hvl_margin_report.csv", "pcie_margin_report.csv"}));

    // The browser's copy is the same report with the grade columns behind
    // each row (empty here: the lanes' speed has no thresholds).
    const auto served = get("/api/1.0/ExportResultsCSV?start=2+May+9%3A06AM&end=2%20May%201:05PM&kind=pcie");
    EXPECT_EQ(served.status, 200);
    const auto served_lines = lines_of(served.body);
    ASSERT_EQ(served_lines.size(), lines.size()) << served.body;
    EXPECT_EQ(served_lines[0], lines[0] + "Eye Width (ps),Eye Height (mV),Grade,Grade Note,");
    for (std::size_t i = 1; i < lines.size(); ++i) EXPECT_EQ(served_lines[i], lines[i] + ",,,,");
    EXPECT_EQ(served.headers.at("content-type").rfind("text/csv", 0), 0u) << served.headers.at("content-type");
    EXPECT_EQ(served.headers.at("content-disposition"), "attachment; filename=\"pcie_margin_report.csv\"");
    EXPECT_EQ(get("/api/1.0/ExportResultsCSV?start=2+May+9%3A06AM&end=2+May+1%3A05PM").body, served.body)
        << "pcie is the default kind";
    EXPECT_EQ(get("/api/1.0/ExportResultsCSV?from=2024_05_02-09_06_30&to=2024_05_02-13_05_00").body, served.body)
        << "stamps select the same tests";
    const auto hvl = get("/api/1.0/ExportResultsCSV?start=2+May+9%3A06AM&end=2+May+1%3A05PM&kind=hvl");
    EXPECT_EQ(hvl.body, read_text(out.path() / "hvl_margin_report.csv"));
    EXPECT_EQ(hvl.headers.at("content-disposition"), "attachment; filename=\"hvl_margin_report.csv\"");

    EXPECT_EQ(post("/api/1.0/DownloadToCSV", json{{"start", "1 May 9:06AM"}, {"end", "2 May 1:05PM"},
                                                   {"dir_path", out.path().string()}})
                  .body,
              "[]");
    EXPECT_EQ(next_download_message(), "Failed. Date range invalid.");
}

struct BadExportCase {
    std::string name, query, reason;
};
LW_PRINT_BY_NAME(BadExportCase)

class ServedBadExports : public ServedArchive, public ::testing::WithParamInterface<BadExportCase> {};

TEST_P(ServedBadExports, AreRefusedWith400AndAOneLineReason) {
    const auto answer = get("/api/1.0/ExportResultsCSV" + GetParam().query);
    EXPECT_EQ(answer.status, 400);
    EXPECT_EQ(answer.body, GetParam().reason);
}

INSTANTIATE_TEST_SUITE_P(
    Queries, ServedBadExports,
    ::testing::Values(BadExportCase{"NoEnd", "?start=2+May+9%3A06AM", "Failed. Date range invalid."},
                      BadExportCase{"UnknownDate", "?start=1+May+9%3A06AM&end=2+May+1%3A05PM",
                                    "Failed. Date range invalid."},
                      BadExportCase{"StartAfterEnd", "?start=2+May+1%3A05PM&end=2+May+9%3A06AM",
                                    "Failed. Date range invalid."},
                      BadExportCase{"UnknownKind", "?start=2+May+9%3A06AM&end=2+May+1%3A05PM&kind=eye",
                                    "Failed. Unknown kind \"eye\"; use pcie or hvl."}),
    lw_test::by_name);

// --- Summary, single result, CSV guard ---------------------------------------

// An index written by older code (its summaries lack fields added since)
// is made again from the files, never served.
TEST(ArchiveIndexFile, SummariesOfOlderCodeAreMadeAgain) {
    TestTempFolder temp;
    make_run(temp.path(), "2024_05_02-13_05_00", {{30, pcie_record(30, 1).dump()}});
    ArchiveIndex(temp.path().string()).summaries({});
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open((temp.path() / ".archive-index.sqlite3").c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, "UPDATE tests SET summary='{\"Old\":1}'; PRAGMA user_version=1", nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    const SummaryPage page = ArchiveIndex(temp.path().string()).summaries({});
    ASSERT_EQ(page.summaries.size(), 1u);
    EXPECT_EQ(json::parse(page.summaries[0])["TestID"], 30) << page.summaries[0];
}

TEST(ArchiveCompactJson, IsWhatParsingAndDumpingGives) {
    const json record = {{"Operation", "PCIe Margin"},
                         {"Text", "a \"quoted\" word, a \\ backslash\\\\\", blanks  \t and\nlines"},
                         {"Unicode", "\u00b5s \u2013 dwell"},
                         {"Nested", {{"Empty", json::object()}, {"List", {1, -2.5, 1e-7, nullptr, true, "x y"}}}},
                         {"Last\\", "\\"}};
    const std::string indented = record.dump(4) + "\n";
    std::string compact;
    append_compact_json(indented.data(), indented.size(), compact);
    EXPECT_EQ(compact, record.dump());
}

struct GuardCase {
    std::string name, cell, written;
};
LW_PRINT_BY_NAME(GuardCase)

class ArchiveCsvGuard : public ::testing::TestWithParam<GuardCase> {};

TEST_P(ArchiveCsvGuard, FormulasBecomeTextNumbersStayNumbers) {
    EXPECT_EQ(guard_csv_cell(GetParam().cell), GetParam().written);
}

INSTANTIATE_TEST_SUITE_P(
    Cells, ArchiveCsvGuard,
    ::testing::Values(GuardCase{"Formula", "=HYPERLINK(\"x\")", "'=HYPERLINK(\"x\")"},
                      GuardCase{"PlusFormula", "+1+cmd|' /C calc'!A0", "'+1+cmd|' /C calc'!A0"},
                      GuardCase{"MinusFormula", "-2+3", "'-2+3"}, GuardCase{"At", "@SUM(A1)", "'@SUM(A1)"},
                      GuardCase{"Tab", "\t=1", "'\t=1"}, GuardCase{"CarriageReturn", "\r=1", "'\r=1"},
                      GuardCase{"LoneMinus", "-", "'-"}, GuardCase{"NegativeNumber", "-0.05", "-0.05"},
                      GuardCase{"SignedNumber", "+3", "+3"}, GuardCase{"Exponent", "-1.5e-3", "-1.5e-3"},
                      GuardCase{"Text", "Not Available", "Not Available"}, GuardCase{"Empty", "", ""},
                      GuardCase{"EqualsInside", "a=b", "a=b"}),
    lw_test::by_name);

namespace {

json stamped(json record, const std::string& finished, const std::string& sbdf) {
    record["TestOutput"]["TimeStamp"] = finished;
    record["PCIeInfo"]["SBDF"] = sbdf;
    return record;
}

std::vector<std::string> ids_in(const json& page) {
    std::vector<std::string> ids;
    for (const auto& item : page["Results"]) ids.push_back(item["ResultId"]);
    return ids;
}

}  // namespace

// Three runs: an old one without finish stamps, and two whose tests carry
// them; tests of two devices, one failed.
class ServedSummary : public ServedArchive {
protected:
    void SetUp() override {
        root = wire_test::running_service().results_root;
        make_run(root, "2024_01_10-08_00_00", {{1, pcie_record(1, 2).dump()}, {2, "{broken"}});
        make_run(root, "2024_03_01-09_00_00",
                 {{5, stamped(pcie_record(5, 1), "2024_03_01-09_30_00", "0:40:1.0").dump()},
                  {6, stamped(record(6, "PCIe Margin", "Failed", std::nullopt), "2024_03_01-09_10_00", "0000:03:00.0")
                          .dump()}});
        make_run(root, "2024_03_02-07_00_00", {{10, stamped(pcie_record(10, 1), "2024_03_02-07_05_00", "0:3:0.0").dump()}});
    }
    json summary(const std::string& query) {
        const auto answer = get("/api/1.0/GetResultsSummary" + query);
        EXPECT_EQ(answer.status, 200) << answer.body;
        return answer.status == 200 ? json::parse(answer.body) : json::object();
    }
};

TEST_F(ServedSummary, PagesNewestFirstFilteredByDeviceAndStamps) {
    const json all = summary("");
    EXPECT_EQ(all["Total"], 4);
    EXPECT_EQ(ids_in(all), (std::vector<std::string>{"2024_03_02-07_00_00/test_10", "2024_03_01-09_00_00/test_5",
                                                     "2024_03_01-09_00_00/test_6", "2024_01_10-08_00_00/test_1"}));
    const json& old = all["Results"][3];
    EXPECT_EQ(old["Stamp"], "2024_01_10-08_00_00") << "no finish stamp: the run's";
    EXPECT_EQ(old["VoltTopMV"], 75000) << "a PCIe margin's volts in millivolts";
    EXPECT_FALSE(old.contains("FullMarginData"));
    const json& failed = all["Results"][2];
    EXPECT_EQ(failed["Status"], "Failed");
    EXPECT_EQ(failed["FailureReason"], "Incorrect params.");
    EXPECT_EQ(failed["PhaseLeftUI"], nullptr);
    EXPECT_EQ(failed["Grade"]["Grade"], nullptr);

    const json page = summary("?offset=1&limit=2");
    EXPECT_EQ(page["Total"], 4);
    EXPECT_EQ(page["Offset"], 1);
    EXPECT_EQ(ids_in(page), (std::vector<std::string>{"2024_03_01-09_00_00/test_5", "2024_03_01-09_00_00/test_6"}));
    EXPECT_EQ(ids_in(summary("?sbdf=0000:03:00.0")),
              (std::vector<std::string>{"2024_03_02-07_00_00/test_10", "2024_03_01-09_00_00/test_6",
                                        "2024_01_10-08_00_00/test_1"}))
        << "both address forms name one function";
    EXPECT_EQ(ids_in(summary("?from=2024_03_01-09_10_00&to=2024_03_01-09_30_00")),
              (std::vector<std::string>{"2024_03_01-09_00_00/test_5", "2024_03_01-09_00_00/test_6"}));

    // A record replaced on disk is read again; a removed run leaves the index.
    std::ofstream(root / "2024_03_02-07_00_00" / "test_10" / "output.json")
        << record(10, "PCIe Margin", "Failed", std::nullopt).dump(4) << std::string(7, ' ');
    fs::remove_all(root / "2024_01_10-08_00_00");
    const json after = summary("");
    EXPECT_EQ(after["Total"], 3);
    EXPECT_EQ(after["Results"][0]["Status"], "Failed");

    for (const char* bad : {"?limit=-1", "?limit=1001", "?offset=x", "?from=2024-03-01", "?to=../../etc"}) {
        EXPECT_EQ(get(std::string("/api/1.0/GetResultsSummary") + bad).status, 400) << bad;
    }
}

TEST_F(ServedSummary, OneResultByIdWithItsGradesAndNothingOutsideTheArchive) {
    const json result = json::parse(get("/api/1.0/GetResult?id=2024_01_10-08_00_00%2Ftest_1").body);
    EXPECT_EQ(result["TestID"], 1);
    EXPECT_EQ(result["TestOutput"]["FullMarginData"].size(), 2u);
    EXPECT_EQ(result["Grades"]["Lanes"].size(), 2u);
    EXPECT_TRUE(result["Grades"].contains("Thresholds"));

    std::ofstream(root / "secret.json") << R"({"TestID": 99})";
    for (const char* id : {"", "2024_01_10-08_00_00", "2024_01_10-08_00_00/test_9", "2024_01_10-08_00_00/test_2",
                           "../secret.json", "2024_01_10-08_00_00/../secret.json", "2024_01_10-08_00_00/test_1/..",
                           "%2e%2e%2fsecret.json", "/etc/passwd", "2024_13_40-08_00_00/test_1",
                           "2024_01_10-08_00_00/test_1%00"}) {
        const auto answer = get(std::string("/api/1.0/GetResult?id=") + id);
        const json refusal = json::parse(answer.body);
        EXPECT_EQ(refusal["OperationStatus"], false) << id;
        EXPECT_TRUE(refusal["ErrMsg"].is_string()) << id;
    }
}
