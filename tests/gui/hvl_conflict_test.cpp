// The hVL conflict rule on a two-socket Corvane machine, and the queue's
// check of hVL records.
#include <gtest/gtest.h>

#include "discovery/die_test_helpers.h"
#include "gui/gui_resource_store.h"
#include "gui/hvl_conflict_check.h"
#include "gui/test_record_checks.h"
#include "support/case_name.h"

using nlohmann::json;

namespace {

using die_test::cpu_die;
using die_test::thrown_text;

const std::vector<VEX_DIE_INFO> kDies = {cpu_die("Corvane", 0), cpu_die("Corvane", 1)};

json hvl_record(const std::string& die, const std::string& link) {
    return {{"Operation", "HVL Destructive Margin"},
            {"HVLCtrlInfo", {{"DeviceName", die}, {"SERDES", link}}},
            {"TestParams", {{"BER", "9"}, {"ErrCnt", 5}, {"Lanes", json::array({0, "1,2"})}}}};
}

struct HvlCase {
    const char* name;
    unsigned socket_b;
    const char* link_a;
    const char* link_b;
    bool conflict;
};
LW_PRINT_BY_NAME(HvlCase)

class HVLConflictTable : public ::testing::TestWithParam<HvlCase> {
protected:
    void SetUp() override { HVLConflictCheck::initalize(kDies); }
};

// Socket 0's G0 and socket 1's G2 are the two ends of one link.
TEST_P(HVLConflictTable, AnswersBothWays) {
    const HvlCase& c = GetParam();
    const HVLLinkInfo a{kDies[0], c.link_a, ""}, b{kDies[c.socket_b], c.link_b, ""};
    auto& check = HVLConflictCheck::get_instance();
    EXPECT_EQ(check.check_if_conflict(a, b), c.conflict);
    EXPECT_EQ(check.check_if_conflict(b, a), c.conflict);
}

INSTANTIATE_TEST_SUITE_P(Cases, HVLConflictTable,
                         ::testing::Values(HvlCase{"Itself", 0, "G0", "G0", true},
                                           HvlCase{"PartnerOnTheOtherDie", 1, "G0", "G2", true},
                                           HvlCase{"OtherLinkOfTheSameDie", 0, "G0", "G1", false},
                                           HvlCase{"SameNameOnTheOtherDie", 1, "G0", "G0", false},
                                           HvlCase{"AnotherLinksPartner", 1, "G0", "G3", false},
                                           HvlCase{"UnwiredLinkItself", 0, "P4", "P4", true},
                                           HvlCase{"UnwiredLinkAgainstAnother", 0, "P4", "G0", false}),
                         lw_test::by_name);

TEST(HVLConflictCheckTest, RefusesUntilInitialisedWithDies) {
    HVLConflictCheck::reset();
    HVLConflictCheck::initalize({});
    testing::internal::CaptureStderr();
    EXPECT_EQ(thrown_text([] {
                  HVLConflictCheck::get_instance().check_if_conflict({kDies[0], "G0", ""}, {kDies[0], "G0", ""});
              }),
              "Error: HVLConflictCheck not initalized");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: HVLConflictCheck not initalized\n");
    HVLConflictCheck::initalize(kDies);
    EXPECT_TRUE(HVLConflictCheck::get_instance().check_if_conflict({kDies[0], "G0", ""}, {kDies[0], "G0", ""}));
}

TEST(HVLConflictCheckTest, RecordsAreComparedByDieNameAndLink) {
    HVLConflictCheck::initalize(kDies);
    const GUIHVLCheckConflict check;
    EXPECT_TRUE(check.check_conflict(kDies, hvl_record(kDies[1].full_name(), "P3"),
                                     hvl_record(kDies[0].full_name(), "P1")));
    EXPECT_FALSE(check.check_conflict(kDies, hvl_record(kDies[1].full_name(), "P3"),
                                      hvl_record(kDies[0].full_name(), "P0")));
    EXPECT_EQ(thrown_text([&] {
                  check.check_conflict(kDies, hvl_record("Corvane Socket:7 Die:0", "G0"),
                                       hvl_record(kDies[0].full_name(), "G0"));
              }),
              "Error: Unable to find GUIHVLCheckConflict::check_conflict die.");
}

TEST(HVLRecordCheck, RefusesWhatTheRunnerCouldNotRun) {
    GUIResourceStore store("/nonexistent");
    std::vector<PCIDeviceDetails> none;
    store.store_pcie_device_list(none);
    store.store_die_list(kDies);
    const std::string die = kDies[1].full_name();
    EXPECT_EQ(check_hvl_record(hvl_record(die, "G3"), store), std::nullopt);

    json no_info = hvl_record(die, "G3");
    no_info.erase("HVLCtrlInfo");
    json no_lanes = hvl_record(die, "G3");
    no_lanes["TestParams"].erase("Lanes");
    const std::vector<std::pair<json, std::string>> refused = {
        {hvl_record("Corvane Socket:7 Die:0", "G3"), "no die \"Corvane Socket:7 Die:0\" on this machine"},
        {hvl_record(die, "P4"), "\"P4\" is not an hVL link of " + die},
        {hvl_record(die, "G9"), "\"G9\" is not an hVL link of " + die},
        {no_info, "the record has no \"HVLCtrlInfo\" object"},
        {no_lanes, "\"TestParams\" has no \"Lanes\""},
    };
    for (const auto& [record, reason] : refused) EXPECT_EQ(check_hvl_record(record, store), reason) << record.dump();
}

}  // namespace
