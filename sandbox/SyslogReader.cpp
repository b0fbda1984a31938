#include "sandbox/SyslogReader.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Sandbox {

namespace {
std::runtime_error systemError(const std::string& what)
{
    return std::runtime_error(what + ": " + std::strerror(errno));
}
} // namespace

SyslogReader::SyslogReader(const std::string& path) : socketPath(path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        throw std::runtime_error("syslog socket path too long: " + path);
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    socketFd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socketFd < 0) {
        throw systemError("socket(AF_UNIX)");
    }
    unlink(path.c_str());
    if (bind(socketFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const auto error = systemError("bind " + path);
        close(socketFd);
        throw error;
    }
    // Bursts of records must not be dropped while a test is busy elsewhere.
    int size = 8 * 1024 * 1024;
    setsockopt(socketFd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size));
}

SyslogReader::~SyslogReader()
{
    if (socketFd >= 0) {
        close(socketFd);
        unlink(socketPath.c_str());
    }
}

bool SyslogReader::next(SyslogRecord& record, int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    char buffer[65536];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd entry{socketFd, POLLIN, 0};
        const int ready = poll(&entry, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return false;
        }
        const ssize_t length = recv(socketFd, buffer, sizeof(buffer), 0);
        if (length < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw systemError("recv syslog");
        }
        std::string datagram(buffer, static_cast<size_t>(length));
        if (SyslogRecord::parse(datagram, record)) {
            records.push_back(record);
            return true;
        }
    }
}

bool SyslogReader::waitFor(const std::function<bool(const SyslogRecord&)>& match, int timeoutMs,
                           SyslogRecord* found)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    SyslogRecord record;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (!next(record, left.count() > 0 ? static_cast<int>(left.count()) : 0)) {
            return false;
        }
        if (match(record)) {
            if (found != nullptr) {
                *found = record;
            }
            return true;
        }
    }
}

bool SyslogReader::waitForText(const std::string& text, int timeoutMs)
{
    return waitFor([&text](const SyslogRecord& r) { return r.text == text; }, timeoutMs);
}

std::vector<std::string> SyslogReader::texts() const
{
    std::vector<std::string> result;
    result.reserve(records.size());
    for (const auto& record : records) {
        result.push_back(record.text);
    }
    return result;
}

void SyslogReader::drain(int quietMs)
{
    SyslogRecord record;
    while (next(record, quietMs)) {
    }
}

} // namespace Sandbox
