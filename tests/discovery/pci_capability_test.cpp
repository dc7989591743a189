#include "discovery/pci_capability.h"

#include <gtest/gtest.h>

#include "discovery/fake_config_space.h"

namespace {

using namespace PCIE;

struct Outcome {
    bool found;
    unsigned offset;
    std::string error;
    bool operator==(const Outcome&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Outcome& o) {
    return out << o.found << " 0x" << std::hex << o.offset << " '" << o.error << "'";
}

Outcome find(FakeConfigSpace& space, PCIE_CAPABILTTIES_IDS id) {
    Outcome o{false, 0, ""};
    o.found = DetectThisPCIECapability(Device_ID(0, 0, 0, 0), space).detect(id, o.offset, o.error);
    return o;
}

Outcome find_extended(FakeConfigSpace& space, PCIE_EXTENDED_CAPABILTTIES_IDS id) {
    Outcome o{false, 0, ""};
    o.found = DetectThisPCIEExtendedCapability(Device_ID(0, 0, 0, 0), space).detect(id, o.offset, o.error);
    return o;
}

// n entries of ID 0x09 at 0x40, 0x48, ...; the last carries the given ID.
std::vector<std::pair<unsigned, unsigned>> chain(unsigned n, unsigned last_id, unsigned start, unsigned stride) {
    std::vector<std::pair<unsigned, unsigned>> list;
    for (unsigned i = 0; i < n; ++i) list.emplace_back(i + 1 == n ? last_id : 0x09, start + stride * i);
    return list;
}

TEST(DetectThisPCIECapability, WalksAtMostTwentyOneEntries) {
    const std::string express = "PCIe Capability PCI_EXPRESS not found. ";
    struct Case {
        unsigned entries;
        unsigned last_id;
        Outcome expected;
    };
    for (const Case& c : {Case{1, 0x10, {true, 0x40, ""}},
                          Case{21, 0x10, {true, 0x40 + 8 * 20, ""}},
                          Case{22, 0x10, {false, 0, express + "Loop count exceeded."}},
                          Case{21, 0x09, {false, 0, express + "Capability list end."}},
                          Case{3, 0x05, {false, 0, express + "Capability list end."}}}) {
        FakeConfigSpace space;
        FakeConfigSpace::capabilities(space.add(0, 0, 0, 0, 1, 2), chain(c.entries, c.last_id, 0x40, 8));
        EXPECT_EQ(find(space, PCI_EXPRESS), c.expected) << c.entries << " entries";
    }
}

TEST(DetectThisPCIECapability, ListAbsentOrUnreadable) {
    FakeConfigSpace space;
    space.add(0, 0, 0, 0, 1, 2);
    EXPECT_EQ(find(space, PCI_EXPRESS), (Outcome{false, 0, " Capability List not present. PCI_EXPRESS pcie capability."}));
    EXPECT_EQ(find(space, MSI), (Outcome{false, 0, " Capability List not present. Unknown Capability pcie capability."}));

    // The pointer's two low bits are cleared; an entry's next pointer is taken as read.
    FakeConfigSpace::capabilities(space.space(0, 0, 0, 0), {{0x01, 0x40}, {0x10, 0x51}});
    FakeConfigSpace::put(space.space(0, 0, 0, 0), 52, 0x43, 1);
    EXPECT_EQ(find(space, PCI_EXPRESS), (Outcome{true, 0x51, ""}));

    space.fail_reads_at(0x51);
    EXPECT_EQ(find(space, PCI_EXPRESS), (Outcome{false, 0, "PCI read failed"}));
    space.fail_reads_at(4);
    EXPECT_EQ(find(space, PCI_EXPRESS), (Outcome{false, 0, "PCI read failed"}));
}

TEST(DetectThisPCIEExtendedCapability, FirstEntryWithoutSuccessorAndLoopBound) {
    const std::string margining = "PCIe Extended Capability Lane Margining not found. ";
    struct Case {
        unsigned entries;
        unsigned last_id;
        Outcome expected;
    };
    for (const Case& c : {Case{1, 0x27, {false, 0, "Extended Capability not found. Lane Margining Extended PCIe capability."}},
                          Case{2, 0x27, {true, 0x104, ""}},
                          Case{102, 0x27, {true, 0x100 + 4 * 101, ""}},
                          Case{103, 0x27, {false, 0, margining + "Loop count exceeded."}},
                          Case{5, 0x0B, {false, 0, margining + "Extended Capability list end."}},
                          Case{4, 0x127, {true, 0x10C, ""}}}) {  // only the low 8 bits of the ID are compared
        FakeConfigSpace space;
        FakeConfigSpace::extended_capabilities(space.add(0, 0, 0, 0, 1, 2), chain(c.entries, c.last_id, 0x100, 4));
        EXPECT_EQ(find_extended(space, LANE_MARGINING_AT_RECEIVER), c.expected) << c.entries << " entries";
    }

    // First entry matching, with a successor.
    FakeConfigSpace space;
    FakeConfigSpace::extended_capabilities(space.add(0, 0, 0, 0, 1, 2), {{0x27, 0x100}, {0x01, 0x200}});
    EXPECT_EQ(find_extended(space, LANE_MARGINING_AT_RECEIVER), (Outcome{true, 0x100, ""}));
    EXPECT_EQ(find_extended(space, VIRTUAL_CHANNEL).error,
              "PCIe Extended Capability Unknown Capability not found. Extended Capability list end.");
    space.fail_reads_at(0x200);
    EXPECT_EQ(find_extended(space, VIRTUAL_CHANNEL), (Outcome{false, 0, "PCI read failed"}));
}

}  // namespace
