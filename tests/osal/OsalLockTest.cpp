// Semaphores let through as many as were signalled (a binary one once);
// timed waits and guards take nothing they did not get. Deadlines carry into
// the seconds, a timed mutex lock waits for its holder, and a condition wait
// goes on through a wake-up that its predicate does not confirm.
#include "Osal/OsalThread.h"
#include "Osal/commonCppOsalLinux/cpp/OsalBinaryMutex.h"
#include "Osal/commonCppOsalLinux/cpp/OsalBinarySemaphore.h"
#include "Osal/commonCppOsalLinux/cpp/OsalDeadline.h"
#include "Osal/commonCppOsalLinux/cpp/OsalLockAutomatically.h"
#include "Osal/commonCppOsalLinux/cpp/OsalPosixSync.h"
#include "Osal/commonCppOsalLinux/cpp/OsalRecursiveMutex.h"
#include "Osal/commonCppOsalLinux/cpp/OsalSemaphore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

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

TEST(OsalDeadline, CarriesWholeSecondsOutOfTheNanoseconds)
{
    const struct {
        timespec now;
        int32_t timeoutMs;
        timespec expected;
    } rows[] = {{{5, 999999999}, 1, {6, 999999}},
                {{5, 999000000}, 1, {6, 0}}, // exactly one second of nanoseconds
                {{5, 0}, 1500, {6, 500000000}},
                {{5, 1}, 0, {5, 1}}};
    for (const auto& row : rows) {
        const timespec deadline = osalDeadlineAfter(row.now, row.timeoutMs);
        EXPECT_TRUE(deadline.tv_sec == row.expected.tv_sec &&
                    deadline.tv_nsec == row.expected.tv_nsec)
            << row.now.tv_sec << "." << row.now.tv_nsec << " + " << row.timeoutMs << " ms gave "
            << deadline.tv_sec << "." << deadline.tv_nsec;
    }
}

TEST(OsalMutexes, ATimedLockWaitsUntilTheHolderLetsGo)
{
    for (const bool recursive : {false, true}) {
        std::unique_ptr<OsalLock> mutex;
        mutex.reset(recursive ? static_cast<OsalLock*>(new OsalRecursiveMutex)
                              : new OsalBinaryMutex);
        mutex->lock();
        OsalSemaphore trying(0);
        std::atomic<bool> taken{false};
        std::thread waiter([&] {
            trying.unlock();
            taken = mutex->lock(60000);
            if (taken) {
                mutex->unlock();
            }
        });
        trying.lock();
        // A deadline on the wrong clock gives up at once; a right one outlasts this.
        OsalThread::sleep(50);
        mutex->unlock();
        waiter.join();
        EXPECT_TRUE(taken) << (recursive ? "recursive" : "binary") << " mutex";
    }
}

TEST(OsalWaitFor, GoesOnWaitingThroughAWakeUpThePredicateDenies)
{
    pthread_mutex_t mutex;
    pthread_cond_t condition;
    osalInitMutex(mutex, PTHREAD_MUTEX_DEFAULT);
    osalInitMonotonicCondition(condition);
    bool ready = false;
    int asked = 0; // how often the waiter looked at its predicate, under the mutex
    bool result = false;
    pthread_mutex_lock(&mutex);
    std::thread waiter([&] {
        pthread_mutex_lock(&mutex);
        result = osalWaitFor(mutex, condition, nullptr, [&] {
            ++asked;
            return ready;
        });
        pthread_mutex_unlock(&mutex);
    });
    const auto waitUntilAsked = [&](int times) {
        while (asked < times) {
            pthread_mutex_unlock(&mutex);
            OsalThread::yield();
            pthread_mutex_lock(&mutex);
        }
    };
    waitUntilAsked(1);               // the waiter is inside the wait: it gave up the mutex there
    pthread_cond_signal(&condition); // a wake-up with nothing ready
    waitUntilAsked(2);
    ready = true;
    pthread_cond_signal(&condition);
    pthread_mutex_unlock(&mutex);
    waiter.join();
    EXPECT_TRUE(result) << "the wait ended on the wake-up that found nothing ready";
    pthread_cond_destroy(&condition);
    pthread_mutex_destroy(&mutex);
}

} // namespace
