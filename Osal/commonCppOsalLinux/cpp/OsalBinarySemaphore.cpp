#include "Osal/commonCppOsalLinux/cpp/OsalBinarySemaphore.h"

#include "Osal/OsalAssert.h"
#include "Osal/commonCppOsalLinux/cpp/OsalDeadline.h"
#include "Osal/commonCppOsalLinux/cpp/OsalPosixSync.h"

namespace Halvern {
namespace CommonCpp {
namespace Osal {

OsalBinarySemaphore::OsalBinarySemaphore(int32_t initialState)
    : mutex(), condition(), state(initialState != 0 ? 1 : 0)
{
    osalInitMutex(mutex, PTHREAD_MUTEX_DEFAULT);
    osalInitMonotonicCondition(condition);
}

OsalBinarySemaphore::~OsalBinarySemaphore()
{
    pthread_cond_destroy(&condition);
    pthread_mutex_destroy(&mutex);
}

void OsalBinarySemaphore::lock()
{
    pthread_mutex_lock(&mutex);
    osalWaitFor(mutex, condition, nullptr, [this] { return state != 0; });
    state = 0;
    pthread_mutex_unlock(&mutex);
}

bool OsalBinarySemaphore::lock(int32_t timeoutMs)
{
    if (timeoutMs < 0) {
        lock();
        return true;
    }
    timespec now{};
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        OSAL_FATAL_ASSERT(false, "Osal/commonCppOsalLinux/cpp/OsalBinarySemaphore.cpp");
    }
    const timespec deadline = osalDeadlineAfter(now, timeoutMs);

    pthread_mutex_lock(&mutex);
    const bool taken = osalWaitFor(mutex, condition, &deadline, [this] { return state != 0; });
    if (taken) {
        state = 0;
    }
    pthread_mutex_unlock(&mutex);
    return taken;
}

void OsalBinarySemaphore::unlock()
{
    pthread_mutex_lock(&mutex);
    state = 1;
    pthread_cond_signal(&condition);
    pthread_mutex_unlock(&mutex);
}

void OsalBinarySemaphore::unlockFromIsr()
{
    unlock();
}

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
