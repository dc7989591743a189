#include "discovery/pci_readers.h"

#include <gtest/gtest.h>

#include "discovery/fake_config_space.h"

namespace {

using namespace PCIE;

const Device_ID kDevice(0, 1, 0, 0);
constexpr unsigned kExpress = 0x40;

struct SpeedCase {
    unsigned code;
    unsigned supported;
    std::string text;  // empty: refused
};

class ReadersTest : public ::testing::Test {
protected:
    FakeConfigSpace::Space& function(unsigned vendor = 0x1234) { return space->add(kDevice, vendor, 0xABCD); }
    std::shared_ptr<FakeConfigSpace> space = std::make_shared<FakeConfigSpace>();
    DetectThisPCIECapability capability{kDevice, *space};
};

TEST_F(ReadersTest, LinkSpeedNeedsItsCodeInTheSupportedVector) {
    for (const SpeedCase& c : {SpeedCase{1, 0b00001, "2.5 GT/s"}, SpeedCase{2, 0b00011, "5 GT/s"},
                               SpeedCase{3, 0b00111, "8 GT/s"}, SpeedCase{4, 0b01111, "16 GT/s"},
                               SpeedCase{5, 0b11111, "32 GT/s"}, SpeedCase{3, 0b11011, ""},
                               SpeedCase{0, 0b11111, ""}, SpeedCase{6, 0b1111111, ""}}) {
        // Current speed in link status, maximum in link capabilities: same rule for both.
        FakeConfigSpace::express(function(), 4, c.code, 1, c.code, c.supported);
        for (int which = 0; which < 2; ++which) {
            std::string text, error;
            const bool ok = which == 0 ? GetCurrentLinkSpeed(kDevice, *space, capability).get(text, error)
                                       : GetMaxLinkSpeed(kDevice, *space, capability).get(text, error);
            EXPECT_EQ(ok, !c.text.empty()) << c.code << "/" << c.supported;
            EXPECT_EQ(ok ? text : error, c.text.empty() ? "Unknown link speed." : c.text) << c.code;
        }
    }
}

TEST_F(ReadersTest, CurrentAndMaximumSpeedComeFromDifferentRegisters) {
    FakeConfigSpace::express(function(), 4, 2, 1, 5, 0b11111);
    GetCurrentLinkSpeed::SPEEDS current{};
    GetMaxLinkSpeed::SPEEDS max{};
    std::string error;
    ASSERT_TRUE(GetCurrentLinkSpeed(kDevice, *space, capability).get(current, error));
    ASSERT_TRUE(GetMaxLinkSpeed(kDevice, *space, capability).get(max, error));
    EXPECT_EQ(current, SPEED_5_GT);
    EXPECT_EQ(max, SPEED_32_GT);
}

TEST_F(ReadersTest, WidthAcceptsOnlyPlainLaneCounts) {
    for (unsigned width : {1u, 2u, 4u, 8u, 16u, 32u, 0u, 3u, 12u, 63u}) {
        FakeConfigSpace::express(function(), 4, 1, width, 1, 1);
        std::string text, error;
        const bool ok = GetCurrentLinkWidth(kDevice, *space, capability).get(text, error);
        const bool valid = width != 0 && (width & (width - 1)) == 0;
        EXPECT_EQ(ok, valid) << width;
        EXPECT_EQ(ok ? text : error, valid ? "x" + std::to_string(width) : "Unable to detect width value");
    }
}

TEST_F(ReadersTest, ReaderWithoutTheCapabilityReportsTheSearchText) {
    function();
    std::string text, error;
    EXPECT_FALSE(GetCurrentLinkWidth(kDevice, *space, capability).get(text, error));
    EXPECT_EQ(error, " Capability List not present. PCI_EXPRESS pcie capability.");

    GetPowerState power(kDevice, *space, capability);
    GetPowerState::POWER_STATE state{};
    error.clear();
    EXPECT_FALSE(power.get_power_state(state, error));
    EXPECT_EQ(error,
              " Capability List not present. Unknown Capability pcie capability."
              "Could not detect the PCI Power Management Capability Structure");
    GetPowerState::ASPM_STATE aspm{};
    error.clear();
    EXPECT_FALSE(power.get_aspm_state(aspm, error));
    EXPECT_EQ(error,
              " Capability List not present. PCI_EXPRESS pcie capability."
              "Could not detect the PCI Express Capability Structure");

    space->fail_reads_at(kExpress + 16);
    FakeConfigSpace::express(function(), 4, 1, 1, 1, 1);
    EXPECT_FALSE(GetCurrentLinkSpeed(kDevice, *space, capability).get(text, error));
    EXPECT_EQ(error, "read pci failed.");
}

TEST_F(ReadersTest, PowerAndAspmStatesAreTheLowTwoBits) {
    auto& s = function();
    FakeConfigSpace::express(s, 4, 1, 1, 1, 1);  // power management capability at 0x80
    FakeConfigSpace::put(s, 0x80 + 4, 0xFFFC | 3);
    FakeConfigSpace::put(s, kExpress + 16, FakeConfigSpace::get(s, kExpress + 16) | 0x40 | 2);
    GetPowerState power(kDevice, *space, capability);
    GetPowerState::POWER_STATE state{};
    GetPowerState::ASPM_STATE aspm{};
    std::string error;
    ASSERT_TRUE(power.get_power_state(state, error));
    ASSERT_TRUE(power.get_aspm_state(aspm, error));
    EXPECT_EQ(state, GetPowerState::D3);
    EXPECT_EQ(aspm, GetPowerState::ASPM_L1);
}

TEST_F(ReadersTest, RegisterSetKeepsTheUpperHalfAsRead) {
    auto& s = function();
    FakeConfigSpace::express(s, 4, 1, 1, 1, 1);
    FakeConfigSpace::put(s, kExpress + 8, 0x00A5'0010);  // device status: write-one-to-clear bits set
    PCIeRegAccessor control(kDevice, *space, *space, capability, 8);
    std::string error;
    EXPECT_TRUE(control.set(0xFFFF'2937, error));
    ASSERT_EQ(space->writes.size(), 1u);
    EXPECT_EQ(space->writes[0].offset, kExpress + 8);
    EXPECT_EQ(space->writes[0].value, 0x00A5'2937u);
    unsigned value = 0;
    EXPECT_TRUE(control.get(value, error));
    EXPECT_EQ(value, 0x00A5'2937u);
}

TEST_F(ReadersTest, PortTypeTextsNameThePlatformsOwnPorts) {
    struct Case {
        unsigned hardware_type;
        GetPortType::PORT_TYPE type;
        std::string vex_text, other_text;
    };
    for (const Case& c : {Case{4, GetPortType::ROOT_PORT, "VEX RootPort", "RootPort"},
                          Case{5, GetPortType::UPSTREAM_PORT, "VEX Upstream", "Upstream"},
                          Case{6, GetPortType::DOWNSTREAM_PORT, "VEX Downstream", "Downstream"},
                          Case{0, GetPortType::PCI_EXPRESS_ENDPOINT, "PCI_EXPRESS_ENDPOINT", "PCI_EXPRESS_ENDPOINT"},
                          Case{3, GetPortType::UNKNOWN_PORT_TYPE, " ", " "}}) {
        for (unsigned vendor : {0x1F7Eu, 0x1F7Du, 0x1002u}) {
            FakeConfigSpace::express(function(vendor), c.hardware_type);
            const GetPortType port(kDevice, space);
            EXPECT_EQ(port.detect(), c.type) << c.hardware_type;
            EXPECT_EQ(port.get_as_str(), vendor == 0x1002 ? c.other_text : c.vex_text) << c.hardware_type;
        }
    }
    function(0x1F7E);  // no capability
    EXPECT_EQ(GetPortType(kDevice, space).detect(), GetPortType::UNKNOWN_PORT_TYPE);
    EXPECT_EQ(GetPortType(kDevice, space).get_as_str(), " ");
}

}  // namespace
