#include "service/result_samples.h"

#include <algorithm>
#include <string>
#include <vector>

using nlohmann::json;

namespace {

const char* const kDie0 = "Corvane SBDF:0:0:18.0 Socket:0 Die:0";
const char* const kDie1 = "Corvane SBDF:0:0:19.0 Socket:1 Die:0";
const char* const kBiosVersion = "VX1.0.7";
const char* const kPhyFwVersion = "1.26.3";

// One run folder and the end times of its three tests.
struct Run {
    const char* stamp;
    const char* times[3];
};

const Run kPcieRun = {"2024_05_02-09_06_30", {"2 May 9:06AM", "2 May 9:14AM", "2 May 9:15AM"}};
const Run kHvlRun = {"2024_05_03-14_21_05", {"3 May 2:22PM", "3 May 2:31PM", "3 May 2:31PM"}};
const Run kMixedRun = {"2024_05_06-11_40_12", {"6 May 11:41AM", "6 May 11:52AM", "6 May 11:52AM"}};

std::string results_folder(const Run& run, unsigned id) {
    return std::string("/lanewright_gui/") + run.stamp + "/test_" + std::to_string(id);
}

struct Figures {
    double phase_right, phase_left, vref_top, vref_bot;
};

json complete_output(const Run& run, unsigned id, const Figures& f) {
    return {{"Status", "complete"},       {"PhaseRight (UI)", f.phase_right}, {"PhaseLeft (UI)", f.phase_left},
            {"VrefTop (mv)", f.vref_top}, {"VrefBot (mv)", f.vref_bot},       {"Time", run.times[id]},
            {"ResultsFolder", results_folder(run, id)}};
}

json failed_output(const Run& run, unsigned id, const char* reason) {
    return {{"Status", "Failed"},
            {"PhaseRight (UI)", 0},
            {"PhaseLeft (UI)", 0},
            {"VrefTop (mv)", 0},
            {"VrefBot (mv)", 0},
            {"FailureReason", reason},
            {"Time", run.times[id]},
            {"ResultsFolder", results_folder(run, id)}};
}

// Margin tests report the worst lane in each direction, taken from the lane
// objects as they stand (volts included), as the runners do.
json margin_output(const Run& run, unsigned id, const json& lanes) {
    auto smallest = [&](const char* key) {
        double least = lanes.at(0).at(key).get<double>();
        for (const json& lane : lanes) least = std::min(least, lane.at(key).get<double>());
        return least;
    };
    json output = complete_output(run, id,
                                  {smallest("PhaseRightMargin"), smallest("PhaseLeftMargin"),
                                   smallest("VoltTopMargin"), smallest("VoltBotomMargin")});
    output["FullMarginData"] = lanes;
    return output;
}

// Last passing offsets of one lane in the four directions.
struct LaneOffsets {
    unsigned right, left, top, bottom;
};

// --- PCIe --------------------------------------------------------------------

constexpr unsigned kPcieTimingSteps = 16, kPcieMaxTimingOffset = 50;  // % of a UI
constexpr unsigned kPcieVoltSteps = 32, kPcieMaxVoltOffset = 12;      // % of a volt
constexpr unsigned kPcieDwellMs = 1000;

json pcie_error_map(unsigned last_passing, unsigned err_cnt) {
    return json::array({{{"Offset", last_passing}, {"DwellTime", kPcieDwellMs}, {"ErrCnt", 0}},
                        {{"Offset", last_passing + 1}, {"DwellTime", kPcieDwellMs}, {"ErrCnt", err_cnt + 1}}});
}

json pcie_lane(const Run& run, unsigned serial, unsigned physical, unsigned err_cnt, const LaneOffsets& o) {
    const double ui = kPcieMaxTimingOffset / 100.0 / kPcieTimingSteps;
    const double volt = kPcieMaxVoltOffset / 100.0 / kPcieVoltSteps;
    return {{"ErrorPresent", false},
            {"ErrorMsg", ""},
            {"WarningMsg", ""},
            {"Information", ""},
            {"loop", 0},
            {"TimeStamp", run.stamp},
            {"MarginType", "std-fm"},
            {"LaneSerialID", serial},
            {"LanePCIeNo", serial},
            {"LanePhysicalID", physical},
            {"MarginingSupport", true},
            {"NumTimingSteps", kPcieTimingSteps},
            {"MaxTimingOffset", kPcieMaxTimingOffset},
            {"NumVoltSteps", kPcieVoltSteps},
            {"MaxVoltOffset", kPcieMaxVoltOffset},
            {"MaxLanes", 15},
            {"IndErrSampler", true},
            {"SampleReportingMethod", false},
            {"LeftRightTiming", true},
            {"IndUpDownVolt", true},
            {"VoltSupported", true},
            {"BER", 12},
            {"ErrCnt", err_cnt},
            {"DwellTime", kPcieDwellMs},
            {"ReceiverNo", 1},
            {"PhaseRightOffset", o.right},
            {"PhaseLeftOffset", o.left},
            {"PhaseRightMargin", o.right * ui},
            {"PhaseLeftMargin", o.left * ui},
            {"PhaseTotalMargin", (o.right + o.left) * ui},
            {"VoltTopOffset", o.top},
            {"VoltBottomOffset", o.bottom},
            {"VoltTopMargin", o.top * volt},
            {"VoltBotomMargin", o.bottom * volt},
            {"VoltTotalMargin", (o.top + o.bottom) * volt},
            {"PhaseLeftErrorMap", pcie_error_map(o.left, err_cnt)},
            {"PhaseRightErrorMap", pcie_error_map(o.right, err_cnt)},
            {"VoltBottomErrorMap", pcie_error_map(o.bottom, err_cnt)},
            {"VoltTopErrorMap", pcie_error_map(o.top, err_cnt)},
            {"RxEqValid", false}};
}

struct PciePort {
    const char* sbdf;
    unsigned device, function;  // of the SBDF, for the report's device keys
    unsigned secondary_bus, subordinate_bus;
    const char* speed;
    const char* width;
    const char* core;
    unsigned function_index;
    unsigned port;
    const char* serdes;
};

const PciePort kPort11 = {"0:0:1.1", 1, 1, 1, 1, "32 GT/s", "x16", "PCIE0_nbio0", 1, 0, "P0"};
const PciePort kPort24 = {"0:0:2.4", 2, 4, 3, 3, "32 GT/s", "x4", "PCIE2_nbio0", 4, 2, "G1"};
const PciePort kPort31 = {"0:0:3.1", 3, 1, 4, 6, "32 GT/s", "x16", "PCIE3_nbio0", 1, 0, "P1"};

json with_pcie_port(json record, const PciePort& p) {
    record["PCIeInfo"] = {{"SBDF", p.sbdf},
                          {"VendorName", "VEX"},
                          {"Speed", p.speed},
                          {"Width", p.width},
                          {"DeviceType", "Bridge"},
                          {"BridgeInfo", {{"SecondaryBus", p.secondary_bus}, {"SubordinateBus", p.subordinate_bus}}}};
    record["PCIeCtrlInfo"] = {
        {"PCIeCore", p.core}, {"Function", p.function_index}, {"DeviceName", kDie0}, {"Port", p.port}};
    record["SERDES"] = {{"DeviceName", kDie0}, {"SERDES", p.serdes}};
    return record;
}

json pcie_eye_scan(const Run& run, unsigned id) {
    json record = {{"Operation", "EyeScan"},
                   {"TestID", id},
                   {"TestParams", {{"BER", "6.145"}, {"Lanes", {0, 1, 2, 3}}}},
                   {"TestOutput", complete_output(run, id, {0.3125, 0.28125, 45.0, 42.5})}};
    return with_pcie_port(std::move(record), kPort11);
}

json pcie_margin_complete(const Run& run, unsigned id) {
    const PciePort& port = kPort24;
    const unsigned err_cnt = 4;
    json lanes = json::array({pcie_lane(run, 0, 8, err_cnt, {9, 8, 18, 17}),
                              pcie_lane(run, 1, 9, err_cnt, {8, 9, 19, 16})});
    // The first lane carries the device's keys for the whole report.
    lanes[0].update({{"Segment", 0},
                     {"Bus", 0},
                     {"Device", port.device},
                     {"Function", port.function},
                     {"VENDORID", "1f7e"},
                     {"PCIEID", "14ab"},
                     {"BIOSVERSION", kBiosVersion},
                     {"SpeedStart", port.speed},
                     {"WidthStart", port.width},
                     {"VEXDevicePresent", true},
                     {"DeviceName", kDie0},
                     {"Socket", 0},
                     {"Die", 0},
                     {"ASICID", "Not Available"},
                     {"PCIeController", port.core},
                     {"PCIeFunctionIndex", port.function_index},
                     {"PortNo", port.port},
                     {"SERDES", port.serdes},
                     {"PhyFwVersion", kPhyFwVersion},
                     {"PhyName", "E32"}});
    json record = {{"Operation", "PCIe Margin"},
                   {"TestID", id},
                   {"TestParams", {{"BER", "12"}, {"ErrCnt", err_cnt}, {"Receiver", 1}, {"Lanes", {0, 1}}}},
                   {"TestOutput", margin_output(run, id, lanes)}};
    return with_pcie_port(std::move(record), port);
}

json pcie_margin_failed(const Run& run, unsigned id) {
    json record = {{"Operation", "PCIe Margin"},
                   {"TestID", id},
                   {"TestParams", {{"BER", "12"}, {"ErrCnt", 4}, {"Receiver", 7}, {"Lanes", json::array({"0,1,2,3"})}}},
                   {"TestOutput", failed_output(run, id, "Incorrect params.")}};
    return with_pcie_port(std::move(record), kPort31);
}

// --- hVL ---------------------------------------------------------------------

constexpr unsigned kHvlTimingSteps = 32, kHvlMaxTimingOffset = 50;
constexpr unsigned kHvlVoltSteps = 64, kHvlMaxVoltOffset = 25;
constexpr unsigned kHvlDwellMs = 500;

// Coarse steps while the lane is clean, then the last clean offset and the
// first that fails.
json hvl_error_map(unsigned last_passing) {
    json map = json::array();
    for (unsigned offset = 0; offset < last_passing; offset += 4) map.push_back({{"Offset", offset}, {"ErrCnt", 0}});
    map.push_back({{"Offset", last_passing}, {"ErrCnt", 0}});
    map.push_back({{"Offset", last_passing + 1}, {"ErrCnt", 3}});
    return map;
}

json hvl_lane(const Run& run, const char* die, const char* link, unsigned lane, unsigned err_cnt,
              const LaneOffsets& o) {
    const double ui = kHvlMaxTimingOffset / 100.0 / kHvlTimingSteps;
    const double volt = kHvlMaxVoltOffset / 100.0 / kHvlVoltSteps;
    return {{"ErrorPresent", false},
            {"TimeStamp", run.stamp},
            {"Topology", "Not Available"},
            {"MarginType", "std-fm"},
            {"LaneID", lane},
            {"TimingSteps", kHvlTimingSteps},
            {"MaxTimingOffset", kHvlMaxTimingOffset},
            {"VoltSteps", kHvlVoltSteps},
            {"MaxVoltOffset", kHvlMaxVoltOffset},
            {"BER", 12},
            {"ErrCnt", err_cnt},
            {"DwellTime", kHvlDwellMs},
            {"DataRate", "32.00"},
            {"Link", link},
            {"Socket", 0},
            {"Die", 0},
            {"ASICID", "Not Available"},
            {"DeviceName", die},
            {"BIOSVersion", kBiosVersion},
            {"PhyName", "E32"},
            {"PhyFwVersion", kPhyFwVersion},
            {"TxEqValid", false},
            {"RxEqValid", false},
            {"PhaseRightOffset", o.right + 1},
            {"PhaseLeftOffset", o.left + 1},
            {"PhaseRightMargin", o.right * ui},
            {"PhaseLeftMargin", o.left * ui},
            {"PhaseTotalMargin", (o.right + o.left) * ui},
            {"VoltTopOffset", o.top + 1},
            {"VoltBottomOffset", o.bottom + 1},
            {"VoltTopMargin", o.top * volt},
            {"VoltBotomMargin", o.bottom * volt},
            {"VoltTotalMargin", (o.top + o.bottom) * volt},
            {"PhaseLeftErrorMap", hvl_error_map(o.left)},
            {"PhaseRightErrorMap", hvl_error_map(o.right)},
            {"VoltBottomErrorMap", hvl_error_map(o.bottom)},
            {"VoltTopErrorMap", hvl_error_map(o.top)},
            {"LeftErrCnt", {o.left + 1, 3}},
            {"RightErrCnt", {o.right + 1, 3}},
            {"TopErrCnt", {o.top + 1, 3}},
            {"BotErrCnt", {o.bottom + 1, 3}}};
}

json hvl_ctrl_info(const char* die, const char* link, unsigned socket) {
    return {{"DeviceName", die}, {"SERDES", link},     {"Speed", "32Gts"},
            {"Width", " x16"},   {"Socket", socket}, {"Die", 0}};
}

json hvl_eye_scan(const Run& run, unsigned id) {
    return {{"Operation", "EyeScan"},
            {"TestID", id},
            {"HVLCtrlInfo", hvl_ctrl_info(kDie1, "G2", 1)},
            {"SERDES", {{"DeviceName", kDie1}, {"SERDES", "G2"}}},
            {"TestParams", {{"BER", "5.84"}, {"Lanes", {0, 1}}}},
            {"TestOutput", complete_output(run, id, {0.34375, 0.3125, 51.0, 47.5})}};
}

json hvl_margin_complete(const Run& run, unsigned id) {
    const unsigned err_cnt = 1;
    json lanes = json::array({hvl_lane(run, kDie0, "G1", 0, err_cnt, {13, 12, 22, 21}),
                              hvl_lane(run, kDie0, "G1", 1, err_cnt, {12, 14, 23, 19})});
    return {{"Operation", "Destructive HVL Margin"},
            {"TestID", id},
            {"HVLCtrlInfo", hvl_ctrl_info(kDie0, "G1", 0)},
            {"TestParams", {{"BER", "12"}, {"ErrCnt", err_cnt}, {"Lanes", {0, 1}}}},
            {"TestOutput", margin_output(run, id, lanes)}};
}

json hvl_margin_failed(const Run& run, unsigned id) {
    return {{"Operation", "Destructive HVL Margin"},
            {"TestID", id},
            {"HVLCtrlInfo", hvl_ctrl_info(kDie0, "G3", 0)},
            {"TestParams", {{"BER", "14"}, {"ErrCnt", 0}, {"Lanes", json::array({"0,1,2,3"})}}},
            {"TestOutput", failed_output(run, id, "Incorrect params.")}};
}

json test_list(std::vector<json> records) { return {{"TestList", std::move(records)}}; }

}  // namespace

json current_pcie_results_sample() {
    return test_list({pcie_eye_scan(kPcieRun, 0), pcie_margin_complete(kPcieRun, 1), pcie_margin_failed(kPcieRun, 2)});
}

json current_hvl_results_sample() {
    return test_list({hvl_eye_scan(kHvlRun, 0), hvl_margin_complete(kHvlRun, 1), hvl_margin_failed(kHvlRun, 2)});
}

json all_current_results_sample() {
    return test_list(
        {pcie_margin_complete(kMixedRun, 0), hvl_margin_complete(kMixedRun, 1), pcie_margin_failed(kMixedRun, 2)});
}
