// Scoped guard: takes an OsalLock for the length of a block and releases it on
// every way out, unwinding included. Releases only what it actually took.
#pragma once

#include "Osal/OsalLock.h"

namespace Halvern {
namespace CommonCpp {
namespace Osal {

class OsalLockAutomatically {
public:
    OsalLockAutomatically(OsalLock& lock, int32_t timeoutMs);
    virtual ~OsalLockAutomatically();

    bool isLocked() const { return locked; }

    OsalLockAutomatically(const OsalLockAutomatically&) = delete;
    OsalLockAutomatically& operator=(const OsalLockAutomatically&) = delete;

private:
    OsalLock* lockObject;
    bool locked;
};

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
