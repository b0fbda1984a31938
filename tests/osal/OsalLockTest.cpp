#include "Osal/commonCppOsalLinux/cpp/OsalBinarySemaphore.h"
#include "Osal/commonCppOsalLinux/cpp/OsalDeadline.h"
#include "Osal/commonCppOsalLinux/cpp/OsalLockAutomatically.h"
#include "Osal/commonCppOsalLinux/cpp/OsalRecursiveMutex.h"
#include "Osal/commonCppOsalLinux/cpp/OsalSemaphore.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>

namespace {

using namespace Halvern::CommonCpp::Osal;

TEST(OsalSemaphores, LetThroughAsManyAsSignalledWhileFailedWaitsAndGuardsTakeNothing)
{
    struct Row {
        bool binary;
        int32_t initial;
        int unlocks;
        int expectedPasses;
    };
    // Binary: signals collapse into one, any non-zero start is one.
    const Row rows[] = {{true, 0, 3, 1}, {true, 7, 0, 1}, {false, 0, 3, 3}, {false, 2, 1, 3}};
    for (const Row& row : rows) {
        std::unique_ptr<OsalLock> lock;
        lock.reset(row.binary ? static_cast<OsalLock*>(new OsalBinarySemaphore(row.initial))
                              : new OsalSemaphore(row.initial));
        for (int i = 0; i < row.unlocks; ++i) {
            lock->unlock();
        }
        int passes = 0;
        while (passes < 10 && lock->lock(0)) {
            ++passes;
        }
        EXPECT_EQ(row.expectedPasses, passes)
            << row.binary << ": " << row.initial << "+" << row.unlocks;
        EXPECT_FALSE(OsalLockAutomatically(*lock, 0).isLocked()); // and must not release it either
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_FALSE(lock->lock(50));
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(45));
        lock->unlock();
        EXPECT_TRUE(lock->lock(0) && !lock->lock(0))
            << "the timed-out wait left one signal, one pass";
    }
}

TEST(OsalDeadline, CarriesWholeSecondsOutOfNanoseconds)
{
    struct Row {
        timespec now;
        int32_t timeoutMs;
        timespec expected;
    };
    const Row rows[] = {
        {{5, 900000000}, 150, {6, 50000000}},
        {{5, 1000000}, 999, {6, 0}},
        {{5, 999999999}, 1, {6, 999999}},
        {{5, 0}, 2999, {7, 999000000}},
    };
    for (const Row& row : rows) {
        const timespec deadline = osalDeadlineAfter(row.now, row.timeoutMs);
        EXPECT_EQ(row.expected.tv_sec, deadline.tv_sec) << row.timeoutMs;
        EXPECT_EQ(row.expected.tv_nsec, deadline.tv_nsec) << row.timeoutMs;
    }
}

TEST(OsalMutexes, RecursiveIsFreeOnlyAfterAsManyUnlocks)
{
    // Whether another thread could take the lock right now (given back at once).
    const auto freeForOthers = [](OsalLock& lock) {
        const auto take = [&lock] { return OsalLockAutomatically(lock, 0).isLocked(); };
        return std::async(std::launch::async, take).get();
    };
    OsalRecursiveMutex recursive;
    EXPECT_TRUE(recursive.lock(-1));
    EXPECT_TRUE(recursive.tryLock());
    recursive.unlock();
    recursive.unlockFromIsr(); // must not release anything
    EXPECT_FALSE(freeForOthers(recursive));
    recursive.unlock();
    EXPECT_TRUE(freeForOthers(recursive));
}

} // namespace
