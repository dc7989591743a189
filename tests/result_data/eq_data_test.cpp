#include <gtest/gtest.h>

#include "model_fixture.h"
#include "result_data/eq_data.h"
#include "simulator/equalisation_model.h"
#include "support/case_name.h"
#include "support/thrown.h"

namespace {

TEST(PresetTable, CoefficientsNameTheirPreset) {
    const struct {
        unsigned pre, post;
        const char* preset;
    } cases[] = {{0, 12, "P0"}, {0, 6, "P3"}, {0, 0, "P4"}, {4, 10, "P7"},
                 {6, 6, "P8"},  {8, 0, "P9"}, {8, 8, "P10"}, {12, 0, "P10"}};
    for (const auto& c : cases) EXPECT_EQ(preset_from_coefficients(c.pre, c.post), c.preset) << c.pre << "/" << c.post;
}

VEX_DIE_INFO die_named(const std::string& name, bool cpu) {
    VEX_DIE_INFO die;
    (cpu ? die.is_cpu : die.is_gpu) = true;
    (cpu ? die.cpu.name : die.gpu.name) = name;
    return die;
}

TEST(EqDataFactory, ChipNamesPickTheirReader) {
    for (const char* name : {"Corvane", "Dellmar", "KX900C", "KX800"})
        EXPECT_TRUE(std::dynamic_pointer_cast<CorvaneEQData>(get_eq_data("P0", die_named(name, true)))) << name;
    for (const char* name : {"Ferrow", "Sabrel Crown", "Hesk32"})
        EXPECT_TRUE(std::dynamic_pointer_cast<C20EQData>(get_eq_data("P0", die_named(name, false)))) << name;
    EXPECT_EQ(lw_test::thrown_text([] { get_eq_data("P0", die_named("Tamblin1", true)); }),
              "Error in get_eq_data. Did not handle Tamblin1");
}

using EqOnModel = ResultDataOnModel;

struct PhyLane {
    const char* name;
    unsigned socket;
    const char* link;
    unsigned lane;
    bool readable;  // links without a PCS have no coefficient copy to check against
};
LW_PRINT_BY_NAME(PhyLane)

class TxEqLocalOnModel : public ResultDataOnModel, public ::testing::WithParamInterface<PhyLane> {};

TEST_P(TxEqLocalOnModel, ReadsTheCoefficientsTheModelPresents) {
    const PhyLane& c = GetParam();
    const TxEq tx = get_eq_data(c.link, model->dies.at(c.socket))->get_tx_eq_local(c.lane);
    if (!c.readable) {
        EXPECT_EQ(tx.valid, 0u);
        return;
    }
    const auto eq = sim::model_phy_lane_eq(model->platform->model().noise(), c.socket, c.link, c.lane);
    EXPECT_EQ(tx.valid, 1u);
    EXPECT_EQ(tx.pre, eq.pre);
    EXPECT_EQ(tx.post, eq.post);
    EXPECT_EQ(tx.preset, preset_from_coefficients(eq.pre, eq.post));
    EXPECT_EQ(tx.matched, 1u);
    EXPECT_EQ(tx.main, static_cast<int32_t>(eq.main));
}

INSTANTIATE_TEST_SUITE_P(Lanes, TxEqLocalOnModel,
                         ::testing::Values(PhyLane{"S0G0Lane0", 0, "G0", 0, true},
                                           PhyLane{"S0G1Lane13", 0, "G1", 13, true},
                                           PhyLane{"S1P3Lane6", 1, "P3", 6, true}, PhyLane{"S1P5Lane7", 1, "P5", 7, true},
                                           PhyLane{"S0P4WithoutPcs", 0, "P4", 2, false}),
                         lw_test::by_name);

TEST_F(EqOnModel, ReceiverRecordIsNotValidWithoutTheFirmwareRecord) {
    EXPECT_EQ(get_eq_data("G0", model->dies[0])->get_rx_eq(0).to_json(), nlohmann::json({{"RxEqValid", false}}));
}

// Socket 0's first root port (PCIe core PCIE0_nbio0, port 0) with its lanes
// reversed on the core, so logical and controller lanes differ.
class PortTxEqOnModel : public ResultDataOnModel {
protected:
    void SetUp() override {
        boot(lw_test::Profile().set("slot1", {{"lane_reversal", true}}));
        ports = get_all_port_data(model->dies, model->devices, model->read());
        for (const PortMap& row : ports.at(model->dies[0]))
            if (row.device == PCIE::Device_ID(0, 0, 1, 0)) port = row;
        ASSERT_EQ(port.core, "PCIE0_nbio0");
        ASSERT_NE(port.logical_to_controller_lane.at(0), 0u);
    }

    PortMapData ports;
    PortMap port;
};

struct SpeedCase {
    const char* speed;
    unsigned selector;  // of the model's values; 99: nothing read
};
LW_PRINT_BY_FIELD(SpeedCase, speed)

class PortTxEqSpeeds : public PortTxEqOnModel, public ::testing::WithParamInterface<SpeedCase> {};

TEST_P(PortTxEqSpeeds, LaneFieldsAreTheModelsForTheRate) {
    const SpeedCase& c = GetParam();
    const std::vector<unsigned> lanes = {0, 5, 15};
    const auto output = PCIETxEqCorvane()({PCIE::Device_ID(0, 0, 1, 0), lanes, c.speed}, ports);
    ASSERT_EQ(output.lanes.size(), lanes.size());
    for (unsigned lane : lanes) {
        const nlohmann::json got = output.lane_json(lane);
        if (c.selector == 99) {
            EXPECT_FALSE(got.at("TxPresetGot").get<bool>());
            EXPECT_FALSE(got.at("LCBestFomGot").get<bool>());
            continue;
        }
        const auto& noise = model->platform->model().noise();
        const auto presets = sim::model_port_lane_eq(noise, 0, "PCIE0_nbio0", 0, lane, c.selector);
        const auto settings =
            sim::model_port_lane_eq(noise, 0, "PCIE0_nbio0", 0, port.logical_to_controller_lane.at(lane), c.selector);
        const nlohmann::json expected = {
            {"TxPreset", presets.dsp_preset},          {"USPTxPreset", presets.usp_preset},
            {"LCLocalPreset", settings.local_preset},  {"LCLocalPreCursor", settings.local_pre},
            {"LCLocalCursor", settings.local_cursor},  {"LCLocalPostCursor", settings.local_post},
            {"LCBestPreset", settings.best_preset},    {"LCBestPreCursor", settings.best_pre},
            {"LCBestCursor", settings.best_cursor},    {"LCBestPostCursor", settings.best_post},
            {"LCBestFom", settings.best_fom},
        };
        for (const auto& [key, value] : expected.items()) {
            EXPECT_EQ(got.at(key), value) << key << " lane " << lane;
            EXPECT_TRUE(got.at(key + "Got").get<bool>()) << key;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Rates, PortTxEqSpeeds,
                         ::testing::Values(SpeedCase{"8 GT/s", 0}, SpeedCase{"16 GT/s", 1}, SpeedCase{"32GT/s", 2},
                                           SpeedCase{"5 GT/s", 99}),
                         lw_test::by_field(&SpeedCase::speed));

TEST_F(PortTxEqOnModel, UnknownPortOrUnmappedLaneGetsNothing) {
    const auto elsewhere = PCIETxEqCorvane()({PCIE::Device_ID(7, 0, 1, 0), {0}, "16 GT/s"}, ports);
    EXPECT_FALSE(elsewhere.lane_json(0).at("LCLocalPresetGot").get<bool>());
    const auto beyond = PCIETxEqCorvane()({PCIE::Device_ID(0, 0, 1, 0), {40}, "16 GT/s"}, ports);
    EXPECT_FALSE(beyond.lane_json(40).at("TxPresetGot").get<bool>());
}

}  // namespace
