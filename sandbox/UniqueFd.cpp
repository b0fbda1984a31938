#include "sandbox/UniqueFd.h"

#include <unistd.h>

namespace Sandbox {

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept
{
    if (this != &other) {
        reset(other.release());
    }
    return *this;
}

int UniqueFd::release()
{
    const int descriptor = fd;
    fd = -1;
    return descriptor;
}

void UniqueFd::reset(int descriptor)
{
    if (fd >= 0) {
        // close() is not retried: on Linux the descriptor is gone even on EINTR.
        close(fd);
    }
    fd = descriptor;
}

} // namespace Sandbox
