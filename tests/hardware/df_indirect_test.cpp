#include <gtest/gtest.h>

#include <memory>

#include "hardware/base_address_mapper.h"
#include "hardware/df_indirect.h"
#include "hardware/fake_pci.h"

namespace {

PciAccess df_access(bool write, unsigned int offset, unsigned int value) {
    return PciAccess{write, 4, 0, 0, 25, 4, offset, value};
}

struct DFFixture : ::testing::Test {
    std::shared_ptr<FakePCI> pci = std::make_shared<FakePCI>();
    void SetUp() override { pci->set(0, 0, 25, 4, 64, 0x2); }
};

TEST_F(DFFixture, RefusesAFabricNotInBroadcastMode) {
    pci->set(0, 0, 25, 4, 64, 0x1);
    EXPECT_THROW(DFIndirect("DF", 1, pci, pci), std::runtime_error);
}

TEST_F(DFFixture, ControlWordFields) {
    struct Case {
        unsigned int function, offset;
        int instance;
        bool qword;
        unsigned int word;
    };
    const Case cases[] = {
        {0, 0x0, -1, false, 0x0},
        {5, 0xFFC, -1, false, (0x3FFu << 1) | (5u << 11)},
        {3, 0x44, 7, false, 1u | (0x11u << 1) | (3u << 11) | (7u << 16)},
        {7, 0x1004, 0x1FF, true, 1u | (0x1u << 1) | (7u << 11) | (1u << 14) | (0xFFu << 16)},
    };
    for (const Case& c : cases)
        EXPECT_EQ(DFIndirectImp::control_word(c.function, c.offset, c.instance, c.qword), c.word)
            << c.function << " " << c.offset << " " << c.instance;
}

TEST_F(DFFixture, QWordJoinsTheHalvesAtBit26) {
    DFIndirect df("DF", 1, pci, pci);
    pci->set(0, 0, 25, 4, 200, 0x1);
    pci->set(0, 0, 25, 4, 204, 0x3);
    pci->clear_log();
    unsigned long long value = 0;
    ASSERT_TRUE(df.readQWord(2, 0x10, 1, value));
    EXPECT_EQ(value, 0x1ull | (0x3ull << 26));
    const unsigned int control = DFIndirectImp::control_word(2, 0x10, 1, true);
    const std::vector<PciAccess> expected = {df_access(true, 148, control), df_access(false, 200, 1),
                                             df_access(false, 204, 3)};
    EXPECT_EQ(pci->log(), expected);

    pci->clear_log();
    ASSERT_TRUE(df.writeQWord(2, 0x10, -1, 0x12345678ull << 6));
    const unsigned long long written = 0x12345678ull << 6;
    const std::vector<PciAccess> writes = {
        df_access(true, 148, DFIndirectImp::control_word(2, 0x10, -1, true)),
        df_access(true, 200, static_cast<unsigned int>(written)),
        df_access(true, 204, static_cast<unsigned int>(written >> 26))};
    EXPECT_EQ(pci->log(), writes);
}

TEST(BaseaddressMapper, TablesAndBounds) {
    const pcieinterfacecl::CorvaneBaseaddressMapper corvane;
    const pcieinterfacecl::KX900BaseaddressMapper kx900;
    const pcieinterfacecl::KX800BaseaddressMapper kx800;
    EXPECT_EQ(corvane.get_core_base_address("PCIE3_nbio1"), 0x1A680000u);
    EXPECT_EQ(corvane.get_port_base_address("PCIE3_nbio1", 0), 0x1A640000u);
    EXPECT_EQ(corvane.get_port_base_address("PCIE3_nbio1", 8), 0x1A648000u);
    EXPECT_EQ(corvane.get_port_base_address("PCIE3_nbio1", 9), 0u);
    EXPECT_EQ(corvane.get_core_base_address("PCIE5_nbio1"), 0u);
    EXPECT_EQ(corvane.get_port_base_address("PCIE0", 0), 0u);
    EXPECT_EQ(kx900.get_core_base_address("PCIE1"), 0x1AB00000u);
    EXPECT_EQ(kx900.get_port_base_address("PCIE0", 1), 0x1A341000u);
    EXPECT_EQ(kx800.get_port_base_address("PCIE0_nbio0", 2), 0x11142000u);
}

}  // namespace
