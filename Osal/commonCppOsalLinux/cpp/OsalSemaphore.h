// Counting semaphore over a mutex and a CLOCK_MONOTONIC condition variable.
// Waits are cancellation points; a cancelled waiter leaves it usable.
#pragma once

#include "Osal/OsalLock.h"

#include <pthread.h>

namespace Halvern {
namespace CommonCpp {
namespace Osal {

class OsalSemaphore : public OsalLock {
public:
    explicit OsalSemaphore(int32_t initialCount);
    ~OsalSemaphore() override;

    void lock() override;
    bool lock(int32_t timeoutMs) override;
    void unlock() override;
    void unlockFromIsr() override;

private:
    pthread_mutex_t mutex;
    pthread_cond_t condition;
    int32_t count;
};

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
