#include <gtest/gtest.h>

#include <thread>

#include "sim_fixture.h"
#include "hardware/chips/chip_identity.h"
#include "simulator/model_clock.h"

namespace {

using namespace std::chrono;

TEST(ModelClock, ThreadsKeepTheirOwnTimeAndNewThreadsStartAtTheFrontier) {
    sim::ModelClock clock(system_clock::time_point(seconds(1'700'000'000)), 1e9);
    clock.sleep_for(seconds(5));
    int64_t other_start = -1, other_after = -1;
    std::thread other([&] {
        other_start = clock.now().ns;
        clock.sleep_for(seconds(60));
        other_after = clock.now().ns;
    });
    other.join();
    EXPECT_EQ(other_start, 5'000'000'000);
    EXPECT_EQ(other_after, 65'000'000'000);
    EXPECT_EQ(clock.now().ns, 5'000'000'000);  // the other thread's sleep isn't ours
    EXPECT_EQ(clock.frontier(), 65'000'000'000);
    EXPECT_EQ(clock.to_system(clock.now().ns), system_clock::time_point(seconds(1'700'000'005)));
}

// Threads serving outside clients share one identity whose time is real
// time times the scale, never behind what either saw, and carries the
// frontier along; threads that sleep through the model keep their own.
TEST(ModelClock, WallClockThreadsSeeRealTimeAtTheScale) {
    sim::ModelClock clock(system_clock::time_point(seconds(1'700'000'000)), 1000);
    clock.sleep_for(seconds(5));
    sim::ModelTime first, second, third;
    std::thread outside([&] {
        clock.follow_wall_clock();
        first = clock.now();
        std::this_thread::sleep_for(milliseconds(20));
        second = clock.now();
    });
    outside.join();
    std::thread another([&] {
        clock.follow_wall_clock();
        third = clock.now();
    });
    another.join();
    EXPECT_GE(second.ns - first.ns, 20'000'000'000);
    EXPECT_EQ(second.thread, first.thread);
    EXPECT_EQ(third.thread, first.thread);
    EXPECT_GE(third.ns, second.ns);
    EXPECT_GE(clock.frontier(), third.ns);
    EXPECT_EQ(clock.now().ns, 5'000'000'000);
}

// The thread that starts a wait sees it end after the nominal time on its
// own clock; another thread far behind sees it end after the same nominal
// time from when it first looked, not when its clock catches up.
TEST(ModelDeadline, EachObserverWaitsTheNominalTime) {
    sim::ModelDeadline deadline;
    deadline.start({1, 1000}, 100);
    EXPECT_FALSE(deadline.expired({1, 1099}));
    EXPECT_TRUE(deadline.expired({1, 1100}));
    EXPECT_FALSE(deadline.expired({2, 10}));
    EXPECT_FALSE(deadline.expired({2, 109}));
    EXPECT_TRUE(deadline.expired({2, 110}));
    deadline.clear();
    EXPECT_TRUE(deadline.expired({3, 0}));

    // Started in a waiter scope: while it is open only the owner's clock ends
    // the wait, however far ahead another thread runs; then the rule above.
    auto open = std::make_shared<std::atomic<uint64_t>>(7);
    deadline.start({1, 1000, 7, open}, 100);
    EXPECT_FALSE(deadline.expired({2, 5000}));
    EXPECT_FALSE(deadline.expired({1, 1099, 7, open}));
    EXPECT_TRUE(deadline.expired({1, 1100, 7, open}));
    EXPECT_TRUE(deadline.expired({2, 10})) << "the owner saw it end";
    deadline.start({1, 2000, 7, open}, 100);
    open->store(0);
    EXPECT_TRUE(deadline.expired({2, 5000})) << "scope closed";
}

// Fuse words left out of a profile come from the seed.
TEST(Noise, UnspecifiedFuseWordsFollowTheSeed) {
    sim::Profile profile = sim::parse_profile_text(sim::default_profile_text());
    profile.sockets[0].fuses.clear();
    auto fuse = [&](uint64_t seed) {
        sim::Platform p = sim::make_platform(profile, seed);
        return p.model().die_accessor(0, 0)->read32(chips::kAsicIdFuseRegisters[1]);
    };
    EXPECT_EQ(fuse(9), fuse(9));
    EXPECT_NE(fuse(9), fuse(10));
}

TEST_F(SimPlatformTest, FactsComeFromTheProfile) {
    auto facts = platform.facts();
    EXPECT_EQ(facts->host_name(), "lw-sim-2s");
    EXPECT_EQ(facts->numa_mode(), "2");
    EXPECT_EQ(facts->kernel_version(), "6.1.0-21-generic");
    const ProcessorIdentity id = facts->processor_identity();
    EXPECT_EQ(id.family, 0x1Au);
    EXPECT_EQ(id.model, 2u);
}

}  // namespace
