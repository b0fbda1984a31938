// Registration side of a poller: what descriptor owners see of it. Handlers
// are not owned; descriptors are neither opened nor closed by the poller.
#pragma once

#include "common/polling/IFdHandle.h"

namespace Common {
namespace Polling {

class IPoller {
public:
    virtual ~IPoller() = default;
    // Registering a known descriptor again replaces its events and its handler.
    virtual void registerDescriptor(int fd, short events, IFdHandle* handler) = 0;
    virtual void unregisterDescriptor(int fd) = 0;
};

} // namespace Polling
} // namespace Common
