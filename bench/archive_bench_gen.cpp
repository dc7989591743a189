// Fills a result root with an archive shaped like a busy lab's: runs of PCIe
// margin tests whose "output.json" holds what the runner writes (the record,
// the four figures and a 16-lane report with error maps), one in ten failed.
// Usage: archive_bench_gen ROOT [runs=100] [tests per run=100] [seed=1]
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <string>

#include <nlohmann/json.hpp>

using nlohmann::json;
namespace fs = std::filesystem;

namespace {

std::string stamp(int day_of_archive, int second_of_day) {
    // Days from 2025_01_01, months of 28 days keep every date valid.
    char text[32];
    std::snprintf(text, sizeof(text), "%04d_%02d_%02d-%02d_%02d_%02d", 2025 + day_of_archive / 336,
                  1 + (day_of_archive / 28) % 12, 1 + day_of_archive % 28, second_of_day / 3600,
                  (second_of_day / 60) % 60, second_of_day % 60);
    return text;
}

json error_map(std::mt19937& random, int last_passing) {
    json map = json::array();
    const int entries = 3 + static_cast<int>(random() % 3);
    for (int i = 0; i < entries; ++i) {
        const int offset = last_passing - entries + 2 + i;
        map.push_back({{"DwellTime", 50}, {"ErrCnt", offset > last_passing ? 63 : 0}, {"Offset", offset}});
    }
    return map;
}

json lane(std::mt19937& random, int position, const std::string& when, bool device_keys) {
    const int right = 12 + static_cast<int>(random() % 10), left = 12 + static_cast<int>(random() % 10);
    const int top = 10 + static_cast<int>(random() % 12), bottom = 10 + static_cast<int>(random() % 12);
    json l = {{"BER", 12},
              {"DwellTime", 57000},
              {"ErrCnt", 4},
              {"ErrorPresent", false},
              {"IndErrSampler", true},
              {"IndUpDownVolt", true},
              {"Information", ""},
              {"LanePCIeNo", position},
              {"LaneSerialID", position},
              {"LeftRightTiming", true},
              {"MarginType", "std-fm"},
              {"MarginingSupport", 1},
              {"MaxLanes", 31},
              {"MaxTimingOffset", 50},
              {"MaxVoltOffset", 20},
              {"NumTimingSteps", 32},
              {"NumVoltSteps", 64},
              {"PhaseLeftErrorMap", error_map(random, left)},
              {"PhaseLeftMargin", left * 50.0 / 32 / 100},
              {"PhaseLeftOffset", left},
              {"PhaseRightErrorMap", error_map(random, right)},
              {"PhaseRightMargin", right * 50.0 / 32 / 100},
              {"PhaseRightOffset", right},
              {"PhaseTotalMargin", (left + right) * 50.0 / 32 / 100},
              {"ReceiverNo", 6},
              {"SampleReportingMethod", false},
              {"TimeStamp", when},
              {"VEXDevicePresent", false},
              {"VoltBotomMargin", bottom * 0.2 / 64},
              {"VoltBottomErrorMap", error_map(random, bottom)},
              {"VoltBottomOffset", bottom},
              {"VoltSupported", true},
              {"VoltTopErrorMap", error_map(random, top)},
              {"VoltTopMargin", top * 0.2 / 64},
              {"VoltTopOffset", top},
              {"VoltTotalMargin", (top + bottom) * 0.2 / 64},
              {"loop", 1}};
    if (device_keys) {
        l.update(json{{"BIOSVERSION", "SIM2S.1.09"}, {"Bus", 1}, {"Device", 0}, {"Function", 0}, {"PCIEID", "c010"},
                      {"Segment", 0}, {"SpeedEnd", "16 GT/s"}, {"SpeedStart", "16 GT/s"}, {"VENDORID", "1000"},
                      {"WidthEnd", "x16"}, {"WidthStart", "x16"}});
    }
    return l;
}

json record(std::mt19937& random, int id, const std::string& run_folder, const std::string& when) {
    json lanes = json::array();
    for (int i = 0; i < 16; ++i) lanes.push_back(i);
    json test = {{"Operation", "PCIe Margin"},
                 {"PCIeCtrlInfo", {{"DeviceName", "Corvane0"}, {"PCIeCore", "PCIE0"}, {"Port", 1}}},
                 {"PCIeInfo",
                  {{"DeviceType", "Bridge"}, {"SBDF", id % 2 ? "0:1:0.0" : "0:40:1.0"}, {"Speed", "16 GT/s"},
                   {"VendorName", "Platform"}, {"Width", "x16"}}},
                 {"SERDES", {{"DeviceName", "Corvane0"}, {"SERDES", "P1"}}},
                 {"TestID", id},
                 {"TestParams", {{"BER", "12"}, {"ErrCnt", 4}, {"Lanes", lanes}, {"Receiver", 6}}}};
    json output = {{"ResultsFolder", run_folder + "/test_" + std::to_string(id)}, {"Time", "label"},
                   {"TimeStamp", when}};
    if (random() % 10 == 0) {
        output.update(json{{"Status", "Failed"}, {"FailureReason", "Margin Type in response is not matching"},
                           {"PhaseLeft (UI)", 0}, {"PhaseRight (UI)", 0}, {"VrefTop (mv)", 0}, {"VrefBot (mv)", 0}});
    } else {
        json report = json::array();
        for (int i = 0; i < 16; ++i) report.push_back(lane(random, i, when, i == 0));
        auto worst = [&](const char* key) {
            double value = report[0][key].get<double>();
            for (const auto& l : report) value = std::min(value, l[key].get<double>());
            return value;
        };
        output.update(json{{"Status", "complete"}, {"PhaseLeft (UI)", worst("PhaseLeftMargin")},
                           {"PhaseRight (UI)", worst("PhaseRightMargin")}, {"VrefTop (mv)", worst("VoltTopMargin")},
                           {"VrefBot (mv)", worst("VoltBotomMargin")}, {"FullMarginData", report}});
    }
    test["TestOutput"] = output;
    return test;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::cerr << "usage: archive_bench_gen ROOT [runs] [tests per run] [seed]\n";
        return 2;
    }
    const fs::path root = argv[1];
    const int runs = argc > 2 ? std::stoi(argv[2]) : 100;
    const int tests = argc > 3 ? std::stoi(argv[3]) : 100;
    std::mt19937 random(argc > 4 ? static_cast<unsigned>(std::stoul(argv[4])) : 1u);
    std::uintmax_t bytes = 0;
    for (int r = 0; r < runs; ++r) {
        const std::string run = stamp(r * 3, 8 * 3600 + r * 7);
        const fs::path run_folder = root / run;
        for (int t = 0; t < tests; ++t) {
            const fs::path folder = run_folder / ("test_" + std::to_string(t));
            fs::create_directories(folder);
            const std::string text = record(random, t, run_folder.string(), stamp(r * 3, 8 * 3600 + r * 7 + 60 * t))
                                         .dump(4) + "\n";
            std::ofstream(folder / "output.json", std::ios::binary) << text;
            bytes += text.size();
        }
    }
    std::cout << runs * tests << " tests, " << bytes / 1000000 << " MB of records under " << root.string() << "\n";
    return 0;
}
