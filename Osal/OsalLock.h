// The one lock interface of the OS abstraction layer: semaphores and mutexes
// alike are taken with lock() and released with unlock(). Time-outs are in
// milliseconds: negative waits without limit, 0 tries once, positive sets a
// deadline.
#pragma once

#include <cstdint>

namespace Halvern {
namespace CommonCpp {
namespace Osal {

class OsalLock {
public:
    virtual ~OsalLock() = default;
    virtual void lock() = 0;
    virtual bool lock(int32_t timeoutMs) = 0;
    virtual void unlock() = 0;
    virtual void unlockFromIsr() = 0;

protected:
    OsalLock() = default;

public:
    OsalLock(const OsalLock&) = delete;
    OsalLock& operator=(const OsalLock&) = delete;
    OsalLock(OsalLock&&) = delete;
    OsalLock& operator=(OsalLock&&) = delete;
};

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
