#include "sandbox/UeventSender.h"

#include "sandbox/SystemError.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <sched.h>
#include <sys/socket.h>
#include <vector>

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

namespace {

sockaddr_nl ueventGroup()
{
    sockaddr_nl group{};
    group.nl_family = AF_NETLINK;
    group.nl_groups = 1;
    return group;
}

} // namespace

void UeventSender::send(const std::string& datagram) const
{
    const sockaddr_nl group = ueventGroup();
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

void UeventSender::sendAll(const std::string* datagrams, size_t count) const
{
    sockaddr_nl group = ueventGroup();
    std::vector<iovec> pieces(count);
    std::vector<mmsghdr> messages(count);
    for (size_t index = 0; index < count; ++index) {
        pieces[index] = {const_cast<char*>(datagrams[index].data()), datagrams[index].size()};
        msghdr& header = messages[index].msg_hdr;
        header.msg_name = &group;
        header.msg_namelen = sizeof(group);
        header.msg_iov = &pieces[index];
        header.msg_iovlen = 1;
    }
    for (size_t done = 0; done < count;) {
        const int sent = sendmmsg(socketFd.get(), messages.data() + done,
                                  static_cast<unsigned>(count - done), 0);
        if (sent <= 0) {
            throw systemError("UeventSender::sendAll: sendmmsg uevent group 1");
        }
        for (size_t index = done; index < done + static_cast<size_t>(sent); ++index) {
            if (messages[index].msg_len != datagrams[index].size()) {
                throw std::runtime_error("UeventSender::sendAll: datagram " +
                                         std::to_string(index) + " sent in part");
            }
        }
        done += static_cast<size_t>(sent);
    }
}

} // namespace Sandbox
