// hVL link tables, partners, lane order and data rates: the tables alone,
// then over the default simulated machine.
#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>

#include "die_test_helpers.h"
#include "discovery/die_detection.h"
#include "discovery/hvl_links.h"
#include "discovery/pci_detection.h"
#include "hardware/chips/chip_identity.h"
#include "hardware/crn_factory.h"
#include "hardware/register_storage.h"
#include "support/model_profile.h"

namespace {

using die_test::cpu_die;
using die_test::thrown_text;
using End = std::tuple<unsigned, unsigned, std::string, std::string>;  // socket, die, link, partner link

std::vector<VEX_DIE_INFO> dies_of(const std::string& name, unsigned sockets, unsigned dies_per_socket) {
    std::vector<VEX_DIE_INFO> dies;
    for (unsigned socket = 0; socket < sockets; ++socket)
        for (unsigned die = 0; die < dies_per_socket; ++die) dies.push_back(cpu_die(name, socket, die));
    return dies;
}

std::vector<End> ends_of(const std::vector<HVLLinkInfo>& infos) {
    std::vector<End> ends;
    for (const auto& info : infos) ends.emplace_back(info.die.socket(), info.die.die(), info.link, info.partner_link);
    return ends;
}

TEST(HVLLinkTables, CorvaneListsBothEndsOfEachRowAndFindsEitherPartner) {
    const auto dies = dies_of("Corvane", 2, 1);
    const auto infos = (*get_hvl_info_list_generator(dies[1], dies))();
    const std::vector<End> expected = {{0, 0, "G0", "G2"}, {1, 0, "G2", "G0"}, {0, 0, "G1", "G3"}, {1, 0, "G3", "G1"},
                                       {0, 0, "P1", "P3"}, {1, 0, "P3", "P1"}, {0, 0, "P0", "P2"}, {1, 0, "P2", "P0"}};
    EXPECT_EQ(ends_of(infos), expected);

    const auto finder = get_hvl_partner_finder(dies[0], dies);
    for (size_t i = 0; i < infos.size(); ++i) {
        const HVLLinkInfo partner = (*finder)(infos[i]);
        EXPECT_EQ(partner, infos[i ^ 1]) << infos[i].link;
    }
}

TEST(HVLLinkTables, PartnerOfALinkOutsideTheTableThrows) {
    const auto dies = dies_of("Corvane", 2, 1);
    FindHVLPartnerCorvane finder(dies);
    // P4 carries PCIe; G0 with the wrong partner name is not the table's G0.
    for (const HVLLinkInfo& link : {HVLLinkInfo{dies[0], "P4", "P4"}, HVLLinkInfo{dies[0], "G0", "G3"}})
        EXPECT_EQ(thrown_text([&] { finder(link); }), "Error in FindHVLPartnerCorvane.") << link.link;
    // One socket has no socket-to-socket links at all.
    const std::vector<VEX_DIE_INFO> one{dies[0]};
    EXPECT_TRUE(GenerateHVLLinkInfoListCorvane(one)().empty());
    FindHVLPartnerCorvane single(one);
    EXPECT_EQ(thrown_text([&] { single(HVLLinkInfo{dies[0], "G0", "G2"}); }),
              "Error in FindHVLPartnerCorvane.");
}

TEST(HVLLinkTables, DellmarTakesItsOwnTable) {
    const auto dies = dies_of("Dellmar", 2, 1);
    const auto ends = ends_of(GenerateHVLLinkInfoListCorvane(dies)());
    ASSERT_EQ(ends.size(), 12u);
    EXPECT_EQ(ends[0], End(0, 0, "P0", "P0"));
    EXPECT_EQ(ends[1], End(1, 0, "P0", "P0"));
    EXPECT_EQ(ends[5], End(1, 0, "P1", "P3"));
}

TEST(HVLLinkTables, EqualityLooksAtTheDieOnlyThroughItsFullName) {
    VEX_DIE_INFO a = cpu_die("Corvane", 0), b = cpu_die("Corvane", 1);
    b.cpu.full_name = a.cpu.full_name;
    EXPECT_EQ((HVLLinkInfo{a, "G0", "G2"}), (HVLLinkInfo{b, "G0", "G2"}));
    EXPECT_FALSE((HVLLinkInfo{a, "G0", "G2"}) == (HVLLinkInfo{a, "G0", "G3"}));
    EXPECT_FALSE((HVLLinkInfo{a, "G0", "G2"}) == (HVLLinkInfo{cpu_die("Corvane", 1), "G0", "G2"}));
}

// Every die of a full KX900 machine uses each listed link once, and every
// partner answer leads back.
TEST(HVLLinkTables, Kx900TablesWireEachLinkOnceAndSymmetrically) {
    struct Case {
        std::string name;
        unsigned sockets;
        std::vector<std::string> links;  // per die
    };
    for (const Case& c : {Case{"KX900A", 2, {"G0", "G1", "G2", "G3"}}, Case{"KX900C", 1, {"G0", "G1", "G2"}},
                          Case{"KX900X", 2, {"G0", "G1", "G2"}}, Case{"KX900X", 1, {"G0", "G2"}}}) {
        const auto dies = dies_of(c.name, c.sockets, 4);
        const auto infos = (*get_hvl_info_list_generator(dies[0], dies))();
        const auto finder = get_hvl_partner_finder(dies[0], dies);
        for (const auto& die : dies) {
            std::vector<std::string> links;
            for (const auto& info : infos)
                if (info.die.full_name() == die.full_name()) links.push_back(info.link);
            std::sort(links.begin(), links.end());
            EXPECT_EQ(links, c.links) << c.name << " " << die.full_name();
        }
        for (const auto& info : infos) {
            const HVLLinkInfo partner = (*finder)(info);
            EXPECT_NE(partner.die.full_name(), info.die.full_name());
            EXPECT_EQ((*finder)(partner), info);
        }
    }
}

TEST(HVLLinkTables, Kx900RowWithAMissingDieIsReportedAndLeftOut) {
    auto dies = dies_of("KX900A", 1, 4);
    dies.pop_back();  // die 3 missing: two ring links and a diagonal lose an end
    testing::internal::CaptureStderr();
    const auto infos = GenerateHVLLinkInfoListKX900A(dies)();
    const std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(infos.size(), 6u);
    EXPECT_EQ(printed,
              "Error: Unable to find KX900a die by socket and die.\n"
              "Error: Unable to find KX900a die by socket and die.\n"
              "Error: Unable to find KX900a die by socket and die.\n");
}

TEST(HVLLinkTables, DiesWithoutHvlAreRefusedByName) {
    const auto ferrow = die_test::named_die("Ferrow");
    EXPECT_EQ(thrown_text([&] { get_hvl_info_list_generator(ferrow, {ferrow}); }),
              "Error in get_hvl_info_list_generator. Did not handle Ferrow");
    EXPECT_EQ(thrown_text([&] { get_hvl_partner_finder(ferrow, {ferrow}); }),
              "Error in get_hvl_partner_finder. Did not handle Ferrow");
    EXPECT_EQ(thrown_text([&] { get_hvl_data_rate(ferrow, "G0", 0); }),
              "Error in get_hvl_data_rate. Did not handle Ferrow");
}

TEST(HVLPstate, RateOfTheSelectedPstate) {
    // P-state bytes, 0 to 3: 16 Gb/s on 16-bit words, 25 on 20-bit, 32 on
    // 32-bit, and a word size code that names none.
    const unsigned context = 0x10 | 0x54 << 8 | 0x90 << 16 | 0xD0u << 24;
    EXPECT_EQ(chips::hvl_data_rate_gbps(0, context), 16.0);
    EXPECT_EQ(chips::hvl_data_rate_gbps(1, context), 25.0);
    EXPECT_EQ(chips::hvl_data_rate_gbps(2, context), 32.0);
    EXPECT_EQ(chips::hvl_data_rate_gbps(0xFFFFFFF2, context), 32.0) << "only bits 1:0 select";
    EXPECT_FALSE(chips::hvl_data_rate_gbps(3, context));
    for (double rate : {16.0, 20.0, 25.0, 32.0}) {
        const auto byte = chips::hvl_pstate_context_byte(rate);
        ASSERT_TRUE(byte) << rate;
        EXPECT_EQ(chips::hvl_data_rate_gbps(0, *byte), rate);
    }
    EXPECT_FALSE(chips::hvl_pstate_context_byte(33.5));
    EXPECT_FALSE(chips::hvl_pstate_context_byte(130));
    EXPECT_FALSE(chips::hvl_pstate_context_byte(0));
}

// The default machine cables socket 0's G1 to socket 1's G3 at 32 Gb/s with
// reversed lanes and P1 to P3 at 25 Gb/s; its G0-G2 and P0-P2 carry PCIe.
class HVLLinksOnModel : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(dies.size(), 2u); }

    lw_test::BootedModel model;
    const std::vector<VEX_DIE_INFO>& dies = model.dies;
};

TEST_F(HVLLinksOnModel, EachSocketsLinksPairWithTheirPartnersAndReadBackTheirRates) {
    const auto links = summarise_hvl_links(dies);
    std::vector<std::tuple<std::string, std::string, unsigned, double, bool>> got;
    for (const auto& link : links) {
        EXPECT_EQ(link.error, "");
        got.emplace_back(link.end.link, link.partner.link, link.partner.die.socket(), link.data_rate,
                         link.lane_reversed);
        // The partner's own PCS runs at the same rate.
        EXPECT_EQ(get_hvl_data_rate(link.partner.die, link.partner.link, 7), link.data_rate);
    }
    const std::vector<std::tuple<std::string, std::string, unsigned, double, bool>> expected = {
        {"G0", "G2", 1, 0, false}, {"G1", "G3", 1, 32, true}, {"P1", "P3", 1, 25, false}, {"P0", "P2", 1, 0, false}};
    EXPECT_EQ(got, expected);
}

TEST_F(HVLLinksOnModel, ReversedLinkReportsItOnEveryLaneOfBothEnds) {
    const auto generator = get_hvl_info_list_generator(dies[0], dies);
    for (unsigned lane : {0u, 15u}) {
        EXPECT_TRUE(generator->is_lane_reversed(dies[0], "G1", lane));
        EXPECT_TRUE(generator->is_lane_reversed(dies[1], "G3", lane));
        EXPECT_FALSE(generator->is_lane_reversed(dies[0], "P1", lane));
        EXPECT_FALSE(generator->is_lane_reversed(dies[1], "P3", lane));
    }
}

TEST_F(HVLLinksOnModel, WordSizeMismatchIsReportedAndGivesNoRate) {
    const auto store = make_register_store("Corvane", nullptr);
    const unsigned context = store->get_link_pcs_register("PCS_HVL3X16_PCS_PSTATE_CONTEXT2", "P1", 0)->get_offset();
    auto accessor = model.platform->model().die_accessor(0, 0);
    accessor->write32(context, accessor->read32(context) | 0xC0u << 8);  // P-state 1: word size code 3
    testing::internal::CaptureStderr();
    EXPECT_EQ(get_hvl_data_rate(dies[0], "P1", 0), 0.0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: check settings, seems like there is mismatch on word size ***\n");
}

}  // namespace
