// The duration estimate before queueing, over the embedded machine: its
// 32 GT/s x16 NIC (0:41:0.0, receiver 6) has 64 voltage and 32 timing steps,
// independent sides and MaxLanes 31, so 16 lanes run as one batch.
#include <gtest/gtest.h>

#include "gui/pcie_margin_estimate.h"
#include "model_machine.h"
#include "support/case_name.h"

using nlohmann::json;

namespace {

const json kAllLanes = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

enum class Before { Nothing, FiguresKnownWithMaxLanes3, MarginHoldsTheFunction };

struct EstimateCase {
    const char* name;
    const char* sbdf;
    unsigned err_cnt;
    json lanes;
    Before before;
    json expected;  // the whole answer, or {"ErrMsg": part of it}
};
LW_PRINT_BY_NAME(EstimateCase)

// Per side: a quick pass over every step at 50 ms, the full pass stepping
// through the lower ones at 10 ms, two full dwells; 80 ms of handshakes per
// offset. ErrCnt 1 at 32 GT/s and 1e-12: 149 s. Voltage side:
// 65 * 0.13 + 63 * 0.09 + 2 * 149.08 = 312.28; timing side: 33 * 0.13 +
// 31 * 0.09 + 2 * 149.08 = 305.24; a batch of the four: 1235.04 s.
// ErrCnt 4 (287 s): 2 * (8.45 + 5.67 + 574.16) + 2 * (4.29 + 2.79 + 574.16).
const EstimateCase kCases[] = {
    {"AllLanesOfTheLinkInOneBatch", "0:41:0.0", 1, kAllLanes, Before::Nothing,
     {{"OperationStatus", true}, {"Seconds", 1235.0}, {"DwellSeconds", 149.0}, {"Batches", 1}, {"Lanes", 16}}},
    {"FourLanesAtFourErrors", "0:41:0.0", 4, {0, 1, 2, 3}, Before::Nothing,
     {{"OperationStatus", true}, {"Seconds", 2339.0}, {"DwellSeconds", 287.0}, {"Batches", 1}, {"Lanes", 4}}},
    {"KnownFiguresAreUsedAndSplitTheLanesIntoBatches", "0:41:0.0", 1, kAllLanes, Before::FiguresKnownWithMaxLanes3,
     {{"OperationStatus", true}, {"Seconds", 4940.2}, {"DwellSeconds", 149.0}, {"Batches", 4}, {"Lanes", 16}}},
    {"NeverTouchesTheReceiverWhileAMarginHoldsIt", "0:41:0.0", 1, kAllLanes, Before::MarginHoldsTheFunction,
     {{"ErrMsg", "The receiver of this function is busy"}}},
    {"UnknownFunctionIsRefusedAsAtTheQueue", "0:99:0.0", 1, json::array(), Before::Nothing,
     {{"ErrMsg", "no PCI function 0:99:0.0"}}},
};

class Estimate : public ::testing::TestWithParam<EstimateCase> {};

TEST_P(Estimate, OfAKnownRecord) {
    const EstimateCase& c = GetParam();
    gui_test::ModelMachine machine;
    const PCIE::Device_ID nic(0, 0x41, 0, 0);
    if (c.before == Before::FiguresKnownWithMaxLanes3) {
        PCIE::MarginCapabilities figures;
        figures.NumTimingSteps = 32;
        figures.NumVoltSteps = 64;
        figures.MaxLanes = 3;
        figures.IndErrSampler = figures.LeftRightTiming = figures.IndUpDownVolt = figures.VoltSupported = true;
        PCIE::MarginRegisterClaim::remember_figures(nic, 6, figures);
    }
    std::optional<PCIE::MarginRegisterClaim> running;
    if (c.before == Before::MarginHoldsTheFunction) running.emplace(nic);

    const json record = {{"Operation", "PCIe Margin"},
                         {"PCIeInfo", {{"SBDF", c.sbdf}}},
                         {"TestParams", {{"BER", "12"}, {"ErrCnt", c.err_cnt}, {"Receiver", 6}, {"Lanes", c.lanes}}}};
    const json answer = estimate_pcie_margin_duration(record, machine.store);
    if (c.expected.contains("ErrMsg")) {
        EXPECT_EQ(answer["OperationStatus"], false);
        EXPECT_NE(answer.value("ErrMsg", "").find(c.expected["ErrMsg"].get<std::string>()), std::string::npos)
            << answer.dump();
    } else {
        EXPECT_EQ(answer, c.expected);
    }
}

INSTANTIATE_TEST_SUITE_P(Engine, Estimate, ::testing::ValuesIn(kCases),
                         lw_test::by_name);

}  // namespace
