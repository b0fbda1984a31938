// Binary semaphore: unlock() sets a single flag, lock() waits for it and
// clears it, so several unlocks before one lock count as one wake-up.
#pragma once

#include "Osal/OsalLock.h"

#include <pthread.h>

namespace Halvern {
namespace CommonCpp {
namespace Osal {

class OsalBinarySemaphore : public OsalLock {
public:
    explicit OsalBinarySemaphore(int32_t initialState);
    ~OsalBinarySemaphore() override;

    void lock() override;
    bool lock(int32_t timeoutMs) override;
    void unlock() override;
    void unlockFromIsr() override;

private:
    pthread_mutex_t mutex;
    pthread_cond_t condition;
    int32_t state;
};

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
