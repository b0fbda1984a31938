#include "daemon/DatagramDrain.h"

#include "common/exceptions/RavoException.h"

#include <cerrno>
#include <cstdint>
#include <sys/socket.h>

using Common::Exceptions::RavoException;

size_t drainDatagrams(int socketFd, Common::Container::ByteArray& buffer,
                      const std::function<void(char* datagram, size_t length)>& consume)
{
    size_t count = 0;
    for (;;) {
        char scratch = 0;
        const ssize_t peeked = recv(socketFd, &scratch, 1, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
        if (peeked == 0) {
            // An empty datagram: consume it, or poll would report it forever.
            static_cast<void>(recv(socketFd, &scratch, 1, MSG_DONTWAIT));
            continue;
        }
        if (peeked < 0) {
            const int error = errno;
            if (error == EAGAIN) {
                return count;
            }
            throw RavoException("HotplugNetlink", "readKernelEvent", "non-blocking recv", error);
        }
        const auto length = static_cast<uint32_t>(peeked);
        if (buffer.size() <= length) {
            buffer.resize(length + 1);
            if (buffer.data() == nullptr) {
                throw RavoException("HotplugNetlink", "readKernelEvent", "Out of memory");
            }
        }
        const ssize_t received = recv(socketFd, buffer.data(), length, 0);
        if (received < 0) {
            const int error = errno;
            throw RavoException("HotplugNetlink", "readKernelEvent", "recv", error);
        }
        char* text = reinterpret_cast<char*>(buffer.data());
        text[received] = '\0';
        ++count;
        consume(text, static_cast<size_t>(received));
    }
}
