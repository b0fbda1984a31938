// Sends datagrams to the kernel uevent multicast group (1) of one network
// namespace, the way the kernel broadcasts its uevents, so a daemon listening
// there receives them as kernel events. It does not build datagrams (Uevent
// does) and cannot reach other namespaces than the one it was made in.
#pragma once

#include "sandbox/UniqueFd.h"

#include <string>

namespace Sandbox {

class UeventSender {
public:
    // The socket is made inside the network namespace given by descriptor,
    // or in the caller's when it is -1; the calling thread stays where it was.
    explicit UeventSender(int networkNamespaceFd = -1);

    // Throws std::runtime_error unless the whole datagram went out. Sending
    // needs CAP_NET_ADMIN over the namespace; the kernel refuses empty ones.
    void send(const std::string& datagram) const;
    // Sends datagrams [0, count) with as few system calls as the kernel allows,
    // as the kernel emits a burst; throws as send does.
    void sendAll(const std::string* datagrams, size_t count) const;

private:
    UniqueFd socketFd;
};

} // namespace Sandbox
