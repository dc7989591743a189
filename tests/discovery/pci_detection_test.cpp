#include "discovery/pci_detection.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "discovery/fake_config_space.h"
#include "discovery/pci_readers.h"
#include "hardware/chips/pcie_bridge_ids.h"
#include "support/thrown.h"

namespace {

constexpr unsigned kVex = 0x1F7E;
constexpr unsigned kVexGraphics = 0x1F7D;
constexpr unsigned kOther = 0x8086;
constexpr unsigned kMultiFunction = 0x80;

using Addresses = std::vector<std::tuple<unsigned, unsigned, unsigned, unsigned>>;

template <typename Records>
Addresses addresses(const Records& records) {
    Addresses out;
    for (const auto& r : records) out.emplace_back(r.segment, r.bus, r.device, r.function);
    return out;
}

// One machine that holds every case the four scans treat differently.
class ScanTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Single-function platform device (no multi-function bit) that still has a function 1.
        FakeConfigSpace::express(space->add(0, 0, 0, 0, kVex, 0x14A4), 9);
        space->add(0, 0, 0, 1, kVex, 0x14A5);
        // Function 0 absent, function 3 present: nobody finds it.
        space->add(0, 0, 1, 3, kVex, 0x1111);
        // A foreign endpoint at function 0, a gap at 1, a platform bridge at 2.
        FakeConfigSpace::express(space->add(0, 0, 2, 0, kOther, 0x2222), 0);
        space->add(0, 0, 2, 2, kVexGraphics, 0x3333, 1);
        // Multi-function platform bridges.
        space->add(0, 0, 3, 0, kVex, 0x14AB, 1 | kMultiFunction);
        space->add(0, 0, 3, 1, kVex, 0x14AB, 1);
        // A root complex integrated endpoint of another vendor.
        FakeConfigSpace::express(space->add(0, 0, 4, 0, kOther, 0x4444), 9);
        // The last scanned segment is found; the one past it isn't.
        FakeConfigSpace::express(space->add(7, 255, 31, 0, kOther, 0x5555), 0);
        space->add(8, 0, 0, 0, kVex, 0x6666);
    }
    std::shared_ptr<FakeConfigSpace> space = std::make_shared<FakeConfigSpace>();
};

TEST_F(ScanTest, EachScanKeepsItsOwnRulesForAbsentFunctionsAndTheMultiFunctionBit) {
    EXPECT_EQ(addresses(DetectPCIDevices()(space)),
              (Addresses{{0, 0, 0, 0}, {0, 0, 0, 1}, {0, 0, 2, 0}, {0, 0, 2, 2}, {0, 0, 3, 0}, {0, 0, 3, 1},
                         {0, 0, 4, 0}, {7, 255, 31, 0}}));
    EXPECT_EQ(addresses(DetectVEXPCIeDevices(space)()),
              (Addresses{{0, 0, 0, 0}, {0, 0, 2, 2}, {0, 0, 3, 0}, {0, 0, 3, 1}}));
    EXPECT_EQ(addresses(DetectEPPCIeDevices(space.get())()), (Addresses{{0, 0, 2, 0}, {7, 255, 31, 0}}));
    EXPECT_EQ(addresses(DetectRCPCIeDevices(space.get())()), (Addresses{{0, 0, 3, 0}, {0, 0, 3, 1}}));
}

TEST_F(ScanTest, RecordsCarryVendorLowAndDeviceHigh) {
    const auto found = DetectPCIDevices()(space);
    ASSERT_FALSE(found.empty());
    EXPECT_EQ(found.front().vendor_id, kVex);
    EXPECT_EQ(found.front().device_id, 0x14A4u);
    const auto bridges = DetectRCPCIeDevices(space.get())();
    ASSERT_FALSE(bridges.empty());
    EXPECT_EQ(bridges.front().device_id, 0x14ABu);
}

TEST(FilterPCIDevices, ReadsTheHardwareForEachType) {
    auto space = std::make_shared<FakeConfigSpace>();
    const PCIDeviceDetails endpoint8(0, 1, 0, 0), bridge16(0, 0, 1, 0), vex32(0, 2, 0, 0), bare(0, 3, 0, 0),
        unsupported(0, 4, 0, 0);
    FakeConfigSpace::express(space->add(0, 1, 0, 0, kOther, 1, 0), 0, 3, 4, 3, 0b111);
    FakeConfigSpace::express(space->add(0, 0, 1, 0, kOther, 2, 1), 4, 4, 16, 4, 0b1111);
    FakeConfigSpace::express(space->add(0, 2, 0, 0, kVexGraphics, 3, 0), 0, 5, 16, 5, 0b11111);
    space->add(0, 3, 0, 0, kVex, 4, 0);
    // Speed code 3 (8 GT/s) without 8 GT/s in the supported vector.
    FakeConfigSpace::express(space->add(0, 4, 0, 0, kOther, 5, 0), 0, 3, 4, 3, 0b011);

    using F = FilterPCIDevices;
    struct Case {
        F::FilterType type;
        std::vector<bool> expected;  // endpoint8, bridge16, vex32, bare, unsupported
    };
    for (const Case& c : {Case{F::ENDPOINT_DEVICE, {true, false, true, true, true}},
                          Case{F::BRIDGE_DEVICE, {false, true, false, false, false}},
                          Case{F::VEX_DEVICE, {false, false, true, true, false}},
                          Case{F::GEN4_AND_ABOVE, {false, true, true, false, false}},
                          Case{F::LINK_SPEED_KNOWN, {true, true, true, false, false}},
                          Case{F::GEN3_AND_ABOVE, {true, true, true, false, false}}}) {
        const F filter(c.type, space);
        std::vector<bool> got;
        for (const auto& device : {endpoint8, bridge16, vex32, bare, unsupported}) got.push_back(filter(device));
        EXPECT_EQ(got, c.expected) << "type " << c.type;
    }

    // The record's IDs don't matter: the filter asks the hardware.
    PCIDeviceDetails claimed = bare;
    claimed.vendor_id = kOther;
    EXPECT_TRUE(F(F::VEX_DEVICE, space)(claimed));

    EXPECT_EQ(lw_test::thrown_text([&] { F(static_cast<F::FilterType>(6), space)(bare); }),
              "Error in FilterPCIDevices::operator()");
}

TEST(FilterPCIVEXExternalBridge, RejectsOnlyInternalPlatformBridges) {
    auto space = std::make_shared<FakeConfigSpace>();
    const unsigned external = chips::dellmar::kExternalBridgeDeviceIds[1];
    const unsigned internal = 0x14A7;
    std::vector<std::pair<PCIDeviceDetails, bool>> cases;
    auto add = [&](unsigned device, unsigned vendor, unsigned id, unsigned header, bool keep) {
        space->add(0, 0, device, 0, vendor, id, header);
        PCIDeviceDetails record(0, 0, device, 0);
        record.vendor_id = vendor;
        record.device_id = id;
        cases.emplace_back(record, keep);
    };
    add(1, kVex, external, 1, true);
    add(2, kVex, internal, 1, false);
    add(3, kVex, internal, 0, true);     // not a bridge
    add(4, kOther, internal, 1, true);   // not the platform's
    add(5, kVexGraphics, chips::kx900::kExternalBridgeDeviceIds[2], 1, true);
    const FilterPCIVEXExternalBridge keep(space);
    for (const auto& [record, expected] : cases) EXPECT_EQ(keep(record), expected) << record.device;
}

class FindParentTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Root port -> switch upstream -> switch downstream -> endpoint, beside an unrelated bridge.
        bridge(root, 0, 1, 4, 4, 16);
        bridge(upstream, 1, 2, 4, 4, 16);
        bridge(downstream, 2, 3, 3, 3, 8);
        bridge(unrelated, 0, 5, 5, 4, 16);
        bridge(other_segment, 0, 1, 9, 4, 16);
        space->add(endpoint, kOther, 0x1234);
    }
    void bridge(const PCIE::Device_ID& id, unsigned primary, unsigned secondary, unsigned subordinate,
                unsigned speed_code, unsigned width) {
        auto& s = space->add(id, kVex, 0x14AB, 1);
        if (speed_code) FakeConfigSpace::express(s, 4, speed_code, width, speed_code, 0b11111);
        FakeConfigSpace::put(s, 24, primary | (secondary << 8) | (subordinate << 16) | (0x40u << 24));
    }
    static PCIDeviceDetails details(const PCIE::Device_ID& id) {
        return PCIDeviceDetails(id.segment, id.bus, id.device, id.function);
    }

    const PCIE::Device_ID root{0, 0, 1, 0}, upstream{0, 1, 0, 0}, downstream{0, 2, 0, 0}, unrelated{0, 0, 2, 0},
        other_segment{1, 0, 1, 0}, endpoint{0, 3, 0, 0};
    std::shared_ptr<FakeConfigSpace> space = std::make_shared<FakeConfigSpace>();
};

TEST_F(FindParentTest, NearestBridgeFirstAndLevelsBoundTheAnswer) {
    const PCIE::FindParentDevice finder(
        {details(root), details(endpoint), details(unrelated), details(other_segment), details(upstream),
         details(downstream)},
        space);

    const auto three = finder.find_parent(details(endpoint), 3);
    EXPECT_TRUE(three.found);
    EXPECT_EQ(PCIE::Device_ID(three.device), endpoint);
    ASSERT_EQ(three.parents.size(), 3u);
    EXPECT_EQ(three.parents[0].bus, downstream.bus);
    EXPECT_EQ(three.parents[1].bus, upstream.bus);
    EXPECT_EQ(three.parents[2].bus, root.bus);
    EXPECT_EQ(three.parents[2].device, root.device);
    EXPECT_EQ(three.parents[0].speed, "8 GT/s");
    EXPECT_EQ(three.parents[0].width, "x8");
    EXPECT_EQ(std::make_tuple(three.parents[1].primary_bus, three.parents[1].secondary_bus,
                              three.parents[1].subordinate_bus, three.parents[1].latency_timer),
              std::make_tuple(1u, 2u, 4u, 0x40u));

    const auto one = finder.find_parent(details(endpoint), 1);
    EXPECT_TRUE(one.found);
    ASSERT_EQ(one.parents.size(), 1u);
    EXPECT_EQ(one.parents[0].bus, downstream.bus);

    const auto none = finder.find_parent(details(endpoint), 0);
    EXPECT_TRUE(none.found);
    EXPECT_TRUE(none.parents.empty());

    const auto too_many = finder.find_parent(details(endpoint), 4);
    EXPECT_FALSE(too_many.found);
    EXPECT_TRUE(too_many.parents.empty());
    EXPECT_EQ(PCIE::Device_ID(too_many.device), endpoint);
}

TEST_F(FindParentTest, ParentWithoutLinkKeepsEmptySpeedAndWidth) {
    space->add(root, kVex, 0x14AB, 1);  // no PCI Express capability any more
    FakeConfigSpace::put(space->space(0, 0, 1, 0), 24, 0 | (1 << 8) | (4 << 16));
    const auto found = PCIE::FindParentDevice({details(root)}, space).find_parent(details(endpoint), 1);
    ASSERT_TRUE(found.found);
    EXPECT_EQ(found.parents[0].speed, "");
    EXPECT_EQ(found.parents[0].width, "");
    EXPECT_EQ(GetSecondarySubordinateBus()(details(root), space), std::make_pair(1u, 4u));
}

}  // namespace
