#include <gtest/gtest.h>

#include "hardware/chips/chip_identity.h"
#include "hardware/crn_accessor_corvane.h"
#include "sim_fixture.h"
#include "simulator/config_space.h"
#include "simulator/model_access.h"

namespace {

CRNAccessorCorvane pair_of(const sim::Platform& platform, unsigned bus) {
    return CRNAccessorCorvane(0, bus, 0, 0, chips::kCrnIndexOffset, chips::kCrnDataOffset, chips::kCrnExtensionOffset,
                              platform.write_pci(), platform.read_pci());
}

class RegisterNetwork : public SimPlatformTest {};

TEST_F(RegisterNetwork, RootFunctionsOfOneDieShareItsRegistersAndNoOtherDie) {
    pair_of(platform, 0x00).write32(0x12340, 0xCAFEF00D);
    EXPECT_EQ(pair_of(platform, 0x40).read32(0x12340), 0xCAFEF00Du);
    EXPECT_EQ(pair_of(platform, 0x80).read32(0x12340), 0u);
    pair_of(platform, 0x00).write32(chips::kDieIdentityRegister, 0xFFFFFFFF);  // read-only
    EXPECT_EQ(pair_of(platform, 0x00).read32(chips::kDieIdentityRegister), 0u);
    EXPECT_EQ(pair_of(platform, 0x80).read32(chips::kAsicIdFuseRegisters[0]), 0x9C800000u);
    EXPECT_EQ(pair_of(platform, 0x80).read32(chips::kSecureStatusRegister) >> chips::kSecureStatusBit & 1, 0u);
}

TEST_F(RegisterNetwork, NarrowAccessorAccessesPickTheirBytes) {
    auto die = platform.model().die_accessor(1, 0);
    ASSERT_TRUE(die);
    die->write32(0x400, 0x11223344);
    die->write8(0x401, 0xAA);
    die->write16(0x402, 0xBBCC);
    EXPECT_EQ(die->read32(0x400), 0xBBCCAA44u);
    EXPECT_EQ(die->read16(0x402), 0xBBCCu);
    EXPECT_EQ(die->read8(0x403), 0xBBu);
    EXPECT_EQ(pair_of(platform, 0x80).read32(0x400), 0xBBCCAA44u);
}

// Core registers placed by a locator: here a made-up one, so the mirrors
// are tested apart from any chip's tables.
std::optional<uint32_t> test_locator(const std::string& name, const std::string& core, std::optional<unsigned> port) {
    const uint32_t base = 0x20000000u + static_cast<uint32_t>(std::hash<std::string>{}(core) & 0xFFF) * 0x10000u;
    if (!port) return name == "NB_BUS_NUM_CNTL" ? std::optional<uint32_t>(base + 0x800) : std::nullopt;
    const uint32_t at = base + *port * 0x1000;
    if (name == "SUB_BUS_NUMBER_LATENCY") return at + 0x18;
    if (name == "LINK_CAP") return at + 0x6C;
    if (name.rfind("PCIE_LC_STATE", 0) == 0) return at + 0x300 + 4 * std::stoul(name.substr(13));
    return std::nullopt;
}

TEST(RegisterNetworkMirrors, CoreRegistersShowTheRootPortsState) {
    const sim::Profile profile = sim::parse_profile_text(sim::default_profile_text());
    sim::Platform platform(std::make_shared<sim::PlatformModel>(profile, 1e6, std::nullopt, test_locator));
    auto die = platform.model().die_accessor(0, 0);
    const auto at = [](const char* name, const char* core, unsigned port) { return *test_locator(name, core, port); };
    unsigned value = 0;
    // slot3: 0000:40:01.0, core PCIE0_nbio1 port 0, NIC below at 32 GT/s x16
    platform.read_pci()->read32(0, 0x40, 1, 0, sim::cfg::kBusNumbers, value);
    EXPECT_EQ(die->read32(at("SUB_BUS_NUMBER_LATENCY", "PCIE0_nbio1", 0)), value);
    EXPECT_EQ(die->read32(at("LINK_CAP", "PCIE0_nbio1", 0)) & 0x3FF, 5u | 16u << 4);
    EXPECT_EQ(die->read32(at("PCIE_LC_STATE0", "PCIE0_nbio1", 0)) & 0x3F, 0x10u);   // L0
    EXPECT_EQ(die->read32(at("PCIE_LC_STATE0", "PCIE4_nbio0", 1)) & 0x3F, 0x01u);   // slot2: nothing attached
    EXPECT_EQ(die->read32(*test_locator("NB_BUS_NUM_CNTL", "PCIE0_nbio1", std::nullopt)), 0x40u);

    // Writing the bus numbers from the chip side moves the device.
    die->write32(at("SUB_BUS_NUMBER_LATENCY", "PCIE0_nbio1", 0), 0x00484840);
    platform.read_pci()->read32(0, 0x48, 0, 0, 0, value);
    EXPECT_EQ(value, 0x102115B3u);

    platform.write_pci()->write16(0, 0x40, 1, 0, sim::cfg::kPciExpressAt + sim::cfg::kLinkControl, sim::cfg::kLinkControlDisable);
    const unsigned states = die->read32(at("PCIE_LC_STATE0", "PCIE0_nbio1", 0));
    EXPECT_EQ(states & 0x3F, 0x27u);           // Disabled
    EXPECT_EQ((states >> 8) & 0x3F, 0x10u);    // from L0
}

TEST(RegisterNetworkMirrors, RootPortTheTablesDontKnowIsRefused) {
    const sim::Profile profile = sim::parse_profile_text(sim::default_profile_text());
    auto none = [](const std::string&, const std::string&, std::optional<unsigned>) -> std::optional<uint32_t> {
        return std::nullopt;
    };
    EXPECT_THROW(sim::PlatformModel(profile, 1.0, std::nullopt, none), sim::ProfileError);
}

}  // namespace
