// hVL report lines: every row lines up with its header, in both modes and
// both forms, whatever the lane object holds.
#include <gtest/gtest.h>

#include <sstream>

#include <nlohmann/json.hpp>

#include "result_data/data_handler.h"
#include "result_data/static_data.h"

using nlohmann::json;

namespace {

json lane_object(bool failed, bool rx, bool tx) {
    json o = {{"ErrorPresent", failed}, {"TimeStamp", "2026_01_02-03_04_05"}, {"MarginType", "std-fm"},
              {"LaneID", 3}, {"DeviceName", "Corvane"}, {"Socket", 0}, {"Die", 0}, {"Link", "G1"},
              {"BIOSVersion", "B1"}, {"PhyName", "E32"}, {"PhyFwVersion", "2.1.4"}, {"ASICID", "Not Available"},
              {"BER", 9}, {"ErrCnt", 5}, {"DataRate", "32.00"}, {"DwellTime", 329}, {"TimingSteps", 32},
              {"MaxTimingOffset", 50}, {"VoltSteps", 64}, {"MaxVoltOffset", 25}, {"PhaseTotalMargin", 0.4},
              {"VoltTotalMargin", 0.1}, {"PhaseLeftMargin", 0.2}, {"PhaseRightMargin", 0.2},
              {"VoltTopMargin", 0.05}, {"VoltBotomMargin", 0.05}, {"LeftErrCnt", {12, 0}},
              {"RightErrCnt", {12, 1}}, {"TopErrCnt", {16, 0}}, {"BotErrCnt", {16, 2}},
              {"RxEqValid", rx}, {"TxEqValid", tx}};
    if (rx) o.update({{"ctleidx", 9}, {"H0", 40}, {"H1", 30}, {"H2", 20}, {"H3", 10}, {"iq", -2}, {"vga", 25}});
    if (tx) o.update({{"cnm1_phy", 4}, {"cnp1_phy", 8}, {"preset", "P7"}, {"fom_valid", false}});
    return o;
}

std::vector<std::string> cells(const std::string& line) {
    std::vector<std::string> out;
    std::stringstream in(line);
    std::string cell;
    while (std::getline(in, cell, ',')) out.push_back(cell);
    return out;
}

std::string line(bool texl, const json* lane) {
    std::ostringstream out;
    auto handler = DataHandlerCreator::get_data_handler(HVL_DATA_HANDLER, DUMP_MODE_PLAIN, texl);
    if (lane) handler->dump_data(*lane, *lane, out);
    else handler->dump_header(out);
    std::string text = out.str();
    return text.substr(0, text.size() - 1);
}

TEST(HvlReportLines, RowsLineUpWithTheHeaderInEachForm) {
    StaticDataHandler::get().set_static_fields("SystemName", "lw-sim");
    struct Case {
        const char* name;
        bool texl, failed, rx, tx;
    };
    for (const Case& c : {Case{"hVL complete, partner found", false, false, true, true},
                          Case{"hVL complete, no partner", false, false, true, false},
                          Case{"TEXL complete", true, false, true, false}}) {
        SCOPED_TRACE(c.name);
        const json lane = lane_object(c.failed, c.rx, c.tx);
        const auto head = cells(line(c.texl, nullptr)), row = cells(line(c.texl, &lane));
        EXPECT_EQ(row.size(), head.size());
        const bool timing = std::find(head.begin(), head.end(), "Margin Left (ui)") != head.end();
        EXPECT_EQ(timing, !c.texl);
        EXPECT_EQ(line(c.texl, nullptr).find("cnm1_phy,") != std::string::npos, !c.texl);
        EXPECT_EQ(row.back(), c.texl ? "std-fm" : "Not Available");
    }
    const json no_partner = lane_object(false, true, false);
    EXPECT_NE(line(false, &no_partner).find(",,,2026_01_02"), std::string::npos) << "empty TX columns";

    const json failed = lane_object(true, false, false);
    const std::string failed_row = line(false, &failed);
    size_t count = 0;
    for (size_t at = failed_row.find("Failed Margin,"); at != std::string::npos; at = failed_row.find("Failed Margin,", at + 1))
        ++count;
    EXPECT_EQ(count, 19u);
    EXPECT_EQ(failed_row.rfind("Corvane,0,0,G1,3,", 0), 0u);
}

}  // namespace
