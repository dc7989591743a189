#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "result_data/data_handler.h"
#include "result_data/obfuscate_data.h"
#include "result_data/static_data.h"
#include "support/case_name.h"
#include "support/margin_lane.h"
#include "support/thrown.h"

using nlohmann::json;

namespace {

std::string static_keys() {
    std::string cells;
    for (const auto& [name, value] : StaticDataHandler::get().get_static_fields_map()) cells += name + ",";
    return cells;
}
std::string static_values() {
    std::string cells;
    for (const auto& [name, value] : StaticDataHandler::get().get_static_fields_map()) cells += value + ",";
    return cells;
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

// Hidden lines come back (letters lowered) through the extraction.
std::string readable(const std::string& written, ModesOfDumps mode) {
    if (mode == DUMP_MODE_PLAIN) return written;
    std::string line = written.substr(0, written.size() - 1), back;
    ObfuscateData().extract_data(line, back);
    return back + "\n";
}

const std::string kLead =
    "Segment, Bus,Device,Function,BIOS,loop,LaneSerialNo,LanePCIeNo,LanePhysicalNo,BER,Dwell Time(ms),"
    "Speed before margin,Speed after margin,Width before margin,Width after margin,ErrCnt,ReceiverNo,"
    "NumTimingSteps,MaxTimingOffset,VoltSupported,NumVoltageSteps,MaxVoltageOffset,";
const std::string kMargins =
    "Total Phase(UI),Total Volt(volt),Margin Left (ui),Margin Right (ui),Margin Top (volt),Margin Bottom (volt),"
    "Margin Left Offset, Margin Right Offset,Margin Top Offset,Margin Bottom Offset,";
const std::string kDevice =
    "Device Name,PCIe controller Name,PCIe Function Index,PCIe Port No,SERDES,PhyName,PhyFwVersion (Dec),";
const std::string kRx = "vga,ctleidx,iq,H0,H1,H2,H3,";
const std::string kTx =
    "TxPreset,LCBestPreset,LCLocalPreset,USPTxPreset,LCLocalCursor,LCLocalPreCursor,LCLocalPostCursor,"
    "LCBestCursor,LCBestPreCursor,LCBestPostCursor,";
const std::string kTrail = "Tool Version,TimeStamp,MarginType, VENDORID, PCIEID, ";

struct HeaderCase {
    const char* name;
    ModesOfDumps mode;
    const char* phy;
    bool four_point;
    bool rx, fom;
};
LW_PRINT_BY_NAME(HeaderCase)

class PcieCsvHeader : public ::testing::TestWithParam<HeaderCase> {};

TEST_P(PcieCsvHeader, CellsAsTheReportNamesThem) {
    const HeaderCase& c = GetParam();
    StaticDataHandler::get().set_static_fields("SystemName", "lw-sim-2s");
    json first = lw_test::margin_lane(0);
    first["PhyName"] = c.phy;
    auto handler = DataHandlerCreator::get_data_handler(PCIE_DATA_HANDLER, c.mode, false);
    std::ostringstream out;
    if (c.four_point) handler->dump_4pt_header(first, out);
    else handler->dump_header(first, out);

    std::string expected = kLead + (c.four_point ? "" : "MaxLanes,") + kMargins +
                           (c.four_point ? "Margin Left ErrCnt, Margin Right ErrCnt,Margin Top ErrCnt,Margin Bottom ErrCnt,"
                                         : "") +
                           kDevice + (c.rx ? kRx : "") + kTx + (c.fom ? "LCBestFom," : "") + kTrail + static_keys() +
                           "Socket,Die,ASIC ID,\n";
    if (c.mode != DUMP_MODE_PLAIN) {
        expected = lower(expected);
        EXPECT_NE(out.str(), expected);
    }
    EXPECT_EQ(readable(out.str(), c.mode), expected);
}

INSTANTIATE_TEST_SUITE_P(Modes, PcieCsvHeader,
                         ::testing::Values(HeaderCase{"PlainE32", DUMP_MODE_PLAIN, "E32", false, false, false},
                                           HeaderCase{"InternalE32", DUMP_MODE_INTERNAL, "E32", false, true, true},
                                           HeaderCase{"InternalC20", DUMP_MODE_INTERNAL, "C20", false, false, true},
                                           HeaderCase{"PlainC20FourPoint", DUMP_MODE_PLAIN, "C20", true, false, false},
                                           HeaderCase{"InternalE32FourPoint", DUMP_MODE_INTERNAL, "E32", true, true, true}),
                         lw_test::by_name);

// The values of one lane, cut at the commas; the Socket/Die/ASIC ID tail
// is compared whole since its absent form ends in ", ".
struct RowCase {
    const char* name;
    void (*change)(json&);
    ModesOfDumps mode;
    std::vector<std::pair<std::size_t, std::string>> cells;  // index, value
    std::string tail;
};
LW_PRINT_BY_NAME(RowCase)

std::vector<std::string> cut(const std::string& line) {
    std::vector<std::string> cells;
    std::string cell;
    for (char ch : line) {
        if (ch == ',') {
            cells.push_back(cell);
            cell.clear();
        } else {
            cell += ch;
        }
    }
    return cells;
}

class PcieCsvRow : public ::testing::TestWithParam<RowCase> {};

// Column positions in the plain mode: 8 LanePhysicalNo, 33-39 the device
// cells, 40-49 TX; in the internal mode 40-46 RX, 47-56 TX, 57 FOM.
TEST_P(PcieCsvRow, AbsentGroupsAreNotAvailable) {
    const RowCase& c = GetParam();
    // Each case runs in a process of its own under CTest: give the static
    // block a value so the tail after it can be found.
    StaticDataHandler::get().set_static_fields("SystemName", "lw-sim-2s");
    const json first = lw_test::margin_lane(0);
    json lane = lw_test::margin_lane(3);
    c.change(lane);
    auto handler = DataHandlerCreator::get_data_handler(PCIE_DATA_HANDLER, c.mode, false);
    std::ostringstream out;
    handler->dump_data(lane, first, out);
    const std::string line = readable(out.str(), c.mode);
    ASSERT_EQ(line.back(), '\n');
    const auto cells = cut(line);
    for (const auto& [index, value] : c.cells) {
        ASSERT_LT(index, cells.size());
        EXPECT_EQ(cells[index], c.mode == DUMP_MODE_PLAIN ? value : lower(value)) << "cell " << index;
    }
    const std::string statics = static_values();
    const std::size_t tail = line.rfind(c.mode == DUMP_MODE_PLAIN ? statics : lower(statics));
    ASSERT_NE(tail, std::string::npos);
    EXPECT_EQ(line.substr(tail + statics.size()), (c.mode == DUMP_MODE_PLAIN ? c.tail : lower(c.tail)) + "\n");
}

const std::string kNA = "Not Available";

INSTANTIATE_TEST_SUITE_P(
    Lanes, PcieCsvRow,
    ::testing::Values(
        RowCase{"mapped", [](json&) {}, DUMP_MODE_PLAIN,
                {{0, "0"}, {1, "65"}, {4, "SIM2S.1.09"}, {6, "3"}, {8, "12"}, {9, "1e-12"}, {22, "31"},
                 {23, "0.5"}, {33, "Corvane"}, {38, "E32"}, {39, "3.10.2"}, {40, "1"}, {43, "4"}, {44, "6"},
                 {45, "5"}, {46, "7"}, {47, "9"}, {48, "8"}, {49, "10"}, {50, "5.1.56"}, {52, "std-fm"},
                 {53, "15b3"}},
                "0,0,Not Available,"},
        RowCase{"no device", [](json& l) { l["VEXDevicePresent"] = false; }, DUMP_MODE_PLAIN,
                {{7, "3"}, {8, kNA}, {9, "1e-12"}, {33, kNA}, {39, kNA}, {40, kNA}, {49, kNA}, {50, "5.1.56"}},
                "Not Available,Not Available, Not Available, "},
        RowCase{"one preset missing", [](json& l) { l["USPTxPresetGot"] = false; }, DUMP_MODE_PLAIN,
                {{40, kNA}, {41, kNA}, {42, kNA}, {43, kNA}, {44, "6"}, {47, "9"}}, "0,0,Not Available,"},
        RowCase{"best cursor missing", [](json& l) { l["LCBestCursorGot"] = false; }, DUMP_MODE_PLAIN,
                {{40, "1"}, {44, "6"}, {46, "7"}, {47, kNA}, {48, kNA}, {49, kNA}, {50, "5.1.56"}},
                "0,0,Not Available,"},
        RowCase{"internal with receiver", [](json&) {}, DUMP_MODE_INTERNAL,
                {{40, "7"}, {41, "3"}, {42, "1"}, {43, "40"}, {44, "-2"}, {47, "1"}, {56, "10"}, {57, "11"},
                 {58, "5.1.56"}},
                "0,0,Not Available,"},
        RowCase{"internal without receiver", [](json& l) { l["RxEqValid"] = false; }, DUMP_MODE_INTERNAL,
                {{39, "3.10.2"}, {40, kNA}, {46, kNA}, {47, "1"}, {57, "11"}}, "0,0,Not Available,"},
        RowCase{"internal no device", [](json& l) { l["VEXDevicePresent"] = false; }, DUMP_MODE_INTERNAL,
                {{56, kNA}, {57, kNA}, {58, "5.1.56"}}, "Not Available,Not Available, Not Available, "}),
    lw_test::by_name);

TEST(PcieCsv, DeviceKeysComeFromTheFirstLane) {
    json first = lw_test::margin_lane(0);
    json lane = lw_test::margin_lane(2);
    for (const char* key : {"Segment", "Bus", "BIOSVERSION", "VENDORID", "PCIEID"}) lane.erase(key);
    std::ostringstream out;
    DataHandlerCreator::get_data_handler(PCIE_DATA_HANDLER, DUMP_MODE_PLAIN, false)->dump_data(lane, first, out);
    const auto cells = cut(out.str());
    EXPECT_EQ(cells[1], "65");
    EXPECT_EQ(cells[6], "2");
    lane.erase("ErrCnt");
    first.erase("ErrCnt");
    EXPECT_THROW(DataHandlerCreator::get_data_handler(PCIE_DATA_HANDLER, DUMP_MODE_PLAIN, false)
                     ->dump_data(lane, first, out),
                 json::out_of_range);
}

TEST(DataHandlerCreator, RefusalsThrowInsteadOfEndingTheProcess) {
    std::ostringstream out;
    auto pcie = DataHandlerCreator::get_data_handler(PCIE_DATA_HANDLER, DUMP_MODE_PLAIN, true);
    EXPECT_THROW(pcie->dump_header(out), std::runtime_error);
    EXPECT_THROW(pcie->dump_4pt_header(out), std::runtime_error);
    EXPECT_EQ(lw_test::thrown_text([] {
                  DataHandlerCreator::get_data_handler(static_cast<DataHandlerType>(2), DUMP_MODE_PLAIN, false);
              }),
              "Unknow data handler passed");
}

}  // namespace
