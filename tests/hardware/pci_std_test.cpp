#include "hardware/pci_std.h"

#include <gtest/gtest.h>

#include "hardware/fake_sysfs.h"

namespace {

class PCIStdTest : public ::testing::Test {
protected:
    void SetUp() override {
        ReadPCIStd::set_sysfs_root(sysfs.root());
        WritePCIStd::set_sysfs_root(sysfs.root());
    }
    void TearDown() override {
        ReadPCIStd::set_sysfs_root("/sys/bus/pci/devices");
        WritePCIStd::set_sysfs_root("/sys/bus/pci/devices");
    }
    FakeSysfs sysfs;
};

TEST_F(PCIStdTest, AbsentFunctionReportsSuccessWithRead32KeepingAndNarrowReadsZeroing) {
    ReadPCIStd read;
    unsigned int value = 0x12345678;
    EXPECT_TRUE(read.read32(0, 7, 0, 0, 0, value));
    EXPECT_EQ(value, 0x12345678u);
    value = 0x12345678;
    EXPECT_TRUE(read.read16(0, 7, 0, 0, 0, value));
    EXPECT_EQ(value, 0u);
    value = 0x12345678;
    EXPECT_TRUE(read.read8(0, 7, 0, 0, 0, value));
    EXPECT_EQ(value, 0u);
    EXPECT_TRUE(WritePCIStd().write32(0, 7, 0, 0, 0, 1));
}

TEST_F(PCIStdTest, NarrowsAddressToEightBitsAndOffsetToSixteen) {
    sysfs.add_function(1, 2, 3, 4);
    ReadPCIStd read;
    unsigned int value = 0;
    EXPECT_TRUE(read.read32(0x101, 0x202, 0x303, 0x404, 0x10010, value));
    EXPECT_EQ(value, 0x13121110u);
    EXPECT_TRUE(read.read16(1, 2, 3, 4, 0x22, value));
    EXPECT_EQ(value, 0x2322u);
    EXPECT_TRUE(read.read8(1, 2, 3, 4, 0x1FF, value));
    EXPECT_EQ(value, 0xFFu);
}

TEST_F(PCIStdTest, WritesNarrowTheValueToTheirWidth) {
    sysfs.add_function(0, 0, 1, 0, 64);
    WritePCIStd write;
    EXPECT_TRUE(write.write16(0, 0, 1, 0, 0x10, 0xAAAABBCC));
    EXPECT_TRUE(write.write8(0, 0, 1, 0, 0x20, 0xAAAABBCC));
    EXPECT_TRUE(write.write32(0, 0, 1, 0, 0x30, 0xAAAABBCC));
    const auto bytes = sysfs.read_config(0, 0, 1, 0);
    EXPECT_EQ((std::vector<unsigned>{bytes[0x10], bytes[0x11], bytes[0x12]}), (std::vector<unsigned>{0xCC, 0xBB, 0x12}));
    EXPECT_EQ((std::vector<unsigned>{bytes[0x20], bytes[0x21]}), (std::vector<unsigned>{0xCC, 0x21}));
    EXPECT_EQ((std::vector<unsigned>{bytes[0x30], bytes[0x33]}), (std::vector<unsigned>{0xCC, 0xAA}));

    unsigned int value = 0;
    ReadPCIStd().read32(0, 0, 1, 0, 0x30, value);
    EXPECT_EQ(value, 0xAAAABBCCu);
}

TEST_F(PCIStdTest, InstancesShareOneObjectUntilTheRootIsChanged) {
    sysfs.add_function(0, 0, 2, 0);
    ReadPCIStd before;
    FakeSysfs other;
    ReadPCIStd::set_sysfs_root(other.root());
    ReadPCIStd after;

    unsigned int value = 0;
    before.read32(0, 0, 2, 0, 0, value);
    EXPECT_EQ(value, 0x03020100u);
    value = 0;
    after.read32(0, 0, 2, 0, 0, value);
    EXPECT_EQ(value, 0u);
}

}  // namespace
