#include <gtest/gtest.h>

#include "discovery/pci_capability.h"
#include "sim_fixture.h"
#include "simulator/config_space.h"
#include "support/case_name.h"

namespace {

using namespace sim::cfg;

// Addresses in the default machine.
struct At {
    unsigned bus, device, function;
};
constexpr At kSlot1{0x00, 1, 0};     // root port, 32 GT/s, switch below
constexpr At kSwitchUp{0x01, 0, 0};
constexpr At kSwitchPort0{0x02, 0, 0};
constexpr At kNvme{0x03, 0, 0};      // 16 GT/s x4
constexpr At kNic10g{0x04, 0, 0};    // 8 GT/s x8, two functions
constexpr At kSlot3{0x40, 1, 0};     // root port of the 32 GT/s NIC
constexpr At kNic400g{0x41, 0, 0};
constexpr At kSlot4{0x80, 1, 0};     // root port of the accelerator
constexpr At kAccelerator{0x81, 0, 0};

class ConfigSpace : public SimPlatformTest {
protected:
    unsigned cap(At at, PCIE::PCIE_CAPABILTTIES_IDS id) const {
        unsigned offset = 0;
        std::string error;
        return PCIE::DetectThisPCIECapability(PCIE::Device_ID(0, at.bus, at.device, at.function), *read)
                       .detect(id, offset, error) ? offset : 0;
    }
    unsigned ext(At at, PCIE::PCIE_EXTENDED_CAPABILTTIES_IDS id) const {
        unsigned offset = 0;
        std::string error;
        return PCIE::DetectThisPCIEExtendedCapability(PCIE::Device_ID(0, at.bus, at.device, at.function), *read)
                       .detect(id, offset, error) ? offset : 0;
    }
    unsigned link_status(At at) const { return r16(at.bus, at.device, at.function, cap(at, PCIE::PCI_EXPRESS) + kLinkStatus); }
    void link_control(At at, unsigned value) const {
        w16(at.bus, at.device, at.function, cap(at, PCIE::PCI_EXPRESS) + kLinkControl, value);
    }
    bool present(At at) const { return r32(at.bus, at.device, at.function, 0) != 0xFFFFFFFF; }
};

TEST_F(ConfigSpace, AbsentFunctionsReadAllOnesAtEveryWidth) {
    for (At at : {At{0x00, 5, 0}, At{0x05, 0, 0}, At{0x03, 1, 0}, At{0x03, 0, 1}}) {
        EXPECT_EQ(r32(at.bus, at.device, at.function, 0x40), 0xFFFFFFFFu);
        EXPECT_EQ(r16(at.bus, at.device, at.function, 2), 0xFFFFu);
        EXPECT_EQ(r8(at.bus, at.device, at.function, 0xE), 0xFFu);
    }
    w32(0x05, 0, 0, 0x18, 0x00FFFFFF);  // ignored, not a crash
    EXPECT_NE(r32(kNvme.bus, 0, 0, 0), 0xFFFFFFFFu);
}

struct Expected {
    const char* name;
    At at;
    bool secondary, margining;
};
LW_PRINT_BY_NAME(Expected)

class Capabilities : public ConfigSpace, public ::testing::WithParamInterface<Expected> {};

TEST_P(Capabilities, ListsMatchTheSpeed) {
    const Expected& e = GetParam();
    EXPECT_NE(cap(e.at, PCIE::PCI_POWER_MANAGEMENT), 0u) << e.name;
    const unsigned pcie = cap(e.at, PCIE::PCI_EXPRESS);
    ASSERT_NE(pcie, 0u) << e.name;
    EXPECT_NE(ext(e.at, PCIE::ADVANCED_ERROR_REPORTING), 0u) << e.name;
    EXPECT_EQ(ext(e.at, PCIE::SECONDARY_PCI_EXPRESS) != 0, e.secondary) << e.name;
    const unsigned margining = ext(e.at, PCIE::LANE_MARGINING_AT_RECEIVER);
    ASSERT_EQ(margining != 0, e.margining) << e.name;
    if (margining) {
        // Every lane of the link has its control/status pair, at rest on "no command".
        const unsigned width = (r32(e.at.bus, e.at.device, e.at.function, pcie + kLinkCapabilities) >> 4) & 0x3F;
        const unsigned last = margining + kMarginLaneControl + 4 * (width - 1);
        EXPECT_EQ(r32(e.at.bus, e.at.device, e.at.function, last), kMarginNoCommand | kMarginNoCommand << 16) << e.name;
        EXPECT_EQ(r16(e.at.bus, e.at.device, e.at.function, margining + kMarginPortStatus) & 1, 1u) << e.name;
    }
}

INSTANTIATE_TEST_SUITE_P(
    DefaultMachine, Capabilities,
    ::testing::Values(Expected{"nvme at 16 GT/s", kNvme, true, true}, Expected{"nic at 8 GT/s", kNic10g, true, false},
                      Expected{"nic function 1", {0x04, 0, 1}, false, false},
                      Expected{"root port at 32 GT/s", kSlot1, true, true},
                      Expected{"switch port above the nvme", kSwitchPort0, true, true},
                      Expected{"accelerator at 32 GT/s", kAccelerator, true, true}),
    lw_test::by_name);

TEST_F(ConfigSpace, ReadOnlyBitsKeepTheirValueAndWritableBitsTakeTheirs) {
    const unsigned ids = r32(kNvme.bus, 0, 0, 0);
    w32(kNvme.bus, 0, 0, 0, 0);
    EXPECT_EQ(r32(kNvme.bus, 0, 0, 0), ids);
    w16(kNvme.bus, 0, 0, kCommand, 0xFFFF);
    EXPECT_EQ(r16(kNvme.bus, 0, 0, kCommand), 0x0547u);
    const unsigned pcie = cap(kNvme, PCIE::PCI_EXPRESS);
    const unsigned linkcap = r32(kNvme.bus, 0, 0, pcie + kLinkCapabilities);
    w32(kNvme.bus, 0, 0, pcie + kLinkCapabilities, ~linkcap);
    EXPECT_EQ(r32(kNvme.bus, 0, 0, pcie + kLinkCapabilities), linkcap);
    EXPECT_EQ(linkcap & 0x3FF, 4u | 4u << 4);  // 16 GT/s, x4
}

// Link status bits that report an event stay until software writes a one.
TEST_F(ConfigSpace, RetrainReportsTrainingThenBandwidthChangeWhichClearsOnWriteOfOne) {
    link_control(kSlot3, 0x0040 | kLinkControlRetrain);
    EXPECT_NE(link_status(kSlot3) & kLinkStatusTraining, 0u);
    EXPECT_EQ(r16(kSlot3.bus, 1, 0, cap(kSlot3, PCIE::PCI_EXPRESS) + kLinkControl) & kLinkControlRetrain, 0u);
    sleep_ms(5);
    const unsigned status = link_status(kSlot3);
    EXPECT_EQ(status & kLinkStatusTraining, 0u);
    EXPECT_NE(status & kLinkStatusBandwidthChanged, 0u);
    EXPECT_NE(status & kLinkStatusDllActive, 0u);
    const unsigned at = cap(kSlot3, PCIE::PCI_EXPRESS) + kLinkStatus;
    w16(kSlot3.bus, 1, 0, at, 0);
    EXPECT_NE(link_status(kSlot3) & kLinkStatusBandwidthChanged, 0u);
    w16(kSlot3.bus, 1, 0, at, kLinkStatusBandwidthChanged);
    EXPECT_EQ(link_status(kSlot3) & kLinkStatusBandwidthChanged, 0u);
}

// Both ends slow down, and each rate's equalisation shows complete in the
// physical layer capabilities only while the link runs at or above it.
TEST_F(ConfigSpace, RetrainAtALowerTargetSpeedSlowsBothEnds) {
    auto equalised = [&](At at, PCIE::PCIE_EXTENDED_CAPABILTTIES_IDS id) {
        const unsigned offset = ext(at, id);
        EXPECT_NE(offset, 0u);
        return r32(at.bus, at.device, at.function, offset + kPhysicalLayerStatus) & kEqualisationDone;
    };
    struct Step {
        unsigned target, pl16, pl32;
    };
    for (const Step step : {Step{5, 0xF, 0xF}, Step{4, 0xF, 0}, Step{3, 0, 0}}) {
        SCOPED_TRACE(step.target);
        w16(kSlot3.bus, 1, 0, cap(kSlot3, PCIE::PCI_EXPRESS) + kLinkControl2, step.target);
        link_control(kSlot3, kLinkControlRetrain);
        sleep_ms(5);
        EXPECT_EQ(link_status(kSlot3) & 0xF, step.target);
        EXPECT_EQ(link_status(kNic400g) & 0x3FF, step.target | 16u << 4);
        for (const At at : {kSlot3, kNic400g}) {
            EXPECT_EQ(equalised(at, PCIE::PHYSICAL_LAYER_16_GT), step.pl16);
            EXPECT_EQ(equalised(at, PCIE::PHYSICAL_LAYER_32_GT), step.pl32);
        }
    }
}

// Each bridge's bus numbers cover what lies below it, and requests follow
// the numbers the bridges hold now.
TEST_F(ConfigSpace, BridgeBusNumbersNestAndRouteRequests) {
    EXPECT_EQ(r32(kSlot1.bus, 1, 0, kBusNumbers) & 0xFFFFFF, 0x050100u);
    EXPECT_EQ(r32(kSwitchUp.bus, 0, 0, kBusNumbers) & 0xFFFFFF, 0x050201u);
    EXPECT_EQ(r32(kSwitchPort0.bus, 0, 0, kBusNumbers) & 0xFFFFFF, 0x030302u);
    EXPECT_EQ(r32(0x02, 2, 0, kBusNumbers) & 0xFFFFFF, 0x050502u);
    EXPECT_EQ(r32(0x00, 1, 1, kBusNumbers) & 0xFFFFFF, 0x060600u);
    const auto functions = platform.model().present_functions();
    for (const auto& bridge : functions) {
        if ((r8(bridge.bus, bridge.device, bridge.function, kHeaderType) & 0x7F) != 1) continue;
        const unsigned buses = r32(bridge.bus, bridge.device, bridge.function, kBusNumbers);
        EXPECT_EQ(buses & 0xFF, bridge.bus);
        EXPECT_GT((buses >> 8) & 0xFF, buses & 0xFF);
        EXPECT_GE((buses >> 16) & 0xFF, (buses >> 8) & 0xFF);
    }
    // Moving a root port's buses moves the NVMe behind it.
    EXPECT_EQ(r32(0xC1, 0, 0, 0), 0xA80A144Du);
    w16(0xC0, 1, 0, kBusNumbers + 1, 0xC5C5);
    EXPECT_FALSE(present({0xC1, 0, 0}));
    EXPECT_EQ(r32(0xC5, 0, 0, 0), 0xA80A144Du);
}

TEST_F(ConfigSpace, NarrowAndUnalignedAccessSeeTheBytesInPlace) {
    EXPECT_EQ(r16(kNvme.bus, 0, 0, 2), 0xA80Au);
    EXPECT_EQ(r8(kNvme.bus, 0, 0, 3), 0xA8u);
    unsigned value = 0;
    read->read32(0, kNvme.bus, 0, 0, 2, value);  // spans the ID and command dwords
    EXPECT_EQ(value, 0xA80Au | r16(kNvme.bus, 0, 0, kCommand) << 16);
    w16(kSlot1.bus, 1, 0, kBusNumbers + 1, 0x0701);  // secondary and subordinate together
    EXPECT_EQ(r32(kSlot1.bus, 1, 0, kBusNumbers) & 0xFFFFFF, 0x070100u);
    value = 0x12345678;
    read->read32(0, kNvme.bus, 0, 0, 4094, value);  // past the end: left as it was
    EXPECT_EQ(value, 0x12345678u);
}

}  // namespace
