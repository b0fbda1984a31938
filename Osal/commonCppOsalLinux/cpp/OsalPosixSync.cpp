#include "Osal/commonCppOsalLinux/cpp/OsalPosixSync.h"

#include "Osal/commonCppOsalLinux/cpp/OsalDeadline.h"

namespace Halvern {
namespace CommonCpp {
namespace Osal {

void osalInitMutex(pthread_mutex_t& mutex, int type)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, type);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

void osalInitMonotonicCondition(pthread_cond_t& condition)
{
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&condition, &attributes);
    pthread_condattr_destroy(&attributes);
}

bool osalLockMutex(pthread_mutex_t& mutex, int32_t timeoutMs)
{
    if (timeoutMs < 0) {
        return pthread_mutex_lock(&mutex) == 0;
    }
    if (timeoutMs == 0) {
        return pthread_mutex_trylock(&mutex) == 0;
    }
    timespec now{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0) {
        return false;
    }
    const timespec deadline = osalDeadlineAfter(now, timeoutMs);
    return pthread_mutex_timedlock(&mutex, &deadline) == 0;
}

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
