#include "Osal/commonCppOsalLinux/cpp/OsalRecursiveMutex.h"

#include "Osal/commonCppOsalLinux/cpp/OsalPosixSync.h"

namespace Halvern {
namespace CommonCpp {
namespace Osal {

OsalRecursiveMutex::OsalRecursiveMutex() : mutex()
{
    osalInitMutex(mutex, PTHREAD_MUTEX_RECURSIVE);
}

OsalRecursiveMutex::~OsalRecursiveMutex()
{
    pthread_mutex_destroy(&mutex);
}

void OsalRecursiveMutex::lock()
{
    pthread_mutex_lock(&mutex);
}

bool OsalRecursiveMutex::lock(int32_t timeoutMs)
{
    return osalLockMutex(mutex, timeoutMs);
}

void OsalRecursiveMutex::unlock()
{
    pthread_mutex_unlock(&mutex);
}

// Nothing to do: a recursive mutex is never released from interrupt context.
void OsalRecursiveMutex::unlockFromIsr() {}

bool OsalRecursiveMutex::tryLock()
{
    return pthread_mutex_trylock(&mutex) == 0;
}

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
