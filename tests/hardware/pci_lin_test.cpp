#include "hardware/pci_lin.h"

#include <gtest/gtest.h>

#include "hardware/fake_sysfs.h"

namespace {

constexpr unsigned int kUntouched = 0xDEADBEEF;

class PCILinTest : public ::testing::Test {
protected:
    FakeSysfs sysfs;
};

TEST_F(PCILinTest, FormsTheSysfsPathFromTheAddress) {
    sysfs.write_config(0x12, 0x3a, 0x1f, 7, {'\x11', '\x22', '\x33', '\x44'});
    // Written by hand, not by the helper, so a wrong format can't hide behind a shared one.
    ASSERT_TRUE(std::filesystem::exists(sysfs.root() + "/0012:3a:1f.7/config"));
    PCI_lin pci(sysfs.root());
    unsigned int value = 0;
    EXPECT_TRUE(pci.readDWordEx(0x12, 0x3a, 0x1f, 7, 0, value));
    EXPECT_EQ(value, 0x44332211u);
}

TEST_F(PCILinTest, KeepsAnOpenedHandleAndRetriesAFailedOpen) {
    PCI_lin pci(sysfs.root(), std::chrono::milliseconds(0));
    unsigned int value = kUntouched;
    EXPECT_FALSE(pci.readDWordEx(0, 1, 0, 0, 0, value));
    EXPECT_FALSE(pci.readPCIExStatus(0, 1, 0, 0));
    EXPECT_EQ(value, kUntouched);

    // The function appears later: the next access opens it.
    sysfs.add_function(0, 1, 0, 0);
    EXPECT_TRUE(pci.readPCIExStatus(0, 1, 0, 0));
    EXPECT_TRUE(pci.readDWordEx(0, 1, 0, 0, 4, value));
    EXPECT_EQ(value, 0x07060504u);

    // Once open, the handle is used without going back to the path.
    sysfs.remove_function(0, 1, 0, 0);
    EXPECT_TRUE(pci.readDWordEx(0, 1, 0, 0, 8, value));
    EXPECT_EQ(value, 0x0B0A0908u);
    EXPECT_TRUE(pci.readPCIExStatus(0, 1, 0, 0));

    pci.closeAll();
    EXPECT_FALSE(pci.readPCIExStatus(0, 1, 0, 0));
}

TEST_F(PCILinTest, ShortReadSucceedsAndLeavesTheDestination) {
    sysfs.add_function(0, 0, 0, 0, 256);
    PCI_lin pci(sysfs.root());
    for (unsigned short offset : {256, 300, 254}) {  // past the end, far past, straddling it
        unsigned int dword = kUntouched;
        unsigned short word = 0xBEEF;
        unsigned char byte = 0xEE;
        EXPECT_TRUE(pci.readDWordEx(0, 0, 0, 0, offset, dword)) << offset;
        EXPECT_EQ(dword, kUntouched) << offset;
        if (offset >= 255) {
            EXPECT_TRUE(pci.readWordEx(0, 0, 0, 0, offset, word));
            EXPECT_TRUE(pci.readByteEx(0, 0, 0, 0, offset, byte));
            EXPECT_EQ(word, 0xBEEF);
            EXPECT_EQ(byte, 0xEE);
        }
    }
}

TEST_F(PCILinTest, PlainOperationsUseSegmentZeroAndAnEightBitOffset) {
    sysfs.add_function(0, 2, 3, 1, 4096);
    sysfs.add_function(1, 2, 3, 1, 16);
    PCI_lin pci(sysfs.root());
    ASSERT_TRUE(pci.writeByteEx(0, 2, 3, 1, 0x105, 0xAB));

    unsigned int wide_offset = 0x105;  // a variable: the narrowing happens at the call
    unsigned char plain = 0, extended = 0;
    EXPECT_TRUE(pci.readByte(2, 3, 1, wide_offset, plain));
    EXPECT_TRUE(pci.readByteEx(0, 2, 3, 1, wide_offset, extended));
    EXPECT_EQ(plain, 0x05);
    EXPECT_EQ(extended, 0xAB);

    unsigned int dword = 0;
    EXPECT_TRUE(pci.read(2, 3, 1, 0x10, dword));
    EXPECT_EQ(dword, 0x13121110u);  // segment 1's file is too short to give this
}

// Fails the byte read at one offset, as a device that stops answering would.
class FailingByte : public PCI_lin {
public:
    FailingByte(std::string root, unsigned char failing) : PCI_lin(std::move(root)), _failing(failing) {}
    bool readByte(unsigned char bus, unsigned char device, unsigned char function, unsigned char offset,
                  unsigned char& value) const override {
        if (offset == _failing) return false;
        return PCI_lin::readByte(bus, device, function, offset, value);
    }

private:
    unsigned char _failing;
};

TEST_F(PCILinTest, ReadDWordByBytesAssemblesInMemoryOrderOrLeavesTheDestination) {
    sysfs.add_function(0, 0, 5, 0, 256);
    FailingByte pci(sysfs.root(), 0x42);

    unsigned int value = kUntouched;
    EXPECT_TRUE(pci.readDWord(0, 5, 0, 0x20, value, true));
    EXPECT_EQ(value, 0x23222120u);

    value = kUntouched;
    EXPECT_FALSE(pci.readDWord(0, 5, 0, 0x40, value, true));  // third byte fails
    EXPECT_EQ(value, kUntouched);

    // Without byBytes the word is read whole, so the byte fault doesn't apply.
    EXPECT_TRUE(pci.readDWord(0, 5, 0, 0x40, value, false));
    EXPECT_EQ(value, 0x43424140u);
}

}  // namespace
