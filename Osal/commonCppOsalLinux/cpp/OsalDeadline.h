// Deadline arithmetic shared by the timed waits of the locks.
#pragma once

#include <cstdint>
#include <ctime>

namespace Halvern {
namespace CommonCpp {
namespace Osal {

// Adds a non-negative time-out in milliseconds to a time stamp and carries
// whole seconds out of the nanosecond part.
inline timespec osalDeadlineAfter(timespec now, int32_t timeoutMs)
{
    now.tv_sec += static_cast<time_t>(timeoutMs / 1000);
    now.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000L;
    if (now.tv_nsec > 999999999L) {
        now.tv_sec += 1;
        now.tv_nsec -= 1000000000L;
    }
    return now;
}

} // namespace Osal
} // namespace CommonCpp
} // namespace Halvern
