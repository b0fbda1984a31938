// The POSIX part of a thread object: the thread handle, the lock that guards
// the object's state, and the entry function every POSIX thread of this layer
// starts in. Not usable on its own; OsalThread builds on it.
#pragma once

#include "Osal/commonCppOsalLinux/cpp/OsalRecursiveMutex.h"

#include <pthread.h>

namespace Halvern {
namespace CommonCpp {
namespace Osal {

class OsalBasicThread {
public:
    virtual ~OsalBasicThread() = default;

    OsalBasicThread(const OsalBasicThread&) = delete;
    OsalBasicThread& operator=(const OsalBasicThread&) = delete;

protected:
    OsalBasicThread() = default;

    // Start routine given to pthread_create; the argument is the OsalThread.
    static void* threadFunctionPrivate(void* object);

    pthread_t thread = pthread_t();
    // Recursive so that start() may join() while holding it; mutable so that
    // the read-only accessors can take it.
    mutable OsalRecursiveMutex objectLock;
};

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
