#include <gtest/gtest.h>

#include <memory>

#include "hardware/crn_accessor_corvane.h"
#include "hardware/phy_accessor.h"
#include "hardware/resource_lock.h"
#include "hardware/fake_pci.h"

namespace {

constexpr unsigned int kIndex = 224, kData = 228, kExtension = 220;

std::shared_ptr<CRNAccessorCorvane> make_accessor(const std::shared_ptr<FakePCI>& pci, unsigned int segment = 0,
                                                  unsigned int bus = 0, unsigned int device = 0,
                                                  unsigned int function = 0) {
    return std::make_shared<CRNAccessorCorvane>(segment, bus, device, function, kIndex, kData, kExtension, pci, pci);
}

// Whether the test thread could take `name` right now (and gives it back).
bool lock_is_free(const std::string& name) {
    if (ResourceLock::get_instance()->lock(name) != 0) return false;
    ResourceLock::get_instance()->unlock(name);
    return true;
}

TEST(CRNAccessorCorvane, LockNameIsDecimalAddressAndIndexOffset) {
    auto pci = std::make_shared<FakePCI>();
    EXPECT_EQ(make_accessor(pci)->get_lock_name(), "S0B0D0F0I224");
    EXPECT_EQ(make_accessor(pci, 1, 0x80, 20, 3)->get_lock_name(), "S1B128D20F3I224");
}

// A read or write clears the extension register first, only when it is set,
// then selects the index and reaches the data.
TEST(CRNAccessorCorvane, ExtensionIsClearedOnlyWhenSetThenIndexThenData) {
    struct Case {
        unsigned int extension;
        bool write;
        std::vector<PciAccess> expected;
    };
    const Case cases[] = {
        {0, false, {pci_read(4, kExtension, 0), pci_write(4, kIndex, 0x5A08C), pci_read(4, kData, 0x1234)}},
        {6, false,
         {pci_read(4, kExtension, 6), pci_write(4, kExtension, 0), pci_write(4, kIndex, 0x5A08C),
          pci_read(4, kData, 0x1234)}},
        {2, true,
         {pci_read(4, kExtension, 2), pci_write(4, kExtension, 0), pci_write(4, kIndex, 0x5A08C),
          pci_write(4, kData, 0xCAFE)}},
    };
    for (const Case& c : cases) {
        auto pci = std::make_shared<FakePCI>();
        pci->set(0, 0, 0, 0, kExtension, c.extension);
        pci->set(0, 0, 0, 0, kData, 0x1234);
        if (c.write) make_accessor(pci)->write32(0x5A08C, 0xCAFE);
        else EXPECT_EQ(make_accessor(pci)->read32(0x5A08C), 0x1234u);
        EXPECT_EQ(pci->log(), c.expected) << "extension " << c.extension << (c.write ? ", write" : ", read");
    }
}

TEST(CRNAccessorCorvane, WideAccessesHoldTheLockNarrowOnesDont) {
    auto pci = std::make_shared<FakePCI>();
    auto accessor = make_accessor(pci, 0, 0, 0, 2);
    std::vector<bool> free_during_data;
    pci->read_hook = [&](const PciAccess& a) -> std::optional<unsigned int> {
        if (a.offset == kData) free_during_data.push_back(lock_is_free(accessor->get_lock_name()));
        return std::nullopt;
    };
    accessor->read32(0x10);
    accessor->read16(0x10);
    accessor->read8(0x10);
    pci->read_hook = nullptr;
    EXPECT_EQ(free_during_data, (std::vector<bool>{false, true, true}));
    EXPECT_TRUE(lock_is_free(accessor->get_lock_name()));
}

TEST(CRNAccessorCorvane, NarrowFormsUseTheirWidthAndLeaveExtensionAlone) {
    auto pci = std::make_shared<FakePCI>();
    pci->set(0, 0, 0, 0, kExtension, 6);
    pci->set(0, 0, 0, 0, kData, 0xA1B2C3D4);
    auto accessor = make_accessor(pci);
    EXPECT_EQ(accessor->read8(0x44), 0xD4u);
    EXPECT_EQ(accessor->read16(0x46), 0xC3D4u);
    accessor->write8(0x45, 0x11);
    accessor->write16(0x47, 0x2222);
    const std::vector<PciAccess> expected = {
        pci_write(1, kIndex, 0x44),  pci_read(1, kData, 0xD4),    pci_write(2, kIndex, 0x46),
        pci_read(2, kData, 0xC3D4),  pci_write(1, kIndex, 0x45),  pci_write(1, kData, 0x11),
        pci_write(2, kIndex, 0x47),  pci_write(2, kData, 0x2222),
    };
    EXPECT_EQ(pci->log(), expected);
}

// The network behind the pair answers whole dwords.
struct PhyFixture : ::testing::Test {
    std::shared_ptr<FakePCI> pci = std::make_shared<FakePCI>();
    FakeCrnPair crn{*pci, kIndex, kData};
    PhyAccessor phy{make_accessor(pci)};
};

TEST_F(PhyFixture, ReadSelectsTheByteOrHalfOfTheDword) {
    crn.registers[0x1000] = 0xA1B2C3D4;
    struct Case {
        unsigned int offset, width, expected;
    };
    const Case cases[] = {
        {0x1000, 1, 0xD4}, {0x1001, 1, 0xC3}, {0x1002, 1, 0xB2}, {0x1003, 1, 0xA1},
        {0x1000, 2, 0xC3D4}, {0x1002, 2, 0xA1B2}, {0x1000, 4, 0xA1B2C3D4}, {0x1003, 4, 0xA1B2C3D4},
    };
    for (const Case& c : cases)
        EXPECT_EQ(phy.read(0, c.offset, c.width), c.expected) << std::hex << c.offset << " width " << c.width;
    // The base is or-ed in, not added.
    EXPECT_EQ(phy.read(0x1000, 0x1002, 2), 0xA1B2u);
}

TEST_F(PhyFixture, NarrowWritesKeepTheRestOfTheDword) {
    struct Case {
        unsigned int offset, width, value, expected;
    };
    const Case cases[] = {
        {0x2001, 1, 0xEE, 0xA1B2EED4}, {0x2003, 1, 0x1FF, 0xFFB2C3D4}, {0x2002, 2, 0x5566, 0x5566C3D4},
        {0x2000, 2, 0x7788, 0xA1B27788}, {0x2000, 4, 0x01020304, 0x01020304},
    };
    for (const Case& c : cases) {
        crn.registers[0x2000] = 0xA1B2C3D4;
        phy.write(0, c.offset, c.width, c.value);
        EXPECT_EQ(crn.registers[0x2000], c.expected) << std::hex << c.offset << " width " << c.width;
    }
}

TEST_F(PhyFixture, WidthTwoClearsOnlyBitZeroOfTheAddress) {
    pci->clear_log();
    phy.read(0, 0x3003, 2);
    phy.read(0, 0x3003, 1);
    std::vector<unsigned int> indexes;
    for (const PciAccess& a : pci->log())
        if (a.write && a.offset == kIndex) indexes.push_back(a.value);
    EXPECT_EQ(indexes, (std::vector<unsigned int>{0x3002, 0x3003}));
}

TEST(PhyAccessor, WithoutAnAccessorThrows) {
    PhyAccessor phy(nullptr);
    EXPECT_THROW(phy.read(0, 0, 4), std::runtime_error);
    EXPECT_THROW(phy.write(0, 0, 4, 0), std::runtime_error);
}

}  // namespace
