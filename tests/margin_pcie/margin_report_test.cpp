// Lane objects of the PCIe margin report and their console form.
#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

#include "margin_pcie/margin_console.h"
#include "margin_pcie/margin_report_json.h"
#include "support/thrown.h"

using nlohmann::json;
using namespace PCIE;

namespace {

TEST(MarginReportJson, TextsGoInFrontAndErrorMapsSortByOffsetThenDwell) {
    const DumpPCIEMarginDataToJSON dump;
    json lane;
    dump.dump_information_msg(2, "first", lane);
    dump.dump_information_msg(2, "second", lane);
    dump.dump_err_msg(2, "broken", lane);
    EXPECT_EQ(lane["Information"], "second\nfirst\n");
    EXPECT_EQ(lane["ErrorPresent"], true);
    EXPECT_EQ(lane["LaneSerialID"], 2);

    MarginData margin;
    margin.PhaseLeftErrorMap = {{{5, 1000}, 7}, {{3, 50}, 9}, {{5, 50}, 2}};
    margin.PhaseLeftMargin = 0.25f;
    margin.PhaseRightMargin = 0.125f;
    dump.dump_margin_data(2, margin, lane);
    EXPECT_EQ(lane["PhaseLeftErrorMap"], json::parse(R"([{"Offset":3,"DwellTime":50,"ErrCnt":9},
        {"Offset":5,"DwellTime":50,"ErrCnt":2},{"Offset":5,"DwellTime":1000,"ErrCnt":7}])"));
    EXPECT_EQ(lane["PhaseTotalMargin"], 0.375);

    MarginParams params;
    dump.dump_margin_params(2, params, lane);
    EXPECT_EQ(lane["BER"], "Not Available");
    params.BER = 12;
    dump.dump_margin_params(2, params, lane);
    EXPECT_EQ(lane["BER"], 12);

    PCIEDeviceDetails details;
    details.speed = "16 GT/s";
    dump.dump_pcie_device_details(2, details, 2, lane);
    EXPECT_EQ(lane["SpeedEnd"], "16 GT/s");
    EXPECT_FALSE(lane.contains("SpeedStart"));

    EXPECT_EQ(lw_test::thrown_text([&] { dump.dump_margin_capabilities(3, MarginCapabilities{}, lane); }),
              "Lane ID is not matching in DumpPCIEMarginDataToJSON::dump_margin_capabilities.");
}

TEST(MarginConsole, PrintsOnlyWhenEnabledAndOnlyTheRightLane) {
    json lane = {{"LaneSerialID", 1},
                 {"VoltBotomMargin", 0.046875},
                 {"VoltTopMargin", 0.05},
                 {"PhaseLeftMargin", 0.1875},
                 {"PhaseRightMargin", 0.2},
                 {"PhaseLeftErrorMap", json::parse(R"([{"Offset":3,"DwellTime":50,"ErrCnt":0},
                    {"Offset":16,"DwellTime":1000,"ErrCnt":9}])")}};
    std::ostringstream quiet, out;
    DumpPCIEMarginDataToConsole(false)(DUMP_LANE_MARGINS, lane, 7, quiet);
    EXPECT_EQ(quiet.str(), "");

    const DumpPCIEMarginDataToConsole console(true);
    console(DUMP_LANE_MARGINS, lane, 1, out);
    EXPECT_EQ(out.str(),
              "  Margin\n    Bot  : 0.047 volt\n    Top  : 0.05 volt\n    Left : 0.19   ui\n    Right: 0.2   ui\n"
              "  Offset:DwellTime:ErrCnt\n    16:1000. 9\n");

    const struct {
        json data;
        const char* error;
    } refused[] = {{json{{"LaneSerialID", 2}}, "Lane ID is not matching in DumpPCIEMarginDataToConsole::operator."},
                   {json::object(), "Lane ID not found in DumpPCIEMarginDataToConsole::operator."}};
    for (const auto& r : refused)
        EXPECT_EQ(lw_test::thrown_text([&] { console(DUMP_ERROR_MSG, r.data, 1, out); }), r.error);
}

}  // namespace
