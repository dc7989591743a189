// The product's own discovery over the default machine.
#include <gtest/gtest.h>

#include <algorithm>

#include "discovery/die_detection.h"
#include "discovery/pci_detection.h"
#include "hardware/chips/chip_identity.h"
#include "sim_fixture.h"

namespace {

class Discovery : public SimPlatformTest {
protected:
    void SetUp() override { platform.install(); }
    void TearDown() override {
        set_system_facts(nullptr);
        set_gfx_accessor_maker(nullptr);
    }
};

// The scan reads config space; the model lists its functions from the
// topology: the two must agree, function for function.
TEST_F(Discovery, ScanFindsEveryModelledFunction) {
    const auto found = DetectPCIDevices()(read);
    EXPECT_EQ(found.size(), 26u);
    EXPECT_EQ(found, platform.model().present_functions());
}

// The accelerator's device ID lies outside every graphics range, so this
// release sees two processor dies and no graphics die.
TEST_F(Discovery, DiesAreTheTwoCorvaneSocketsWithTheirRootFunctions) {
    auto devices = DetectPCIDevices()(read);
    const auto dies = DetectVEXDies(write)(devices, read);
    ASSERT_EQ(dies.size(), 2u);
    for (unsigned socket = 0; socket < 2; ++socket) {
        const VEX_DIE_INFO& die = dies[socket];
        EXPECT_TRUE(die.is_cpu);
        EXPECT_EQ(die.name(), "Corvane");
        EXPECT_EQ(die.socket(), socket);
        EXPECT_EQ(die.die(), 0u);
        EXPECT_EQ(die.cpu.device.device, 24 + socket);
        ASSERT_EQ(die.cpu.iohc_devices.size(), 2u);
        EXPECT_EQ(die.cpu.iohc_devices[0].bus, socket == 0 ? 0x00u : 0x80u);
        EXPECT_EQ(die.cpu.iohc_devices[1].bus, socket == 0 ? 0x40u : 0xC0u);
    }
}

// Graphics accessors come from the model once it is installed: nothing maps
// physical memory.
TEST_F(Discovery, InstalledGraphicsMakerReachesTheModel) {
    PCIDeviceDetails accelerator(0, 0x81, 0, 0);
    auto accessor = gfx_accessor_maker()(accelerator, true, 2);
    ASSERT_TRUE(accessor);
    accessor->write32(0x1000, 0x5A5A0001);
    EXPECT_EQ(gfx_accessor_maker()(accelerator, true, 2)->read32(0x1000), 0x5A5A0001u);
    EXPECT_EQ(gfx_accessor_maker()(accelerator, true, 1)->read32(0x1000), 0u);
}

}  // namespace
