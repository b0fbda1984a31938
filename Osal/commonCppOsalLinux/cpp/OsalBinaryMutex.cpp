#include "Osal/commonCppOsalLinux/cpp/OsalBinaryMutex.h"

#include "Osal/OsalAssert.h"
#include "Osal/commonCppOsalLinux/cpp/OsalPosixSync.h"

namespace Halvern {
namespace CommonCpp {
namespace Osal {

OsalBinaryMutex::OsalBinaryMutex() : mutex()
{
    osalInitMutex(mutex, PTHREAD_MUTEX_DEFAULT);
}

OsalBinaryMutex::~OsalBinaryMutex()
{
    pthread_mutex_destroy(&mutex);
}

void OsalBinaryMutex::lock()
{
    pthread_mutex_lock(&mutex);
}

bool OsalBinaryMutex::lock(int32_t timeoutMs)
{
    return osalLockMutex(mutex, timeoutMs);
}

void OsalBinaryMutex::unlock()
{
    pthread_mutex_unlock(&mutex);
}

void OsalBinaryMutex::unlockFromIsr()
{
    OSAL_FATAL_ASSERT(!"Call to illegal method OsalBinaryMutex::unlockFromIsr()",
                      "Osal/commonCppOsalLinux/cpp/OsalBinaryMutex.cpp");
}

bool OsalBinaryMutex::tryLock()
{
    return pthread_mutex_trylock(&mutex) == 0;
}

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
