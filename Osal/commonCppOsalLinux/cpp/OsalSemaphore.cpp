#include "Osal/commonCppOsalLinux/cpp/OsalSemaphore.h"

#include "Osal/OsalAssert.h"
#include "Osal/commonCppOsalLinux/cpp/OsalDeadline.h"
#include "Osal/commonCppOsalLinux/cpp/OsalPosixSync.h"

namespace Halvern {
namespace CommonCpp {
namespace Osal {

OsalSemaphore::OsalSemaphore(int32_t initialCount) : mutex(), condition(), count(initialCount)
{
    osalInitMutex(mutex, PTHREAD_MUTEX_DEFAULT);
    osalInitMonotonicCondition(condition);
}

OsalSemaphore::~OsalSemaphore()
{
    pthread_cond_destroy(&condition);
    pthread_mutex_destroy(&mutex);
}

void OsalSemaphore::lock()
{
    pthread_mutex_lock(&mutex);
    osalWaitFor(mutex, condition, nullptr, [this] { return count > 0; });
    --count;
    pthread_mutex_unlock(&mutex);
}

bool OsalSemaphore::lock(int32_t timeoutMs)
{
    if (timeoutMs < 0) {
        lock();
        return true;
    }
    timespec now{};
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        OSAL_FATAL_ASSERT(false, "Osal/commonCppOsalLinux/cpp/OsalSemaphore.cpp");
    }
    const timespec deadline = osalDeadlineAfter(now, timeoutMs);

    pthread_mutex_lock(&mutex);
    const bool taken = osalWaitFor(mutex, condition, &deadline, [this] { return count > 0; });
    if (taken) {
        --count;
    }
    pthread_mutex_unlock(&mutex);
    return taken;
}

void OsalSemaphore::unlock()
{
    pthread_mutex_lock(&mutex);
    ++count;
    pthread_cond_signal(&condition);
    pthread_mutex_unlock(&mutex);
}

void OsalSemaphore::unlockFromIsr()
{
    unlock();
}

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
