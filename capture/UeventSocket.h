// The kernel's uevents on a netlink socket of the capture's own. The kernel
// picks its port id, so it listens beside the daemon (whose port is its pid),
// and its receive buffer is as large as the process may make it, so that a
// burst the daemon survives is not lost here. Not a decoder: datagrams stay bytes.
#pragma once

#include <string>

namespace Capture {

class UeventSocket {
public:
    enum class Result { Datagram, Lost, Empty };

    // Throws std::system_error naming the call that failed.
    UeventSocket();
    ~UeventSocket();
    UeventSocket(const UeventSocket&) = delete;
    UeventSocket& operator=(const UeventSocket&) = delete;

    int fd() const { return socketFd; }
    int receiveBufferBytes() const;
    // One datagram without waiting; Lost when the kernel reports that the
    // buffer overflowed since the last call (ENOBUFS), Empty when none is queued.
    Result receive(std::string& datagram);

private:
    int socketFd = -1;
};

} // namespace Capture
