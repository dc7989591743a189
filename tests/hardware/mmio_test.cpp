// Physical memory is stood in for by ordinary files: the device paths are parameters.
#include "hardware/mmio_lin.h"
#include "hardware/pci_mmio.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <stdexcept>

#include "hardware/test_temp_folder.h"
#include "support/thrown.h"

namespace {

class MMIOTest : public ::testing::Test {
protected:
    std::string fmem() const { return (temp.path() / "fmem").string(); }
    std::string mem() const { return (temp.path() / "mem").string(); }

    // A sparse file of the given size with 32-bit words placed at addresses.
    static void make_memory(const std::string& path, off_t size,
                            std::initializer_list<std::pair<off_t, unsigned int>> words) {
        const int handle = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
        ASSERT_NE(handle, -1);
        ASSERT_EQ(::ftruncate(handle, size), 0);
        for (const auto& [address, word] : words) ASSERT_EQ(::pwrite(handle, &word, sizeof(word), address), 4);
        ::close(handle);
    }
    static unsigned int word_at(const std::string& path, off_t address) {
        unsigned int word = 0;
        const int handle = ::open(path.c_str(), O_RDONLY);
        EXPECT_EQ(::pread(handle, &word, sizeof(word), address), 4);
        ::close(handle);
        return word;
    }
    static unsigned int read_cached(MMIO_lin& mmio, unsigned long physical) {
        unsigned long address = 0;
        unsigned int length = 0;
        mmio.mapMemory(physical, 4, address, length, MMIO::CACHED);
        EXPECT_NE(address, 0u);
        const unsigned int word = *reinterpret_cast<volatile unsigned int*>(address);
        mmio.unmapMemory(address, length);
        return word;
    }

    TestTempFolder temp;
};

TEST_F(MMIOTest, PrefersFmemForBothHandlesAndFallsBackToMem) {
    make_memory(mem(), 8192, {{0x10, 0x1111}});
    {
        MMIO_lin mmio(fmem(), mem());
        unsigned int value = 0;
        EXPECT_TRUE(mmio.read(0, 0x10, value, true));
        EXPECT_EQ(value, 0x1111u);
        EXPECT_EQ(read_cached(mmio, 0x10), 0x1111u);
    }
    make_memory(fmem(), 8192, {{0x10, 0x2222}});
    MMIO_lin mmio(fmem(), mem());
    unsigned int value = 0;
    EXPECT_TRUE(mmio.read(0, 0x10, value, true));
    EXPECT_EQ(value, 0x2222u);
    EXPECT_EQ(read_cached(mmio, 0x10), 0x2222u);
}

TEST_F(MMIOTest, NoPhysicalMemoryThrows) {
    EXPECT_EQ(lw_test::thrown_text([&] { MMIO_lin mmio(fmem(), mem()); }), "Failed to open /dev/mem with O_SYNC flag");
    EXPECT_THROW(ReadPCIMMIO(0, fmem(), mem()), std::runtime_error);
}

TEST_F(MMIOTest, MapsWholePagesAndPointsInsideThem) {
    make_memory(mem(), 3 * 4096, {{0x1004, 0xABCD}});
    MMIO_lin mmio(fmem(), mem());
    unsigned long address = 0;
    unsigned int length = 0;
    mmio.mapMemory(0x1004, 4, address, length, MMIO::UNCACHED);
    ASSERT_NE(address, 0u);
    EXPECT_EQ(length, 4096u);
    EXPECT_EQ(*reinterpret_cast<volatile unsigned int*>(address), 0xABCDu);
    mmio.unmapMemory(address, length);

    mmio.mapMemory(0x1FFC, 8, address, length, MMIO::UNCACHED);  // crosses into the next page
    EXPECT_EQ(length, 8192u);
    mmio.unmapMemory(address, length);

    address = 0x5555;
    length = 7;
    mmio.mapMemory(0x1004, 4, address, length, MMIO::UNSUPPORTED);
    EXPECT_EQ(address, 0x5555u);
    EXPECT_EQ(length, 7u);
}

// A mapping that never succeeds, through the refused policy.
class RefusingMMIO : public MMIO_lin {
public:
    using MMIO_lin::MMIO_lin;
    void mapMemory(unsigned long physical, unsigned int size, unsigned long& address, unsigned int& length,
                   CachePolicy) override {
        MMIO_lin::mapMemory(physical, size, address, length, UNSUPPORTED);
    }
};

TEST_F(MMIOTest, AccessFailsWhenTheMappingFails) {
    make_memory(mem(), 4096, {{0, 0x77}});
    RefusingMMIO mmio(fmem(), mem());
    unsigned int value = 0x1234;
    EXPECT_FALSE(mmio.read(0, 0, value, true));
    EXPECT_EQ(value, 0x1234u);
    EXPECT_FALSE(mmio.write(0, 0, 1, true));
    EXPECT_EQ(word_at(mem(), 0), 0x77u);
}

TEST_F(MMIOTest, ConfigurationAccessWrapsTheLowHalfInsideItsBlock) {
    // 4 GiB + 8 KiB, sparse: a read that carried into the high half would find the second word.
    make_memory(mem(), 0x100002000, {{0x10, 0xAAAA0010}, {0x100000010, 0xBBBB0010}});
    ReadPCIMMIO read(0xFFFFFFF0, fmem(), mem());
    unsigned int value = 0;
    EXPECT_TRUE(read.read32(1, 2, 3, 4, 0x20, value));
    EXPECT_EQ(value, 0xAAAA0010u);

    ReadPCIMMIO high(0x100000000, fmem(), mem());
    EXPECT_TRUE(high.read32(0, 0, 0, 0, 0x10, value));
    EXPECT_EQ(value, 0xBBBB0010u);

    const ReadPCIMMIO copy(read);
    value = 0;
    EXPECT_TRUE(copy.read32(0, 0, 0, 0, 0x20, value));
    EXPECT_EQ(value, 0xAAAA0010u);

    WritePCIMMIO write(0xFFFFFFF0, fmem(), mem());
    EXPECT_TRUE(write.write32(0, 0, 0, 0, 0x24, 0xC0FFEE));
    EXPECT_EQ(word_at(mem(), 0x14), 0xC0FFEEu);
}

}  // namespace
