// Implemented by owners of file descriptors that want to be told, by a poller,
// when one of their descriptors is ready.
#pragma once

namespace Common {
namespace Polling {

class IFdHandle {
public:
    virtual ~IFdHandle() = default;
    // revents: the poll() event bits returned for fd.
    virtual void handleEvent(int fd, short revents) = 0;
};

} // namespace Polling
} // namespace Common
