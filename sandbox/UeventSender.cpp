#include "sandbox/UeventSender.h"

#include "sandbox/SystemError.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <sched.h>
#include <sys/socket.h>

namespace Sandbox {

UeventSender::UeventSender(int networkNamespaceFd)
{
    // A socket stays in the namespace it was created in, so one brief visit suffices.
    UniqueFd original;
    if (networkNamespaceFd >= 0) {
        original.reset(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
        if (!original.valid()) {
            throw systemError("UeventSender: open /proc/thread-self/ns/net");
        }
        if (setns(networkNamespaceFd, CLONE_NEWNET) != 0) {
            throw systemError("UeventSender: setns into the sandbox's network namespace");
        }
    }
    socketFd.reset(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT));
    const int error = errno;
    if (original.valid() && setns(original.get(), CLONE_NEWNET) != 0) {
        throw systemError("UeventSender: setns back into the original network namespace");
    }
    if (!socketFd.valid()) {
        throw systemError("UeventSender: socket(AF_NETLINK, NETLINK_KOBJECT_UEVENT)", error);
    }
}

void UeventSender::send(const std::string& datagram) const
{
    sockaddr_nl group{};
    group.nl_family = AF_NETLINK;
    group.nl_groups = 1;
    const ssize_t sent = sendto(socketFd.get(), datagram.data(), datagram.size(), 0,
                                reinterpret_cast<const sockaddr*>(&group), sizeof(group));
    if (sent < 0) {
        throw systemError("UeventSender::send: sendto uevent group 1 (" +
                          std::to_string(datagram.size()) + " bytes)");
    }
    if (static_cast<size_t>(sent) != datagram.size()) {
        throw std::runtime_error("UeventSender::send: sent " + std::to_string(sent) + " of " +
                                 std::to_string(datagram.size()) + " bytes");
    }
}

} // namespace Sandbox
