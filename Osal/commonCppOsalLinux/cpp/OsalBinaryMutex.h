// Plain (non-recursive) mutex. Not for interrupt context: unlockFromIsr() is a
// contract violation.
#pragma once

#include "Osal/OsalLock.h"

#include <pthread.h>

namespace Halvern {
namespace CommonCpp {
namespace Osal {

class OsalBinaryMutex : public OsalLock {
public:
    OsalBinaryMutex();
    ~OsalBinaryMutex() override;

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
