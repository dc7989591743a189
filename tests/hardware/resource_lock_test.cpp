#include "hardware/resource_lock.h"
#include "support/thrown.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/sync/named_recursive_mutex.hpp>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>

namespace bip = boost::interprocess;

namespace {

int lock_from_other_thread(ResourceLock& locks, const std::string& name) {
    int result = -1;
    std::thread([&] { result = locks.lock(name); }).join();
    return result;
}

bool named_mutex_exists(const std::string& name) {
    try {
        bip::named_recursive_mutex probe(bip::open_only, name.c_str());
        return true;
    } catch (const bip::interprocess_exception&) {
        return false;
    }
}

}  // namespace

TEST(ResourceLock, HeldNameRefusesEveryThreadUntilReleased) {
    ResourceLock& locks = *ResourceLock::get_instance();
    const std::string name = "test_contention";

    ASSERT_EQ(locks.lock(name), 0);
    EXPECT_NE(lock_from_other_thread(locks, name), 0);
    EXPECT_NE(locks.lock(name), 0) << "in-process lock must not be re-entrant";
    EXPECT_EQ(locks.lock("test_contention_other"), 0) << "names are independent";
    locks.unlock("test_contention_other");
    locks.unlock(name);

    EXPECT_EQ(lock_from_other_thread(locks, name), 0);
    locks.unlock(name);  // held names aren't tied to the thread that took them
}

TEST(ResourceLock, UnlockOfFreeNameThrowsAndReports) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(lw_test::thrown_text([] { ResourceLock::get_instance()->unlock("test_never_locked"); }),
              "Error: Calling unlock on a resource that is not locked.");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error: Calling unlock on a resource that is not locked. Resource: test_never_locked\n");
}

TEST(NamedLockGuard, WaitsForHolderAndReleasesOnEveryPath) {
    ResourceLock& locks = *ResourceLock::get_instance();
    const std::string name = "test_guard";

    ASSERT_EQ(locks.lock(name), 0);
    std::atomic<bool> inside{false};
    std::thread waiter([&] {
        NamedLockGuard guard(name);
        inside = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(inside) << "guard entered while the name was held";
    locks.unlock(name);
    waiter.join();
    EXPECT_TRUE(inside);

    try {
        NamedLockGuard guard(name);
        throw std::runtime_error("work failed");
    } catch (const std::runtime_error&) {
    }
    ASSERT_EQ(locks.lock(name), 0) << "guard left the name held after an exception";
    locks.unlock(name);
}

TEST(ResourceLockIpc, ConsoleLockStaysInProcess) {
    const bool existed_before = named_mutex_exists("ConsoleLock");
    ResourceLock locks;
    locks.use_ipc_lock();

    ASSERT_EQ(locks.lock("ConsoleLock"), 0);
    EXPECT_NE(lock_from_other_thread(locks, "ConsoleLock"), 0);
    // The cross-process backend is recursive; the in-process one isn't.
    EXPECT_NE(locks.lock("ConsoleLock"), 0);
    locks.unlock("ConsoleLock");

    if (!existed_before) {
        EXPECT_FALSE(named_mutex_exists("ConsoleLock"));
    }
}

TEST(ResourceLockIpc, NamedMutexIsRecursivePerThread) {
    const std::string name = "lanewright_test_ipc_" + std::to_string(getpid());
    bip::named_recursive_mutex::remove(name.c_str());
    ResourceLock locks;
    locks.use_ipc_lock();

    EXPECT_EQ(lw_test::thrown_text([&] { locks.unlock(name); }), "Error: Unlock called without locking.");

    ASSERT_EQ(locks.lock(name), 0);
    EXPECT_EQ(locks.lock(name), 0);
    EXPECT_NE(lock_from_other_thread(locks, name), 0);
    EXPECT_EQ(locks.unlock(name), 1);
    EXPECT_NE(lock_from_other_thread(locks, name), 0) << "released after one of two unlocks";
    EXPECT_EQ(locks.unlock(name), 1);
    EXPECT_EQ(lw_test::thrown_text([&] { locks.unlock(name); }), "Error: Unlock failed.");

    std::thread([&] {
        EXPECT_EQ(locks.lock(name), 0);
        locks.unlock(name);
    }).join();

    bip::named_recursive_mutex::remove(name.c_str());
}

TEST(ResourceLockIpc, LockerNeedsName) {
    EXPECT_EQ(lw_test::thrown_text([] { ResourceLocker_boost locker(""); }), "Cannot create locker object without name");
}
