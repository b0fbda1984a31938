// Recursive mutex: its owner may take it again and releases it as often.
#pragma once

#include "Osal/OsalLock.h"

#include <pthread.h>

namespace Halvern {
namespace CommonCpp {
namespace Osal {

class OsalRecursiveMutex : public OsalLock {
public:
    OsalRecursiveMutex();
    ~OsalRecursiveMutex() override;

    void lock() override;
    bool lock(int32_t timeoutMs) override;
    void unlock() override;
    void unlockFromIsr() override;
    bool tryLock();

private:
    pthread_mutex_t mutex;
};

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
