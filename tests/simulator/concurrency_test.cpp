#include <gtest/gtest.h>

#include <thread>

#include "discovery/pci_capability.h"
#include "hardware/crn_accessor_corvane.h"
#include "hardware/chips/chip_identity.h"
#include "sim_fixture.h"
#include "simulator/config_space.h"

namespace {

// Many threads on one model: each drives its own margining lane and its own
// network register; nobody sees another's values or a torn access.
TEST_F(SimPlatformTest, ConcurrentLanesAndNetworkAccessesStayApart) {
    unsigned margining = 0;
    std::string error;
    ASSERT_TRUE(PCIE::DetectThisPCIEExtendedCapability(PCIE::Device_ID(0, 0x40, 1, 0), *read)
                    .detect(PCIE::LANE_MARGINING_AT_RECEIVER, margining, error));
    constexpr unsigned kThreads = 8, kRounds = 300;
    std::vector<unsigned> mismatches(kThreads, 0);
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const unsigned lane_at = margining + sim::cfg::kMarginLaneControl + 4 * t;
            CRNAccessorCorvane pair(0, t % 2 ? 0x40 : 0x00, 0, 0, chips::kCrnIndexOffset, chips::kCrnDataOffset,
                                    chips::kCrnExtensionOffset, write, read);
            for (unsigned round = 0; round < kRounds; ++round) {
                // "no command" with a payload of this thread's own: the receiver echoes it
                const unsigned command = 0x38 | ((t * 16 + round) & 0xFF) << 8;
                w32(0x40, 1, 0, lane_at, command);
                if (r32(0x40, 1, 0, lane_at) != (command | command << 16)) ++mismatches[t];
                pair.write32(0x300000 + 4 * t, round * kThreads + t);
                if (pair.read32(0x300000 + 4 * t) != round * kThreads + t) ++mismatches[t];
            }
        });
    }
    for (auto& thread : threads) thread.join();
    for (unsigned t = 0; t < kThreads; ++t) EXPECT_EQ(mismatches[t], 0u) << "thread " << t;
}

}  // namespace
