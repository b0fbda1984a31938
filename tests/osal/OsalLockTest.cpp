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

std::unique_ptr<OsalLock> makeCounting(int32_t initial) { return std::make_unique<OsalSemaphore>(initial); }
std::unique_ptr<OsalLock> makeBinary(int32_t initial) { return std::make_unique<OsalBinarySemaphore>(initial); }

// Whether another thread could take the lock right now (given back at once).
bool freeForOthers(OsalLock& lock)
{
    return std::async(std::launch::async, [&lock] {
               const bool taken = lock.lock(0);
               if (taken) {
                   lock.unlock();
               }
               return taken;
           }).get();
}

TEST(OsalSemaphores, LetThroughAsManyAsSignalled)
{
    struct Row {
        std::unique_ptr<OsalLock> (*make)(int32_t);
        int32_t initial;
        int unlocks;
        int expectedPasses;
    };
    // Binary: signals collapse into one, any non-zero start is one.
    const Row rows[] = {{makeBinary, 0, 3, 1}, {makeBinary, 7, 0, 1},
                        {makeCounting, 0, 3, 3}, {makeCounting, 2, 1, 3}};
    for (const Row& row : rows) {
        auto lock = row.make(row.initial);
        for (int i = 0; i < row.unlocks; ++i) {
            lock->unlock();
        }
        int passes = 0;
        while (passes < 10 && lock->lock(0)) {
            ++passes;
        }
        EXPECT_EQ(row.expectedPasses, passes) << row.initial << " + " << row.unlocks;
    }
}

TEST(OsalSemaphores, TimedOutWaitFailsLateAndTakesNothing)
{
    for (auto make : {makeCounting, makeBinary}) {
        auto lock = make(0);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_FALSE(lock->lock(100));
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(90));
        lock->unlock();
        EXPECT_TRUE(lock->lock(100));
        EXPECT_FALSE(lock->lock(0)) << "one signal, one pass";
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
        {{5, 900000000}, 150, {6, 50000000}}, {{5, 500000000}, 900, {6, 400000000}},
        {{5, 1000000}, 999, {6, 0}},          {{5, 999999999}, 1, {6, 999999}},
        {{5, 0}, 2999, {7, 999000000}},       {{5, 123}, 0, {5, 123}},
    };
    for (const Row& row : rows) {
        const timespec deadline = osalDeadlineAfter(row.now, row.timeoutMs);
        EXPECT_EQ(row.expected.tv_sec, deadline.tv_sec) << row.timeoutMs;
        EXPECT_EQ(row.expected.tv_nsec, deadline.tv_nsec) << row.timeoutMs;
    }
}

TEST(OsalMutexes, RecursiveIsFreeOnlyAfterAsManyUnlocks)
{
    OsalRecursiveMutex recursive;
    EXPECT_TRUE(recursive.lock(-1));
    EXPECT_TRUE(recursive.tryLock());
    recursive.unlock();
    recursive.unlockFromIsr();  // must not release anything
    EXPECT_FALSE(freeForOthers(recursive));
    recursive.unlock();
    EXPECT_TRUE(freeForOthers(recursive));
}

TEST(OsalLockAutomatically, DoesNotReleaseWhatItFailedToTake)
{
    OsalBinarySemaphore unavailable(0);
    {
        OsalLockAutomatically guard(unavailable, 0);
        EXPECT_FALSE(guard.isLocked());
    }
    EXPECT_FALSE(unavailable.lock(0));
}

} // namespace
