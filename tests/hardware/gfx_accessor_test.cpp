#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <vector>

#include "hardware/crn_accessor_gfx.h"
#include "hardware/resource_lock.h"
#include "hardware/fake_pci.h"
#include "support/thrown.h"

namespace {

constexpr unsigned long kAperture = 0x12340000ul;

// Physical memory as a map of dwords; a mapping is refused when told so, so
// accesses take the one-at-a-time MMIO path.
class FakeMMIO : public MMIO {
public:
    struct Shared {
        bool refuse_mapping = false;
        std::vector<unsigned int> aperture = std::vector<unsigned int>(CRNAccessorKX800::kApertureSize / 4);
        std::map<unsigned long, unsigned int> physical;
        std::vector<std::pair<unsigned long, unsigned int>> writes;  // physical address, value
        // What reading the network index answers, if scripted.
        std::optional<unsigned int> index_read_back;
        std::vector<unsigned long> unmapped;
    };
    explicit FakeMMIO(std::shared_ptr<Shared> shared) : _shared(std::move(shared)) {}

    void setProc(CPU const&) override {}
    void mapMemory(unsigned long, unsigned int, unsigned long& virtual_address, unsigned int& length,
                   CachePolicy) override {
        if (_shared->refuse_mapping) return;
        virtual_address = reinterpret_cast<unsigned long>(_shared->aperture.data());
        length = CRNAccessorKX800::kApertureSize;
    }
    void unmapMemory(unsigned long virtual_address, unsigned int) override {
        _shared->unmapped.push_back(virtual_address);
    }
    bool read(unsigned int high, unsigned int low, unsigned int& value, bool) override {
        const unsigned long address = static_cast<unsigned long>(high) << 32 | low;
        if (address == kAperture + 80 && _shared->index_read_back) {
            value = *_shared->index_read_back;
            return true;
        }
        value = _shared->physical[address];
        return true;
    }
    bool write(unsigned int high, unsigned int low, unsigned int value, bool) override {
        const unsigned long address = static_cast<unsigned long>(high) << 32 | low;
        _shared->physical[address] = value;
        _shared->writes.emplace_back(address, value);
        return true;
    }
    bool read(unsigned int, unsigned int, unsigned char*, unsigned short, bool) override { return false; }
    bool write(unsigned int, unsigned int, unsigned char*, unsigned short, bool) override { return false; }

private:
    std::shared_ptr<Shared> _shared;
};

struct GfxFixture : ::testing::Test {
    std::shared_ptr<FakePCI> pci = std::make_shared<FakePCI>();
    std::shared_ptr<FakeMMIO::Shared> memory = std::make_shared<FakeMMIO::Shared>();
    const PCIDeviceDetails function{0, 3, 0, 0};

    void SetUp() override {
        pci->set(0, 3, 0, 0, 8, 0x03000000);        // display controller
        pci->set(0, 3, 0, 0, 36, kAperture | 0x1);  // register BAR, 32-bit
        pci->set(0, 3, 0, 0, 16, 0xE0000000);
        pci->set(0, 3, 0, 0, 20, 0xF001);
    }
    MMIOMaker maker() {
        return [this] { return std::make_unique<FakeMMIO>(memory); };
    }
    std::shared_ptr<CRNAccessorKX900GPU> kx900(unsigned int selector) {
        return GetKX900GPUCRNAccessor(function, pci, pci, selector, maker())();
    }
};

TEST_F(GfxFixture, BuilderReadsTheBarsAndTurnsMemoryDecodingOn) {
    pci->set(0, 3, 0, 0, 4, 0x0000, 2);
    auto accessor = GetKX800CRNAccessor(function, pci, pci, maker())();
    EXPECT_EQ(accessor->get_mmreg_base(), kAperture);
    EXPECT_EQ(accessor->get_frame_buffer_base(), 0xE0000000ul);
    EXPECT_EQ(accessor->get_io_base(), 0xF000ul);
    EXPECT_TRUE(accessor->is_aperture_mapped());
    EXPECT_EQ(accessor->get_lock_name(), "B3D0F0");
    std::vector<unsigned int> command_writes;
    for (const PciAccess& a : pci->log())
        if (a.write && a.offset == 4) command_writes.push_back(a.value);
    EXPECT_EQ(command_writes, (std::vector<unsigned int>{3, 2}));
}

TEST_F(GfxFixture, BuilderRefusesOtherClassesAndEmptyRegisterBar) {
    pci->set(0, 3, 0, 0, 8, 0x02000000);
    EXPECT_THROW(GetKX800CRNAccessor(function, pci, pci, maker())(), std::runtime_error);
    pci->set(0, 3, 0, 0, 8, 0x12000000);
    pci->set(0, 3, 0, 0, 36, 0);
    EXPECT_EQ(lw_test::thrown_text([&] { GetKX800CRNAccessor(function, pci, pci, maker())(); }),
              "Unexpected bar6 value.");
}

TEST_F(GfxFixture, SixtyFourBitRegisterBarTakesTheUpperHalfFromOffset28) {
    pci->set(0, 3, 0, 0, 36, 0x56780004);
    pci->set(0, 3, 0, 0, 28, 0x9);
    auto accessor = GetKX800CRNAccessor(function, pci, pci, maker())();
    EXPECT_EQ(accessor->get_mmreg_base(), 0x956780000ul);
}

TEST_F(GfxFixture, MappedNetworkReadUsesTheApertureDirectly) {
    auto accessor = kx900(0);
    memory->aperture[84 / 4] = 0xBEEF;
    EXPECT_EQ(accessor->read32(0x5A08C), 0xBEEFu);
    EXPECT_EQ(memory->aperture[80 / 4], 0x5A08Cu);
    EXPECT_EQ(memory->aperture[88 / 4], 0u);
    // Beyond the aperture the offset goes through the aperture's own pair.
    memory->aperture[1] = 0x42;
    unsigned int value = 0;
    std::string error;
    EXPECT_TRUE(accessor->ReadMMReg(0x90000, value, 4, error));
    EXPECT_EQ(memory->aperture[0], 0x90000u);
    EXPECT_EQ(value, 0x42u);
}

TEST_F(GfxFixture, UnmappedAccessGoesThroughPhysicalMemoryWithTheDieSelector) {
    memory->refuse_mapping = true;
    auto accessor = kx900(2);
    EXPECT_FALSE(accessor->is_aperture_mapped());
    accessor->write32(0x100, 0xAB);
    const std::vector<std::pair<unsigned long, unsigned int>> expected = {
        {kAperture + 80, 0x100}, {kAperture + 88, 6}, {kAperture + 84, 0xAB}};
    EXPECT_EQ(memory->writes, expected);
}

TEST_F(GfxFixture, IndexChangedInBetweenIsReportedAndTheValueStillStored) {
    memory->refuse_mapping = true;
    auto accessor = kx900(0);
    memory->physical[kAperture + 84] = 0x1234;
    memory->index_read_back = 0x999;
    unsigned int value = 0;
    std::string error;
    EXPECT_FALSE(accessor->ReadCRNReg(0x200, value, 4, error));
    EXPECT_EQ(error, "CRN Index Register value changed in-between read");
    EXPECT_EQ(value, 0x1234u);
}

TEST_F(GfxFixture, Kx800TestsTheApertureAgainstTheIdentityDword) {
    auto accessor = GetKX800CRNAccessor(function, pci, pci, maker())();
    pci->set(0, 3, 0, 0, 0, 0x73801F7D);
    memory->aperture[84 / 4] = 0x73801F7D;
    EXPECT_TRUE(accessor->TestRegAperture());
    EXPECT_EQ(memory->aperture[80 / 4], CRNAccessorKX800::kIdentityTestAddress);
    memory->aperture[84 / 4] = 0;
    EXPECT_FALSE(accessor->TestRegAperture());
}

TEST_F(GfxFixture, NarrowFormsThrowAndOnlyKx900TakesTheLock) {
    auto kx900_accessor = kx900(0);
    auto kx800_accessor = GetKX800CRNAccessor(function, pci, pci, maker())();
    EXPECT_THROW(kx900_accessor->read16(0), std::runtime_error);
    EXPECT_THROW(kx800_accessor->write8(0, 0), std::runtime_error);
    // With the aperture's lock held elsewhere only the KX800 accessor gets through.
    ASSERT_EQ(ResourceLock::get_instance()->lock("B3D0F0"), 0);
    memory->aperture[84 / 4] = 5;
    EXPECT_EQ(kx800_accessor->read32(0x10), 5u);
    ResourceLock::get_instance()->unlock("B3D0F0");
    EXPECT_EQ(kx900_accessor->read32(0x10), 5u);
}

TEST_F(GfxFixture, DestructorUnmapsTheAperture) {
    { auto accessor = kx900(0); }
    EXPECT_EQ(memory->unmapped, (std::vector<unsigned long>{reinterpret_cast<unsigned long>(memory->aperture.data())}));
}

}  // namespace
