// Semaphores let through as many as were signalled (a binary one once);
// timed waits and guards take nothing they did not get.
#include "Osal/commonCppOsalLinux/cpp/OsalBinarySemaphore.h"
#include "Osal/commonCppOsalLinux/cpp/OsalLockAutomatically.h"
#include "Osal/commonCppOsalLinux/cpp/OsalSemaphore.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

using namespace Halvern::CommonCpp::Osal;

TEST(OsalSemaphores, LetThroughAsManyAsSignalledWhileFailedWaitsAndGuardsTakeNothing)
{
    const struct {
        bool binary;
        int32_t initial;
        int unlocks, passes;
    } rows[] = {{true, 0, 3, 1}, {true, 7, 0, 1}, {false, 0, 3, 3}, {false, 2, 1, 3}};
    for (const auto& row : rows) {
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
        EXPECT_EQ(row.passes, passes) << row.binary << ": " << row.initial << "+" << row.unlocks;
        EXPECT_FALSE(OsalLockAutomatically(*lock, 0).isLocked()); // nor releases on destruction
        EXPECT_FALSE(lock->lock(20));
        lock->unlock();
        EXPECT_TRUE(lock->lock(0) && !lock->lock(0)) << "the timed-out wait took nothing";
    }
}

} // namespace
