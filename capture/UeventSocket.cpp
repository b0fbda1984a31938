#include "capture/UeventSocket.h"

#include <cerrno>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace Capture {

namespace {

constexpr unsigned kernelGroup = 1;
// udevd asks for as much; the kernel grants it with CAP_NET_ADMIN and caps
// it at net.core.rmem_max without.
constexpr int wantedBufferBytes = 128 * 1024 * 1024;

std::system_error failed(const char* call, int error)
{
    return {error, std::generic_category(), std::string("UeventSocket: ") + call};
}

} // namespace

UeventSocket::UeventSocket()
{
    socketFd =
        socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_KOBJECT_UEVENT);
    if (socketFd < 0) {
        throw failed("socket", errno);
    }
    if (setsockopt(socketFd, SOL_SOCKET, SO_RCVBUFFORCE, &wantedBufferBytes,
                   sizeof(wantedBufferBytes)) != 0 &&
        setsockopt(socketFd, SOL_SOCKET, SO_RCVBUF, &wantedBufferBytes,
                   sizeof(wantedBufferBytes)) != 0) {
        const int error = errno;
        close(socketFd);
        throw failed("setsockopt(SO_RCVBUF)", error);
    }
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_pid = 0; // the kernel assigns one
    address.nl_groups = kernelGroup;
    if (bind(socketFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const int error = errno;
        close(socketFd);
        throw failed("bind", error);
    }
}

UeventSocket::~UeventSocket()
{
    if (socketFd >= 0) {
        close(socketFd);
        socketFd = -1;
    }
}

int UeventSocket::receiveBufferBytes() const
{
    int bytes = 0;
    socklen_t length = sizeof(bytes);
    if (getsockopt(socketFd, SOL_SOCKET, SO_RCVBUF, &bytes, &length) != 0) {
        return -1;
    }
    return bytes;
}

UeventSocket::Result UeventSocket::receive(std::string& datagram)
{
    // The length first, so that no datagram is cut whatever its size.
    const ssize_t length = recv(socketFd, nullptr, 0, MSG_PEEK | MSG_TRUNC);
    if (length < 0) {
        const int error = errno;
        if (error == EAGAIN || error == EWOULDBLOCK || error == EINTR) {
            return Result::Empty;
        }
        if (error == ENOBUFS) {
            return Result::Lost;
        }
        throw failed("recv", error);
    }
    datagram.resize(static_cast<size_t>(length));
    const ssize_t received = recv(socketFd, &datagram[0], datagram.size(), 0);
    if (received < 0) {
        const int error = errno;
        if (error == ENOBUFS) {
            return Result::Lost;
        }
        throw failed("recv", error);
    }
    datagram.resize(static_cast<size_t>(received));
    return Result::Datagram;
}

} // namespace Capture
