#include "Osal/commonCppOsalLinux/cpp/OsalLockAutomatically.h"

namespace Halvern {
namespace CommonCpp {
namespace Osal {

OsalLockAutomatically::OsalLockAutomatically(OsalLock& lock, int32_t timeoutMs)
    : lockObject(&lock), locked(false)
{
    if (timeoutMs < 0) {
        lockObject->lock();
        locked = true;
    } else {
        locked = lockObject->lock(timeoutMs);
    }
}

OsalLockAutomatically::~OsalLockAutomatically()
{
    if (locked) {
        lockObject->unlock();
    }
}

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
